// Capability names, values in the library's value types, list descriptions,
// and what a scan asks of the library.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include <cstring>
#include <set>

#include "Capabilities.h"
#include "ScanPlan.h"
#include "sxscan.h"

namespace sx::host {
namespace {

TEST(HostCapabilities, TableIsConsistent) {
  std::set<uint16_t> codes;
  std::set<std::string> names;
  for (const auto& cap : AllCapabilities()) {
    EXPECT_TRUE(codes.insert(cap.code).second) << cap.name;
    EXPECT_TRUE(names.insert(cap.name).second) << cap.name;
    EXPECT_EQ(FindCapability(cap.name), &cap);
    // Every list is asked for in a type the library can fill.
    EXPECT_STRNE(ValueTypeName(cap.itemType), "unknown type") << cap.name;
  }
  EXPECT_EQ(names.size(), 43u);  // every capability code of sxscan.h
}

TEST(HostCapabilities, FindByAnySpelling) {
  const CapabilityInfo* x = FindCapability("CAP_XRESOLUTION");
  ASSERT_NE(x, nullptr);
  EXPECT_EQ(x->code, CAP_XRESOLUTION);
  EXPECT_EQ(FindCapability("xresolution"), x);
  EXPECT_EQ(FindCapability("XResolution"), x);
  EXPECT_EQ(FindCapability("cap_xresolution"), x);
  EXPECT_EQ(FindCapability("0x9200"), x);
  EXPECT_EQ(FindCapability("0x930D")->code, CAP_BACKGROUNDLINES);
  for (const char* unknown : {"", "CAP_", "resolution", "0x9102", "0x1", "CAP_XRESOLUTIONX"})
    EXPECT_EQ(FindCapability(unknown), nullptr) << unknown;
}

TEST(HostValues, ParseWithinTypeRanges) {
  struct Case {
    uint16_t type;
    const char* text;
    bool ok;
    uint32_t bits;  // expected little-endian content of the first 4 bytes
  } cases[] = {
      {TY_INT16, "-2", true, 0xFFFE},         {TY_INT16, "32768", false, 0},
      {TY_UINT16, "65535", true, 0xFFFF},     {TY_UINT16, "-1", false, 0},
      {TY_UINT8, "255", true, 0xFF},          {TY_UINT8, "256", false, 0},
      {TY_INT32, "-500", true, 0xFFFFFE0C},   {TY_UINT32, "4294967295", true, 0xFFFFFFFF},
      {TY_UINT32, "-1", false, 0},            {TY_INT32, "twelve", false, 0},
      {TY_FLOAT32, "1.5", true, 0x3FC00000},  {TY_FLOAT32, "x", false, 0},
  };
  for (const auto& c : cases) {
    Value v;
    std::string error;
    ASSERT_EQ(ParseValue(c.type, c.text, &v, &error), c.ok) << ValueTypeName(c.type) << " " << c.text;
    if (!c.ok) {
      EXPECT_FALSE(error.empty());
      continue;
    }
    uint32_t bits = 0;
    std::memcpy(&bits, v.bytes.data(), 4);
    EXPECT_EQ(bits, c.bits) << ValueTypeName(c.type) << " " << c.text;
    EXPECT_EQ(v.type, c.type);
  }
}

TEST(HostValues, TextsFitTheirField) {
  Value v;
  std::string error;
  std::string longest(32, 'a');
  ASSERT_TRUE(ParseValue(TY_STR32, longest, &v, &error));
  EXPECT_EQ(v.bytes[32], 0);  // terminator inside the 33-byte field
  EXPECT_EQ(FormatValue(TY_STR32, v.bytes.data()), "\"" + longest + "\"");
  EXPECT_FALSE(ParseValue(TY_STR32, longest + "a", &v, &error));
  EXPECT_TRUE(ParseValue(TY_STR255, std::string(255, 'b'), &v, &error));
  EXPECT_FALSE(ParseValue(TY_STR255, std::string(256, 'b'), &v, &error));

  // A field without terminator is read to its end only.
  uint8_t field[33];
  std::memset(field, 'z', sizeof field);
  EXPECT_EQ(FormatValue(TY_STR32, field), "\"" + std::string(33, 'z') + "\"");
  EXPECT_EQ(FieldText("abc\0def", 7), "abc");
}

TEST(HostValues, FormatEachType) {
  EXPECT_EQ(FormatValue(TY_INT16, IntegerValue(TY_INT16, -7).bytes.data()), "-7");
  EXPECT_EQ(FormatValue(TY_UINT16, IntegerValue(TY_UINT16, 65535).bytes.data()), "65535");
  EXPECT_EQ(FormatValue(TY_UINT8, IntegerValue(TY_UINT8, 200).bytes.data()), "200");
  EXPECT_EQ(FormatValue(TY_INT32, IntegerValue(TY_INT32, -1000).bytes.data()), "-1000");
  EXPECT_EQ(FormatValue(TY_UINT32, IntegerValue(TY_UINT32, 0xFFFFFFFF).bytes.data()), "4294967295");
  EXPECT_EQ(FormatValue(TY_FLOAT32, RealValue(2.2f).bytes.data()), "2.2");
}

// Items as the library lays them out: back to back, ValueTypeBytes apart.
template <typename T>
std::vector<uint8_t> Items(std::initializer_list<T> values, size_t step) {
  std::vector<uint8_t> out(values.size() * step);
  size_t i = 0;
  for (T v : values) std::memcpy(out.data() + step * i++, &v, sizeof v);
  return out;
}

TEST(HostValues, DescribeListsByForm) {
  const CapabilityInfo& res = *FindCapability("xresolution");
  const CapabilityInfo& pixel = *FindCapability("pixeltype");
  const CapabilityInfo& minbuf = *FindCapability("minbuffer");
  const CapabilityInfo& gamma = *FindCapability("gamma");
  const CapabilityInfo& dither = *FindCapability("dither");
  const CapabilityInfo& widths = *FindCapability("maxwidths");

  auto range = Items<int32_t>({50, 600, 1}, 4);
  EXPECT_EQ(DescribeList(res, 0, range.data(), range.size()), "50 to 600 step 1");
  EXPECT_EQ(DescribeList(res, 0, range.data(), 8), "unreadable range");  // block too small
  auto types = Items<int32_t>({0, 1, 2}, 4);
  EXPECT_EQ(DescribeList(pixel, 3, types.data(), types.size()), "one of 0, 1, 2");
  // A count beyond the items block is never followed.
  EXPECT_EQ(DescribeList(pixel, 5, types.data(), types.size()), "one of 0, 1, 2 (2 more not readable)");
  EXPECT_EQ(DescribeList(pixel, 0, types.data(), types.size()), "none");
  auto dflt = Items<int32_t>({0x100000}, 4);
  EXPECT_EQ(DescribeList(minbuf, 0, dflt.data(), dflt.size()), "default 1048576");
  EXPECT_EQ(DescribeList(gamma, -1, nullptr, 0), "any value");
  EXPECT_EQ(DescribeList(pixel, -3, types.data(), types.size()), "unreadable list (count -3)");
  EXPECT_EQ(DescribeList(pixel, 2, nullptr, 0), "unreadable list");

  std::vector<uint8_t> names(66, 0);
  std::memcpy(names.data(), "None", 4);
  std::memcpy(names.data() + 33, "Halftone 1", 10);
  EXPECT_EQ(DescribeList(dither, 2, names.data(), names.size()), "one of \"None\", \"Halftone 1\"");
  auto w = Items<float>({8.5f, 8.5f}, 4);
  EXPECT_EQ(DescribeList(widths, 2, w.data(), w.size()), "one of 8.5, 8.5");
}

TEST(HostScanPlan, OptionsBecomeOrderedSettings) {
  ScanOptions o;
  o.source = ScanSource::Feeder;
  o.mode = ColorMode::Lineart;
  o.resolution = 300;
  o.hasArea = true;
  o.units = AreaUnits::Centimetres;
  o.area = {1, 2, 10, 20};
  o.pages = kAllPages;
  o.buffered = true;
  o.settings = {{"gamma", "1.8"}, {"CAP_XRESOLUTION", "150"}};
  std::vector<SettingChange> changes;
  std::string error;
  ASSERT_TRUE(BuildScanSettings(o, &changes, &error)) << error;
  std::vector<uint16_t> order;
  for (const auto& c : changes) order.push_back(c.cap->code);
  const std::vector<uint16_t> expected = {
      CAP_SCANTYPE,  CAP_PIXELTYPE,   CAP_BITSPERPIXEL, CAP_XRESOLUTION, CAP_YRESOLUTION,
      CAP_UNITS,     CAP_XPOSITION,   CAP_YPOSITION,    CAP_IMAGEWIDTH,  CAP_IMAGELENGTH,
      CAP_XFERCOUNT, CAP_BUFFERING,   CAP_GAMMA,        CAP_XRESOLUTION};
  EXPECT_EQ(order, expected);
  int32_t bits = 0;
  std::memcpy(&bits, changes[2].value.bytes.data(), 4);
  EXPECT_EQ(bits, 1);  // line art is one bit per pixel
  int32_t units = 0;
  std::memcpy(&units, changes[5].value.bytes.data(), 4);
  EXPECT_EQ(units, 1);
  float length = 0;
  std::memcpy(&length, changes[9].value.bytes.data(), 4);
  EXPECT_FLOAT_EQ(length, 20.0f);
  EXPECT_EQ(changes[12].value.type, TY_FLOAT32);

  ScanOptions nothing;
  ASSERT_TRUE(BuildScanSettings(nothing, &changes, &error));
  EXPECT_TRUE(changes.empty());

  for (auto bad : std::vector<std::pair<std::string, std::string>>{
           {"nosuch", "1"}, {"modelname", "X"}, {"xresolution", "-1"}, {"dither", std::string(40, 'x')}}) {
    ScanOptions b;
    b.settings = {bad};
    EXPECT_FALSE(BuildScanSettings(b, &changes, &error)) << bad.first;
  }
}

SxImageInfo Info(int32_t pixels, int32_t lines, int16_t pixelType, int32_t dpi = 300) {
  SxImageInfo info{};
  info.ResolutionX = info.ResolutionY = dpi;
  info.PixelsPerLine = pixels;
  info.LinesPerPage = lines;
  info.PixelType = pixelType;
  return info;
}

TEST(HostScanPlan, PageLayoutFromImageInfo) {
  struct Case {
    int32_t pixels;
    int16_t type;
    PixelKind kind;
    uint32_t width, stride;
  } cases[] = {
      {2544, 2, PixelKind::Rgb, 2544, 7632},
      {2544, 1, PixelKind::Gray, 2544, 2544},
      {2544, 0, PixelKind::Lineart, 2544, 318},
      {2550, 0, PixelKind::Lineart, 2544, 318},  // the library cuts lines to whole bytes
  };
  for (const auto& c : cases) {
    PageFormat f;
    std::string error;
    ASSERT_TRUE(PageFormatFromInfo(Info(c.pixels, 100, c.type), &f, &error)) << error;
    EXPECT_EQ(f.kind, c.kind);
    EXPECT_EQ(f.width, c.width);
    EXPECT_EQ(f.bytesPerLine, c.stride);
    EXPECT_EQ(f.lines, 100u);
    EXPECT_EQ(f.xdpi, 300u);
  }
  PageFormat f;
  std::string error;
  EXPECT_FALSE(PageFormatFromInfo(Info(0, 100, 1), &f, &error));
  EXPECT_FALSE(PageFormatFromInfo(Info(100, -1, 1), &f, &error));
  EXPECT_FALSE(PageFormatFromInfo(Info(7, 100, 0), &f, &error));  // no whole byte
  EXPECT_FALSE(PageFormatFromInfo(Info(100, 100, 3), &f, &error));
  EXPECT_FALSE(PageFormatFromInfo(Info(INT32_MAX, 2, 2), &f, &error));  // too wide
  EXPECT_FALSE(PageFormatFromInfo(Info(60000, 60000, 2), &f, &error));  // too large to hold
  ASSERT_TRUE(PageFormatFromInfo(Info(10, 10, 1, -5), &f, &error));
  EXPECT_EQ(f.xdpi, 0u);
}

}  // namespace
}  // namespace sx::host

#else
TEST(HostValues, NotBuilt) { GTEST_SKIP() << "the command-line host is not part of this build"; }
#endif
