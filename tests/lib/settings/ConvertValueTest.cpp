// The conversion between value types, and addresses that fault.
#include <limits>

#include "settings/SettingsInternal.h"
#include "tests/lib/settings/SettingsTestSupport.h"

namespace {

template <class T>
std::vector<uint8_t> B(T v) {
  std::vector<uint8_t> b(sizeof v);
  std::memcpy(b.data(), &v, sizeof v);
  return b;
}

TEST(ConvertValue, FollowsTheConversionTable) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  // {from, source, to, bytes written (none: nothing written)}
  const std::tuple<uint32_t, std::vector<uint8_t>, uint32_t, std::vector<uint8_t>> cases[] = {
      {TY_FLOAT32, B(-2.7f), TY_INT16, B<int16_t>(-2)},     {TY_INT16, B<int16_t>(-1), TY_UINT32, B(0xFFFFFFFFu)},
      {TY_UINT16, B<uint16_t>(0xFFFF), TY_FLOAT32, B(65535.0f)},
      {TY_UINT32, B(0xFFFFFFFFu), TY_FLOAT32, B(-1.0f)},  // read as signed
      {TY_INT32, B(0x12345678), TY_INT16, B<uint16_t>(0x5678)},
      {TY_INT32, B(0x12345678), TY_UINT8, {0x78}},  // one byte only
      {TY_UINT16, B<uint16_t>(0x8000), TY_INT32, B<int32_t>(0x8000)},
      {TY_FLOAT32, B(765000.0f), TY_UINT16, B<uint16_t>(44104)}, {TY_FLOAT32, B(5e9f), TY_INT32, B(705032704u)},
      {TY_FLOAT32, B(nan), TY_INT32, B(0)},  // texts and numbers never mix:
      {TY_INT32, B(7), TY_STR32, {}},        {TY_STR32, {'4', 0}, TY_INT32, {}},
      {TY_STR32, {'a', 'b', 0, 'x'}, TY_STR64, {'a', 'b', 0}}, {TY_STR255, {'a', 0}, TY_STR32, {}},
      {0x8020, B(1), TY_INT32, {}},          {TY_INT32, B(1), 0x7FFF, {}},
      {0xABCD0000u | TY_INT16, B<int16_t>(-3), 0x12340000u | TY_INT32, B(-3)},
  };
  for (auto [from, source, to, expected] : cases) {
    std::vector<uint8_t> dest(300, 0xAA);
    source.resize(300, 0);
    expected.resize(300, 0xAA);
    sx::ConvertValue(dest.data(), to, from, source.data());
    EXPECT_EQ(dest, expected) << std::hex << from << " to " << to;
  }
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

}  // namespace
