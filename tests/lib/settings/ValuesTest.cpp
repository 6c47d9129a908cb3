// SxSetValue and SxGetValue on the settings record, and the buffer ring,
// with the driver replaced by a recording stand-in; the conversion between
// value types beneath them.
#include <array>
#include <limits>
#include <optional>

#include "settings/SettingsInternal.h"
#include "tests/lib/settings/SettingsTestSupport.h"

namespace {

using sx::gSettings;
using sxtest::Codes;
using sxtest::gScript;
using Calls = std::vector<std::string>;

class Values : public ::testing::Test {
 protected:
  template <class T>
  int32_t Set(uint32_t cap, uint32_t type, T v) { return SxSetValue(cap, type, &v); }
  template <class T>
  T Get(uint32_t cap, uint32_t type, int32_t result = 0) {
    T v{};
    EXPECT_EQ(SxGetValue(cap, type, &v), result) << std::hex << cap;
    return v;
  }
  std::string Text(uint32_t cap, uint32_t type = TY_STR32) { return Get<std::array<char, 300>>(cap, type).data(); }
  // Nothing in the record may change.
  void Unchanged(const sx::ScanSettings& before) { EXPECT_EQ(std::memcmp(&before, &gSettings, sizeof before), 0); }
  sxtest::SettingsEnv env_;
  sxtest::ScriptedDriver driver_;
};

TEST_F(Values, CodesAndWidths) {
  EXPECT_EQ(Set(CAP_XRESOLUTION, TY_INT32, 70000), 0);
  EXPECT_EQ(Get<int32_t>(CAP_XRESOLUTION, TY_INT32), 4464) << "the field's own width";

  for (uint32_t cap : Codes{CAP_MODELNAME, CAP_SERIALNUMBER, CAP_FIRMWAREVERSION, CAP_PUSHBUTTON,
                            0x9102, 0x9301, 0x9302, CAP_MAXLENGTHS, CAP_MAXWIDTHS, CAP_FEEDERLOADED})
    EXPECT_EQ(Set(cap, TY_INT32, 1), SX_ERR_UNSUPPORTED) << std::hex << cap;
  for (uint32_t cap : Codes{CAP_MINBUFFER, 0x9102, 0x9301, 0x9302, CAP_MAXLENGTHS, CAP_MAXWIDTHS})
    Get<int32_t>(cap, TY_INT32, SX_ERR_UNSUPPORTED);
  const sx::ScanSettings before = gSettings;
  for (uint32_t cap : Codes{CAP_RESERVED9602, 0x9001, 0x920A, 0x1234}) EXPECT_EQ(Set(cap, TY_INT32, 1), 0);
  Unchanged(before);
  for (uint32_t cap : Codes{0x9000, 0x9003, 0x1234, CAP_RESERVED9602}) {
    int32_t v = 0x5A5A;
    EXPECT_TRUE(SxGetValue(cap, TY_INT32, &v) == 0 && v == (cap == CAP_RESERVED9602 ? 0 : 0x5A5A)) << cap;
  }
}

TEST_F(Values, PositionsGammaAndChannels) {
  for (auto [units, stored] : {std::pair{0, 300}, {1, 118}, {2, 1}, {3, 0x1234}}) {
    gSettings.Units = static_cast<uint8_t>(units);
    gSettings.XPosition = 0x1234;
    Set(CAP_XPOSITION, TY_FLOAT32, 1.0f);
    EXPECT_EQ(Get<uint16_t>(CAP_XPOSITION, TY_UINT16), stored) << "read in 1/300 inch";
  }
  Set(CAP_GAMMA, TY_FLOAT32, 2.2f);
  EXPECT_EQ(gSettings.Gamma[0], 220) << "Filter 0 is the master element";
  EXPECT_EQ(Get<float>(CAP_GAMMA, TY_FLOAT32), 220.0f * 0.01f);
  gSettings.Filter = 3;
  Set(CAP_BRIGHTNESS, TY_INT16, int16_t{-500});
  EXPECT_EQ(gSettings.Brightness[3], -500);
  for (uint8_t filter : {4, 255}) {  // no element: nothing stored, 0 read
    gSettings.Filter = filter;
    const sx::ScanSettings before = gSettings;
    for (uint32_t cap : Codes{CAP_BRIGHTNESS, CAP_CONTRAST, CAP_HIGHLIGHT, CAP_SHADOW, CAP_GAMMA})
      EXPECT_TRUE(Set(cap, TY_INT32, 9) == 0 && Get<int32_t>(cap, TY_INT32) == 0) << cap;
    Unchanged(before);
  }
}

TEST_F(Values, DitherNamesAndTexts) {
  gSettings.Dither = 5;
  Set(CAP_DITHER, TY_INT32, 0);
  EXPECT_EQ(gSettings.Dither, 5) << "a number is no name";
  EXPECT_EQ(Get<int32_t>(CAP_DITHER, TY_INT32), 0);
  std::string longName = std::string(100, 'H') + "3";
  SxSetValue(CAP_DITHER, TY_STR128, longName.data());
  EXPECT_EQ(gSettings.Dither, 0) << "cut to 32 characters, the number is gone";
  std::memcpy(sx::gAbility.ModelName, "ABCDEFGHIJKLMNOPQRST", 20);  // no terminator
  EXPECT_EQ(Text(CAP_MODELNAME), "ABCDEFGHIJKLMNOPQRST");
  {
    auto cwd = env_.Localised("None=Keine\nHalftone=Raster\nDiffusion=" + std::string(40, 'S') + "\n");
    for (auto [dither, text] : {std::pair{0, std::string("Keine")}, {2, "Raster 2"}, {6, std::string(32, 'S')}}) {
      gSettings.Dither = static_cast<uint8_t>(dither);
      EXPECT_EQ(Text(CAP_DITHER), text);
    }
  }
  sxtest::fs::path deep = env_.Root.Path();
  while (deep.string().size() < 130) deep /= std::string(20, 'd');
  auto cwd = env_.Localised("Diffusion=Streuung\n", deep);
  EXPECT_EQ(Text(CAP_DITHER), "Diffusion 2") << "a directory too long for its room: built-in words";
}

TEST_F(Values, ScannerRequests) {
  Set(CAP_ENERGYSAVING, TY_INT16, int16_t{30});
  EXPECT_EQ(gScript.Calls, (Calls{"ReadNVMData", "Write30", "PowerSave30"}));
  // {record bytes 0, 1 and 6, driver result, value}
  for (auto [b0, b1, b6, result, value] : {std::tuple{0x80, 2, 1, 1, 258}, {0x00, 2, 1, 1, 0},
                                           {0x80, 2, 1, 0, 0}, {0xC0, 0xFF, 0x80, 1, 0x80FF - 0x10000}}) {
    gScript.Calls.clear(), gScript.Result = result;
    gScript.Button[0] = uint8_t(b0), gScript.Button[1] = uint8_t(b1), gScript.Button[6] = uint8_t(b6);
    EXPECT_EQ(Get<int16_t>(CAP_PUSHBUTTON, TY_INT16), value);
    EXPECT_EQ(gScript.Calls, (Calls{"ReadPushButton", "ResetPushButton"}));
  }
  EXPECT_EQ(Get<int32_t>(CAP_FEEDERLOADED, TY_INT32), 1);
  gScript.Result = 0;
  EXPECT_EQ(Get<int32_t>(CAP_FEEDERLOADED, TY_INT32, SX_ERR_DRIVER), 0);
  gSettings.BackgroundLines = 50, gSettings.ScanBytesPerLine = 7650;
  for (auto [feederType, bytes] : {std::pair{1, 765000u}, {2, 382500u}}) {
    gSettings.FeederType = static_cast<uint8_t>(feederType);
    Get<uint8_t>(CAP_BACKGROUNDLINES, TY_UINT8);
    EXPECT_EQ(gScript.RasterBytes, bytes);
  }
}

TEST_F(Values, FaultingHostAddressesChangeNothing) {
  sxtest::FaultingPage page;
  std::memcpy(page.LastBytes(10), "Halftone 2", 10);  // unterminated at the fault
  const sx::ScanSettings before = gSettings;
  for (uint32_t cap : Codes{CAP_XRESOLUTION, CAP_GAMMA, CAP_DITHER, CAP_XPOSITION, CAP_BRIGHTNESS})
    for (void* bad : {page.Bad(), static_cast<void*>(page.LastBytes(2)), static_cast<void*>(nullptr)}) {
      EXPECT_EQ(SxSetValue(cap, TY_INT32, bad) + SxSetValue(cap, TY_STR32, bad), 0);
      EXPECT_EQ(SxGetValue(cap, TY_STR255, bad), 0);
    }
  EXPECT_EQ(SxSetValue(CAP_DITHER, TY_STR32, page.LastBytes(10)), 0);
  EXPECT_EQ(SxSetValue(CAP_MINBUFFER, TY_INT32, page.Bad()), 0);
  Unchanged(before);
  EXPECT_EQ(sx::gRing, nullptr);
  EXPECT_EQ(SxGetValue(CAP_PUSHBUTTON, TY_INT32, page.LastBytes(2)), 0);
  // Beneath them: a number written to a faulting address, and a text that
  // ends just before a fault is whole.
  int32_t value = 7;
  sx::ConvertValue(page.Bad(), TY_INT32, TY_INT32, &value);
  char text[40] = "kept";
  std::memset(page.LastBytes(5), 'z', 5);  // unterminated, running into the fault
  sx::ConvertValue(text, TY_STR32, TY_STR32, page.LastBytes(5));
  EXPECT_STREQ(text, "kept");
  page.LastBytes(1)[0] = 0;  // now terminated just before the fault
  sx::ConvertValue(text, TY_STR32, TY_STR32, page.LastBytes(5));
  EXPECT_STREQ(text, "zzzz");
}

// The buffers' block sizes, once round from the current node; all zero-filled.
std::vector<size_t> Buffers() {
  std::vector<size_t> sizes;
  for (const sx::RingNode* n = sx::gRing; n && sizes.size() < 64; n = n->Next) {
    sizes.push_back(SxSysGlobalSize(SxSysGlobalHandle(n->Data)));
    for (size_t i = 0; i < sizes.back(); i += 4096) EXPECT_EQ(n->Data[i], 0);
    if (n->Next == sx::gRing) break;
  }
  return sizes;
}

TEST_F(Values, RingCountFollowsTheAvailableMemoryAndBuffersGrowButNeverShrink) {
  constexpr size_t kMiB = 1u << 20;
  std::optional<sxtest::ScopedEnv> memory;
  for (auto [available, count] : {std::pair{1536 * kMiB, 10}, {2 * kMiB, 2}, {10 * kMiB, 6}}) {
    memory.emplace("SX_AVAILABLE_MEMORY", std::to_string(available).c_str());
    Set(CAP_BUFFERING, TY_UINT8, uint8_t{1});
    EXPECT_EQ(Buffers(), std::vector<size_t>(count, kMiB)) << available;
    Set(CAP_BUFFERING, TY_UINT8, uint8_t{0});
    EXPECT_TRUE(sx::gRing == nullptr && gSettings.BufferCount == count) << "the count outlives the ring";
  }

  env_.ScanData("\"MINBUFFER\"=dword:00300000\n");
  memory.emplace("SX_AVAILABLE_MEMORY", std::to_string(30 * kMiB).c_str());
  Set(CAP_MINBUFFER, TY_INT32, 0x200000);  // builds a ring whatever Buffering holds
  EXPECT_EQ(Buffers(), std::vector<size_t>(9, 2 * kMiB));
  Set(CAP_BUFFERING, TY_UINT8, uint8_t{1});  // the stored 3 MiB, same count
  EXPECT_EQ(Buffers(), std::vector<size_t>(9, 3 * kMiB));
  Set(CAP_MINBUFFER, TY_INT32, 0x100000);
  EXPECT_EQ(Buffers(), std::vector<size_t>(9, 3 * kMiB));
  sx::ReleaseBufferRing();
  Set(CAP_MINBUFFER, TY_INT32, -5);
  EXPECT_EQ(Buffers(), std::vector<size_t>(10, kMiB)) << "raised to a mebibyte";
  sx::ReleaseBufferRing();
  SxSetValue(CAP_MINBUFFER, TY_STR32, const_cast<char*>("2097152"));
  EXPECT_EQ(sx::gRing, nullptr) << "a text is no size";
}

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

}  // namespace
