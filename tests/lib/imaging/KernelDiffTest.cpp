// Every kernel set built into the library against the plain reference
// kernels: random lines of every width and filter setting, then whole pages
// run through the block chain in random block splits. Every byte must match.
// A set this processor cannot run is reported as skipped, by name.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <initializer_list>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "imaging/BlockChain.h"
#include "imaging/kernels/Kernels.h"
#include "imaging/kernels/Processor.h"
#include "support/ReferenceKernels.h"

namespace {

using Bytes = std::vector<uint8_t>;
using sx::KernelSet;
using sx::test::ReferenceKernels;

// Mostly random bytes, with runs of the extremes where sums and clamps peak.
Bytes RandomBytes(std::mt19937& rng, size_t n) {
  Bytes b(n);
  const int style = static_cast<int>(rng() % 4);
  for (auto& v : b) {
    if (style == 0) v = static_cast<uint8_t>(rng());
    else if (style == 1) v = (rng() & 1) ? 255 : 0;
    else if (style == 2) v = static_cast<uint8_t>(250 + rng() % 6);
    else v = static_cast<uint8_t>(rng() % 8);
  }
  return b;
}

std::vector<int32_t> Widths(std::mt19937& rng) {
  std::vector<int32_t> w{1, 2, 3, 4, 5, 7, 8, 15, 16, 17, 31, 32, 33, 63, 64, 65, 127, 129, 5000};
  for (int i = 0; i < 60; ++i) w.push_back(1 + static_cast<int32_t>(rng() % 5000));
  return w;
}

// One instance per set built in, named after it.
class EachSet : public testing::TestWithParam<int32_t> {
 protected:
  void SetUp() override {
    const sx::BuiltKernelSet built = sx::BuiltKernelSetAt(GetParam());
    if (!built.Runs) GTEST_SKIP() << "this processor cannot run the " << built.Set->Name << " kernels";
    set_ = built.Set;
  }
  const KernelSet& Set() const { return *set_; }

