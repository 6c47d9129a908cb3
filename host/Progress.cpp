#include "Progress.h"

#include <algorithm>
#include <cstdio>

namespace sx::host {

std::string RenderProgress(const ProgressState& s, int width) {
  char head[48];
  if (s.pagesExpected > 0)
    std::snprintf(head, sizeof head, "page %d/%d ", s.page, s.pagesExpected);
  else
    std::snprintf(head, sizeof head, "page %d ", s.page);
  uint64_t done = s.bytesExpected ? std::min(s.bytesDone, s.bytesExpected) : s.bytesDone;
  int percent = s.bytesExpected ? static_cast<int>(done * 100 / s.bytesExpected) : 0;
  char tail[64];
  constexpr double kMiB = 1024.0 * 1024.0;
  if (s.bytesExpected)
    std::snprintf(tail, sizeof tail, " %3d%%  %.1f of %.1f MiB", percent, done / kMiB,
                  s.bytesExpected / kMiB);
  else
    std::snprintf(tail, sizeof tail, "  %.1f MiB", done / kMiB);
  std::string line = head;
  int bar = width - static_cast<int>(line.size()) - static_cast<int>(std::string(tail).size()) - 2;
  if (bar >= 4 && s.bytesExpected) {
    int filled = static_cast<int>(static_cast<int64_t>(bar) * percent / 100);
    line += '[' + std::string(filled, '#') + std::string(bar - filled, ' ') + ']';
  }
  line += tail;
  if (width > 0 && static_cast<int>(line.size()) > width) line.resize(width);
  return line;
}

}  // namespace sx::host
