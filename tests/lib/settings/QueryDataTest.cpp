// SxQueryData: list forms, item spacing per value type, and the lists that
// follow the scanner, the stored defaults and the localisation file.
#include "tests/lib/settings/SettingsTestSupport.h"

namespace {

using sxtest::Query;
using V = std::vector<int32_t>;

class Lists : public ::testing::Test {
 protected:
  std::pair<int32_t, V> Ints(uint32_t cap) {
    const sxtest::ReceivedList l = Query(cap, TY_INT32);
    return {l.Count, l.As<int32_t>()};
  }
  sxtest::SettingsEnv env_;
  sxtest::ScriptedDriver driver_;
};

TEST_F(Lists, FormsAndItemSpacing) {
  EXPECT_EQ(Ints(CAP_BRIGHTNESS), (std::pair{0, V{-1000, 1000, 10}}));
  EXPECT_EQ(Query(CAP_BRIGHTNESS, TY_INT16).Items, (std::vector<uint8_t>{0x18, 0xFC, 0xE8, 3, 10, 0}));
  EXPECT_EQ(Query(CAP_HIGHLIGHT, TY_UINT8).Items, (std::vector<uint8_t>{1, 0, 255, 0, 1, 0}));
  EXPECT_EQ(Query(CAP_CONTRAST, TY_FLOAT32).As<float>()[1], 1000.0f);
  EXPECT_EQ(Query(CAP_SHADOW, TY_STR32).Items, std::vector<uint8_t>(99, 0)) << "numbers are no text";
  EXPECT_EQ(Query(0xFFFF0000u | CAP_UNITS, 0x7777).Items, std::vector<uint8_t>(6, 0)) << "unknown type";
  EXPECT_EQ(Ints(CAP_GAMMA), (std::pair{-1, V{0}}));
  EXPECT_EQ(Ints(CAP_MINBUFFER), (std::pair{0, V{0x100000}}));
  EXPECT_EQ(Ints(CAP_XFERCOUNT), (std::pair{0, V{-1}}));
  for (uint32_t cap : sxtest::Codes{0x9003, 0x9102, 0x920A, 0x1234})
    EXPECT_EQ(Ints(cap), (std::pair{0, V{0}})) << "empty, yet one zeroed item";
  env_.ScanData("\"MINBUFFER\"=dword:00200000\n\"XFERCOUNT\"=str(2):\"7\"\n\"UNITS\"=dword:0\n"
                "\"XPOSITION\"=str(2):\"1.5\"\n\"IMAGEWIDTH\"=str(2):\"1234567890\"\n");
  EXPECT_EQ(Ints(CAP_MINBUFFER), (std::pair{0, V{0x200000}}));
  EXPECT_EQ(Ints(CAP_XFERCOUNT), (std::pair{0, V{7}}));
  EXPECT_EQ(Query(CAP_XPOSITION, TY_FLOAT32).As<float>()[0], 1.5f) << "as stored, not converted";
  EXPECT_EQ(Ints(CAP_IMAGEWIDTH), (std::pair{1, V{2550}})) << "too long for 10 bytes";
}

TEST_F(Lists, ScannerDependentLists) {
  const std::pair<uint32_t, V> typical[] = {{CAP_SCANTYPE, {1, 2, 3}}, {CAP_BITSPERPIXEL, {1, 4, 8, 24, 16, 48}},
                                            {CAP_FEEDERLOADED, {0, 1}}, {CAP_OVERSCAN, {0, 133, 1}}};
  for (const auto& [cap, items] : typical) EXPECT_EQ(Ints(cap).second, items) << std::hex << cap;
  ScannerAbility& a = sx::gAbility = ScannerAbility{};
  a.SourceFlags = 0x48, a.PixelTypeFlags = 0x80, a.OptionFlags = 0x08;  // sheet-fed feeder and source 4
  a.ResolutionLimitA = 1200, a.ResolutionLimitC = 800;
  const std::pair<uint32_t, V> other[] = {{CAP_SCANTYPE, {1, 4}}, {CAP_FEEDERTYPE, {0}}, {CAP_PIXELTYPE, {1}},
                                          {CAP_FILTER, {1, 2, 3}}, {CAP_BITSPERPIXEL, {10}}, {CAP_BACKGROUND, {0}},
                                          {CAP_XRESOLUTION, {50, 800, 1}}, {CAP_OVERSCAN, {0, 0, 0}}};
  for (const auto& [cap, items] : other) EXPECT_EQ(Ints(cap).second, items) << std::hex << cap;
  a = sxtest::TypicalAbility();
  a.AltAreaLength = 1800, a.SourceFlags |= 0x08;
  sx::gSettings.Units = 7;
  EXPECT_EQ(Ints(CAP_MAXLENGTHS), (std::pair{4, V{4200, 3508, 1800, 1800}}));
  for (auto [units, width] : {std::pair{0, 8.5f}, {1, 8.5f * 2.54f}}) {
    sx::gSettings.Units = static_cast<uint8_t>(units);
    EXPECT_EQ(Query(CAP_MAXWIDTHS, TY_FLOAT32).As<float>()[1], width);
  }
}

TEST_F(Lists, NamesNeedATextTypeAndSetBackTheirNumbers) {
  const auto names = Query(CAP_DITHER, TY_STR32);
  const char* expected[] = {"None", "Halftone 1", "Halftone 2", "Halftone 3", "Halftone 4", "Diffusion 1",
                            "Diffusion 2"};
  ASSERT_TRUE(names.Count == 7 && names.Items.size() == 7u * 33);
  for (int i = 0; i < 7; ++i) {
    EXPECT_EQ(names.Text(i, 33), expected[i]);
    SxSetValue(CAP_DITHER, TY_STR32, const_cast<uint8_t*>(names.Items.data() + i * 33));
    EXPECT_EQ(sx::gSettings.Dither, i);
  }
  EXPECT_EQ(Query(CAP_DITHER, TY_STR255).Text(6, 256), "Diffusion 2");
  EXPECT_EQ(Query(CAP_DITHER, TY_INT32).Items, std::vector<uint8_t>(28, 0));
  EXPECT_EQ(Query(CAP_MODELNAME, TY_STR64).Text(0, 65), "QM7110V");
}

// More patterns than a byte counts: every name keeps its own number.
TEST_F(Lists, DitherNamesNumberedPastTwoHundredFiftyFive) {
  sx::gAbility.HalftonePatternCount = 200;
  sx::gAbility.DiffusionPatternCount = 100;
  const auto names = Query(CAP_DITHER, TY_STR32);
  ASSERT_EQ(names.Count, 301);
  EXPECT_EQ(names.Text(200, 33), "Halftone 200");
  EXPECT_EQ(names.Text(256, 33), "Diffusion 56");
  EXPECT_EQ(names.Text(300, 33), "Diffusion 100");
}

TEST_F(Lists, QueriesThatActOnTheScannerAndBadListAddresses) {
  EXPECT_EQ(Ints(CAP_ENERGYSAVING).first, 0);
  sxtest::gScript.Buttons = 3;
  EXPECT_EQ(Ints(CAP_PUSHBUTTON), (std::pair{4, V{0, 1, 2, 3}}));
  EXPECT_EQ(sxtest::gScript.Calls, (std::vector<std::string>{"PowerSave0", "InitialButton"}));
  // The result is not examined: the count is read from the record either way.
  sxtest::gScript.Result = 0;
  EXPECT_EQ(Ints(CAP_PUSHBUTTON), (std::pair{4, V{0, 1, 2, 3}})) << "a failing call that reports";
  sxtest::gScript.Buttons = 0;
  EXPECT_EQ(Ints(CAP_PUSHBUTTON), (std::pair{1, V{0}})) << "a failing call that leaves the zeros";
  // The most a driver can report: every button listed (the list grows by
  // doubling, so this stays quick).
  sxtest::gScript.Result = 1;
  sxtest::gScript.Buttons = 65535;
  const auto [count, items] = Ints(CAP_PUSHBUTTON);
  EXPECT_TRUE(count == 65536 && items.size() == 65536u && items.back() == 65535);
  sxtest::FaultingPage page;
  for (void* bad : {page.Bad(), static_cast<void*>(page.LastBytes(2)), static_cast<void*>(nullptr)})
    EXPECT_EQ(SxQueryData(CAP_DITHER, TY_STR32, static_cast<SxValueList**>(bad)), 0);
}

}  // namespace
