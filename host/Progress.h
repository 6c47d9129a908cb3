// The text of the scan progress bar, from the byte counts of the transfer.
#pragma once
#include <cstdint>
#include <string>

namespace sx::host {

struct ProgressState {
  int page = 0;               // 1-based page being transferred
  int pagesExpected = 0;      // 0: as many as the feeder holds
  uint64_t bytesDone = 0;     // of the current page
  uint64_t bytesExpected = 0; // of the current page; 0: unknown
};

// One line of `width` characters at most, e.g.
// "page 1/3 [##########          ]  50%  1.2 of 2.4 MiB".
std::string RenderProgress(const ProgressState& state, int width);

}  // namespace sx::host
