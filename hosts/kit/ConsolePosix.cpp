#include "kit/Console.h"

#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "kit/Exit.h"
#include "documents/PartialFiles.h"

namespace sx::host {
namespace {
// Thread contract: used by one thread at a time: the host's thread, or the
// library's read thread while it reports its progress dialog in buffered mode
// (serialised by the dialog observer's lock; SxAcquire returns only after the
// read thread has closed the dialog).
bool g_lineDrawn = false;

// Thread contract: written before the handlers are installed and after they
// are removed, and read by them on whichever thread a signal lands (the
// library's own threads included, so a handler may still be running while
// the host's thread clears it): the pointer and the flag are lock-free atomics.
std::atomic<std::atomic<bool>*> g_interruptFlag{nullptr};
static_assert(std::atomic<std::atomic<bool>*>::is_always_lock_free);
static_assert(std::atomic<bool>::is_always_lock_free);
std::atomic<int> g_interrupts{0};
static_assert(std::atomic<int>::is_always_lock_free);

// Ctrl-C, kill's default, and the terminal going away.
constexpr int kInterruptSignals[] = {SIGINT, SIGTERM, SIGHUP};
struct sigaction g_previous[std::size(kInterruptSignals)];

// The second interrupt ends the program at once, with only what is safe in a
// signal handler: the pages complete are kept, the partial files go, and the
// message says which and keeps the status.
[[noreturn]] void EndAtOnce() {
  const char* note = KeepPagesAtOnce();
  if (!note) {
    for (;;) pause();  // another thread ends the program
  }
  static const char kMessage[] = "\nsxscan: scan cancelled";
  ssize_t ignored = write(STDERR_FILENO, kMessage, sizeof kMessage - 1);
  ignored = write(STDERR_FILENO, note, std::strlen(note));
  ignored = write(STDERR_FILENO, "\n", 1);
  (void)ignored;
  _exit(kExitCancelled);
}

extern "C" void OnInterrupt(int) {
  std::atomic<bool>* flag = g_interruptFlag.load();
  if (!flag || g_interrupts.fetch_add(1) > 0) EndAtOnce();
  flag->store(true);
}

// After a scan that an interrupt ended, the documents are finished and the
// program is winding down to status 130: another interrupt only ends it at
// once with that status, instead of letting the signal kill it.
extern "C" void OnLateInterrupt(int) { _exit(kExitCancelled); }
}  // namespace

bool StderrIsTerminal() { return isatty(STDERR_FILENO) == 1; }

int TerminalWidth() {
  winsize size{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col >= 20) return size.ws_col;
  return 80;
}

void DrawProgressLine(const std::string& text) {
  // A log file gets one line per update instead of a line redrawn in place.
  if (!StderrIsTerminal()) {
    std::fprintf(stderr, "%s\n", text.c_str());
    return;
  }
  std::fprintf(stderr, "\r%s\033[K", text.c_str());
  std::fflush(stderr);
  g_lineDrawn = true;
}

void EndProgressLine() {
  if (!g_lineDrawn) return;
  std::fputc('\n', stderr);
  g_lineDrawn = false;
}

void WatchInterrupts(std::atomic<bool>* flag) {
  g_interrupts.store(0);
  g_interruptFlag.store(flag);
  struct sigaction action {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  // One handler at a time: a second signal waits for the first to finish.
  for (int signal : kInterruptSignals) sigaddset(&action.sa_mask, signal);
  action.sa_flags = SA_RESTART;
  for (size_t i = 0; i < std::size(kInterruptSignals); ++i)
    sigaction(kInterruptSignals[i], &action, &g_previous[i]);
}

void StopWatchingInterrupts() {
  struct sigaction late {};
  late.sa_handler = OnLateInterrupt;
  sigemptyset(&late.sa_mask);
  const bool interrupted = g_interrupts.load() > 0;
  for (size_t i = 0; i < std::size(kInterruptSignals); ++i)
    sigaction(kInterruptSignals[i], interrupted ? &late : &g_previous[i], nullptr);
  g_interruptFlag.store(nullptr);
}

// Linux counts ru_maxrss in KiB.
uint64_t PeakMemoryKb() {
  rusage usage{};
  if (getrusage(RUSAGE_SELF, &usage) != 0) return 0;
  return static_cast<uint64_t>(usage.ru_maxrss);
}

}  // namespace sx::host
