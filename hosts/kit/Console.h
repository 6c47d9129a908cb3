// The terminal side of the program: whether stderr is a terminal, the one
// progress line redrawn in place there, and the user's interrupt. One
// implementation per system (ConsolePosix.cpp, ConsoleWin32.cpp).
#pragma once
#include <atomic>
#include <cstdint>
#include <string>

namespace sx::host {

bool StderrIsTerminal();
// Width of the terminal behind stderr, or 80.
int TerminalWidth();
// Redraws the progress line in place on a terminal; elsewhere writes it as a
// line of its own.
void DrawProgressLine(const std::string& text);
// Ends a drawn progress line so that later messages start on a fresh line.
void EndProgressLine();

// Until StopWatchingInterrupts, an interrupt (Ctrl-C, SIGTERM and SIGHUP on
// POSIX; Ctrl-Break and closing the console on Windows) sets *flag instead of
// ending the program. A second interrupt ends it at once, should the library
// not call back again or a file take long to write: the pages complete are
// kept and the partial files removed (PartialFiles.h), "scan cancelled" is
// said with what was kept, and the status is 130.
void WatchInterrupts(std::atomic<bool>* flag);
// Where an interrupt came, a later one still ends the program with 130 (and
// nothing more to do); otherwise interrupts end it as before the watch.
void StopWatchingInterrupts();

// The most memory the process has held in physical pages so far, in KiB
// (POSIX: the resident set's peak; Windows: the peak working set).
uint64_t PeakMemoryKb();

}  // namespace sx::host
