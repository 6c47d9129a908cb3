// The SANE backend's option model over a library that keeps its settings as
// the real one does: tone settings in four elements addressed by CAP_FILTER,
// positions in the unit CAP_UNITS names.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <map>
#include <memory>

#include "Options.h"
#include "sxscan.h"

namespace {
using namespace sxsane;

bool IsTone(uint32_t cap) { return cap >= CAP_BRIGHTNESS && cap <= CAP_GAMMA; }

class FakeLibrary : public LibrarySettings {
 public:
  int32_t Get(uint32_t cap, uint32_t type, void* value) override {
    const double v = IsTone(cap) ? tones[cap][Element()] : values[cap];
    if (type == TY_FLOAT32) *static_cast<float*>(value) = static_cast<float>(v);
    if (type == TY_INT32) *static_cast<int32_t*>(value) = static_cast<int32_t>(v);
    return SX_OK;
  }
  int32_t Set(uint32_t cap, uint32_t type, void* value) override {
    const double v = type == TY_FLOAT32 ? *static_cast<float*>(value) : *static_cast<int32_t*>(value);
    (IsTone(cap) ? tones[cap][Element()] : values[cap]) = v;
    return SX_OK;
  }
  ValueList<int32_t> Integers(uint32_t cap) override { return lists[cap]; }
  ValueList<float> Reals(uint32_t cap) override { return reals[cap]; }
  size_t Element() { return static_cast<size_t>(values[CAP_FILTER]) % 4; }

