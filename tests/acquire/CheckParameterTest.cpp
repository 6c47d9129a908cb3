// The parameter check: geometry, sources, alignment, the driver record, and
// how refusals and the lamp warm-up retry reach the result.
#include <functional>

#include "FakeScanner.h"
#include "acquire/CheckParameter.h"
#include "frame/TraceSupport.h"

namespace acqtest {
namespace {

using sx::gAbility;
using sx::gScanParameter;
using sx::gSettings;

class CheckParameter : public ScannerTest {
 protected:
  int32_t Check() { return sx::CheckParameter(gSettings); }
  sxtest::ScopedEnv noDelay_{"SX_TIME_SCALE", "0"};
};

TEST_F(CheckParameter, Geometry) {
  auto& s = gSettings;
  auto& a = gAbility;
  struct Row {
    const char* Name;
    std::function<void()> Setup;
    int32_t ScanPixels, OutputPixels, ScanLines, OutputLines, ScanBytes, OutputBytes;
    int Left, Width, Length, Resolution;
  };
  const Row rows[] = {
      {"colour, 2550 at 300 dpi rounded to 8", [] {},
       2544, 2544, 3300, 3300, 7632, 7632, 0, 2550, 3300, 300},
      {"descreen 100 dpi, max 600", [&] { s.Descreen = 1, s.XResolution = 100; },
       2544, 848, 3300, 1100, 7632, 2544, 0, 2550, 3300, 300},
      {"descreen 300 dpi, max 600", [&] { s.Descreen = 1; },
       5096, 2544, 6600, 3300, 15288, 7632, 0, 2550, 3300, 600},
      {"descreen 600 dpi, max 600", [&] { s.Descreen = 2, s.XResolution = 600; },
       5096, 5096, 6600, 6600, 15288, 15288, 0, 2550, 3300, 600},
      {"descreen 150 dpi, max 1200",
       [&] { s.Descreen = 1, s.XResolution = 150, a.MaxResolution = 1200; },
       2544, 1272, 3300, 1650, 7632, 3816, 0, 2550, 3300, 300},
      {"descreen 280 dpi, max 1200",
       [&] { s.Descreen = 1, s.XResolution = 280, a.MaxResolution = 1200; },
       5096, 2376, 6600, 3080, 15288, 7128, 0, 2550, 3300, 600},
      {"descreen above the maximum", [&] { s.Descreen = 1, s.XResolution = 1200; },
       10200, 10200, 13200, 13200, 30600, 30600, 0, 2550, 3300, 1200},
      {"area cut at the maximum, origin kept",
       [&] { s.XPosition = 2000, s.ImageWidth = 1000, s.YPosition = 3000, s.ImageLength = 1000; },
       544, 544, 300, 300, 1632, 1632, 2000, 550, 300, 300},
      {"feeder area centred", [&] { s.ScanType = 1, s.ImageWidth = 850, Fake().Sheets = 1; },
       848, 848, 3300, 3300, 2544, 2544, 850, 850, 3300, 300},
      {"overscan", [&] { s.Overscan = 100, s.ImageLength = 1000; },
       2544, 2544, 1100, 1100, 7632, 7632, 0, 2550, 1100, 300},
      {"negative overscan", [&] { s.Overscan = -150, s.ImageLength = 1000; },
       2544, 2544, 850, 850, 7632, 7632, 0, 2550, 850, 300},
      {"overscan in scanner units",
       [&] { s.Overscan = 100, s.ImageLength = 1000, a.MaxResolution = 1200; },
       2544, 2544, 1050, 1050, 7632, 7632, 0, 2550, 1050, 300},
      // The raised scan counts come from the area as set, without overscan.
      {"descreen with overscan",
       [&] { s.Descreen = 1, s.XResolution = 100, s.Overscan = 100, s.ImageLength = 1000; },
       2544, 848, 1000, 367, 7632, 2544, 0, 2550, 1100, 300},
      {"black and white", [&] { s.PixelType = 0, s.BitsPerPixel = 1; },
       2544, 2544, 3300, 3300, 318, 318, 0, 2550, 3300, 300},
      {"grey", [&] { s.PixelType = 1, s.BitsPerPixel = 8; },
       2544, 2544, 3300, 3300, 2544, 2544, 0, 2550, 3300, 300},
      {"non-square request made square", [&] { s.YResolution = 150; },
       2544, 2544, 3300, 3300, 7632, 7632, 0, 2550, 3300, 300},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.Name);
    SetUp();
    r.Setup();
    ASSERT_EQ(Check(), 0);
    const ScanParameter& p = gScanParameter;
    EXPECT_EQ((std::vector<int32_t>{s.ScanPixels, s.OutputPixels, s.ScanLines, s.OutputLines,
                                    s.ScanBytesPerLine, s.OutputBytesPerLine}),
              (std::vector<int32_t>{r.ScanPixels, r.OutputPixels, r.ScanLines, r.OutputLines,
                                    r.ScanBytes, r.OutputBytes}));
    EXPECT_EQ((std::vector<int>{p.Left, p.Width, p.Length, p.XRes, p.YRes, s.YResolution}),
              (std::vector<int>{r.Left, r.Width, r.Length, r.Resolution, r.Resolution,
                                s.XResolution}));
    EXPECT_EQ(p.PixelNum, r.ScanPixels);
    EXPECT_EQ(p.LineNum, r.ScanLines);
  }
}

TEST_F(CheckParameter, DriverRecordAndCalls) {
  ScanParameter& p = gScanParameter;
  p.RExposure = 11;
  p.BExposure = 13;
  p.ReadStatus = 7;
  std::memset(p.Reserved2D, 0xEE, sizeof p.Reserved2D);
  gSettings.Overscan = -5;
  gSettings.Contrast[0] = 200;
  ASSERT_EQ(Check(), 0);
  // Exposures and ReadStatus stay; everything else is the check's.
  EXPECT_EQ((std::vector<int>{p.RExposure, p.BExposure, p.ReadStatus}),
            (std::vector<int>{11, 13, 7}));
  EXPECT_EQ(std::count(p.Reserved2D, std::end(p.Reserved2D), 0), sizeof p.Reserved2D);
  // Tone goes through the tables, never through the record.
  EXPECT_EQ((std::vector<int>{p.ScanMode, p.ScanMethod, p.BitsPerPixel, p.ExtScanParam, p.Contrast,
                              p.Brightness, p.Highlight, p.Shadow, p.Invert, p.ColorFilter,
                              p.ExtensionFlag, p.BackgroundLines}),
            (std::vector<int>{4, 0, 24, 0x9000, 0, 0, 255, 0, 0, 2, 1, 50}));
  ASSERT_EQ(Fake().Parameters.size(), 1u);
  EXPECT_EQ(std::memcmp(&Fake().Parameters[0], &p, sizeof p), 0);
  EXPECT_EQ(Fake().Sequence(), "SetScanParameter,TuneScanLength");
  EXPECT_EQ(Fake().TuneArgs, (std::vector<int32_t>{1, -5, 1}));
  EXPECT_EQ(Fake().GammaUploads, 3);
}

TEST_F(CheckParameter, BlackAndWhiteAdjustsTheSettings) {
  auto& s = gSettings;
  s.PixelType = 0;
  s.BitsPerPixel = 1;
  s.Sharpen = 3;
  s.Descreen = 2;
  s.Highlight[0] = 200;
  s.Shadow[0] = 20;
  s.Contrast[0] = 300;
  ASSERT_EQ(Check(), 0);
  EXPECT_EQ((std::vector<int>{s.Sharpen, s.Descreen, s.Highlight[0], s.Shadow[0], s.Contrast[0]}),
            (std::vector<int>{0, 0, 255, 0, 0}));
  EXPECT_EQ(gScanParameter.ScanMode, 0);
  // Two checks in a row run with opposite Invert values.
  EXPECT_EQ(s.Invert, 1);
  ASSERT_EQ(Check(), 0);
  EXPECT_EQ(s.Invert, 0);

  // A pattern makes it a halftone scan and leaves the host's contrast.
  s.Dither = 2;
  s.Contrast[0] = 300;
  ASSERT_EQ(Check(), 0);
  EXPECT_EQ(gScanParameter.ScanMode, 1);
  EXPECT_EQ(gScanParameter.HTPatternNo, 11);
  EXPECT_EQ(s.Contrast[0], 300);
}

TEST_F(CheckParameter, Sources) {
  struct Row {
    uint8_t ScanType, FeederType;
    int Sheets;
    uint8_t SourceFlags;
    int32_t Result;
    int Method, FeederInUse, AdfCalls;
  };
  const Row rows[] = {
      {0, 0, 1, 0x84, 0, 1, 1, 1},    {0, 1, 1, 0x84, 0, 4, 1, 1},   {0, 2, 1, 0x84, 0, 5, 1, 1},
      {0, 3, 1, 0x84, 0, 9, 1, 1},  // an unknown feeder type keeps the method
      {0, 0, 0, 0x84, 0, 0, 0, 1},    {0, 0, 0, 0x44, -16, 0, 0, 1}, {1, 0, 0, 0x84, -16, 0, 0, 1},
      {2, 0, 2, 0x84, 0, 0, 0, 0},    {3, 0, 2, 0x84, 0, 2, 0, 0},   {4, 0, 2, 0x84, 0, 3, 0, 0},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(::testing::Message() << "type " << int(r.ScanType) << " feeder "
                                      << int(r.FeederType) << " sheets " << r.Sheets);
    SetUp();
    gScanParameter.ScanMethod = 9;
    gSettings.ScanType = r.ScanType;
    gSettings.FeederType = r.FeederType;
    gAbility.SourceFlags = r.SourceFlags;
    Fake().Sheets = r.Sheets;
    EXPECT_EQ(Check(), r.Result);
    EXPECT_EQ(Fake().Count("GetADFStatus"), r.AdfCalls);
    if (r.Result == 0) {
      EXPECT_EQ(gScanParameter.ScanMethod, r.Method);
      EXPECT_EQ(gSettings.FeederInUse, r.FeederInUse);
    }
  }
  // The alternate area limits sources 3 and 4.
  EXPECT_EQ(gScanParameter.Width, 1200);
  EXPECT_EQ(gScanParameter.Length, 1500);
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
    EXPECT_TRUE(Fake().Parameters.empty());
    EXPECT_EQ(Fake().GammaUploads, 0);
  }
}

