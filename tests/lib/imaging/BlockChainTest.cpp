// Resolution scaling, descreening and sharpening: the fixed-point arithmetic on
// small hand-made blocks. (Descreened acquisitions are the reliability suite's.)
#include <gtest/gtest.h>

#include <vector>

#include "imaging/BlockChain.h"
#include "sxsys.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A gray (or colour, `sample` 3) geometry scaling `scan` to `output` pixels
// and lines.
sx::ScanSettings Geometry(int32_t scanPixels, int32_t outPixels, int32_t scanLines,
                          int32_t outLines, int32_t sample = 1) {
  sx::ScanSettings s{};
  s.PixelType = sample == 3 ? 2 : 1;
  s.BitsPerPixel = static_cast<uint8_t>(8 * sample);
  s.ScanPixels = scanPixels, s.OutputPixels = outPixels;
  s.ScanBytesPerLine = scanPixels * sample, s.OutputBytesPerLine = outPixels * sample;
  s.ScanLines = scanLines, s.OutputLines = outLines;
  s.Buffering = 1;
  return s;
}

// Entries the vertical pass uses, seen through single-byte lines: line k holds
// value k * 10, so output values show which inputs were blended and how.
Bytes VerticalOutput(int32_t scanLines, int32_t outLines, const std::vector<int32_t>& blocks) {
  sx::ScanSettings s = Geometry(1, 1, scanLines, outLines);
  EXPECT_EQ(sx::PrepareLineScaling(s), 0);
  Bytes out;
  int32_t next = 0;
  for (int32_t lines : blocks) {
    Bytes block;
    for (int32_t i = 0; i < lines; ++i) block.push_back(static_cast<uint8_t>(10 * next++));
    const int32_t n = sx::ScaleLinesVertical(s, block.data(), block.data(), lines);
    out.insert(out.end(), block.begin(), block.begin() + n);
  }
  sx::ReleaseLineScaling();
  sx::ReleaseLineScaling();  // a second release finds nothing to free
  return out;
}

TEST(LineScaling, VerticalPassFollowsTheLineTable) {
  // 5 -> 3: copies of lines 0, 2, 4. 7 -> 3: line 1 is 0.666668 of line 4 (40)
  // plus 0.333332 of line 3 (30) = 36.66, truncated.
  EXPECT_EQ(VerticalOutput(5, 3, {5}), (Bytes{0, 20, 40}));
  EXPECT_EQ(VerticalOutput(7, 3, {7}), (Bytes{0, 36, 60}));
  // Blocks that yield nothing keep the cursor and previous line for the next.
  EXPECT_EQ(VerticalOutput(7, 3, {1, 1, 1, 1, 1, 2}), (Bytes{0, 36, 60}));
  EXPECT_EQ(VerticalOutput(5, 3, {2, 1, 2}), (Bytes{0, 20, 40}));
}

TEST(LineScaling, PagesWithoutALineTable) {
  // Equal line counts and a single-line page: no table. 16/48-bit samples get
  // their table, but the vertical pass gives nothing for them.
  for (auto [bits, scan, out, table] :
       {std::tuple{16, 5, 3, true}, {48, 5, 3, true}, {8, 5, 5, false}, {8, 1, 0, false}}) {
    sx::ScanSettings s = Geometry(1, 1, scan, out);
    s.BitsPerPixel = static_cast<uint8_t>(bits);
    Bytes block(5, 7);
    EXPECT_EQ(sx::PrepareLineScaling(s), 0);
    EXPECT_EQ(sx::VerticalScalingActive(), table) << bits << " " << scan;
    EXPECT_EQ(sx::ScaleLinesVertical(s, block.data(), block.data(), 5), 0);
  }
  sx::ReleaseLineScaling();
}

TEST(LineScaling, HorizontalPass) {
  struct Case {
    int32_t From, To, Sample;
    Bytes Line, Expected;
  };
  const Case cases[] = {
      {5, 3, 1, {0, 50, 100, 150, 200}, {0, 90, 180}},  // the 0..400 line halved
      {4, 2, 1, {10, 20, 30, 40}, {10, 30}},
      {4, 2, 3, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}, {1, 2, 3, 7, 8, 9}},
  };
  for (const Case& c : cases) {
    sx::ScanSettings s = Geometry(c.From, c.To, 2, 2, c.Sample);
    Bytes two = c.Line;  // two lines, packed down in place
    two.insert(two.end(), c.Line.begin(), c.Line.end());
    sx::ScalePixelsHorizontal(two.data(), two.data(), s, 2);
    Bytes expected = c.Expected;
    expected.insert(expected.end(), c.Expected.begin(), c.Expected.end());
    two.resize(expected.size());
    EXPECT_EQ(two, expected) << c.From << "->" << c.To << " x" << c.Sample;
  }
}

