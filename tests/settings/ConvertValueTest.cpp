// The conversion between value types and the text-to-number rules.
#include <cmath>
#include <limits>

#include "settings/SettingsInternal.h"
#include "tests/settings/SettingsTestSupport.h"

namespace {

template <class T>
std::vector<uint8_t> B(T v) {
  std::vector<uint8_t> b(sizeof v);
  std::memcpy(b.data(), &v, sizeof v);
  return b;
}

TEST(ConvertValue, FollowsTheConversionTable) {
  struct Case {
    uint32_t From;
    std::vector<uint8_t> Source;
    uint32_t To;
    std::vector<uint8_t> Written;  // empty: nothing written
  };
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const Case cases[] = {
      {TY_FLOAT32, B(-2.7f), TY_INT16, B<int16_t>(-2)},
      {TY_INT16, B<int16_t>(-1), TY_UINT32, B(0xFFFFFFFFu)},
      {TY_UINT16, B<uint16_t>(0xFFFF), TY_FLOAT32, B(65535.0f)},
      {TY_UINT32, B(0xFFFFFFFFu), TY_FLOAT32, B(-1.0f)},  // read as signed
      {TY_INT32, B(0x12345678), TY_INT16, B<uint16_t>(0x5678)},
      {TY_INT32, B(0x12345678), TY_UINT8, {0x78}},  // one byte only
      {TY_UINT16, B<uint16_t>(0x8000), TY_INT32, B<int32_t>(0x8000)},
      {TY_FLOAT32, B(765000.0f), TY_UINT16, B<uint16_t>(44104)},
      {TY_FLOAT32, B(300.7f), TY_UINT8, {44}},
      {TY_FLOAT32, B(5e9f), TY_INT32, B(705032704u)},
      {TY_FLOAT32, B(nan), TY_INT32, B(0)},
      {TY_FLOAT32, B(1e20f), TY_INT16, B<int16_t>(0)},
      {TY_INT32, B(7), TY_STR32, {}},
      {TY_STR32, {'4', 0}, TY_INT32, {}},
      {TY_STR32, {'a', 'b', 0, 'x'}, TY_STR64, {'a', 'b', 0}},
      {TY_STR255, {'a', 0}, TY_STR32, {}},
      {0x8020, B(1), TY_INT32, {}},
      {TY_INT32, B(1), 0x7FFF, {}},
      {0xABCD0000u | TY_INT16, B<int16_t>(-3), 0x12340000u | TY_INT32, B(-3)},
  };
  for (const Case& c : cases) {
    std::vector<uint8_t> source = c.Source, dest(300, 0xAA), expected = c.Written;
    source.resize(300, 0);
    expected.resize(300, 0xAA);
    sx::ConvertValue(dest.data(), c.To, c.From, source.data());
    EXPECT_EQ(dest, expected) << std::hex << c.From << " to " << c.To;
  }
}

TEST(ConvertValue, TextsStayWithinBothRoomsAndTerminated) {
  std::vector<char> dest(300, 0x55);
  sx::ConvertValue(dest.data(), TY_STR32, TY_STR128, std::string(100, 'x').c_str());
  EXPECT_EQ(std::string(dest.data()), std::string(32, 'x'));
  EXPECT_EQ(dest[33], 0x55);
  sx::ConvertValue(dest.data(), TY_STR255, TY_STR32, std::string(40, 'y').data());
  EXPECT_EQ(std::string(dest.data()), std::string(32, 'y'));  // no terminator in 33
}

TEST(ConvertValue, FaultingAddressesAbandonTheConversion) {
  sxtest::FaultingPage page;
  int32_t dest = 0x5A5A5A5A, value = 7;
  sx::ConvertValue(&dest, TY_INT32, TY_INT32, page.Bad());
  sx::ConvertValue(&dest, TY_INT32, TY_INT32, page.LastBytes(2));
  EXPECT_EQ(dest, 0x5A5A5A5A);
  sx::ConvertValue(page.Bad(), TY_INT32, TY_INT32, &value);
  sx::ConvertValue(page.Bad(), TY_STR64, TY_STR32, "text");
  char text[40] = "kept";
  std::memset(page.LastBytes(5), 'z', 5);  // unterminated, running into the fault
  sx::ConvertValue(text, TY_STR32, TY_STR32, page.LastBytes(5));
  EXPECT_STREQ(text, "kept");
  page.LastBytes(1)[0] = 0;  // now terminated just before the fault
  sx::ConvertValue(text, TY_STR32, TY_STR32, page.LastBytes(5));
  EXPECT_STREQ(text, "zzzz");
}

// Stored texts beyond what the loader's own cases show.
TEST(TextToNumber, EdgesOfTheNumberRules) {
  EXPECT_EQ(sx::IntegerText("- 5", 3), 0);
  EXPECT_EQ(sx::IntegerText("99999999999", 11), INT32_MAX);
  EXPECT_EQ(sx::IntegerText("12345", 2), 12);  // only the room is read
  for (auto [text, r] : {std::pair{" 1e3", 1000.0f}, {"1e", 1.0f}, {"-.5", -0.5f}, {".", 0.0f},
                         {"inf", 0.0f}, {"0x10", 0.0f}, {"1e-999", 0.0f}, {"1.2.3", 1.2f}})
    EXPECT_EQ(sx::RealText(text, std::strlen(text)), r) << text;
  EXPECT_TRUE(std::isinf(sx::RealText("-1e40", 5)));
}

}  // namespace
