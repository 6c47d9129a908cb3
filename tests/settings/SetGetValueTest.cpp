// SxSetValue and SxGetValue on the settings record, with the driver's entry
// points replaced by a recording stand-in.
#include <gtest/gtest.h>

#include <cmath>

#include "tests/settings/SettingsTestSupport.h"

namespace {

using sx::gSettings;
using sxtest::Codes;
using sxtest::gScript;

class Values : public ::testing::Test {
 protected:
  void SetUp() override { gSettings.Units = 2; }

  template <class T>
  int32_t Set(uint32_t cap, uint32_t type, T value) {
    return SxSetValue(cap, type, &value);
  }
  template <class T>
  T Get(uint32_t cap, uint32_t type, int32_t expectedResult = 0) {
    T value{};
    EXPECT_EQ(SxGetValue(cap, type, &value), expectedResult);
    return value;
  }
  std::string GetText(uint32_t cap, uint32_t type = TY_STR32) {
    char text[300];
    std::memset(text, 0x7F, sizeof text);
    EXPECT_EQ(SxGetValue(cap, type, text), 0);
    return text;
  }

  sxtest::SettingsEnv env_;
  sxtest::ScriptedDriver driver_;
};

struct FieldCase {
  uint32_t Capability;
  int32_t Set;     // passed as TY_INT32
  int32_t Stored;  // read back as TY_INT32, after narrowing to the field
};

TEST_F(Values, PlainFieldsStoreTheirNativeWidth) {
  const FieldCase cases[] = {
      {CAP_BACKGROUND, 1, 1},           {CAP_UICONTROL, 0x101, 1},
      {CAP_INDICATORS, 1, 1},           {CAP_SCANTYPE, 300, 44},
      {CAP_FEEDERTYPE, 2, 2},           {CAP_XRESOLUTION, 70000, 4464},
      {CAP_YRESOLUTION, 1200, 1200},    {CAP_PIXELTYPE, 5, 5},
      {CAP_BITSPERPIXEL, 48, 48},       {CAP_COMPRESSION, 0, 0},
      {CAP_THRESHOLD, 200, 200},        {CAP_INVERT, 1, 1},
      {CAP_SHARPEN, 4, 4},              {CAP_COLORMATCH, 1, 1},
      {CAP_DESCREEN, 3, 3},             {CAP_OVERSCAN, 0x1FFFB, -5},       {CAP_XFERCOUNT, -1, -1},
      {CAP_PAGESIZE, 9, 9},             {CAP_ENERGYSAVING, 30, 30},
      {CAP_FILTER, 3, 3},               {CAP_UNITS, 1, 1},
  };
  for (const FieldCase& c : cases) {
    SCOPED_TRACE(::testing::Message() << std::hex << c.Capability);
    EXPECT_EQ(Set(c.Capability, TY_INT32, c.Set), 0);
    EXPECT_EQ(Get<int32_t>(c.Capability, TY_INT32), c.Stored);
  }
  EXPECT_EQ(Get<uint16_t>(CAP_OVERSCAN, TY_UINT16), 0xFFFB);
  Set(CAP_BACKGROUNDLINES, TY_INT32, 0x14D);
  EXPECT_EQ(sx::gSettings.BackgroundLines, 0x4D);
}

TEST_F(Values, CapabilityAndTypeSlotsCountOnlyTheirLowWords) {
  EXPECT_EQ(Set(0xFFFF0000u | CAP_PIXELTYPE, 0x12340000u | TY_UINT8, uint8_t{2}), 0);
  EXPECT_EQ(gSettings.PixelType, 2);
  EXPECT_EQ(Get<int32_t>(0x00010000u | CAP_PIXELTYPE, 0xFFFF0000u | TY_INT32), 2);
}

TEST_F(Values, RefusedAndIgnoredCodes) {
  for (uint32_t cap : Codes{CAP_MODELNAME, CAP_SERIALNUMBER, CAP_FIRMWAREVERSION, CAP_PUSHBUTTON,
                       0x9102u, 0x9301u, 0x9302u, CAP_MAXLENGTHS, CAP_MAXWIDTHS,
                       CAP_FEEDERLOADED})
    EXPECT_EQ(Set(cap, TY_INT32, 1), SX_ERR_UNSUPPORTED) << std::hex << cap;
  const sx::ScanSettings before = gSettings;
  for (uint32_t cap : Codes{CAP_RESERVED9602, 0x9001u, 0x9003u, 0x1234u, 0x920Au, 0xFFFFu})
    EXPECT_EQ(Set(cap, TY_INT32, 1), 0) << std::hex << cap;
  EXPECT_EQ(std::memcmp(&before, &gSettings, sizeof before), 0);

  for (uint32_t cap : Codes{CAP_MINBUFFER, 0x9102u, 0x9301u, 0x9302u, CAP_MAXLENGTHS, CAP_MAXWIDTHS})
    EXPECT_EQ(Get<int32_t>(cap, TY_INT32, SX_ERR_UNSUPPORTED), 0) << std::hex << cap;
  for (uint32_t cap : Codes{0x9000u, 0x9001u, 0x9003u, 0x1234u}) {
    int32_t value = 0x5A5A;
    EXPECT_EQ(SxGetValue(cap, TY_INT32, &value), 0);
    EXPECT_EQ(value, 0x5A5A);
  }
  // The reserved code reads as 0 in whatever type is asked for.
  EXPECT_EQ(Get<float>(CAP_RESERVED9602, TY_FLOAT32), 0.0f);
  int32_t reserved = 0x5A5A;
  SxGetValue(CAP_RESERVED9602, TY_INT32, &reserved);
  EXPECT_EQ(reserved, 0);
}

TEST_F(Values, PositionsAreStatedInUnitsAndReadInPixels) {
  const std::pair<uint8_t, uint16_t> cases[] = {{0, 300}, {1, 118}, {2, 1}, {3, 0x1234}};
  for (auto [units, stored] : cases) {
    gSettings.Units = units;
    gSettings.XPosition = 0x1234;
    EXPECT_EQ(Set(CAP_XPOSITION, TY_FLOAT32, 1.0f), 0);
    EXPECT_EQ(gSettings.XPosition, stored) << "units " << int(units);
  }
  gSettings.Units = 0;
  Set(CAP_IMAGEWIDTH, TY_INT16, int16_t{2});  // an integer is converted to a real first
  EXPECT_EQ(gSettings.ImageWidth, 600);
  Set(CAP_IMAGELENGTH, TY_STR32, "11");  // text is no number: unchanged
  EXPECT_EQ(gSettings.ImageLength, 0);
  gSettings.YPosition = 450;
  for (uint8_t units : std::initializer_list<uint8_t>{0, 1, 2}) {
    gSettings.Units = units;
    EXPECT_EQ(Get<uint16_t>(CAP_YPOSITION, TY_UINT16), 450);
  }
}

TEST_F(Values, GammaIsHeldTimesAHundred) {
  gSettings.Filter = 0;
  EXPECT_EQ(Set(CAP_GAMMA, TY_FLOAT32, 2.2f), 0);
  EXPECT_EQ(gSettings.Gamma[0], 220);
  EXPECT_EQ(Get<float>(CAP_GAMMA, TY_FLOAT32), 220.0f * 0.01f);
  EXPECT_EQ(Get<int16_t>(CAP_GAMMA, TY_INT16), 2);
  gSettings.Filter = 2;
  Set(CAP_GAMMA, TY_INT32, 3);
  EXPECT_EQ(gSettings.Gamma[2], 300);
  EXPECT_EQ(gSettings.Gamma[0], 220);
}

TEST_F(Values, ChannelElementsFollowTheFilter) {
  gSettings.Filter = 1;
  EXPECT_EQ(Set(CAP_BRIGHTNESS, TY_INT16, int16_t{-500}), 0);
  EXPECT_EQ(gSettings.Brightness[1], -500);
  EXPECT_EQ(Get<int32_t>(CAP_BRIGHTNESS, TY_INT32), -500);
  EXPECT_EQ(Get<int16_t>(CAP_BRIGHTNESS, TY_INT16), -500);
  gSettings.Filter = 3;
  Set(CAP_CONTRAST, TY_INT32, 40);
  Set(CAP_HIGHLIGHT, TY_INT32, 250);
  Set(CAP_SHADOW, TY_UINT8, uint8_t{5});
  EXPECT_EQ(gSettings.Contrast[3], 40);
  EXPECT_EQ(gSettings.Highlight[3], 250);
  EXPECT_EQ(gSettings.Shadow[3], 5);
  EXPECT_EQ(gSettings.Brightness[3], 0);
}

TEST_F(Values, FilterBeyondTheChannelsTouchesNothing) {
  gSettings.Filter = 0;
  Set(CAP_BRIGHTNESS, TY_INT32, 77);
  for (uint8_t filter : std::initializer_list<uint8_t>{4, 200, 255}) {
    Set(CAP_FILTER, TY_UINT8, filter);
    const sx::ScanSettings before = gSettings;
    for (uint32_t cap : Codes{CAP_BRIGHTNESS, CAP_CONTRAST, CAP_HIGHLIGHT, CAP_SHADOW, CAP_GAMMA}) {
      EXPECT_EQ(Set(cap, TY_INT32, 9), 0);
      EXPECT_EQ(Get<int32_t>(cap, TY_INT32), 0);
    }
    EXPECT_EQ(std::memcmp(&before, &gSettings, sizeof before), 0);
  }
}

TEST_F(Values, DitherIsExchangedAsAName) {
  const std::pair<const char*, uint8_t> names[] = {
      {"None", 0}, {"Halftone 3", 3}, {"Diffusion 2", 6}, {"Halftone 4", 4}, {"Diffusion 1", 5}};
  for (auto [name, number] : names) {
    EXPECT_EQ(SxSetValue(CAP_DITHER, TY_STR32, const_cast<char*>(name)), 0);
    EXPECT_EQ(gSettings.Dither, number) << name;
    EXPECT_EQ(GetText(CAP_DITHER), name);
    EXPECT_EQ(GetText(CAP_DITHER, TY_STR255), name);
  }
  // A number is no name: Dither stays; a name read as a number writes nothing.
  Set(CAP_DITHER, TY_INT32, 0);
  EXPECT_EQ(gSettings.Dither, 5);
  EXPECT_EQ(Get<int32_t>(CAP_DITHER, TY_INT32), 0);
}

TEST_F(Values, DitherNamesComeFromTheLocalisationFile) {
  const sxtest::fs::path dir = env_.Root.Path() / "cwd";
  sxtest::WriteFile(dir / "langpack.loc",
                    "[0407]\nNone=Keine\nHalftone=Raster\nDiffusion=" + std::string(40, 'S') + "\n");
  std::strcpy(sx::gLib.LanguageSection, "0407");
  sxtest::ScopedCurrentDirectory cwd(dir);
  gSettings.Dither = 0;
  EXPECT_EQ(GetText(CAP_DITHER), "Keine");
  gSettings.Dither = 2;
  EXPECT_EQ(GetText(CAP_DITHER), "Raster 2");
  gSettings.Dither = 5;
  EXPECT_EQ(GetText(CAP_DITHER), std::string(32, 'S')) << "cut to 32 characters";
  SxSetValue(CAP_DITHER, TY_STR32, const_cast<char*>("Raster 1"));
  EXPECT_EQ(gSettings.Dither, 1);
}

TEST_F(Values, DitherWordsFallBackWhenTheCurrentDirectoryIsTooLong) {
  sxtest::fs::path dir = env_.Root.Path();
  while (dir.string().size() < 130) dir /= std::string(20, 'd');
  sxtest::WriteFile(dir / "langpack.loc", "[0407]\nNone=Keine\n");
  std::strcpy(sx::gLib.LanguageSection, "0407");
  sxtest::ScopedCurrentDirectory cwd(dir);
  EXPECT_EQ(GetText(CAP_DITHER), "None");
}

TEST_F(Values, ScannerTextsAreReadOnly) {
  std::memcpy(sx::gAbility.ModelName, "ABCDEFGHIJKLMNOPQRST", 20);  // no terminator
  std::strcpy(sx::gNvRam.SerialNumber, "SN42");
  EXPECT_EQ(GetText(CAP_MODELNAME), "ABCDEFGHIJKLMNOPQRST");
  EXPECT_EQ(GetText(CAP_SERIALNUMBER, TY_STR64), "SN42");
  EXPECT_EQ(GetText(CAP_FIRMWAREVERSION), "1.00");
  int32_t number = 0x5A5A;
  EXPECT_EQ(SxGetValue(CAP_MODELNAME, TY_INT32, &number), 0);
  EXPECT_EQ(number, 0x5A5A);
}

TEST_F(Values, EnergySavingGoesToTheScanner) {
  gScript.NvPowerSaveTime = 99;
  EXPECT_EQ(Set(CAP_ENERGYSAVING, TY_INT16, int16_t{30}), 0);
  EXPECT_EQ(gSettings.EnergySaving, 30);
  const std::vector<std::string> expected = {"ReadNVMData", "WriteNVMData(30)",
                                             "SetPowerSaveTime(30)"};
  EXPECT_EQ(gScript.Calls, expected);
  gScript.Calls.clear();
  gScript.Result = 0;  // failures are not examined
  EXPECT_EQ(Set(CAP_ENERGYSAVING, TY_INT32, 5), 0);
  EXPECT_EQ(gScript.Calls.size(), 3u);
}

TEST_F(Values, PushButtonReadsTheRecordAndResets) {
  struct Case {
    uint8_t Byte0, Byte1, Byte6;
    int32_t Result;
    int16_t Expected;
  };
  const Case cases[] = {{0x80, 2, 1, 1, 258}, {0x00, 2, 1, 1, 0}, {0x80, 2, 1, 0, 0},
                        {0xC0, 0xFF, 0x80, 1, static_cast<int16_t>(0x80FF)}};
  for (const Case& c : cases) {
    gScript.Calls.clear();
    gScript.ButtonRecord[0] = c.Byte0;
    gScript.ButtonRecord[1] = c.Byte1;
    gScript.ButtonRecord[6] = c.Byte6;
    gScript.Result = c.Result;
    EXPECT_EQ(Get<int16_t>(CAP_PUSHBUTTON, TY_INT16), c.Expected);
    const std::vector<std::string> calls = {"ReadPushButton", "ResetPushButton"};
    EXPECT_EQ(gScript.Calls, calls);
  }
}

TEST_F(Values, FeederStateAsksTheScanner) {
  gScript.Paper = 1;
  EXPECT_EQ(Get<int32_t>(CAP_FEEDERLOADED, TY_INT32), 1);
  gScript.Result = 0;
  int32_t value = 0x5A5A;
  EXPECT_EQ(SxGetValue(CAP_FEEDERLOADED, TY_INT32, &value), SX_ERR_DRIVER);
  EXPECT_EQ(value, 0x5A5A);
}

TEST_F(Values, BackgroundRasterGoesIntoTheHostsBuffer) {
  gSettings.BackgroundLines = 50;
  gSettings.ScanBytesPerLine = 7650;
  uint8_t buffer[16];
  for (auto [feederType, bytes] : {std::pair{1, 765000u}, std::pair{0, 382500u}, std::pair{2, 382500u}}) {
    gSettings.FeederType = static_cast<uint8_t>(feederType);
    EXPECT_EQ(SxGetValue(CAP_BACKGROUNDLINES, TY_UINT8, buffer), 0);
    EXPECT_EQ(gScript.RasterBytes, bytes);
    EXPECT_EQ(gScript.RasterBuffer, reinterpret_cast<uintptr_t>(buffer));
  }
  gScript.Result = 0;
  EXPECT_EQ(SxGetValue(CAP_BACKGROUNDLINES, TY_UINT8, buffer), 0);
}

TEST_F(Values, FaultingHostAddressesChangeNothing) {
  sxtest::FaultingPage page;
  gSettings.XResolution = 300;
  const sx::ScanSettings before = gSettings;
  for (uint32_t cap : Codes{CAP_XRESOLUTION, CAP_GAMMA, CAP_DITHER, CAP_XPOSITION, CAP_MINBUFFER,
                       CAP_BRIGHTNESS}) {
    EXPECT_EQ(SxSetValue(cap, TY_INT32, page.Bad()), 0);
    EXPECT_EQ(SxSetValue(cap, TY_STR32, page.Bad()), 0);
    EXPECT_EQ(SxSetValue(cap, TY_INT32, nullptr), 0);
  }
  EXPECT_EQ(std::memcmp(&before, &gSettings, sizeof before), 0);
  EXPECT_EQ(sx::gRing, nullptr);
  for (uint32_t cap : Codes{CAP_XRESOLUTION, CAP_GAMMA, CAP_DITHER, CAP_MODELNAME, CAP_PUSHBUTTON,
                       CAP_FEEDERLOADED, CAP_RESERVED9602}) {
    EXPECT_EQ(SxGetValue(cap, TY_STR255, page.Bad()), 0);
    EXPECT_EQ(SxGetValue(cap, TY_INT32, page.LastBytes(2)), 0);
  }
}

TEST_F(Values, UnterminatedDitherNameIsCut) {
  sxtest::FaultingPage page;
  const char name[] = "Halftone 2";  // 10 characters right before the fault
  uint8_t* tail = page.LastBytes(10);
  std::memcpy(tail, name, 10);
  gSettings.Dither = 1;
  EXPECT_EQ(SxSetValue(CAP_DITHER, TY_STR32, tail), 0);
  EXPECT_TRUE(gSettings.Dither == 1 || gSettings.Dither == 2);
  std::vector<char> longName(200, 'H');
  longName.back() = '3';
  EXPECT_EQ(SxSetValue(CAP_DITHER, TY_STR128, longName.data()), 0);
  EXPECT_EQ(gSettings.Dither, 0) << "cut to 32 characters, the number is gone";
}

TEST_F(Values, LocalizeRecreatesTheDialogFont) {
  EXPECT_EQ(SxSetValue(CAP_LOCALIZE, TY_INT32, nullptr), 0);
  EXPECT_NE(sx::gLib.DialogFont, nullptr);
  sx::plat::DeleteFont(sx::gLib.DialogFont);
  sx::gLib.DialogFont = nullptr;
}

}  // namespace
