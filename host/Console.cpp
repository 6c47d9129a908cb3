#include "Console.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>

namespace sx::host {
namespace {
// Thread contract: used by one thread at a time: the host's thread, or the
// library's read thread while it reports its progress dialog in buffered mode
// (serialised by the dialog observer's lock; SxAcquire returns only after the
// read thread has closed the dialog).
bool g_lineDrawn = false;
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

}  // namespace sx::host
