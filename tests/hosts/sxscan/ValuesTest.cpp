// Capability names, values in the library's value types, list descriptions,
// and what a scan asks of the library.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include <cstring>
#include <set>

#include "kit/Capabilities.h"
#include "kit/ScanPlan.h"
#include "sxscan.h"

namespace sx::host {
namespace {

TEST(HostValues, CapabilityNamesAndValues) {
  std::set<uint16_t> codes;
  for (const auto& cap : AllCapabilities()) EXPECT_TRUE(codes.insert(cap.code).second) << cap.name;
  EXPECT_EQ(codes.size(), 43u);  // every capability code of sxscan.h
  struct Name {
    const char* text;
    int code;  // -1: unknown
  } names[] = {
      {"CAP_XRESOLUTION", CAP_XRESOLUTION}, {"XResolution", CAP_XRESOLUTION}, {"0x930D", CAP_BACKGROUNDLINES},
      {"", -1}, {"CAP_", -1}, {"resolution", -1}, {"0x9102", -1}, {"0x1", -1}, {"CAP_XRESOLUTIONX", -1},
  };
  for (const auto& n : names) {
    const CapabilityInfo* cap = FindCapability(n.text);
    EXPECT_EQ(cap ? cap->code : -1, n.code) << n.text;
  }

  const std::string a32(32, 'a');
  struct Case {
    uint16_t type;
    std::string text;
    bool ok;
    uint32_t bits;      // little-endian content of the first 4 bytes
    std::string shown;  // FormatValue of the parsed value
  } cases[] = {
      {TY_INT16, "-32768", true, 0x8000, "-32768"}, {TY_UINT16, "0x9200", true, 0x9200, "37376"},
      {TY_UINT8, "255", true, 0xFF, "255"},         {TY_INT32, "-500", true, 0xFFFFFE0C, "-500"},
      {TY_UINT32, "4294967295", true, 0xFFFFFFFF, "4294967295"},
      {TY_FLOAT32, "1.5", true, 0x3FC00000, "1.5"}, {TY_FLOAT32, "-1e2", true, 0xC2C80000, "-100"},
      {TY_STR32, a32, true, 0x61616161, "\"" + a32 + "\""},
      {TY_STR32, a32 + "a", false}, {TY_STR255, std::string(256, 'b'), false},
      // Integers are whole words, decimal or hexadecimal, within the type.
      {TY_INT16, "32768", false}, {TY_UINT16, "-1", false}, {TY_UINT8, "256", false},
      {TY_INT16, ""}, {TY_INT16, " 1"}, {TY_INT16, "1 "}, {TY_INT16, "010"}, {TY_INT16, "1.5"},
      {TY_INT16, "0x"}, {TY_INT32, "twelve"}, {TY_INT32, "99999999999999999999"},
      {TY_FLOAT32, ""}, {TY_FLOAT32, "1.5in"}, {TY_FLOAT32, "inf"}, {TY_FLOAT32, "nan"},
      {TY_FLOAT32, "1e99"}, {TY_FLOAT32, " 2"},
  };
  for (const auto& c : cases) {
    Value v;
    std::string error;
    ASSERT_EQ(ParseValue(c.type, c.text, &v, &error), c.ok) << ValueTypeName(c.type) << " '" << c.text << "'";
    if (!c.ok) {
      EXPECT_FALSE(error.empty());
      continue;
    }
    uint32_t bits = 0;
    std::memcpy(&bits, v.bytes.data(), 4);
    EXPECT_EQ(bits, c.bits) << c.text;
    EXPECT_EQ(FormatValue(c.type, v.bytes.data()), c.shown);
  }
  // A text field without terminator is read to its end only.
  uint8_t field[33];
  std::memset(field, 'z', sizeof field);
  EXPECT_EQ(FormatValue(TY_STR32, field), "\"" + std::string(33, 'z') + "\"");
}

TEST(HostValues, DescribeListsByForm) {
  const CapabilityInfo& res = *FindCapability("xresolution");
  const CapabilityInfo& pixel = *FindCapability("pixeltype");
  const int32_t ints[] = {50, 600, 1};
  const auto* items = reinterpret_cast<const uint8_t*>(ints);
  EXPECT_EQ(DescribeList(res, 0, items, 12), "50 to 600 dpi");
  EXPECT_EQ(DescribeList(res, 0, items, 8), "unreadable range");  // block too small
  // A count beyond the items block is never followed.
  EXPECT_EQ(DescribeList(pixel, 5, items, 12), "one of 50, 600, 1 (gray) (2 more not readable)");
  EXPECT_EQ(DescribeList(pixel, -3, items, 12), "unreadable list (count -3)");
}

// Values are checked against the library's lists before anything is set.
TEST(HostValues, AdmissibleAgainstRangesEnumerationsAndNames) {
  const CapabilityInfo& res = *FindCapability("xresolution");
  const int32_t range[] = {50, 600, 25};
  const auto* items = reinterpret_cast<const uint8_t*>(range);
  for (int64_t dpi : {50, 75, 600}) EXPECT_TRUE(Admissible(res, IntegerValue(TY_UINT16, dpi), 0, items, 12)) << dpi;
  for (int64_t dpi : {25, 60, 625}) EXPECT_FALSE(Admissible(res, IntegerValue(TY_UINT16, dpi), 0, items, 12)) << dpi;
  EXPECT_TRUE(Admissible(res, IntegerValue(TY_UINT16, 7), 0, items, 8)) << "an unreadable range refuses nothing";

  const CapabilityInfo& pixel = *FindCapability("pixeltype");
  const int32_t types[] = {0, 2};
  const auto* listed = reinterpret_cast<const uint8_t*>(types);
  EXPECT_TRUE(Admissible(pixel, IntegerValue(TY_UINT8, 2), 2, listed, 8));
  EXPECT_FALSE(Admissible(pixel, IntegerValue(TY_UINT8, 1), 2, listed, 8));

  const CapabilityInfo& dither = *FindCapability("dither");
  char names[2][33] = {"None", "Halftone 1"};
  Value value;
  std::string error;
  ASSERT_TRUE(ParseValue(TY_STR32, "Halftone 1", &value, &error));
  EXPECT_TRUE(Admissible(dither, value, 2, reinterpret_cast<const uint8_t*>(names), sizeof names));
  ASSERT_TRUE(ParseValue(TY_STR32, "Halftone 2", &value, &error));
  EXPECT_FALSE(Admissible(dither, value, 2, reinterpret_cast<const uint8_t*>(names), sizeof names));
}

// Every code that can reach the user says what happened and what to do.
TEST(HostValues, ResultCodesBecomeSentencesWithAFix) {
  for (int32_t code : {-4, -6, -7, -8, -9, -10, -12, -16, -17, -20, -22, -23, -27, -28, -30, 131, 2003}) {
    const std::string text = ResultText(code);
    EXPECT_NE(text.find("; "), std::string::npos) << code << ": " << text;
  }
  EXPECT_NE(ResultText(-16).find("no paper"), std::string::npos);
  EXPECT_NE(ResultText(131).find("error 131"), std::string::npos);
}

TEST(HostScanPlan, OptionsBecomeOrderedSettings) {
  ScanOptions o{.resolution = 300, .mode = ColorMode::Lineart, .hasArea = true, .area = {1, 2, 10, 20},
                .units = AreaUnits::Centimetres, .source = ScanSource::Feeder, .pages = kAllPages,
                .buffered = true, .settings = {{"gamma", "1.8"}, {"CAP_XRESOLUTION", "150"}}};
  std::vector<SettingChange> changes;
  std::string error;
  ASSERT_TRUE(BuildScanSettings(o, &changes, &error)) << error;
  // A feeder and a flatbed, 8.5 by 14 and 8.5 by 11.69 inches, the feeder empty.
  const SourceFacts facts{.sources = {1, 2}, .maxWidths = {8.5f, 8.5f}, .maxLengths = {14, 11.69f},
                          .units = 0, .feederLoaded = false};
  AddSourceChanges(o, ChooseSource(o.source, facts), facts, &changes);
  std::vector<uint16_t> order;
  for (const auto& c : changes) order.push_back(c.cap->code);
  const std::vector<uint16_t> expected = {
      CAP_SCANTYPE,  CAP_PIXELTYPE,   CAP_BITSPERPIXEL, CAP_XRESOLUTION, CAP_YRESOLUTION,
      CAP_UNITS,     CAP_XPOSITION,   CAP_YPOSITION,    CAP_IMAGEWIDTH,  CAP_IMAGELENGTH,
      CAP_XFERCOUNT, CAP_BUFFERING,   CAP_GAMMA,        CAP_XRESOLUTION};
  ASSERT_EQ(order, expected);
  // Without an area, auto takes the flatbed (no paper) and its whole area.
  ScanOptions plain;
  ASSERT_TRUE(BuildScanSettings(plain, &changes, &error)) << error;
  EXPECT_EQ(ChooseSource(ScanSource::Auto, facts), ScanSource::Flatbed);
  AddSourceChanges(plain, ScanSource::Flatbed, facts, &changes);
  ASSERT_TRUE(changes.size() > 5 && changes[1].cap->code == CAP_UNITS && changes[5].cap->code == CAP_IMAGELENGTH);
  EXPECT_EQ(FormatValue(TY_FLOAT32, changes[5].value.bytes.data()), "11.69");

  for (auto bad : std::vector<std::pair<std::string, std::string>>{
           {"nosuch", "1"}, {"modelname", "X"}, {"xresolution", "-1"}, {"dither", std::string(40, 'x')}}) {
    ScanOptions b;
    b.settings = {bad};
    EXPECT_FALSE(BuildScanSettings(b, &changes, &error)) << bad.first;
  }
}

TEST(HostScanPlan, PageLayoutFromImageInfo) {
  struct Case {
    int32_t pixels, lines, type;
    bool ok;
    PixelKind kind;
    uint32_t width, stride;
  } cases[] = {
      {2544, 100, 2, true, PixelKind::Rgb, 2544, 7632},
      {2550, 100, 0, true, PixelKind::Lineart, 2544, 318},  // the library cuts lines to whole bytes
      {0, 100, 1}, {100, -1, 1}, {7, 100, 0}, {100, 100, 3},
      {INT32_MAX, 2, 2}, {60000, 60000, 2},  // too wide, too large to hold
  };
  for (const auto& c : cases) {
    SxImageInfo info{};
    info.ResolutionX = info.ResolutionY = 300;
    info.PixelsPerLine = c.pixels;
    info.LinesPerPage = c.lines;
    info.PixelType = static_cast<int16_t>(c.type);
    PageFormat f;
    std::string error;
    ASSERT_EQ(PageFormatFromInfo(info, &f, &error), c.ok) << c.pixels << "x" << c.lines;
    EXPECT_TRUE(!c.ok || (f.kind == c.kind && f.width == c.width && f.bytesPerLine == c.stride && f.xdpi == 300u));
  }
}

}  // namespace
}  // namespace sx::host

#endif
