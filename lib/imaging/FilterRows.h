// The line window of a neighbourhood filter (descreen, sharpen): the N most
// recent lines, padded, and the kernel's column sums, sized once per
// acquisition for the widest line the settings produce.
//
// Thread contract: allocated and released on the thread of SxAcquire before
// the processing starts and after it has ended; used by the filter on one
// thread at a time. Rows[0] is the oldest line, Rows[N-1] the newest.
#pragma once
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <new>

#include "settings/ScanSettings.h"

namespace sx {

// Room beyond the widest line, for the kernels' pad pixels and wide loads.
inline constexpr int32_t kFilterRowSlack = 48;

template <int N>
struct FilterRows {
  uint8_t* Rows[N] = {};
  uint16_t* Sums = nullptr;
  int32_t RowBytes = 0;  // 0 while nothing is allocated

  // The rows, and `sumsPerByte` sums per row byte. False, holding nothing,
  // when memory runs out.
  bool Allocate(const ScanSettings& s, size_t sumsPerByte) {
    const int32_t unit = (s.BitsPerPixel == 16 || s.BitsPerPixel == 48) ? 2 : 1;
    const int32_t widest =
        std::max({s.ScanBytesPerLine, s.OutputBytesPerLine, s.ScanPixels, s.OutputPixels, 0});
    const int32_t bytes = unit * widest + kFilterRowSlack;
    for (uint8_t*& row : Rows) {
      row = new (std::nothrow) uint8_t[static_cast<size_t>(bytes)]();
      if (!row) {
        Release();
        return false;
      }
    }
    Sums = new (std::nothrow) uint16_t[sumsPerByte * static_cast<size_t>(bytes)];
    if (!Sums) {
      Release();
      return false;
    }
    RowBytes = bytes;
    return true;
  }

  // The oldest row becomes the newest, to be overwritten by the next line.
  void Rotate() { std::rotate(Rows, Rows + 1, Rows + N); }

  void Release() {
    for (uint8_t*& row : Rows) {
      delete[] row;
      row = nullptr;
    }
    delete[] Sums;
    Sums = nullptr;
    RowBytes = 0;
  }
};

}  // namespace sx
