// The chart generator on its own: the cached renderer against the reference,
// the scanner's output stage (tone, channel, bits), resolution independence
// and PNM parsing.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <vector>

#include "modules/vscan/TestChart.h"

namespace {

using namespace sx::vscan;

ChartGeometry Geometry(uint8_t mode, uint16_t res, uint16_t pixels, uint16_t lines) {
  ChartGeometry g;
  g.ScanMode = mode;
  g.XRes = g.YRes = res;
  g.PixelNum = pixels;
  g.LineNum = lines;
  return g;
}

TEST(TestChart, CachedLinesEqualTheReferenceInAnyOrder) {
  std::vector<ChartGeometry> cases = {
      Geometry(kModeColor, 50, 425, 584), Geometry(kModeGray, 100, 850, 1169),
      Geometry(kModeLineArt, 100, 848, 1169), Geometry(kModeHalftone, 100, 848, 1169)};
  cases[1].ColorFilter = 3;
  cases[2].Left = 37;
  cases[3].Top = 1000;  // repeats past the chart length
  cases[3].HTPatternNo = 4;
  for (const ChartGeometry& g : cases) {
    SCOPED_TRACE(static_cast<int>(g.ScanMode));
    ChartRenderer r;
    PrepareChart(r, g);
    std::vector<uint8_t> cached(r.BytesPerLine), reference(r.BytesPerLine);
    // Forwards, then backwards, so cache slots are reused by other lines.
    for (int pass = 0; pass < 2; ++pass)
      for (int i = 0; i < g.LineNum; ++i) {
        const int y = pass == 0 ? i : g.LineNum - 1 - i;
        RenderLine(r, y, cached.data());
        RenderChartLine(g, y, reference.data());
        ASSERT_EQ(cached, reference) << "line " << y;
      }
  }
}

TEST(TestChart, OutputStageTakesTheRightTableAndChannel) {
  std::array<uint8_t, 256> t1, t2, t3;
  t1.fill(10);
  t2.fill(20);
  t3.fill(30);
  struct Row {
    uint8_t Mode, Filter;
    std::vector<uint8_t> Line;  // every line of a 16-pixel scan
  };
  const Row rows[] = {
      {kModeColor, 2, {10, 20, 30}},  // colour ignores the filter
      {kModeGray, 0, {20}},
      {kModeGray, 1, {10}},
      {kModeGray, 2, {20}},
      {kModeGray, 3, {30}},
      {kModeGray, 9, {20}},  // an unknown filter acts as none
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(testing::Message() << int(r.Mode) << "/" << int(r.Filter));
    ChartGeometry g = Geometry(r.Mode, 300, 16, 1);
    g.ColorFilter = r.Filter;
    g.Tone[0] = t1.data();
    g.Tone[1] = t2.data();
    g.Tone[2] = t3.data();
    std::vector<uint8_t> line(ChartBytesPerLine(g));
    RenderChartLine(g, 2000, line.data());
    for (size_t i = 0; i < line.size(); ++i) ASSERT_EQ(line[i], r.Line[i % r.Line.size()]) << i;
  }
}

TEST(TestChart, LineArtThresholdAndHalftoneCoverage) {
  struct Row {
    uint8_t Level;
    uint8_t Pattern;
    int Black;  // of an 8 x 8 tile
  };
  const Row rows[] = {{127, 0, 64}, {128, 0, 0}, {0, 1, 64},  {255, 1, 0},  {128, 1, 32},
                      {128, 2, 32}, {128, 3, 32}, {128, 4, 32}, {128, 7, 32}, {64, 1, 48}};
  for (const Row& r : rows) {
    SCOPED_TRACE(testing::Message() << int(r.Level) << " pattern " << int(r.Pattern));
    std::array<uint8_t, 256> level;
    level.fill(r.Level);
    // Pattern 0 here means line art; halftone otherwise.
    ChartGeometry g = Geometry(r.Pattern ? kModeHalftone : kModeLineArt, 300, 64, 8);
    g.HTPatternNo = r.Pattern;
    g.Tone[1] = level.data();
    int black = 0;
    for (int y = 0; y < 8; ++y) {
      uint8_t line[8];
      RenderChartLine(g, y, line);
      for (int x = 1; x < 8; ++x) ASSERT_EQ(line[x], line[0]) << "every 8-pixel group alike";
      black += __builtin_popcount(line[0]);
    }
    EXPECT_EQ(black, r.Black);
  }
}

// A point of the page keeps its colour whatever the resolution: wherever the
// 3 x 3 neighbourhoods of the same place at 300 and at 600 dpi are uniform,
// they have the same colour. (Fine patterns that alias at 300 dpi look uniform
// there but not at 600, and are left out.)
TEST(TestChart, SamePagePointSameColourAtEveryResolution) {
  ChartGeometry low = Geometry(kModeColor, 300, 1275, 1);
  ChartGeometry high = Geometry(kModeColor, 600, 2550, 1);
  low.Left = high.Left = 100;
  using Line = std::vector<uint8_t>;
  Line a(3 * 1275), b(3 * 1275), c(3 * 1275), fa(3 * 2550), fb(3 * 2550), fc(3 * 2550);
  auto uniform = [](const Line* const (&lines)[3], int x, const uint8_t* colour) {
    for (const Line* line : lines)
      for (int dx = -1; dx <= 1; ++dx)
        if (!std::equal(colour, colour + 3, line->data() + 3 * (x + dx))) return false;
    return true;
  };
  int compared = 0;
  for (int y = 1; y < 1700; y += 7) {
    RenderChartLine(low, y - 1, a.data());
    RenderChartLine(low, y, b.data());
    RenderChartLine(low, y + 1, c.data());
    RenderChartLine(high, 2 * y - 1, fa.data());
    RenderChartLine(high, 2 * y, fb.data());
    RenderChartLine(high, 2 * y + 1, fc.data());
    const Line* const coarse[3] = {&a, &b, &c};
    const Line* const fine[3] = {&fa, &fb, &fc};
    for (int x = 1; x + 1 < 1275; ++x) {
      if (!uniform(coarse, x, b.data() + 3 * x) || !uniform(fine, 2 * x, fb.data() + 6 * x)) continue;
      ++compared;
      ASSERT_TRUE(std::equal(b.data() + 3 * x, b.data() + 3 * x + 3, fb.data() + 6 * x)) << x << "," << y;
    }
  }
  EXPECT_GT(compared, 100000) << "the chart has large flat areas";
}

TEST(TestChart, ParsePnm) {
  auto parse = [](const std::string& text, PnmImage& image) {
    std::string error;
    bool ok = ParsePnm(reinterpret_cast<const uint8_t*>(text.data()), text.size(), image, error);
    EXPECT_EQ(ok, error.empty());
    return ok;
  };
  PnmImage image;
  ASSERT_TRUE(parse("P5 # gray\n2 # wide\n1\n15\n\x0f\x07", image));
  EXPECT_EQ(image.Channels, 1u);
  EXPECT_EQ(image.Pixels, (std::vector<uint8_t>{255, 119})) << "scaled from maxval 15";
  ASSERT_TRUE(parse("P6\n1 1\n255\n\x01\x02\x03", image));
  EXPECT_EQ(image.Pixels, (std::vector<uint8_t>{1, 2, 3}));
  for (const char* bad : {"P3\n1 1\n255\n1 2 3", "P6\n1 1\n255\n\x01\x02", "P5\n0 1\n255\n", "P5\n1 1\n256\n\x01\x01",
                          "P5\n1 1\n255", "P5\n70000 1\n255\n\x01", "", "P"}) {
    SCOPED_TRACE(bad);
    EXPECT_FALSE(parse(bad, image));
  }
}

}  // namespace
