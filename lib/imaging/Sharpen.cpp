// Sharpening: a 3 x 3 kernel whose centre weight grows with the level, run on
// every block at the output geometry.
#include <algorithm>
#include <cstring>

#include "imaging/BlockChain.h"
#include "imaging/FilterRows.h"
#include "imaging/kernels/Kernels.h"

namespace sx {
namespace {

constexpr uint8_t kStrongestLevel = 4;

// The three most recent lines; the kernel keeps one column sum per row byte.
constexpr size_t kSumsPerByte = 1;
FilterRows<3> gSharpen;

// A line with one pad pixel each side: pixel 0 on the left, `rightPad` on
// the right.
void BuildPaddedRow(uint8_t* row, const uint8_t* line, int32_t pixels, int32_t sample,
                    int32_t rightPad) {
  const size_t s = static_cast<size_t>(sample);
  std::memcpy(row + s, line, static_cast<size_t>(pixels) * s);
  std::memcpy(row, line, s);
  std::memcpy(row + static_cast<size_t>(pixels + 1) * s, line + static_cast<size_t>(rightPad) * s, s);
}

}  // namespace

int32_t PrepareSharpen(ScanSettings& s) {
  ReleaseSharpen();
  if (s.Sharpen == 0) return 1;
  return gSharpen.Allocate(s, kSumsPerByte) ? 1 : 0;
}

void ReleaseSharpen() { gSharpen.Release(); }

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
    gSharpen.Rotate();
  }
  return lines;
}

}  // namespace sx