TEST_F(CheckParameter, Alignment) {
  // Without an extended ability record the model name decides: a
  // case-sensitive prefix, and for one model the firmware version.
  const std::tuple<const char*, const char*, int> models[] = {
      {"QMB4 Pro", "1.00", 32}, {"3100G", "1.03", 8}, {"3100S", "1.02", 32},
      {"qm7110", "1.00", 8},    {"QM711", "1.00", 8},
  };
  for (const auto& [model, firmware, lineart] : models) {
    std::memset(gAbility.ModelName, 0, sizeof gAbility.ModelName);
    std::memcpy(gAbility.ModelName, model, std::strlen(model));
    std::memcpy(gAbility.FirmwareVersion, firmware, 4);
    gAbility.AbilityFlags = 0;
    gSettings.PixelType = 0;
    gSettings.Dither = 0;
    EXPECT_EQ(sx::PixelAlignment(gSettings), lineart) << model;
    EXPECT_EQ(gAbility.DiffusionAlignment, 32) << "only the first four bytes come from the table";
  }
  gSettings.Dither = 3;
  sx::PixelAlignment(gSettings);
  EXPECT_EQ(gSettings.Dither, 3) << "no remapping without an extended record";

  struct Row {
    uint8_t PixelType, Bits, Dither, Diffusion, Alignment, DitherAfter;
  };
  const Row rows[] = {
      {0, 1, 2, 32, 16, 11}, {0, 1, 5, 32, 32, 14}, {0, 1, 5, 0, 8, 14},
      {0, 1, 9, 32, 32, 9},  // beyond the eight-entry map: sent unmapped
      {1, 4, 0, 32, 4, 0},   {1, 8, 0, 32, 8, 0},
  };
  SetUp();  // the driver's own alignment bytes and pattern map
  for (const Row& r : rows) {
    gSettings.PixelType = r.PixelType;
    gSettings.BitsPerPixel = r.Bits;
    gSettings.Dither = r.Dither;
    gAbility.DiffusionAlignment = r.Diffusion;
    EXPECT_EQ(sx::PixelAlignment(gSettings), r.Alignment) << int(r.Dither);
    EXPECT_EQ(gSettings.Dither, r.DitherAfter);
  }
}

