// Sharpening: a 3 x 3 kernel whose centre weight grows with the level, run on
// every block at the output geometry.
#include <algorithm>
#include <cstring>
#include <new>

#include "imaging/BlockChain.h"
#include "imaging/kernels/Kernels.h"

namespace sx {
namespace {

constexpr int kRows = 3;
constexpr int32_t kRowSlack = 48;
constexpr uint8_t kStrongestLevel = 4;

// Thread contract: as for the descreen rows; set-up and release on the thread
// of SxAcquire outside the processing, filtering on one thread at a time.
// Rows[0] is the oldest of the three most recent lines, Rows[2] the newest.
struct SharpenRows {
  uint8_t* Rows[kRows] = {};
  // The kernel's column sums: one entry per row byte.
  uint16_t* Sums = nullptr;
  int32_t RowBytes = 0;
};
SharpenRows gSharpen;

// A line with one pad pixel each side: pixel 0 on the left, `rightPad` on
// the right.
void BuildPaddedRow(uint8_t* row, const uint8_t* line, int32_t pixels, int32_t sample,
                    int32_t rightPad) {
  const size_t s = static_cast<size_t>(sample);
  std::memcpy(row + s, line, static_cast<size_t>(pixels) * s);
  std::memcpy(row, line, s);
  std::memcpy(row + static_cast<size_t>(pixels + 1) * s, line + static_cast<size_t>(rightPad) * s, s);
}

void RotateRows() {
  uint8_t* oldest = gSharpen.Rows[0];
  gSharpen.Rows[0] = gSharpen.Rows[1];
  gSharpen.Rows[1] = gSharpen.Rows[2];
  gSharpen.Rows[2] = oldest;
}

void ReleaseRows() {
  for (uint8_t*& row : gSharpen.Rows) {
    delete[] row;
    row = nullptr;
  }
  delete[] gSharpen.Sums;
  gSharpen.Sums = nullptr;
  gSharpen.RowBytes = 0;
}

}  // namespace

int32_t PrepareSharpen(ScanSettings& s) {
  ReleaseSharpen();
  if (s.Sharpen == 0) return 1;
  const int32_t unit = (s.BitsPerPixel == 16 || s.BitsPerPixel == 48) ? 2 : 1;
  const int32_t widest =
      std::max({s.ScanBytesPerLine, s.OutputBytesPerLine, s.ScanPixels, s.OutputPixels, 0});
  const int32_t bytes = unit * widest + kRowSlack;
  for (uint8_t*& row : gSharpen.Rows) {
    row = new (std::nothrow) uint8_t[static_cast<size_t>(bytes)]();
    if (!row) {
      ReleaseRows();
      return 0;
    }
  }
  gSharpen.Sums = new (std::nothrow) uint16_t[static_cast<size_t>(bytes)];
  if (!gSharpen.Sums) {
    ReleaseRows();
    return 0;
  }
  gSharpen.RowBytes = bytes;
  return 1;
}

void ReleaseSharpen() { ReleaseRows(); }

int32_t SharpenBlock(uint8_t* out, uint8_t* in, uint8_t level, ScanSettings& s, int32_t lines) {
  if (s.Sharpen == 0 || level == 0 || lines <= 0) return lines;
  const int32_t sample = s.PixelType == 2 ? 3 : 1;
  // Design note: gray lines are OutputPixels bytes wide; the bound by
  // OutputBytesPerLine keeps packed samples from being read past their line.
  const int32_t width =
      sample == 3 ? s.OutputBytesPerLine : std::min(s.OutputPixels, s.OutputBytesPerLine);
  const int32_t pixels = width / sample;
  // Design note: without rows (a failed set-up) the block passes unfiltered.
  if (gSharpen.RowBytes == 0 || pixels <= 0 || (pixels + 2) * sample > gSharpen.RowBytes) {
    return lines;
  }
  // Design note: only levels 1 to 4 are offered; a higher level is taken as
  // 4, which also keeps the divisor positive.
  const int32_t L = std::min(level, kStrongestLevel);
  const KernelSet& kernels = Kernels();
  const size_t padded = static_cast<size_t>(pixels + 2) * static_cast<size_t>(sample);
  if (s.LinesDelivered == 0) {
    BuildPaddedRow(gSharpen.Rows[0], in, pixels, sample, std::max(pixels - 2, 0));
    std::memcpy(gSharpen.Rows[1], gSharpen.Rows[0], padded);
  }
  for (int32_t i = 0; i < lines; ++i) {
    const size_t offset = static_cast<size_t>(i) * static_cast<size_t>(width);
    BuildPaddedRow(gSharpen.Rows[2], in + offset, pixels, sample, pixels - 1);
    // The filtered row is the one before the newest: its line below must be
    // known before it can be sharpened.
    kernels.Sharpen(out + offset, gSharpen.Rows, pixels * sample, sample, L, gSharpen.Sums);
    RotateRows();
  }
  return lines;
}

}  // namespace sx
