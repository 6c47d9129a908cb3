// The console on Windows: the progress line redrawn in place when stderr is
// a console, and Ctrl-C, Ctrl-Break and closing the console as interrupts
// through a console control handler.
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
#include <psapi.h>

#include <cstdio>
#include <cstring>

#include "kit/Exit.h"
#include "kit/Console.h"
#include "documents/PartialFiles.h"

namespace sx::host {
namespace {

constexpr int kDefaultWidth = 80;
constexpr int kMinimumWidth = 20;

// Thread contract: as on POSIX, one thread at a time draws (the host's, or
// the read thread under the dialog observer's lock).
bool g_lineDrawn = false;
size_t g_lastLength = 0;

// Thread contract: the system runs the control handler on a thread of its
// own, so the flag's address and the press count are atomics. The count lets
// a second interrupt through.
std::atomic<std::atomic<bool>*> g_interruptFlag{nullptr};
std::atomic<int> g_interrupts{0};

HANDLE StderrHandle() { return GetStdHandle(STD_ERROR_HANDLE); }

// The second interrupt ends the program at once: the pages complete are
// kept, the partial files go, the message says which and the status stays.
// The process is ended without running the modules' detach code, as a first
// interrupt may have left a scan mid-way.
void EndAtOnce() {
  const char* note = KeepPagesAtOnce();
  if (!note) {
    for (;;) Sleep(INFINITE);  // another thread ends the program
  }
  DWORD written = 0;
  static const char kMessage[] = "\nsxscan: scan cancelled";
  WriteFile(StderrHandle(), kMessage, sizeof kMessage - 1, &written, nullptr);
  WriteFile(StderrHandle(), note, static_cast<DWORD>(std::strlen(note)), &written, nullptr);
  WriteFile(StderrHandle(), "\n", 1, &written, nullptr);
  TerminateProcess(GetCurrentProcess(), kExitCancelled);
}

BOOL WINAPI OnControl(DWORD event) {
  switch (event) {
    case CTRL_C_EVENT:
    case CTRL_BREAK_EVENT:
    case CTRL_CLOSE_EVENT:
      if (std::atomic<bool>* flag = g_interruptFlag.load(); flag && g_interrupts.fetch_add(1) == 0) {
        flag->store(true);
        return TRUE;
      }
      EndAtOnce();
      return TRUE;
    default:
      return FALSE;
  }
}

}  // namespace

bool StderrIsTerminal() {
  DWORD mode = 0;
  return GetConsoleMode(StderrHandle(), &mode) != 0;
}

int TerminalWidth() {
  CONSOLE_SCREEN_BUFFER_INFO info{};
  if (!GetConsoleScreenBufferInfo(StderrHandle(), &info)) return kDefaultWidth;
  const int width = info.srWindow.Right - info.srWindow.Left + 1;
  return width >= kMinimumWidth ? width : kDefaultWidth;
}

void DrawProgressLine(const std::string& text) {
  if (!StderrIsTerminal()) {
    std::fprintf(stderr, "%s\n", text.c_str());
    return;
  }
  // The console of older systems knows no erase sequence: blanks cover what
  // a longer line left.
  const size_t pad = g_lastLength > text.size() ? g_lastLength - text.size() : 0;
  std::fprintf(stderr, "\r%s%*s", text.c_str(), static_cast<int>(pad), "");
  std::fflush(stderr);
  g_lastLength = text.size();
  g_lineDrawn = true;
}

void EndProgressLine() {
  if (!g_lineDrawn) return;
  std::fputc('\n', stderr);
  g_lineDrawn = false;
  g_lastLength = 0;
}

void WatchInterrupts(std::atomic<bool>* flag) {
  g_interrupts.store(0);
  g_interruptFlag.store(flag);
  SetConsoleCtrlHandler(OnControl, TRUE);
}

namespace {
// After a scan that an interrupt ended, the documents are finished and the
// program is winding down to status 130: another interrupt only ends it at
// once with that status, instead of the system's default ending.
BOOL WINAPI OnLateControl(DWORD event) {
  if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT && event != CTRL_CLOSE_EVENT) return FALSE;
  TerminateProcess(GetCurrentProcess(), kExitCancelled);
  return TRUE;
}
}  // namespace

void StopWatchingInterrupts() {
  if (g_interrupts.load() > 0) SetConsoleCtrlHandler(OnLateControl, TRUE);
  SetConsoleCtrlHandler(OnControl, FALSE);
  g_interruptFlag.store(nullptr);
}

uint64_t PeakMemoryKb() {
  PROCESS_MEMORY_COUNTERS counters{};
  counters.cb = sizeof counters;
  if (!GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters)) return 0;
  constexpr uint64_t kBytesPerKb = 1024;
  return static_cast<uint64_t>(counters.PeakWorkingSetSize) / kBytesPerKb;
}

}  // namespace sx::host