TEST_F(CheckParameter, LampWarmUpRetry) {
  struct Row {
    uint8_t Indicators;
    std::vector<uint32_t> Refusals;
    int32_t Result;
    int Sends;
  };
  const Row rows[] = {
      {1, {164}, 0, 2},          {1, {2009}, 0, 2},
      {1, {164, 2004}, -22, 2},  // the first refusal's code is reported
      {0, {164}, -22, 1},        {1, {2004}, -6, 1},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(::testing::Message() << int(r.Indicators) << " " << r.Refusals.front());
    SetUp();
    gSettings.Indicators = r.Indicators;
    Fake().SetParameterRefusals = r.Refusals;
    EXPECT_EQ(Check(), r.Result);
    EXPECT_EQ(Fake().Count("SetScanParameter"), r.Sends);
    // A refusal still sets the scan length and uploads the tables.
    EXPECT_EQ(Fake().Count("TuneScanLength"), 1);
    EXPECT_EQ(Fake().GammaUploads, 3);
  }
}

TEST_F(CheckParameter, OutLineOnlyAfterTheDriverWasAsked) {
  sxtest::TraceSetup trace(1);
  ASSERT_EQ(Check(), 0);
  gSettings.ScanType = 1;
  ASSERT_EQ(Check(), -16);
  std::vector<std::string> own;
  for (const std::string& line : trace.Lines()) {
    if (line.find("CheckParameter") != std::string::npos) own.push_back(line);
  }
  EXPECT_EQ(own, (std::vector<std::string>{"In   1: CheckParameter : 0 ",
                                           "Out  1: CheckParameter : 0 ",
                                           "In   1: CheckParameter : 0 "}));
}

}  // namespace
}  // namespace acqtest
