// The conversion between value types, the value-type sizes and the
// text-to-number rules of the stored defaults.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "settings/SettingsInternal.h"
#include "tests/settings/SettingsTestSupport.h"

namespace {

using sx::ConvertValue;

template <class T>
std::vector<uint8_t> Bytes(T v) {
  std::vector<uint8_t> b(sizeof v);
  std::memcpy(b.data(), &v, sizeof v);
  return b;
}

struct Conversion {
  const char* Name;
  uint32_t SourceType;
  std::vector<uint8_t> Source;
  uint32_t DestType;
  std::vector<uint8_t> Expected;  // bytes written; empty: nothing written
};

TEST(ConvertValue, FollowsTheConversionTable) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const Conversion cases[] = {
      {"real to int16 truncates toward zero", TY_FLOAT32, Bytes(-2.7f), TY_INT16, Bytes<int16_t>(-2)},
      {"int16 to uint32 sign-extends", TY_INT16, Bytes<int16_t>(-1), TY_UINT32, Bytes(0xFFFFFFFFu)},
      {"uint16 to real zero-extends", TY_UINT16, Bytes<uint16_t>(0xFFFF), TY_FLOAT32, Bytes(65535.0f)},
      {"int16 to real sign-extends", TY_INT16, Bytes<int16_t>(-1), TY_FLOAT32, Bytes(-1.0f)},
      {"uint32 to real is signed", TY_UINT32, Bytes(0xFFFFFFFFu), TY_FLOAT32, Bytes(-1.0f)},
      {"int32 to int16 keeps low bits", TY_INT32, Bytes(0x12345678), TY_INT16, Bytes<uint16_t>(0x5678)},
      {"int32 to uint8 writes one byte", TY_INT32, Bytes(0x12345678), TY_UINT8, {0x78}},
      {"uint8 to int16 zero-extends", TY_UINT8, {0xFF}, TY_INT16, Bytes<int16_t>(255)},
      {"uint8 to int32 zero-extends", TY_UINT8, {0xFF}, TY_INT32, Bytes<int32_t>(255)},
      {"uint8 to real", TY_UINT8, {200}, TY_FLOAT32, Bytes(200.0f)},
      {"uint16 to int32 zero-extends", TY_UINT16, Bytes<uint16_t>(0x8000), TY_INT32, Bytes<int32_t>(0x8000)},
      {"real to uint16 keeps low 16 bits", TY_FLOAT32, Bytes(765000.0f), TY_UINT16, Bytes<uint16_t>(44104)},
      {"real to uint8 keeps low 8 bits", TY_FLOAT32, Bytes(300.7f), TY_UINT8, {44}},
      {"real to int32 beyond 32 bits", TY_FLOAT32, Bytes(5e9f), TY_INT32, Bytes<uint32_t>(705032704u)},
      {"real to int32 negative", TY_FLOAT32, Bytes(-0.5f), TY_INT32, Bytes<int32_t>(0)},
      {"NaN to int32", TY_FLOAT32, Bytes(nan), TY_INT32, Bytes<int32_t>(0)},
      {"huge real to int16", TY_FLOAT32, Bytes(1e20f), TY_INT16, Bytes<int16_t>(0)},
      {"real copy", TY_FLOAT32, Bytes(2.2f), TY_FLOAT32, Bytes(2.2f)},
      {"number to text: nothing", TY_INT32, Bytes(7), TY_STR32, {}},
      {"text to number: nothing", TY_STR32, {'4', '2', 0}, TY_INT32, {}},
      {"text copy with its NUL", TY_STR32, {'a', 'b', 0, 'x'}, TY_STR64, {'a', 'b', 0}},
      {"STR255 source converts to nothing", TY_STR255, {'a', 0}, TY_STR32, {}},
      {"text into STR255", TY_STR128, {'a', 0}, TY_STR255, {'a', 0}},
      {"unknown source type", 0x8020, Bytes(1), TY_INT32, {}},
      {"unknown destination type", TY_INT32, Bytes(1), 0x7FFF, {}},
      {"high bits of the type slots ignored", 0xABCD0000u | TY_INT16, Bytes<int16_t>(-3),
       0x12340000u | TY_INT32, Bytes<int32_t>(-3)},
  };
  for (const Conversion& c : cases) {
    SCOPED_TRACE(c.Name);
    std::vector<uint8_t> source = c.Source;
    source.resize(300, 0);
    std::vector<uint8_t> dest(300, 0xAA);
    ConvertValue(dest.data(), c.DestType, c.SourceType, source.data());
    std::vector<uint8_t> expected = c.Expected;
    expected.resize(300, 0xAA);
    EXPECT_EQ(dest, expected);
  }
}

