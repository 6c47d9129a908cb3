// Fuzz target: the block chain's kernels on fuzzer-chosen geometry. Every
// kernel set built in that this processor can run must deliver the bytes the
// plain reference delivers; the others are named at the start as skipped.
//
// Input: a header of eight bytes (u8 kernel, u8 flags, u16 pixels, u16
// second width, u8 lines, u8 parameter), then the bytes the rows and lines
// are filled from, repeated as needed. Kernel 0 descreens, 1 sharpens, 2
// blends, 3 scales horizontally (the plan reused from the previous input),
// 4 maps tones (flag 2: one table for every channel), 5 inverts.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "imaging/kernels/Kernels.h"
#include "support/ReferenceKernels.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr int32_t kMostPixels = 5000;

Bytes Fill(const uint8_t* data, size_t size, size_t n, size_t start) {
  Bytes b(n, 0);
  if (size == 0) return b;
  for (size_t i = 0; i < n; ++i) b[i] = data[(start + i) % size];
  return b;
}

void Same(const Bytes& got, const Bytes& want) {
  if (got != want) std::abort();
}

template <typename Run>
void Compare(Run run) {
  const Bytes want = run(sx::test::ReferenceKernels());
  for (int32_t i = 0; i < sx::KernelSetCount(); ++i) Same(run(sx::KernelSetAt(i)), want);
}

sx::HorizontalPlan gPlan = [] {
  sx::HorizontalPlan plan;
  if (!sx::AllocatePlan(plan, kMostPixels)) std::abort();
  return plan;
}();

void Horizontal(const uint8_t* data, size_t size, int32_t pixels, int32_t second, int32_t lines,
                uint8_t flags) {
  sx::HorizontalGeometry g;
  g.Sample = (flags & 1) ? 3 : 1;
  g.ScanPixels = pixels;
  g.OutputPixels = second;
  g.ScanBytesPerLine = pixels * g.Sample + ((flags >> 1) & 7);
  g.OutputBytesPerLine = std::max(1, second * g.Sample - ((flags >> 4) & 3));
  const Bytes in = Fill(data, size, size_t(lines) * size_t(g.ScanBytesPerLine), 0);
  const bool inPlace = (flags & 0x40) && g.OutputBytesPerLine <= g.ScanBytesPerLine;
  Compare([&](const sx::KernelSet& k) {
    if (inPlace) {
      Bytes same = in;
      k.ScaleHorizontal(same.data(), same.data(), lines, g, &gPlan);
      return same;
    }
    Bytes out(size_t(lines) * size_t(g.OutputBytesPerLine));
    k.ScaleHorizontal(out.data(), in.data(), lines, g, &gPlan);
    return out;
  });
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  for (int32_t i = 0; i < sx::BuiltKernelSetCount(); ++i) {
    const sx::BuiltKernelSet built = sx::BuiltKernelSetAt(i);
    std::fprintf(stderr, "kernel set %s: %s\n", built.Set->Name,
                 built.Runs ? "compared" : "skipped, this processor cannot run it");
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 8) return 0;
  const uint8_t kernel = data[0] % 6, flags = data[1];
  const int32_t pixels = 1 + (data[2] | data[3] << 8) % kMostPixels;
  const int32_t second = 1 + (data[4] | data[5] << 8) % kMostPixels;
  const int32_t lines = 1 + data[6] % 4;
  const uint8_t parameter = data[7];
  data += 8, size -= 8;
  const int32_t s = (flags & 1) ? 3 : 1;
  const int32_t bytes = pixels * s;
  std::vector<Bytes> rows;
  for (size_t r = 0; r < 4; ++r) rows.push_back(Fill(data, size, size_t(bytes + 3 * s), r * 977));
  const uint8_t* r4[4] = {rows[0].data(), rows[1].data(), rows[2].data(), rows[3].data()};
  std::vector<uint16_t> scratch(2 * size_t(bytes + 3 * s));
  Bytes out(static_cast<size_t>(bytes));
  switch (kernel) {
    case 0:
      Compare([&](const sx::KernelSet& k) {
        k.Descreen(out.data(), r4, bytes, s, flags & 2, scratch.data());
        return out;
      });
      break;
    case 1:
      Compare([&](const sx::KernelSet& k) {
        k.Sharpen(out.data(), r4, bytes, s, 1 + parameter % 4, scratch.data());
        return out;
      });
      break;
    case 2: {
      // Weights up to four units: past one only on pages longer than announced.
      const int64_t weight = int64_t(second) * 997 * (1 + parameter % 4) % (4 * int64_t{sx::kScaleUnit});
      Compare([&](const sx::KernelSet& k) {
        k.Blend(out.data(), r4[0], r4[1], size_t(bytes), weight);
        return out;
      });
      break;
    }
    case 3: Horizontal(data, size, pixels, second, lines, flags); break;
    case 4: {
      // Flag 2: one table for all three channels.
      Bytes tables = Fill(data, size, 768, parameter);
      if (flags & 2) {
        std::copy_n(tables.begin(), 256, tables.begin() + 256);
        std::copy_n(tables.begin(), 256, tables.begin() + 512);
      }
      Compare([&](const sx::KernelSet& k) {
        k.ToneMap(out.data(), r4[0], size_t(pixels), s, tables.data());
        return out;
      });
      break;
    }
    default:
      Compare([&](const sx::KernelSet& k) {
        Bytes b = rows[0];
        k.Invert(b.data(), b.size());
        return b;
      });
  }
  return 0;
}
