// SxQueryData: list forms, item spacing per value type, and the lists that
// depend on the scanner, the stored defaults and the localisation file.
#include <gtest/gtest.h>

#include "tests/settings/SettingsTestSupport.h"

namespace {

using sxtest::gScript;
using sxtest::Codes;
using sxtest::Query;
using sxtest::ReceivedList;

class Lists : public ::testing::Test {
 protected:
  std::vector<int32_t> Ints(uint32_t cap, int32_t* count = nullptr) {
    const ReceivedList list = Query(cap, TY_INT32);
    if (count) *count = list.Count;
    std::vector<int32_t> items;
    for (size_t i = 0; i < list.ItemsBlockSize / 4; ++i) items.push_back(list.Item<int32_t>(i));
    if (list.Count > 0) {
      EXPECT_EQ(list.ItemsBlockSize, list.Count * 4u) << std::hex << cap;
    }
    return items;
  }
  // The items of an enumeration (its count must match its items).
  std::vector<int32_t> Enumeration(uint32_t cap) {
    int32_t count = 0;
    std::vector<int32_t> items = Ints(cap, &count);
    EXPECT_EQ(static_cast<size_t>(count), items.size()) << std::hex << cap;
    return items;
  }

  sxtest::SettingsEnv env_;
  sxtest::ScriptedDriver driver_;
};

using V = std::vector<int32_t>;

TEST_F(Lists, RangeItemsAreSpacedByTheRequestedType) {
  const ReceivedList asInt32 = Query(CAP_BRIGHTNESS, TY_INT32);
  EXPECT_EQ(asInt32.Count, 0);
  EXPECT_EQ(asInt32.ItemsBlockSize, 12u);
  EXPECT_EQ(asInt32.Item<int32_t>(0), -1000);
  EXPECT_EQ(asInt32.Item<int32_t>(1), 1000);
  EXPECT_EQ(asInt32.Item<int32_t>(2), 10);

  const ReceivedList asInt16 = Query(CAP_BRIGHTNESS, TY_INT16);
  EXPECT_EQ(asInt16.ItemsBlockSize, 6u);
  EXPECT_EQ(asInt16.Item<int16_t>(0), -1000);
  EXPECT_EQ(asInt16.Item<int16_t>(2), 10);

  const ReceivedList asReal = Query(CAP_CONTRAST, TY_FLOAT32);
  EXPECT_EQ(asReal.Item<float>(0), -1000.0f);

  // A UINT8 item takes 2 bytes, its value in the first.
  const ReceivedList asByte = Query(CAP_HIGHLIGHT, TY_UINT8);
  EXPECT_EQ(asByte.ItemsBlockSize, 6u);
  const std::vector<uint8_t> bytes = {1, 0, 255, 0, 1, 0};
  EXPECT_EQ(asByte.Items, bytes);

  // Numbers become no text: the items stay zero.
  const ReceivedList asText = Query(CAP_SHADOW, TY_STR32);
  EXPECT_EQ(asText.ItemsBlockSize, 3u * 33);
  EXPECT_EQ(asText.Items, std::vector<uint8_t>(99, 0));

  // Unknown types are 2-byte items; the high bits of both slots are ignored.
  EXPECT_EQ(Query(0xFFFF0000u | CAP_BACKGROUNDLINES, 0x7777).ItemsBlockSize, 6u);
  EXPECT_EQ(Query(CAP_BACKGROUNDLINES, 0x10000u | TY_INT32).ItemsBlockSize, 12u);
}

TEST_F(Lists, FormsWithoutCountedItems) {
  int32_t count = 9;
  EXPECT_EQ(Ints(CAP_GAMMA, &count), V{0});
  EXPECT_EQ(count, -1);
  EXPECT_EQ(Ints(CAP_MINBUFFER, &count), V{0x100000});
  EXPECT_EQ(count, 0);
  for (uint32_t cap : Codes{0x9000u, 0x9003u, 0x9102u, 0x9301u, 0x920Au, 0x920Fu, 0x1234u}) {
    EXPECT_EQ(Ints(cap, &count), V{0}) << "one zeroed item, never an empty block";
    EXPECT_EQ(count, 0);
  }
  EXPECT_EQ(Ints(CAP_XFERCOUNT, &count), V{-1});
  EXPECT_EQ(Ints(CAP_PAGESIZE, &count), V{0});
  EXPECT_EQ(count, 0);
}

TEST_F(Lists, StoredDefaultsAreReturnedAsStored) {
  env_.Root.WriteRegistry(
      "[Software\\Quillmark\\ScanData]\n\"MINBUFFER\"=dword:00200000\n"
      "\"XFERCOUNT\"=str(2):\"7\"\n\"PAGESIZE\"=dword:00000003\n"
      "\"XPOSITION\"=str(2):\"1.5\"\n\"UNITS\"=dword:00000000\n"
      "\"IMAGEWIDTH\"=str(2):\"1234567890\"\n");
  EXPECT_EQ(Ints(CAP_MINBUFFER), V{0x200000});
  EXPECT_EQ(Ints(CAP_XFERCOUNT), V{7});
  EXPECT_EQ(Ints(CAP_PAGESIZE), V{3});
  const ReceivedList x = Query(CAP_XPOSITION, TY_FLOAT32);
  EXPECT_EQ(x.Count, 1);
  EXPECT_EQ(x.Item<float>(0), 1.5f) << "not converted from the stored units";
  // Too long for its 10 bytes: the default.
  EXPECT_EQ(Query(CAP_IMAGEWIDTH, TY_FLOAT32).Item<float>(0), 2550.0f);
  EXPECT_EQ(Query(CAP_IMAGELENGTH, TY_INT32).Item<int32_t>(0), 3300);
  EXPECT_EQ(Query(CAP_YPOSITION, TY_INT32).Item<int32_t>(0), 0);
}

TEST_F(Lists, ScannerDependentEnumerations) {
  // The typical scanner: feeder with types, flatbed, source 3 by feature
  // flag, colour, options 0xD2, extra flags 0x180.
  EXPECT_EQ(Enumeration(CAP_SCANTYPE), (V{1, 2, 3}));
  EXPECT_EQ(Enumeration(CAP_FEEDERTYPE), (V{0, 1, 2}));
  EXPECT_EQ(Enumeration(CAP_PIXELTYPE), (V{0, 1, 2}));
  EXPECT_EQ(Enumeration(CAP_BITSPERPIXEL), (V{1, 4, 8, 24, 16, 48}));
  EXPECT_EQ(Enumeration(CAP_FILTER), (V{0, 1, 2, 3}));
  EXPECT_EQ(Enumeration(CAP_BACKGROUND), (V{0, 1}));
  EXPECT_EQ(Enumeration(CAP_FEEDERLOADED), (V{0, 1}));
  EXPECT_EQ(Ints(CAP_XRESOLUTION), (V{50, 600, 1}));
  EXPECT_EQ(Ints(CAP_YRESOLUTION), (V{50, 600, 1}));
  EXPECT_EQ(Ints(CAP_OVERSCAN), (V{0, 133, 1}));

  ScannerAbility& a = sx::gAbility;
  a = ScannerAbility{};
  a.SourceFlags = 0x80;
  a.PixelTypeFlags = 0x80;
  a.OptionFlags = 0x08;
  a.MaxResolution = 600;
  a.ResolutionLimitA = 1200;
  a.ResolutionLimitC = 800;
  EXPECT_EQ(Enumeration(CAP_SCANTYPE), V{2});
  EXPECT_EQ(Enumeration(CAP_FEEDERTYPE), V{0});
  EXPECT_EQ(Enumeration(CAP_PIXELTYPE), V{1});
  EXPECT_EQ(Enumeration(CAP_BITSPERPIXEL), V{10});
  EXPECT_EQ(Enumeration(CAP_FILTER), (V{1, 2, 3}));
  EXPECT_EQ(Enumeration(CAP_BACKGROUND), V{0});
  EXPECT_EQ(Enumeration(CAP_FEEDERLOADED), V{0});
  EXPECT_EQ(Ints(CAP_XRESOLUTION), (V{50, 800, 1}));
  EXPECT_EQ(Ints(CAP_OVERSCAN), (V{0, 0, 0}));
  a.SourceFlags = 0x48;  // sheet-fed feeder and source 4
  a.FeatureFlags = 0x01;
  EXPECT_EQ(Enumeration(CAP_SCANTYPE), (V{1, 3, 4}));
}

TEST_F(Lists, LengthsAndWidthsAreShownInUnits) {
  sx::gAbility.AltAreaWidth = 1500;
  sx::gAbility.AltAreaLength = 1800;
  sx::gAbility.SourceFlags = 0xE4 | 0x08;
  sx::gSettings.Units = 0;
  ReceivedList widths = Query(CAP_MAXWIDTHS, TY_FLOAT32);
  ASSERT_EQ(widths.Count, 4);
  EXPECT_EQ(widths.Item<float>(0), 8.5f);
  EXPECT_EQ(widths.Item<float>(1), 8.5f);
  EXPECT_EQ(widths.Item<float>(2), 5.0f);
  EXPECT_EQ(widths.Item<float>(3), 5.0f);
  sx::gSettings.Units = 1;
  EXPECT_EQ(Query(CAP_MAXWIDTHS, TY_FLOAT32).Item<float>(0), 8.5f * 2.54f);
  sx::gSettings.Units = 7;
  const ReceivedList lengths = Query(CAP_MAXLENGTHS, TY_INT32);
  EXPECT_EQ(lengths.Item<int32_t>(0), 4200);
  EXPECT_EQ(lengths.Item<int32_t>(1), 3508);
  EXPECT_EQ(lengths.Item<int32_t>(2), 1800);
}

TEST_F(Lists, ScannerTextsAndDitherNamesNeedATextType) {
  const ReceivedList names = Query(CAP_DITHER, TY_STR32);
  const char* expected[] = {"None",       "Halftone 1",  "Halftone 2", "Halftone 3",
                            "Halftone 4", "Diffusion 1", "Diffusion 2"};
  ASSERT_EQ(names.Count, 7);
  EXPECT_EQ(names.ItemsBlockSize, 7u * 33);
  for (size_t i = 0; i < 7; ++i) EXPECT_EQ(names.Text(i, 33), expected[i]);
  const ReceivedList wide = Query(CAP_DITHER, TY_STR255);
  EXPECT_EQ(wide.Text(6, 256), "Diffusion 2");
  EXPECT_EQ(Query(CAP_DITHER, TY_INT32).Items, std::vector<uint8_t>(28, 0));

  std::strcpy(sx::gNvRam.SerialNumber, "VS0001234");
  EXPECT_EQ(Query(CAP_MODELNAME, TY_STR64).Text(0, 65), "QM7110V");
  EXPECT_EQ(Query(CAP_SERIALNUMBER, TY_STR32).Text(0, 33), "VS0001234");
  EXPECT_EQ(Query(CAP_FIRMWAREVERSION, TY_STR128).Text(0, 129), "1.00");
}

TEST_F(Lists, EveryListedDitherNameSetsItsOwnNumber) {
  const ReceivedList names = Query(CAP_DITHER, TY_STR64);
  for (int32_t i = 0; i < names.Count; ++i) {
    std::string name = names.Text(i, 65);
    ASSERT_EQ(SxSetValue(CAP_DITHER, TY_STR64, name.data()), 0);
    EXPECT_EQ(sx::gSettings.Dither, i) << name;
  }
}

TEST_F(Lists, QueriesThatActOnTheScanner) {
  int32_t count = 9;
  EXPECT_EQ(Ints(CAP_ENERGYSAVING, &count), V{0});
  EXPECT_EQ(count, 0);
  EXPECT_EQ(gScript.Calls, std::vector<std::string>{"SetPowerSaveTime(0)"});

  gScript.Calls.clear();
  gScript.Buttons = 3;
  EXPECT_EQ(Enumeration(CAP_PUSHBUTTON), (V{0, 1, 2, 3}));
  EXPECT_EQ(gScript.Calls, std::vector<std::string>{"InitialButton"});
  gScript.Result = 0;
  EXPECT_EQ(Enumeration(CAP_PUSHBUTTON), V{0}) << "a failing call reports no buttons";
}

TEST_F(Lists, ColourMatchingWithoutASourceOffersOff) {
  EXPECT_EQ(Enumeration(CAP_COLORMATCH), V{0});
}

TEST_F(Lists, BadListAddressesAreSurvived) {
  sxtest::FaultingPage page;
  EXPECT_EQ(SxQueryData(CAP_DITHER, TY_STR32, static_cast<SxValueList**>(page.Bad())), 0);
  EXPECT_EQ(SxQueryData(CAP_UNITS, TY_INT32, nullptr), 0);
  EXPECT_EQ(SxQueryData(CAP_UNITS, TY_INT32,
                        reinterpret_cast<SxValueList**>(page.LastBytes(2))), 0);
}

}  // namespace
