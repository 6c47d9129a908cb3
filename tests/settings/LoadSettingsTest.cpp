// LoadScanSettings against stored defaults written to the registry store and
// an ability record filled by hand.
#include <gtest/gtest.h>

#include "tests/settings/SettingsTestSupport.h"

namespace {

using sx::ScanSettings;
using sxtest::SettingsEnv;

class LoadSettings : public ::testing::Test {
 protected:
  // Loads from a ScanData key holding `values` (registry store lines) into a
  // record that starts out full of 0x5A, so untouched fields show.
  ScanSettings Load(const std::string& values, const ScannerAbility& ability) {
    env_.Root.WriteRegistry("[Software\\Quillmark\\ScanData]\n" + values);
    ScanSettings s;
    std::memset(&s, 0x5A, sizeof s);
    sx::LoadScanSettings(s, ability);
    return s;
  }
  ScanSettings Load(const std::string& values) { return Load(values, sxtest::TypicalAbility()); }

  SettingsEnv env_;
};

TEST_F(LoadSettings, EmptyKeyGivesTheDefaultsFittedToAFlatbed) {
  ScannerAbility a{};
  a.MaxResolution = 600;
  a.SourceFlags = 0x80;
  const ScanSettings s = Load("", a);
  EXPECT_EQ(s.ScanType, 0);
  EXPECT_EQ(s.FeederType, 0);
  EXPECT_EQ(s.XResolution, 300);
  EXPECT_EQ(s.YResolution, 300);
  EXPECT_EQ(s.PixelType, 0);
  EXPECT_EQ(s.BitsPerPixel, 1);
  for (int c = 0; c < sx::kChannels; ++c) {
    EXPECT_EQ(s.Brightness[c], 0);
    EXPECT_EQ(s.Contrast[c], 0);
    EXPECT_EQ(s.Highlight[c], 255);
    EXPECT_EQ(s.Shadow[c], 0);
    EXPECT_EQ(s.Gamma[c], c == 0 ? 220 : 100);
  }
  EXPECT_EQ(s.Filter, 2);
  EXPECT_EQ(s.Threshold, 128);
  EXPECT_EQ(s.Units, 2);
  EXPECT_EQ(s.XPosition, 0);
  EXPECT_EQ(s.YPosition, 0);
  EXPECT_EQ(s.ImageWidth, 2550);
  EXPECT_EQ(s.ImageLength, 3300);
  EXPECT_EQ(s.XferCount, -1);
  EXPECT_EQ(s.EnergySaving, 15);
  EXPECT_EQ(s.BackgroundLines, 50);
  for (uint8_t v : {s.Compression, s.Dither, s.Invert, s.PageSize, s.Indicators, s.UIControl,
                    s.Sharpen, s.ColorMatch, s.Descreen, s.Background})
    EXPECT_EQ(v, 0);
  EXPECT_EQ(s.Overscan, 0);
  // The ring and the acquisition's working fields are not the loader's.
  EXPECT_EQ(s.BufferCount, 0x5A);
  EXPECT_EQ(s.Buffering, 0x5A);
  EXPECT_EQ(s.ScanBytesPerLine, 0x5A5A5A5A);
}

TEST_F(LoadSettings, LowResolutionScannerDefaultsToItsMaximum) {
  ScannerAbility a{};
  a.MaxResolution = 200;
  const ScanSettings s = Load("", a);
  EXPECT_EQ(s.XResolution, 200);
  EXPECT_EQ(s.YResolution, 200);
}

struct ScanTypeCase {
  uint32_t Stored;
  uint8_t SourceFlags;
  uint32_t FeatureFlags;
  const char* Model;
  const char* Firmware;
  uint8_t Expected;
};

TEST_F(LoadSettings, ScanTypeIsFittedToTheScannersSources) {
  const ScanTypeCase cases[] = {
      {1, 0x80, 0, "", "", 2},          {1, 0x04, 0, "", "", 1},
      {1, 0x00, 0, "", "", 4},          {1, 0x00, 0x01, "", "", 3},
      {2, 0x80, 0, "", "", 2},          {2, 0x40, 0, "", "", 1},
      {2, 0x00, 0x01, "", "", 3},       {2, 0x00, 0, "", "", 4},
      {3, 0x80, 0x01, "", "", 3},       {3, 0x80, 0, "", "", 2},
      {3, 0x10, 0, "", "", 1},          {3, 0x00, 0, "", "", 4},
      {4, 0x08, 0, "", "", 4},          {4, 0x88, 0, "", "", 4},
      {4, 0x80, 0, "", "", 2},          {4, 0x20, 0, "", "", 1},
      {4, 0x00, 0, "", "", 3},          {0, 0x00, 0, "", "", 0},
      {7, 0x80, 0, "", "", 7},          {0x103, 0x80, 0x01, "", "", 3},  // low byte counts
      // Models whose alternate source depends on the firmware version.
      {3, 0x80, 0, "QM7110", "1.00", 2},   {3, 0x04, 0, "QM7110", "1.00", 1},
      {3, 0x00, 0, "QM7110", "1.00", 4},   {3, 0x80, 0, "QM7110V", "2.00", 3},
      {3, 0x80, 0, "QMB4", "1.0", 3},      {3, 0x80, 0, "QMB4", "0.9", 2},
      {3, 0x80, 0, "QM415CS", "0.4", 3},   {3, 0x80, 0, "QM415CS", "0.39", 2},
      {3, 0x80, 0, "QM415CS", "1", 3},     {3, 0x80, 0, "qm7110", "2.00", 2},
      {3, 0x80, 0, "QM711", "9", 2},
  };
  for (const ScanTypeCase& c : cases) {
    ScannerAbility a{};
    a.SourceFlags = c.SourceFlags;
    a.FeatureFlags = c.FeatureFlags;
    std::strncpy(a.ModelName, c.Model, sizeof a.ModelName);
    std::strncpy(a.FirmwareVersion, c.Firmware, sizeof a.FirmwareVersion);
    char stored[64];
    std::snprintf(stored, sizeof stored, "\"SCANTYPE\"=dword:%08x\n", c.Stored);
    EXPECT_EQ(Load(stored, a).ScanType, c.Expected)
        << "stored " << c.Stored << " flags " << int(c.SourceFlags) << " " << c.Model << " "
        << c.Firmware;
  }
}

TEST_F(LoadSettings, FeederTypeAndDepthFollowTheScanner) {
  ScannerAbility noTypes = sxtest::TypicalAbility();
  noTypes.SourceFlags = 0x80;
  EXPECT_EQ(Load("\"FEEDERTYPE\"=dword:00000001\n", noTypes).FeederType, 0);
  EXPECT_EQ(Load("\"FEEDERTYPE\"=dword:00000002\n", noTypes).FeederType, 2);
  EXPECT_EQ(Load("\"FEEDERTYPE\"=dword:00000001\n").FeederType, 1);

  const std::pair<std::string, uint8_t> depths[] = {
      {"\"PIXELTYPE\"=dword:00000002\n\"BITSPERPIXEL\"=dword:00000024\n", 24},
      {"\"PIXELTYPE\"=dword:00000001\n\"BITSPERPIXEL\"=dword:00000024\n", 8},
      {"\"PIXELTYPE\"=dword:00000000\n\"BITSPERPIXEL\"=dword:00000024\n", 1},
      {"\"PIXELTYPE\"=dword:00000005\n\"BITSPERPIXEL\"=dword:00000024\n", 36},
  };
  for (const auto& [values, bits] : depths) EXPECT_EQ(Load(values).BitsPerPixel, bits) << values;
}

TEST_F(LoadSettings, NumbersKeepTheirLowBytesAndTextsAreParsed) {
  const ScanSettings s = Load(
      "\"XRESOLUTION\"=dword:00012345\n"
      "\"HIGHLIGHT_G\"=dword:000001f0\n"
      "\"ENERGYSAVING\"=dword:00010003\n"
      "\"OVERSCAN\"=dword:0000ffff\n"
      "\"BRIGHTNESS\"=str(2):\"  -500xyz\"\n"
      "\"CONTRAST_B\"=str(2):\"+12\"\n"
      "\"GAMMA\"=str(2):\"1.8\"\n"
      "\"GAMMA_R\"=str(2):\"abc\"\n"
      "\"GAMMA_B\"=str(2):\"1.15\"\n"
      "\"XFERCOUNT\"=str(2):\"5 pages\"\n"
      "\"FILTER\"=dword:00000000\n");
  EXPECT_EQ(s.XResolution, 0x2345);
  EXPECT_EQ(s.Highlight[2], 0xF0);
  EXPECT_EQ(s.EnergySaving, 3);
  EXPECT_EQ(s.Overscan, -1);
  EXPECT_EQ(s.Brightness[0], -500);
  EXPECT_EQ(s.Contrast[3], 12);
  EXPECT_EQ(s.Gamma[0], 180);
  EXPECT_EQ(s.Gamma[1], 0);
  EXPECT_EQ(s.Gamma[3], 115) << "the product is taken in single precision";
  EXPECT_EQ(s.XferCount, 5);
  EXPECT_EQ(s.Filter, 0);
}

TEST_F(LoadSettings, TextTooLongForItsRoomGivesTheDefault) {
  const ScanSettings s = Load("\"GAMMA\"=str(2):\"" + std::string(70, '3') + "\"\n");
  EXPECT_EQ(s.Gamma[0], 220);
}

struct AreaCase {
  std::string Values;
  uint16_t ScanSettings::*Field;
  uint16_t Expected;
};

TEST_F(LoadSettings, AreaIsReadInTheStoredUnits) {
  const AreaCase cases[] = {
      {"\"UNITS\"=dword:00000000\n\"XPOSITION\"=str(2):\"1.5\"\n", &ScanSettings::XPosition, 450},
      {"\"UNITS\"=dword:00000001\n\"YPOSITION\"=str(2):\"2.54\"\n", &ScanSettings::YPosition, 300},
      {"\"UNITS\"=dword:00000001\n\"IMAGELENGTH\"=str(2):\"27.94\"\n", &ScanSettings::ImageLength,
       3300},
      {"\"UNITS\"=dword:00000000\n", &ScanSettings::ImageWidth, 44104},  // 2550 x 300, low bits
      {"\"UNITS\"=dword:00000002\n\"IMAGEWIDTH\"=str(2):\"1200.9\"\n", &ScanSettings::ImageWidth,
       1200},
      {"\"UNITS\"=dword:00000003\n\"XPOSITION\"=str(2):\"1.5\"\n", &ScanSettings::XPosition,
       0x5A5A},  // an unknown unit leaves the fields alone
  };
  for (const AreaCase& c : cases) EXPECT_EQ(Load(c.Values).*c.Field, c.Expected) << c.Values;
}

TEST_F(LoadSettings, DitherNamesGiveTheirPatternNumbers) {
  const std::pair<const char*, uint8_t> cases[] = {
      {"None", 0}, {"Halftone 3", 3}, {"Diffusion 2", 6}, {"Diffusion 1", 5}, {"Anything", 0},
  };
  for (auto [name, number] : cases) {
    EXPECT_EQ(Load(std::string("\"DITHER\"=str(2):\"") + name + "\"\n").Dither, number) << name;
  }
}

TEST_F(LoadSettings, DitherNamesUseTheLocalisedWords) {
  const sxtest::fs::path dir = env_.Root.Path() / "cwd";
  sxtest::WriteFile(dir / "langpack.loc",
                    "[0407]\nNone=Keine\nHalftone=Raster\nDiffusion=Streuung\n");
  std::strcpy(sx::gLib.LanguageSection, "0407");
  sxtest::ScopedCurrentDirectory cwd(dir);
  EXPECT_EQ(Load("\"DITHER\"=str(2):\"Streuung 2\"\n").Dither, 6);
  EXPECT_EQ(Load("\"DITHER\"=str(2):\"Raster 2\"\n").Dither, 2);
  // The English word is not the localised diffusion word here.
  EXPECT_EQ(Load("\"DITHER\"=str(2):\"Diffusion 2\"\n").Dither, 2);
}

}  // namespace