  // A colour flatbed with a feeder that takes longer sheets; the library's
  // filter names green, whose tone differs from the whole image's.
  std::map<uint32_t, ValueList<int32_t>> lists = {
      {CAP_PIXELTYPE, {3, {0, 1, 2}}},        {CAP_SCANTYPE, {3, {1, 2, 3}}},
      {CAP_XRESOLUTION, {0, {50, 600, 1}}},   {CAP_YRESOLUTION, {0, {50, 600, 1}}},
      {CAP_BRIGHTNESS, {0, {-1000, 1000, 10}}}, {CAP_CONTRAST, {0, {-1000, 1000, 10}}},
      {CAP_HIGHLIGHT, {0, {1, 255, 1}}},      {CAP_SHADOW, {0, {0, 254, 1}}},
      {CAP_FILTER, {4, {0, 1, 2, 3}}},        {CAP_THRESHOLD, {1, {128}}},
      {CAP_DESCREEN, {4, {0, 1, 2, 3}}},      {CAP_SHARPEN, {5, {0, 1, 2, 3, 4}}},
      {CAP_COLORMATCH, {1, {0}}}};
  std::map<uint32_t, ValueList<float>> reals = {{CAP_MAXWIDTHS, {3, {2550, 2550, 2550}}},
                                                {CAP_MAXLENGTHS, {3, {4200, 3508, 3508}}}};
  std::map<uint32_t, double> values = {{CAP_FILTER, 2}, {CAP_IMAGEWIDTH, 2550}, {CAP_IMAGELENGTH, 3300},
                                       {CAP_THRESHOLD, 128}};
  std::map<uint32_t, std::array<double, 4>> tones = {{CAP_BRIGHTNESS, {30, 0, -20, 0}},
                                                     {CAP_CONTRAST, {0, 0, 0, 0}},
                                                     {CAP_HIGHLIGHT, {255, 255, 255, 255}},
                                                     {CAP_SHADOW, {0, 0, 0, 0}},
                                                     {CAP_GAMMA, {2.2f, 1, 1.8f, 1}}};
};

constexpr int kBrightnessRed = kChannelFirst;       // brightness-r
constexpr int kGammaGreen = kChannelFirst + 4 * 3 + 1;  // gamma-g
constexpr SANE_Int kReload = SANE_INFO_RELOAD_OPTIONS | SANE_INFO_RELOAD_PARAMS;

class Options : public ::testing::Test {
 protected:
  void SetUp() override { BuildOptions(*model_, library_); }
  SANE_Status Set(int option, SANE_Word word, SANE_Int* info = nullptr) {
    return ControlOption(*model_, option, SANE_ACTION_SET_VALUE, &word, info);
  }
  SANE_Status SetText(int option, const char* text, SANE_Int* info = nullptr) {
    char buffer[32] = {};
    std::strncpy(buffer, text, sizeof buffer - 1);
    return ControlOption(*model_, option, SANE_ACTION_SET_VALUE, buffer, info);
  }
  SANE_Word Get(int option) {
    SANE_Word word = 0;
    EXPECT_EQ(ControlOption(*model_, option, SANE_ACTION_GET_VALUE, &word, nullptr), SANE_STATUS_GOOD);
    return word;
  }
  bool Active(int option) const { return !(model_->desc[option].cap & SANE_CAP_INACTIVE); }
  void Apply() {
    ScanArea area;
    ASSERT_EQ(AreaToScan(*model_, &area), SANE_STATUS_GOOD);
    ASSERT_EQ(ApplySettings(*model_, library_, area), SX_OK);
  }
  FakeLibrary library_;
  std::unique_ptr<OptionModel> model_ = std::make_unique<OptionModel>();
};

TEST_F(Options, ToneOptionsShowAndSetTheirOwnElementWhateverTheFilter) {
  EXPECT_NEAR(SANE_UNFIX(Get(kGamma)), 2.2, 1e-4);
  EXPECT_NEAR(SANE_UNFIX(Get(kGammaGreen)), 1.8, 1e-4);
  EXPECT_EQ(Get(kBrightness), 30);
  EXPECT_EQ(library_.values[CAP_FILTER], 2);
  // A scan with nothing changed uses exactly the values shown.
  const auto before = library_.tones;
  Apply();
  EXPECT_EQ(library_.tones, before);

  ASSERT_EQ(Set(kGamma, SANE_FIX(1.5)), SANE_STATUS_GOOD);
  ASSERT_EQ(Set(kBrightnessRed, 100), SANE_STATUS_GOOD);
  Apply();
  EXPECT_EQ(library_.tones[CAP_GAMMA], (std::array<double, 4>{1.5, 1, 1.8f, 1}));
  EXPECT_EQ(library_.tones[CAP_BRIGHTNESS], (std::array<double, 4>{30, 100, -20, 0}));
  EXPECT_EQ(library_.values[CAP_FILTER], 2);

  // A gray scan taken from red is shaped by red's element: the whole-image
  // gamma the frontend set goes there too.
  ASSERT_EQ(SetText(kMode, "Gray"), SANE_STATUS_GOOD);
  ASSERT_EQ(SetText(kFilter, "Red"), SANE_STATUS_GOOD);
  Apply();
  EXPECT_EQ(library_.tones[CAP_GAMMA], (std::array<double, 4>{1.5, 1.5, 1.8f, 1}));
  EXPECT_EQ(library_.values[CAP_FILTER], 1);
}

// What a frontend's value becomes: kept, adjusted onto the constraint (and
// the frontend told, in its own buffer), or refused.
TEST_F(Options, ValuesAreKeptAdjustedOrRefused) {
  const SANE_Word bedLength = SANE_FIX(3508 * 25.4 / 300);
  struct Case {
    int option;
    SANE_Word word;
    SANE_Status status;
    SANE_Int info;
    SANE_Word kept;
  } cases[] = {
      {kResolution, 150, SANE_STATUS_GOOD, SANE_INFO_RELOAD_PARAMS, 150},
      {kResolution, 0, SANE_STATUS_GOOD, SANE_INFO_INEXACT | SANE_INFO_RELOAD_PARAMS, 50},
      {kBrightness, 15, SANE_STATUS_GOOD, SANE_INFO_INEXACT | SANE_INFO_RELOAD_PARAMS, 20},  // steps of 10
      {kTlY, SANE_FIX(400), SANE_STATUS_GOOD, SANE_INFO_INEXACT | SANE_INFO_RELOAD_PARAMS, bedLength},
      // Tone values outside their range are mistakes, not wishes.
      {kBrightness, 5000, SANE_STATUS_INVAL, 0, 0},
      {kGamma, 0, SANE_STATUS_INVAL, 0, 0},
      {kDescreen, 7, SANE_STATUS_INVAL, 0, 0},
      {kBuffered, 2, SANE_STATUS_INVAL, 0, 0},
      {kThreshold, 128, SANE_STATUS_INVAL, 0, 0},  // inactive in colour
      {kModeGroup, 0, SANE_STATUS_INVAL, 0, 0},
  };
  for (const auto& c : cases) {
    SANE_Word word = c.word;
    SANE_Int info = -1;
    EXPECT_EQ(ControlOption(*model_, c.option, SANE_ACTION_SET_VALUE, &word, &info), c.status) << c.option;
    EXPECT_EQ(info, c.info) << c.option;
    if (c.status == SANE_STATUS_GOOD) {
      EXPECT_TRUE(word == c.kept && Get(c.option) == c.kept) << c.option;
    }
  }
  SANE_Word word = 300;
  EXPECT_EQ(ControlOption(*model_, kResolution, SANE_ACTION_SET_AUTO, &word, nullptr), SANE_STATUS_INVAL);

  // A choice in another case is the listed word; an unlisted one is refused.
  // The mode decides which options are active.
  SANE_Int info = 0;
  char mode[32] = "gray";
  EXPECT_EQ(ControlOption(*model_, kMode, SANE_ACTION_SET_VALUE, mode, &info), SANE_STATUS_GOOD);
  EXPECT_STREQ(mode, "Gray");
  EXPECT_EQ(info, SANE_INFO_INEXACT | kReload);
  EXPECT_EQ(SetText(kMode, "Sepia"), SANE_STATUS_INVAL);
  EXPECT_EQ(SetText(kSource, "Alternate area 2"), SANE_STATUS_INVAL);  // not this scanner's
  EXPECT_EQ(model_->mode, "Gray");
  EXPECT_TRUE(!Active(kThreshold) && Active(kFilter));
  ASSERT_EQ(SetText(kMode, "Lineart"), SANE_STATUS_GOOD);
  EXPECT_TRUE(Active(kThreshold) && Active(kFilter));
}

// The area reaches the library in 1/300 inch, whatever the resolution; one
// that holds no pixel or no line is refused, never scanned as something else.
TEST_F(Options, TheAreaIsScannedAsAskedOrRefused) {
  const auto mm = [](double px) { return SANE_FIX(px * 25.4 / 300); };
  ASSERT_EQ(Set(kResolution, 50), SANE_STATUS_GOOD);
  for (auto [option, px] : {std::pair{kBrX, 118}, {kBrY, 236}, {kTlX, 718}, {kTlY, 536}})
    ASSERT_EQ(Set(option, mm(px)), SANE_STATUS_GOOD);
  Apply();
  EXPECT_EQ(library_.values[CAP_UNITS], 2);
  EXPECT_EQ(library_.values[CAP_XPOSITION], 118);
  EXPECT_EQ(library_.values[CAP_YPOSITION], 236);
  EXPECT_EQ(library_.values[CAP_IMAGEWIDTH], 600);
  EXPECT_EQ(library_.values[CAP_IMAGELENGTH], 300);

  struct Case {
    SANE_Word tlY, brY, tlX, brX;
    SANE_Status status;
    bool narrow;
  } cases[] = {
      {SANE_FIX(400), SANE_FIX(500), 0, mm(600), SANE_STATUS_INVAL, false},  // both edges on the bed's end
      {0, mm(300), mm(100), mm(100), SANE_STATUS_INVAL, false},              // no width
      {0, mm(300), 0, mm(2), SANE_STATUS_INVAL, false},                      // a third of a pixel at 50 dpi
      {0, mm(300), 0, mm(60), SANE_STATUS_GOOD, true},                       // 10 pixels
  };
  for (const auto& c : cases) {
    for (auto [option, word] : {std::pair{kTlY, c.tlY}, {kBrY, c.brY}, {kTlX, c.tlX}, {kBrX, c.brX}})
      Set(option, word);
    ScanArea area;
    EXPECT_EQ(AreaToScan(*model_, &area), c.status) << SANE_UNFIX(c.tlY) << " " << SANE_UNFIX(c.brX);
    if (c.status == SANE_STATUS_GOOD) {
      EXPECT_EQ(AreaMayBeTooNarrow(*model_, area), c.narrow);
    }
  }

  // The feeder takes longer sheets; back on the flatbed the area is cut to it.
  ASSERT_EQ(SetText(kSource, "ADF"), SANE_STATUS_GOOD);
  EXPECT_TRUE(FromFeeder(*model_));
  ASSERT_EQ(Set(kBrY, mm(4200)), SANE_STATUS_GOOD);
  SANE_Int info = 0;
  ASSERT_EQ(SetText(kSource, "Flatbed", &info), SANE_STATUS_GOOD);
  EXPECT_EQ(info, kReload);
  EXPECT_EQ(Get(kBrY), model_->yRange.max);
  EXPECT_EQ(model_->yRange.max, mm(3508));
}

}  // namespace