TEST(ConvertValue, TextIsCutToTheSmallerRoomAndStaysTerminated) {
  const std::string long100(100, 'x');
  std::vector<uint8_t> dest(200, 0xAA);
  ConvertValue(dest.data(), TY_STR32, TY_STR128, long100.c_str());
  EXPECT_EQ(std::string(reinterpret_cast<char*>(dest.data())), std::string(32, 'x'));
  EXPECT_EQ(dest[33], 0xAA) << "nothing written past the destination's 33 bytes";

  // A STR32 text without terminator is read no further than its 33 bytes.
  const std::string unterminated(40, 'y');
  std::fill(dest.begin(), dest.end(), 0xAA);
  ConvertValue(dest.data(), TY_STR255, TY_STR32, unterminated.data());
  EXPECT_EQ(std::string(reinterpret_cast<char*>(dest.data())), std::string(32, 'y'));
}

TEST(ConvertValue, FaultingAddressesAbandonTheConversion) {
  sxtest::FaultingPage page;
  int32_t dest = 0x5A5A5A5A;
  ConvertValue(&dest, TY_INT32, TY_INT32, page.Bad());
  EXPECT_EQ(dest, 0x5A5A5A5A);
  // A value that straddles the end of readable memory is not read either.
  ConvertValue(&dest, TY_INT32, TY_INT32, page.LastBytes(2));
  EXPECT_EQ(dest, 0x5A5A5A5A);
  const int32_t value = 7;
  ConvertValue(page.Bad(), TY_INT32, TY_INT32, &value);
  ConvertValue(page.Bad(), TY_STR64, TY_STR32, "text");
  char text[40] = {};
  ConvertValue(text, TY_STR32, TY_STR32, page.Bad());
  EXPECT_EQ(text[0], 0);
  // An unterminated text that runs into the fault: no crash, and whatever
  // is written stays terminated within the destination.
  uint8_t* tail = page.LastBytes(5);
  std::memset(tail, 'z', 5);
  std::memset(text, 0x7F, sizeof text);
  ConvertValue(text, TY_STR32, TY_STR32, tail);
  EXPECT_NE(std::memchr(text, 0, 33), nullptr);
}

TEST(ValueTypeSize, GivesTheListItemSizes) {
  const std::pair<uint32_t, uint16_t> sizes[] = {
      {TY_INT16, 2},   {TY_INT32, 4},    {TY_FLOAT32, 4},  {TY_UINT16, 2},
      {TY_STR32, 33},  {TY_STR64, 65},   {TY_STR128, 129}, {TY_STR255, 256},
      {TY_UINT8, 2},   {TY_UINT32, 4},   {0x8000, 2},      {0x801A, 2},
      {0, 2},          {0xFFFF0000u | TY_STR64, 65},
  };
  for (auto [type, size] : sizes) EXPECT_EQ(sx::ValueTypeSize(type), size) << std::hex << type;
}

TEST(TextToNumber, IntegerTexts) {
  const std::pair<const char*, int32_t> cases[] = {
      {"  -12abc", -12}, {"+7", 7},         {"abc", 0},       {"", 0},
      {" \t42", 42},     {"- 5", 0},        {"0017", 17},     {"99999999999", INT32_MAX},
      {"-99999999999", INT32_MIN},          {"3.9", 3},
  };
  for (auto [text, expected] : cases)
    EXPECT_EQ(sx::IntegerText(text, std::strlen(text)), expected) << text;
  // Only the given room is read: a stored text need not be terminated.
  EXPECT_EQ(sx::IntegerText("12345", 2), 12);
}

TEST(TextToNumber, RealTexts) {
  const std::pair<const char*, float> cases[] = {
      {"2.54", 2.54f},  {" 1e3", 1000.0f}, {"1e", 1.0f},     {"-.5", -0.5f},
      {".", 0.0f},      {"1.5x", 1.5f},    {"inf", 0.0f},    {"nan", 0.0f},
      {"0x10", 0.0f},   {"+2.2", 2.2f},    {"1e-999", 0.0f}, {"5E+2", 500.0f},
      {"1.2.3", 1.2f},
  };
  for (auto [text, expected] : cases)
    EXPECT_EQ(sx::RealText(text, std::strlen(text)), expected) << text;
  EXPECT_TRUE(std::isinf(sx::RealText("1e999", 5)));
  EXPECT_TRUE(std::isinf(sx::RealText("-1e40", 5)));
  EXPECT_EQ(sx::RealText("1.25", 3), 1.2f);
}

}  // namespace
