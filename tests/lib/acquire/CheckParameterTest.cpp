// The parameter check: geometry, sources, the driver record, and how refusals and the lamp
// warm-up retry reach the result.
#include <functional>

#include "FakeScanner.h"
#include "acquire/CheckParameter.h"

namespace acqtest {
namespace {

using sx::gAbility;
using sx::gScanParameter;
using sx::gSettings;
using Ints = std::vector<int>;

class CheckParameter : public ScannerTest {
 protected:
  int32_t Check() { return sx::CheckParameter(gSettings); }
  sxtest::ScopedEnv noDelay_{"SX_TIME_SCALE", "0"};
};

TEST_F(CheckParameter, Geometry) {
  auto& s = gSettings;
  auto& a = gAbility;
  // {change to the 300 dpi colour scan of the letter flatbed, pixels, lines and bytes per line
  //  scanned and delivered, record's Left, Width, Length and resolution}
  const std::tuple<const char*, std::function<void()>, Ints, Ints> rows[] = {
      {"as set, made square, 2550 rounded to 8", [&] { s.YResolution = 150; }, {2544, 2544, 3300, 3300, 7632, 7632},
       {0, 2550, 3300, 300}},
      {"descreen 100 dpi", [&] { s.Descreen = 1, s.XResolution = 100; }, {2544, 848, 3300, 1100, 7632, 2544},
       {0, 2550, 3300, 300}},
      {"descreen 300 dpi", [&] { s.Descreen = 1; }, {5096, 2544, 6600, 3300, 15288, 7632}, {0, 2550, 3300, 600}},
      {"descreen 280 dpi of 1200", [&] { s.Descreen = 1, s.XResolution = 280, a.MaxResolution = 1200; },
       {5096, 2376, 6600, 3080, 15288, 7128}, {0, 2550, 3300, 600}},
      {"cut at the maximum", [&] { s.XPosition = 2000, s.ImageWidth = 1000, s.YPosition = 3000; },
       {544, 544, 300, 300, 1632, 1632}, {2000, 550, 300, 300}},
      {"feeder area centred", [&] { s.ScanType = 1, s.ImageWidth = 850, Fake().Sheets = 1; },
       {848, 848, 3300, 3300, 2544, 2544}, {850, 850, 3300, 300}},
      {"overscan", [&] { s.Overscan = 100, s.ImageLength = 1000; }, {2544, 2544, 1100, 1100, 7632, 7632},
       {0, 2550, 1100, 300}},
      {"overscan in scanner units", [&] { s.Overscan = 100, s.ImageLength = 1000, a.MaxResolution = 1200; },
       {2544, 2544, 1050, 1050, 7632, 7632}, {0, 2550, 1050, 300}},
      {"negative overscan truncated with the length",
       [&] { s.Overscan = -1, s.ImageLength = 1000, a.MaxResolution = 1200; },
       {2544, 2544, 999, 999, 7632, 7632}, {0, 2550, 999, 300}},
      // The raised scan counts come from the area as set, without overscan.
      {"descreen, overscan", [&] { s.Descreen = 1, s.XResolution = 100, s.Overscan = 100, s.ImageLength = 1000; },
       {2544, 848, 1000, 367, 7632, 2544}, {0, 2550, 1100, 300}},
      {"black and white", [&] { s.PixelType = 0, s.BitsPerPixel = 1; }, {2544, 2544, 3300, 3300, 318, 318},
       {0, 2550, 3300, 300}},
      {"diffusion, aligned to 32", [&] { s.PixelType = 0, s.BitsPerPixel = 1, s.Dither = 5; },
       {2528, 2528, 3300, 3300, 316, 316}, {0, 2550, 3300, 300}},
  };
  for (const auto& [name, change, counts, record] : rows) {
    SCOPED_TRACE(name);
    SetUp();
    change();
    ASSERT_EQ(Check(), 0);
    const ScanParameter& p = gScanParameter;
    EXPECT_EQ(counts, (Ints{s.ScanPixels, s.OutputPixels, s.ScanLines, s.OutputLines, s.ScanBytesPerLine,
                            s.OutputBytesPerLine}));
    EXPECT_EQ((Ints{p.Left, p.Width, p.Length, p.XRes, p.YRes, s.YResolution, p.PixelNum, p.LineNum}),
              (Ints{record[0], record[1], record[2], record[3], record[3], s.XResolution, counts[0], counts[2]}));
  }
}

TEST_F(CheckParameter, DriverRecordAndCalls) {
  ScanParameter& p = gScanParameter;
  p.RExposure = 11, p.BExposure = 13, p.ReadStatus = 7;
  std::memset(p.Reserved2D, 0xEE, sizeof p.Reserved2D);
  gSettings.Overscan = -5, gSettings.Contrast[0] = 200;
  ASSERT_EQ(Check(), 0);
  // Exposures and ReadStatus stay; everything else is the check's. Tone goes
  // through the tables, never through the record.
  EXPECT_EQ(std::count(p.Reserved2D, std::end(p.Reserved2D), 0), sizeof p.Reserved2D);
  EXPECT_EQ((Ints{p.RExposure, p.BExposure, p.ReadStatus, p.ScanMode, p.ScanMethod, p.BitsPerPixel, p.ExtScanParam,
                  p.Contrast, p.Brightness, p.Highlight, p.Shadow, p.Invert, p.ColorFilter, p.ExtensionFlag,
                  p.BackgroundLines}),
            (Ints{11, 13, 7, 4, 0, 24, 0x9000, 0, 0, 255, 0, 0, 2, 1, 50}));
  ASSERT_EQ(Fake().Parameters.size(), 1u);
  EXPECT_EQ(std::memcmp(&Fake().Parameters[0], &p, sizeof p), 0);
  EXPECT_EQ(Fake().Sequence(), "SetScanParameter,TuneScanLength");
  EXPECT_EQ(Fake().TuneArgs, (std::vector<int32_t>{1, -5, 1}));
  EXPECT_EQ(Fake().GammaUploads, 3);
}

TEST_F(CheckParameter, BlackAndWhiteAdjustsTheSettings) {
  auto& s = gSettings;
  s.PixelType = 0, s.BitsPerPixel = 1, s.Sharpen = 3, s.Descreen = 2;
  s.Highlight[0] = 200, s.Shadow[0] = 20, s.Contrast[0] = 300;
  ASSERT_EQ(Check(), 0);
  const Ints adjusted = {s.Sharpen, s.Descreen, s.Highlight[0], s.Shadow[0], s.Contrast[0], s.Invert};
  EXPECT_EQ(adjusted, (Ints{0, 0, 255, 0, 0, 1}));
  EXPECT_EQ(gScanParameter.ScanMode, 0);
  ASSERT_EQ(Check(), 0);
  EXPECT_EQ(s.Invert, 0) << "two checks in a row run with opposite Invert values";
  // A pattern makes it a halftone scan and leaves the host's contrast.
  s.Dither = 2, s.Contrast[0] = 300;
  ASSERT_EQ(Check(), 0);
  EXPECT_EQ((Ints{gScanParameter.ScanMode, gScanParameter.HTPatternNo, s.Contrast[0]}), (Ints{1, 11, 300}));
}

TEST_F(CheckParameter, Sources) {
  // {ScanType, FeederType, sheets, SourceFlags, result, ScanMethod, FeederInUse, feeder queries}
  const std::tuple<uint8_t, uint8_t, int, uint8_t, int32_t, int, int, int> rows[] = {
      {0, 0, 1, 0x84, 0, 1, 1, 1},    {0, 1, 1, 0x84, 0, 4, 1, 1},   {0, 2, 1, 0x84, 0, 5, 1, 1},
      {0, 3, 1, 0x84, 0, 9, 1, 1},  // an unknown feeder type keeps the method
      {0, 0, 0, 0x84, 0, 0, 0, 1},    {0, 0, 0, 0x44, -16, 0, 0, 1}, {1, 0, 0, 0x84, -16, 0, 0, 1},
      {2, 0, 2, 0x84, 0, 0, 0, 0},    {3, 0, 2, 0x84, 0, 2, 0, 0},   {4, 0, 2, 0x84, 0, 3, 0, 0},
  };
  for (const auto& [scanType, feederType, sheets, sources, result, method, inUse, queries] : rows) {
    SCOPED_TRACE(::testing::Message() << int(scanType) << "/" << int(feederType) << "/" << sheets);
    SetUp();
    gScanParameter.ScanMethod = 9;
    gSettings.ScanType = scanType, gSettings.FeederType = feederType;
    gAbility.SourceFlags = sources;
    Fake().Sheets = sheets;
    EXPECT_EQ(Check(), result);
    EXPECT_EQ(Fake().Count("GetADFStatus"), queries);
    if (result == 0) {
      EXPECT_EQ((Ints{gScanParameter.ScanMethod, gSettings.FeederInUse}), (Ints{method, inUse}));
    }
  }
  // The alternate area limits sources 3 and 4.
  EXPECT_EQ((Ints{gScanParameter.Width, gScanParameter.Length}), (Ints{1200, 1500}));
}

// Refusals happen before the record changes or anything reaches the driver.
TEST_F(CheckParameter, RefusalsLeaveDriverAndRecordAlone) {
  auto& s = gSettings;
  const std::pair<std::function<void()>, int32_t> rows[] = {
      {[&] { gAbility.PixelTypeFlags = 0x80; }, -8},  // colour without colour
      {[&] { s.PixelType = 3; }, sx::kRefusedSettings},
      {[&] { s.ScanType = 5; }, sx::kRefusedSettings},
      {[&] { s.ScanType = 1, Fake().AdfRefusals = {2004}; }, -6},
      {[&] { s.ScanType = 1; }, -16},
      {[&] { s.XPosition = 2550; }, sx::kRefusedSettings},  // no width left
      {[&] { s.YPosition = 4000; }, sx::kRefusedSettings},
      {[&] { s.ImageWidth = 5; }, sx::kRefusedSettings},  // narrower than the alignment
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(i);
    SetUp();
    gScanParameter.XRes = 4321;
    const ScanParameter before = gScanParameter;
    rows[i].first();
    EXPECT_EQ(Check(), rows[i].second);
    EXPECT_EQ(std::memcmp(&before, &gScanParameter, sizeof before), 0);
    EXPECT_TRUE(Fake().Parameters.empty() && Fake().GammaUploads == 0);
  }
}

TEST_F(CheckParameter, LampWarmUpRetry) {
  // {Indicators, refusals, result, parameter sends}
  const std::tuple<uint8_t, std::vector<uint32_t>, int32_t, int> rows[] = {
      {1, {164}, 0, 2}, {1, {2009}, 0, 2}, {1, {164, 2004}, -22, 2},  // the first refusal's code is reported
      {0, {164}, -22, 1}, {1, {2004}, -6, 1}};
  for (const auto& [indicators, refusals, result, sends] : rows) {
    SCOPED_TRACE(::testing::Message() << int(indicators) << " " << refusals.front());
    SetUp();
    gSettings.Indicators = indicators;
    Fake().SetParameterRefusals = refusals;
    EXPECT_EQ(Check(), result);
    EXPECT_EQ(Fake().Count("SetScanParameter"), sends);
    // A refusal still sets the scan length and uploads the tables.
    EXPECT_EQ(Fake().Count("TuneScanLength"), 1);
    EXPECT_EQ(Fake().GammaUploads, 3);
  }
}

}  // namespace
}  // namespace acqtest
