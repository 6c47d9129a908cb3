// Descreen filter and the per-block chain that feeds it to the resolution
// scaling: removes the halftone screen of printed matter by averaging over a
// 4 x 4 neighbourhood at the raised scan resolution.
#include <algorithm>
#include <cstring>

#include "imaging/BlockChain.h"
#include "imaging/FilterRows.h"
#include "imaging/kernels/Kernels.h"

namespace sx {
namespace {

// The four most recent lines; the kernel keeps two column sums per row byte.
constexpr size_t kSumsPerByte = 2;
FilterRows<4> gDescreen;

bool FilterMode(uint8_t mode) { return mode == 1 || mode == 2 || mode == 3 || mode == 9; }

// A line with one pad pixel left (pixel 0) and two right (pixels n-2, n-1),
// so that the kernel's columns j-1 .. j+2 exist for every pixel.
void BuildPaddedRow(uint8_t* row, const uint8_t* line, int32_t pixels, int32_t sample) {
  const size_t s = static_cast<size_t>(sample);
  std::memcpy(row + s, line, static_cast<size_t>(pixels) * s);
  std::memcpy(row, line, s);
  const int32_t beforeLast = std::max(pixels - 2, 0);
  std::memcpy(row + static_cast<size_t>(pixels + 1) * s, line + static_cast<size_t>(beforeLast) * s, s);
  std::memcpy(row + static_cast<size_t>(pixels + 2) * s, line + static_cast<size_t>(pixels - 1) * s, s);
}

}  // namespace

int32_t PrepareDescreen(ScanSettings& s) {
  ReleaseDescreen();
  if (s.Descreen == 0) return 1;
  // The coarse screens need the detail the blur takes away given back.
  if (s.Sharpen == 0 && (s.Descreen == 3 || s.Descreen == 9)) s.Sharpen = 4;
  return gDescreen.Allocate(s, kSumsPerByte) ? 1 : 0;
}

void ReleaseDescreen() { gDescreen.Release(); }

int32_t DescreenFilter(uint8_t* out, const uint8_t* in, ScanSettings& s, int32_t lineBytes,
                       int32_t lines) {
  const int32_t sample = s.PixelType == 2 ? 3 : 1;
  const int32_t pixels = lineBytes / sample;
  // Design note: without rows (a failed set-up) or for a line the rows cannot
  // hold, the block passes unfiltered rather than overrunning anything.
  if (gDescreen.RowBytes == 0 || pixels <= 0 || (pixels + 3) * sample > gDescreen.RowBytes) {
    if (out != in && lines > 0) {
      std::memmove(out, in, static_cast<size_t>(lineBytes) * static_cast<size_t>(lines));
    }
    return FilterMode(s.Descreen) ? std::max(lines, 0) : 0;
  }
  const size_t padded = static_cast<size_t>(pixels + 3) * static_cast<size_t>(sample);
  if (s.LinesDelivered == 0 && lines > 0) {
    // The top of a page is extended by repeating its first line.
    BuildPaddedRow(gDescreen.Rows[0], in, pixels, sample);
    std::memcpy(gDescreen.Rows[1], gDescreen.Rows[0], padded);
    std::memcpy(gDescreen.Rows[2], gDescreen.Rows[0], padded);
  }
  if (!FilterMode(s.Descreen)) return 0;
  const KernelSet& kernels = Kernels();
  const bool weighted = s.Descreen == 2;
  for (int32_t i = 0; i < lines; ++i) {
    const size_t offset = static_cast<size_t>(i) * static_cast<size_t>(lineBytes);
    BuildPaddedRow(gDescreen.Rows[3], in + offset, pixels, sample);
    kernels.Descreen(out + offset, gDescreen.Rows, pixels * sample, sample, weighted, gDescreen.Sums);
    gDescreen.Rotate();
  }
  return lines;
}

int32_t DescreenBlock(uint8_t* out, uint8_t* in, ScanSettings& s, int32_t lines) {
  if (s.Descreen == 0 || lines <= 0) return s.Descreen == 0 ? lines : 0;
  if (s.Descreen == 9) {
    DescreenFilter(out, out, s, s.OutputBytesPerLine, lines);
    return lines;
  }
  // Design note: a page with equal scan and output lines (the resolution was
  // not raised) has no line table; its lines stay as they are and only the
  // horizontal pass, then a plain copy, runs.
  if (s.Descreen == 8) {
    if (VerticalScalingActive()) return ScaleLinesVertical(s, out, in, lines);
    if (out != in) {
      std::memmove(out, in, static_cast<size_t>(s.ScanBytesPerLine) * static_cast<size_t>(lines));
    }
    return lines;
  }
  int32_t kept = DescreenFilter(in, in, s, s.ScanBytesPerLine, lines);
  if (VerticalScalingActive()) kept = ScaleLinesVertical(s, in, in, kept);
  ScalePixelsHorizontal(out, in, s, kept);
  return kept;
}

}  // namespace sx
