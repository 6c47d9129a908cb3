// LoadScanSettings from stored defaults and an ability record filled by hand.
#include "tests/lib/settings/SettingsTestSupport.h"

namespace {

using sx::ScanSettings;

class LoadSettings : public ::testing::Test {
 protected:
  // Loads `values` into a record full of 0x5A, so untouched fields show.
  ScanSettings Load(const std::string& values, const ScannerAbility& a = sxtest::TypicalAbility()) {
    env_.ScanData(values);
    ScanSettings s;
    std::memset(&s, 0x5A, sizeof s);
    sx::LoadScanSettings(s, a);
    return s;
  }
  static std::string N(const char* name, uint32_t v) {
    char line[64];
    return std::string(line, size_t(std::snprintf(line, sizeof line, "\"%s\"=dword:%08x\n", name, v)));
  }
  static std::string T(const char* name, const std::string& v) {
    return std::string("\"") + name + "\"=str(2):\"" + v + "\"\n";
  }
  sxtest::SettingsEnv env_;
};

TEST_F(LoadSettings, EmptyKeyGivesTheDefaults) {
  ScannerAbility a{};
  a.MaxResolution = 600;
  a.SourceFlags = 0x80;
  const ScanSettings s = Load("", a);
  const std::vector<int> got = {
      s.ScanType,   s.FeederType,  s.XResolution,  s.YResolution,   s.PixelType,    s.BitsPerPixel,
      s.Brightness[0], s.Contrast[3], s.Highlight[3], s.Shadow[1],  s.Gamma[0],     s.Gamma[3],
      s.Filter,     s.Compression, s.Dither,       s.Threshold,     s.Invert,       s.XPosition,
      s.YPosition,  s.ImageWidth,  s.ImageLength,  s.Units,         s.XferCount,    s.PageSize,
      s.Indicators, s.UIControl,   s.Sharpen,      s.ColorMatch,    s.Descreen,     s.Background,
      s.EnergySaving, s.Overscan,  s.BackgroundLines, s.BufferCount, s.ScanBytesPerLine};
  const std::vector<int> want = {0,    0, 300, 300, 0, 1, 0, 0, 255, 0, 220, 100, 2, 0, 0, 128, 0, 0,
                                 0, 2550, 3300, 2, -1, 0, 0, 0, 0, 0, 0, 0, 15, 0, 50,
                                 0x5A, 0x5A5A5A5A};  // the ring's and the acquisition's
  EXPECT_EQ(got, want);
  a.MaxResolution = 200;
  EXPECT_EQ(Load("", a).YResolution, 200);
}

TEST_F(LoadSettings, ScanTypeIsFittedToTheScannersSources) {
  // {stored, SourceFlags, FeatureFlags, model, firmware, fitted}
  const std::tuple<uint32_t, uint8_t, uint32_t, const char*, const char*, int> cases[] = {
      {1, 0x80, 0, "", "", 2},           {1, 0x00, 1, "", "", 3},            {1, 0x00, 0, "", "", 4},
      {2, 0x40, 0, "", "", 1},           {2, 0x00, 0, "", "", 4},            {3, 0x90, 0, "", "", 2},
      {3, 0x10, 0, "", "", 1},           {4, 0x88, 0, "", "", 4},            {4, 0x20, 0, "", "", 1},
      {4, 0x00, 0, "", "", 3},           {7, 0x80, 0, "", "", 7},            {0x103, 0x80, 1, "", "", 3},
      {3, 0x80, 0, "QM7110", "1.00", 2}, {3, 0x80, 0, "QM7110V", "2.0", 3},  {3, 0x80, 0, "QMB4", "1.0", 3},
      {3, 0x80, 0, "QMB4", "0.9", 2},    {3, 0x80, 0, "QM415CS", "0.4", 3},  {3, 0x80, 0, "QM415CS", "0.39", 2},
  };
  for (const auto& [stored, sources, features, model, firmware, fitted] : cases) {
    ScannerAbility a{};
    a.SourceFlags = sources;
    a.FeatureFlags = features;
    std::memcpy(a.ModelName, model, std::strlen(model));
    std::memcpy(a.FirmwareVersion, firmware, std::strlen(firmware));
    EXPECT_EQ(Load(N("SCANTYPE", stored), a).ScanType, fitted) << stored << " " << int(sources) << " " << model;
  }
}

TEST_F(LoadSettings, StoredValuesAreNarrowedParsedAndFitted) {
  ScannerAbility noFeederTypes = sxtest::TypicalAbility();
  noFeederTypes.SourceFlags = 0x80;
  EXPECT_EQ(Load(N("FEEDERTYPE", 1), noFeederTypes).FeederType, 0);
  EXPECT_EQ(Load(N("FEEDERTYPE", 2), noFeederTypes).FeederType, 2);
  for (auto [pixelType, bits] : {std::pair{1u, 8}, {2u, 24}, {5u, 36}})
    EXPECT_EQ(Load(N("PIXELTYPE", pixelType) + N("BITSPERPIXEL", 36)).BitsPerPixel, bits);
  const ScanSettings s = Load(N("XRESOLUTION", 0x12345) + N("OVERSCAN", 0xFFFF) + T("BRIGHTNESS", "  -500xyz") +
                              T("CONTRAST_B", "+12") + T("GAMMA", "1.8") + T("GAMMA_R", "abc") +
                              T("GAMMA_B", "1.15") + T("GAMMA_G", std::string(70, '3')) +
                              T("XFERCOUNT", "5 pages") + T("DITHER", "Diffusion 2"));
  EXPECT_EQ((std::vector<int>{s.XResolution, s.Overscan, s.Brightness[0], s.Contrast[3], s.XferCount, s.Dither}),
            (std::vector<int>{0x2345, -1, -500, 12, 5, 6}));
  EXPECT_EQ(std::vector<int>(s.Gamma, s.Gamma + 4), (std::vector<int>{180, 0, 100, 115}))
      << "too long for its room: the default; products in single precision";
  auto cwd = env_.Localised("Diffusion=Streuung\n");
  EXPECT_EQ(Load(T("DITHER", "Streuung 2")).Dither, 6);
  EXPECT_EQ(Load(T("DITHER", "Diffusion 2")).Dither, 2) << "not the localised word";
  // Area values in the stored units, read back in 1/300 inch.
  const std::tuple<std::string, uint16_t ScanSettings::*, int> cases[] = {
      {N("UNITS", 0) + T("XPOSITION", "1.5"), &ScanSettings::XPosition, 450},
      {N("UNITS", 1) + T("YPOSITION", "2.54"), &ScanSettings::YPosition, 300},
      {N("UNITS", 1) + T("IMAGELENGTH", "27.94"), &ScanSettings::ImageLength, 3300},
      {N("UNITS", 0), &ScanSettings::ImageWidth, 44104},  // 2550 x 300, low 16 bits
      {N("UNITS", 3) + T("XPOSITION", "1.5"), &ScanSettings::XPosition, 0x5A5A},
  };
  for (const auto& [values, field, expected] : cases) EXPECT_EQ(Load(values).*field, expected) << values;
}

}  // namespace
