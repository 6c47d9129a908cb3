#include "Console.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

namespace sx::host {
namespace {
// Thread contract: used by one thread at a time: the host's thread, or the
// library's read thread while it reports its progress dialog in buffered mode
// (serialised by the dialog observer's lock; SxAcquire returns only after the
// read thread has closed the dialog).
bool g_lineDrawn = false;

// Thread contract: written before the handlers are installed and read by
// them, so the flag itself must be lock-free.
std::atomic<bool>* g_interruptFlag = nullptr;
static_assert(std::atomic<bool>::is_always_lock_free);
void (*g_previousInt)(int) = SIG_DFL;
void (*g_previousTerm)(int) = SIG_DFL;

extern "C" void OnInterrupt(int signal) {
  if (g_interruptFlag) g_interruptFlag->store(true);
  std::signal(signal, SIG_DFL);
}
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
  g_interruptFlag = flag;
  g_previousInt = std::signal(SIGINT, OnInterrupt);
  g_previousTerm = std::signal(SIGTERM, OnInterrupt);
}

void StopWatchingInterrupts() {
  std::signal(SIGINT, g_previousInt == SIG_ERR ? SIG_DFL : g_previousInt);
  std::signal(SIGTERM, g_previousTerm == SIG_ERR ? SIG_DFL : g_previousTerm);
  g_interruptFlag = nullptr;
}

}  // namespace sx::host