 private:
  const KernelSet* set_ = nullptr;
};

INSTANTIATE_TEST_SUITE_P(Kernels, EachSet, testing::Range(0, sx::BuiltKernelSetCount()),
                         [](const testing::TestParamInfo<int32_t>& info) {
                           std::string name = sx::BuiltKernelSetAt(info.param).Set->Name;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

TEST_P(EachSet, DescreenAndSharpenLinesMatchTheReference) {
  std::mt19937 rng(7);
  for (int32_t pixels : Widths(rng)) {
    for (int32_t s : {1, 3}) {
      const int32_t bytes = pixels * s;
      std::vector<Bytes> rows;
      for (int r = 0; r < 4; ++r) rows.push_back(RandomBytes(rng, size_t(bytes + 3 * s)));
      const uint8_t* r4[4] = {rows[0].data(), rows[1].data(), rows[2].data(), rows[3].data()};
      std::vector<uint16_t> scratch(2 * size_t(bytes + 3 * s));
      for (bool weighted : {false, true}) {
        Bytes want(static_cast<size_t>(bytes)), got(static_cast<size_t>(bytes));
        ReferenceKernels().Descreen(want.data(), r4, bytes, s, weighted, scratch.data());
        Set().Descreen(got.data(), r4, bytes, s, weighted, scratch.data());
        ASSERT_EQ(got, want) << "descreen " << pixels << "x" << s << " weighted " << weighted;
      }
      for (int32_t level = 1; level <= 4; ++level) {
        Bytes want(static_cast<size_t>(bytes)), got(static_cast<size_t>(bytes));
        ReferenceKernels().Sharpen(want.data(), r4, bytes, s, level, scratch.data());
        Set().Sharpen(got.data(), r4, bytes, s, level, scratch.data());
        ASSERT_EQ(got, want) << "sharpen " << pixels << "x" << s << " level " << level;
      }
    }
  }
}

// The fixed-point weights the kernels use in place of dividing by the unit:
// exact for every weight and every sample difference.
TEST(Kernels, ExactMultipliersRoundDownLikeTheDivision) {
  for (uint32_t w = 0; w <= uint32_t{sx::kScaleUnit}; ++w) {
    const uint64_t m = sx::ExactMultiplier(w);
    ASSERT_LE(m, w < uint32_t{sx::kScaleUnit} ? 65535u : 65536u) << w;
    uint64_t quotient = 0, remainder = 0;  // of t * w / unit, kept by adding w
    for (uint64_t t = 1; t <= 255; ++t) {
      remainder += w;
      while (remainder >= uint64_t{sx::kScaleUnit}) remainder -= sx::kScaleUnit, ++quotient;
      if ((t * m) >> sx::kMultiplierShift != quotient) FAIL() << "weight " << w << ", difference " << t;
    }
  }
}

TEST_P(EachSet, BlendInvertAndToneMatchTheReference) {
  std::mt19937 rng(11);
  for (int32_t n : Widths(rng)) {
    const Bytes current = RandomBytes(rng, static_cast<size_t>(n)), previous = RandomBytes(rng, static_cast<size_t>(n));
    // Weights past the unit come from pages longer than their line table.
    for (int64_t weight : {int64_t{0}, int64_t{1}, int64_t{sx::kScaleUnit} - 1, int64_t{sx::kScaleUnit},
                           int64_t{sx::kScaleUnit} + 1, int64_t{3} * sx::kScaleUnit + 12345,
                           int64_t(rng() % sx::kScaleUnit)}) {
      Bytes want(static_cast<size_t>(n)), got(static_cast<size_t>(n));
      ReferenceKernels().Blend(want.data(), current.data(), previous.data(), static_cast<size_t>(n), weight);
      Set().Blend(got.data(), current.data(), previous.data(), static_cast<size_t>(n), weight);
      ASSERT_EQ(got, want) << n << " bytes, weight " << weight;
    }
    Bytes want = current;
    ReferenceKernels().Invert(want.data(), want.size());
    // Colour through three different tables, then through one table thrice.
    Bytes tables = RandomBytes(rng, 768);
    for (int32_t channels : {3, 3, 1}) {
      const size_t pixels = static_cast<size_t>(n) / size_t(channels);
      Bytes toned(static_cast<size_t>(n), 0), tonedFast(static_cast<size_t>(n), 0);
      ReferenceKernels().ToneMap(toned.data(), current.data(), pixels, channels, tables.data());
      Set().ToneMap(tonedFast.data(), current.data(), pixels, channels, tables.data());
      ASSERT_EQ(tonedFast, toned) << n << " bytes, " << channels << " channels";
      std::copy_n(tables.begin(), 256, tables.begin() + 256);
      std::copy_n(tables.begin(), 256, tables.begin() + 512);
    }
    Bytes got = current;
    Set().Invert(got.data(), got.size());
    ASSERT_EQ(got, want);
  }
}

// Downscaling, equal widths, upscaling, and line strides that disagree with
// the pixel counts (padded input, short output), apart and in place.
sx::HorizontalGeometry RandomGeometry(std::mt19937& rng, int32_t scanPixels) {
  sx::HorizontalGeometry g;
  g.Sample = (rng() & 1) ? 3 : 1;
  g.ScanPixels = scanPixels;
  switch (rng() % 6) {
    case 0: g.OutputPixels = scanPixels; break;
    case 1: g.OutputPixels = scanPixels + 1 + static_cast<int32_t>(rng() % 50); break;
    default: g.OutputPixels = 1 + static_cast<int32_t>(rng() % static_cast<uint32_t>(scanPixels));
  }
  g.ScanBytesPerLine = scanPixels * g.Sample + ((rng() % 5 == 0) ? static_cast<int32_t>(rng() % 7) : 0);
  if (rng() % 7 == 0) g.ScanBytesPerLine = std::max(1, g.ScanBytesPerLine - static_cast<int32_t>(rng() % 9));
  g.OutputBytesPerLine = g.OutputPixels * g.Sample;
  if (rng() % 7 == 0) g.OutputBytesPerLine = std::max(1, g.OutputBytesPerLine - static_cast<int32_t>(rng() % 5));
  return g;
}

TEST_P(EachSet, HorizontalScalingMatchesTheReference) {
  std::mt19937 rng(13);
  // One plan carried across geometries, as the block chain carries it, and
  // one too small to hold any.
  sx::HorizontalPlan shared, small;
  ASSERT_TRUE(sx::AllocatePlan(shared, 6000));
  ASSERT_TRUE(sx::AllocatePlan(small, 1));
  for (int32_t scanPixels : Widths(rng)) {
    const sx::HorizontalGeometry g = RandomGeometry(rng, scanPixels);
    const int32_t lines = 1 + static_cast<int32_t>(rng() % 3);
    const size_t inBytes = size_t(lines) * size_t(g.ScanBytesPerLine);
    const size_t outBytes = size_t(lines) * size_t(g.OutputBytesPerLine);
    const Bytes in = RandomBytes(rng, inBytes);
    Bytes want(outBytes);
    ReferenceKernels().ScaleHorizontal(want.data(), in.data(), lines, g, nullptr);
    const bool inPlaceSafe = g.OutputBytesPerLine <= g.ScanBytesPerLine;
    Bytes wantInPlace = in;
    if (inPlaceSafe)
      ReferenceKernels().ScaleHorizontal(wantInPlace.data(), wantInPlace.data(), lines, g, nullptr);
    for (sx::HorizontalPlan* plan : {&shared, &small, static_cast<sx::HorizontalPlan*>(nullptr)}) {
      Bytes got(outBytes);
      Set().ScaleHorizontal(got.data(), in.data(), lines, g, plan);
      ASSERT_EQ(got, want) << g.ScanPixels << "->" << g.OutputPixels << " x" << g.Sample;
      if (!inPlaceSafe) continue;
      Bytes same = in;
      Set().ScaleHorizontal(same.data(), same.data(), lines, g, plan);
      ASSERT_EQ(same, wantInPlace) << "in place " << g.ScanPixels << "->" << g.OutputPixels;
    }
  }
  sx::FreePlan(shared);
  sx::FreePlan(small);
}

// A page run through the block chain as an acquisition runs it: descreen
// with resolution scaling, then sharpening, block after block.
struct Page {
  sx::ScanSettings Settings{};
  Bytes Raw;
  std::vector<int32_t> Blocks;
};

Page RandomPage(std::mt19937& rng) {
  Page p;
  sx::ScanSettings& s = p.Settings;
  const int32_t sample = (rng() & 1) ? 3 : 1;
  s.PixelType = sample == 3 ? 2 : 1;
  s.BitsPerPixel = static_cast<uint8_t>(8 * sample);
  s.ScanPixels = 1 + static_cast<int32_t>(rng() % 700);
  s.OutputPixels = (rng() & 1) ? s.ScanPixels : 1 + static_cast<int32_t>(rng() % uint32_t(s.ScanPixels));
  s.ScanBytesPerLine = s.ScanPixels * sample, s.OutputBytesPerLine = s.OutputPixels * sample;
  s.ScanLines = (rng() % 5 == 0) ? 1 : 1 + static_cast<int32_t>(rng() % 60);
  s.OutputLines = (rng() & 1) ? s.ScanLines : 1 + static_cast<int32_t>(rng() % uint32_t(s.ScanLines));
  static const uint8_t kModes[] = {1, 2, 3, 8, 9};
  s.Descreen = kModes[rng() % 5];
  s.Sharpen = static_cast<uint8_t>(rng() % 5);
  s.Buffering = 1;
  p.Raw = RandomBytes(rng, size_t(s.ScanLines) * size_t(s.ScanBytesPerLine));
  for (int32_t left = s.ScanLines; left > 0;) {
    const int32_t n = std::min(left, 1 + static_cast<int32_t>(rng() % 9));
    p.Blocks.push_back(n);
    left -= n;
  }
  return p;
}

Bytes RunPage(Page page, const KernelSet& kernels) {
  sx::UseKernels(&kernels);
  sx::ScanSettings& s = page.Settings;
  EXPECT_EQ(sx::PrepareDescreen(s), 1);
  EXPECT_EQ(sx::PrepareLineScaling(s), 0);
  EXPECT_EQ(sx::PrepareSharpen(s), 1);
  const size_t widest = size_t(std::max(s.ScanBytesPerLine, s.OutputBytesPerLine));
  Bytes delivered;
  int32_t next = 0;
  for (int32_t lines : page.Blocks) {
    Bytes block(size_t(lines + 2) * widest);
    std::copy_n(page.Raw.begin() + ptrdiff_t(next) * s.ScanBytesPerLine,
                size_t(lines) * size_t(s.ScanBytesPerLine), block.begin());
    int32_t kept = sx::DescreenBlock(block.data(), block.data(), s, lines);
    kept = sx::SharpenBlock(block.data(), block.data(), s.Sharpen, s, kept);
    delivered.insert(delivered.end(), block.begin(), block.begin() + ptrdiff_t(kept) * s.OutputBytesPerLine);
    s.LinesDelivered += lines;
    next += lines;
  }
  sx::ReleaseSharpen();
  sx::ReleaseLineScaling();
  sx::ReleaseDescreen();
  sx::UseKernels(nullptr);
  return delivered;
}

TEST_P(EachSet, PagesThroughTheBlockChainMatchTheReference) {
  std::mt19937 rng(17);
  for (int i = 0; i < 150; ++i) {
    const Page page = RandomPage(rng);
    const sx::ScanSettings& s = page.Settings;
    SCOPED_TRACE(testing::Message() << "page " << i << ": " << s.ScanPixels << "x" << s.ScanLines << " -> "
                                    << s.OutputPixels << "x" << s.OutputLines << " mode "
                                    << int(s.Descreen) << " sharpen " << int(s.Sharpen) << " sample "
                                    << s.ScanBytesPerLine / s.ScanPixels);
    const Bytes want = RunPage(page, ReferenceKernels());
    ASSERT_EQ(RunPage(page, Set()), want);
  }
}

// The choice at load: a set only where the processor has every feature its
// build may use and the system saves its registers; a set named in
// SX_KERNELS only where it runs.
TEST(Kernels, ChoiceFollowsTheProcessorAndTheSystem) {
  auto bits = [](std::initializer_list<int> positions) {
    uint32_t word = 0;
    for (int p : positions) word |= 1u << p;
    return word;
  };
  sx::CpuidWords all;  // SSE3, SSSE3, SSE4.1/4.2, POPCNT, XSAVE, OSXSAVE, AVX; AVX2, AVX-512 F/BW/VL
  all.MaxLeaf = 13, all.Leaf1Ecx = bits({0, 9, 19, 20, 23, 26, 27, 28}), all.Leaf7Ebx = bits({5, 16, 30, 31});
  all.Xcr0 = 0xe7;  // x87, SSE, AVX, opmask, ZMM_Hi256, Hi16_ZMM
  auto decode = [&](auto change) {
    sx::CpuidWords w = all;
    change(w);
    const sx::ProcessorFeatures f = sx::DecodeFeatures(w);
    return std::pair{f.Avx2, f.Avx512};
  };
  EXPECT_EQ(decode([](auto&) {}), std::pair(true, true));
  EXPECT_EQ(decode([](auto& w) { w.Xcr0 = 0x7; }), std::pair(true, false));        // no ZMM state
  EXPECT_EQ(decode([](auto& w) { w.Xcr0 = 0xe3; }), std::pair(false, false));       // no YMM state
  EXPECT_EQ(decode([](auto& w) { w.Leaf1Ecx &= ~(1u << 27); }), std::pair(false, false));  // no OSXSAVE
  EXPECT_EQ(decode([](auto& w) { w.Leaf7Ebx &= ~(1u << 30); }), std::pair(true, false));   // no BW
  EXPECT_EQ(decode([](auto& w) { w.Leaf1Ecx &= ~(1u << 23); }), std::pair(false, false));  // no POPCNT
  EXPECT_EQ(decode([](auto& w) { w.MaxLeaf = 6; }), std::pair(false, false));
#if defined(__x86_64__) || defined(__i386__)
  // The bit positions, against the compiler's own reading of this processor.
  __builtin_cpu_init();
  const sx::ProcessorFeatures here = sx::DecodeFeatures(sx::ReadCpuid());
  EXPECT_EQ(here.Avx2, __builtin_cpu_supports("avx2") != 0);
  EXPECT_EQ(here.Avx512, __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                             __builtin_cpu_supports("avx512vl"));
#endif
  const KernelSet* sets[] = {&sx::KernelSetAt(0), &ReferenceKernels()};
  EXPECT_EQ(&sx::ChooseKernelSet(sets, 2, nullptr), sets[1]);
  EXPECT_EQ(&sx::ChooseKernelSet(sets, 2, "portable"), sets[0]);
  EXPECT_EQ(&sx::ChooseKernelSet(sets, 2, "avx512"), sets[1]);
  sx::UseKernels(sets[0]);
  EXPECT_EQ(&sx::Kernels(), sets[0]);
  sx::UseKernels(nullptr);
  if (!std::getenv("SX_KERNELS")) {
    EXPECT_EQ(&sx::Kernels(), &sx::KernelSetAt(sx::KernelSetCount() - 1));
  }
}

}  // namespace
