#include "support/ReferenceKernels.h"

#include <algorithm>
#include <cstring>

namespace sx::test {
namespace {

constexpr int64_t kUnit = kScaleUnit;

// Byte k of a padded row holds byte k - s of the line, so the columns
// j-1 .. j+2 of line byte k sit at k, k+s, k+2s, k+3s.
int32_t RowSum(const uint8_t* row, int32_t k, int32_t s, int32_t inner) {
  return row[k] + inner * (row[k + s] + row[k + 2 * s]) + row[k + 3 * s];
}

void Descreen(uint8_t* out, const uint8_t* const* r, int32_t lineBytes, int32_t s, bool weighted,
              uint16_t*) {
  const int32_t inner = weighted ? 4 : 1;
  const int32_t total = weighted ? 28 : 16;
  for (int32_t k = 0; k < lineBytes; ++k) {
    const int32_t sum = RowSum(r[0], k, s, 1) + RowSum(r[1], k, s, inner) +
                        RowSum(r[2], k, s, inner) + RowSum(r[3], k, s, 1);
    out[k] = static_cast<uint8_t>(std::clamp(sum / total, 0, 255));
  }
}

// The centre weighs 19 - level against the eight neighbours, over 11 - level.
void Sharpen(uint8_t* out, const uint8_t* const* rows, int32_t lineBytes, int32_t s, int32_t level,
             uint16_t*) {
  const uint8_t* a = rows[0];
  const uint8_t* b = rows[1];
  const uint8_t* c = rows[2];
  const int32_t centre = 19 - level;
  const int32_t divisor = 11 - level;
  for (int32_t k = 0; k < lineBytes; ++k) {
    const int32_t m = k + s;
    const int32_t around =
        a[m - s] + a[m] + a[m + s] + b[m - s] + b[m + s] + c[m - s] + c[m] + c[m + s];
    const int32_t v = (centre * b[m] - around) / divisor;
    out[k] = static_cast<uint8_t>(std::clamp(v, 0, 255));
  }
}

void Blend(uint8_t* out, const uint8_t* current, const uint8_t* previous, size_t bytes,
           int64_t v) {
  for (size_t k = 0; k < bytes; ++k)
    out[k] = static_cast<uint8_t>((current[k] * (kUnit - v) + previous[k] * v) / kUnit);
}

void ScaleHorizontal(uint8_t* out, const uint8_t* in, int32_t lines, const HorizontalGeometry& g,
                     HorizontalPlan*) {
  if (g.ScanPixels <= 0 || g.OutputPixels <= 0) return;
  const int64_t step = static_cast<int64_t>(static_cast<double>(g.OutputPixels) * kUnit /
                                            static_cast<double>(g.ScanPixels));
  const int32_t s = g.Sample;
  const int32_t inputSamples = std::min(g.ScanPixels, g.ScanBytesPerLine / s);
  for (int32_t line = 0; line < lines; ++line) {
    const uint8_t* src = in + static_cast<size_t>(line) * static_cast<size_t>(g.ScanBytesPerLine);
    uint8_t* dst = out + static_cast<size_t>(line) * static_cast<size_t>(g.OutputBytesPerLine);
    std::memmove(dst, src, static_cast<size_t>(std::min(s, g.OutputBytesPerLine)));
    int64_t acc = step;
    int32_t p = 1;
    int32_t done = s;
    while (done + s <= g.OutputBytesPerLine && p < inputSamples) {
      if (acc >= kUnit) {
        acc -= kUnit;
        const uint8_t* a = src + (p - 1) * s;
        const uint8_t* b = src + p * s;
        for (int32_t c = 0; c < s; ++c)
          dst[done + c] = static_cast<uint8_t>((a[c] * acc + b[c] * (kUnit - acc)) / kUnit);
        done += s;
      } else {
        acc += step;
        ++p;
      }
    }
  }
}

void Invert(uint8_t* bytes, size_t count) {
  for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<uint8_t>(~bytes[i]);
}

void ToneMap(uint8_t* out, const uint8_t* in, size_t pixels, int32_t channels,
             const uint8_t* tables) {
  const size_t samples = pixels * static_cast<size_t>(channels == 3 ? 3 : 1);
  for (size_t i = 0; i < samples; ++i)
    out[i] = tables[256 * (channels == 3 ? i % 3 : 0) + in[i]];
}

const KernelSet kReference = {"reference", Descreen, Sharpen, Blend, ScaleHorizontal, Invert, ToneMap};

}  // namespace

const KernelSet& ReferenceKernels() { return kReference; }

}  // namespace sx::test