TEST(LineScaling, DirectBlockTurnsIntoInputLinesInAMovedBuffer) {
  sx::ScanSettings s = Geometry(4, 2, 5, 3);
  s.Descreen = 1, s.Buffering = 0, s.BlockLines = 2;
  SxHandle h = SxSysGlobalAlloc(SX_GHND, 8);
  s.DirectBuffer = static_cast<uint8_t*>(SxSysGlobalLock(h));
  ASSERT_EQ(sx::PrepareLineScaling(s), 0);
  EXPECT_EQ(s.BlockLines, 4);  // entries 1e6, 5e5, 1e6, 5e5 give two output lines
  EXPECT_EQ(SxSysGlobalHandle(s.DirectBuffer), h);
  EXPECT_EQ(SxSysGlobalSize(h), 20u);  // (4 + 1) lines of 4 bytes
  EXPECT_EQ(SxSysGlobalLockCount(h), 1u);
  sx::ReleaseLineScaling();
  SxSysGlobalFree(h);
}

// Runs `block` through the descreen chain as the first block of a page.
int32_t Descreen(sx::ScanSettings& s, Bytes& block, int32_t lines) {
  EXPECT_EQ(sx::PrepareDescreen(s), 1);
  EXPECT_EQ(sx::PrepareLineScaling(s), 0);
  const int32_t n = sx::DescreenBlock(block.data(), block.data(), s, lines);
  sx::ReleaseLineScaling();
  sx::ReleaseDescreen();
  return n;
}

TEST(Descreen, FlatAreasStayFlatAndModesKeepTheirLineCounts) {
  for (uint8_t mode : {1, 2, 3, 9}) {
    sx::ScanSettings s = Geometry(6, 6, 4, 4, 3);
    s.Descreen = mode;
    Bytes block(4 * 18, 77);
    EXPECT_EQ(Descreen(s, block, 4), 4) << int(mode);
    EXPECT_EQ(block, Bytes(4 * 18, 77)) << int(mode);
  }
  sx::ScanSettings s = Geometry(6, 6, 4, 4);
  s.Descreen = 5;
  Bytes block(24, 1);
  EXPECT_EQ(Descreen(s, block, 4), 0);
  s.Descreen = 0;
  EXPECT_EQ(Descreen(s, block, 4), 4);
  EXPECT_EQ(block, Bytes(24, 1));
}

TEST(Descreen, KernelSeesRepeatedTopLineAndRightPads) {
  // A single line 0, 0, 0, 160: its own first line thrice above it, so each
  // output is a 4-wide row average; the last pixel sees pads n-2 (0), n-1 (160).
  for (auto [mode, expected] : {std::pair{1, Bytes{0, 40, 40, 80}}, {2, Bytes{0, 22, 57, 80}}}) {
    sx::ScanSettings s = Geometry(4, 4, 1, 1);
    s.Descreen = static_cast<uint8_t>(mode);
    Bytes line{0, 0, 0, 160};
    EXPECT_EQ(Descreen(s, line, 1), 1);
    EXPECT_EQ(line, expected) << mode;
  }
}

TEST(Descreen, CoarseScreensRaiseSharpening) {
  for (auto [mode, sharpen, raised] : {std::tuple{3, 0, 4}, {9, 0, 4}, {3, 2, 2}, {1, 0, 0}}) {
    sx::ScanSettings s{};
    s.Descreen = static_cast<uint8_t>(mode), s.Sharpen = static_cast<uint8_t>(sharpen);
    sx::PrepareDescreen(s);
    EXPECT_EQ(s.Sharpen, raised) << mode;
  }
  sx::ReleaseDescreen();
}

Bytes Sharpen(uint8_t level, Bytes block, int32_t pixels) {
  sx::ScanSettings s = Geometry(pixels, pixels, 0, 0);
  s.Sharpen = level;
  EXPECT_EQ(sx::PrepareSharpen(s), 1);
  const int32_t lines = static_cast<int32_t>(block.size()) / pixels;
  EXPECT_EQ(sx::SharpenBlock(block.data(), block.data(), level, s, lines), lines);
  sx::ReleaseSharpen();
  return block;
}

TEST(Sharpen, FlatStaysFlatAndBrightPixelRises) {
  for (uint8_t level : {0, 1, 2, 3, 4, 9}) EXPECT_EQ(Sharpen(level, Bytes(9, 100), 3), Bytes(9, 100));
  // The bright pixel is in input line 1, so it is sharpened into output line 2.
  const Bytes in{100, 100, 100, 100, 200, 100, 100, 100, 100, 100, 100, 100};
  const Bytes out = Sharpen(1, in, 3);
  EXPECT_EQ(Bytes(out.begin() + 6, out.begin() + 9), (Bytes{90, 255, 90}));
  EXPECT_EQ(Bytes(out.begin() + 3, out.begin() + 6), (Bytes{90, 90, 90}));  // line 0, 1 below
  EXPECT_EQ(Sharpen(0, in, 3), in);
}

TEST(Sharpen, OutputLineCarriesThePreviousInputLine) {
  // Lines 10, 50, 90 (flat across): output 0 is line 0 among copies of
  // itself; output 1 is line 0 again, now above line 1; output 2 is line 1.
  const Bytes out = Sharpen(4, {10, 10, 50, 50, 90, 90}, 2);
  EXPECT_EQ(out, (Bytes{10, 10, 0, 0, 50, 50}));
}

}  // namespace
