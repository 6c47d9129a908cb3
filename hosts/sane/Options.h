// The backend's options: their descriptors and constraints, their values,
// how a frontend reads and sets them (which options are active, when a value
// is adjusted or refused), and how they become the library's settings before
// each acquisition. The model reaches the library only through
// LibrarySettings, so that it can be exercised without a scanner.
#pragma once
#include <sane/sane.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace sxsane {

// A list SxQueryData made: its count (0 for a range, whose three items are
// minimum, maximum and step) and its items.
template <typename T>
struct ValueList {
  int32_t count = 0;
  std::vector<T> items;
};

// The items of an enumeration (none for a range or an empty list).
template <typename T>
std::vector<T> Listed(ValueList<T> list) {
  list.items.resize(std::min<size_t>(list.items.size(), list.count > 0 ? static_cast<size_t>(list.count) : 0));
  return list.items;
}

// The library calls the option model makes. Tone capabilities address the
// element that CAP_FILTER chooses, as the library's own do.
class LibrarySettings {
 public:
  virtual ~LibrarySettings() = default;
  virtual int32_t Get(uint32_t cap, uint32_t type, void* value) = 0;
  virtual int32_t Set(uint32_t cap, uint32_t type, void* value) = 0;
  virtual ValueList<int32_t> Integers(uint32_t cap) = 0;
  virtual ValueList<float> Reals(uint32_t cap) = 0;
};

// The widest pixel alignment a scanner model uses: the library rounds a
// line down to a multiple of it, so a narrower one may come to nothing.
constexpr int kWidestAlignment = 32;
constexpr int kToneCount = 5;  // brightness, contrast, highlight, shadow, gamma
constexpr int kChannels = 3;   // red, green, blue: tone elements 1 to 3

enum Opt {
  kNumOptions, kModeGroup, kMode, kSource, kResolution, kGeometryGroup, kTlX, kTlY, kBrX, kBrY,
  kEnhancementGroup, kBrightness, kContrast, kHighlight, kShadow, kGamma, kThreshold, kFilter,
  kAdvancedGroup, kDescreen, kSharpen, kColorMatch, kBuffered, kChannelGroup, kChannelFirst,
  kOptionCount = kChannelFirst + kToneCount * kChannels
};

// The options of one open device. Descriptors point into the record (lists,
// ranges, names), so it stays where it was built.
struct OptionModel {
  OptionModel() = default;
  OptionModel(const OptionModel&) = delete;
  OptionModel& operator=(const OptionModel&) = delete;

  SANE_Option_Descriptor desc[kOptionCount]{};
  SANE_Word value[kOptionCount]{};
  std::string mode, source, filter;
  std::vector<SANE_String_Const> modeList, sourceList, filterList;
  std::vector<float> maxWidths, maxLengths;  // 1/300 inch, per source
  SANE_Range resolution{}, xRange{}, yRange{}, toneRanges[kToneCount]{};
  std::string channelNames[kToneCount * kChannels], channelTitles[kToneCount * kChannels];
  std::vector<SANE_Word> thresholds, descreens, sharpens;
  // Each gamma option's value as read from the library, and the library's
  // exact value, which the fixed-point form would round.
  SANE_Word gammaRead[1 + kChannels]{};
  float gammaValue[1 + kChannels]{};
  bool toneSet[kToneCount]{};  // the whole-image tone options the frontend set
};

// The area to scan in 1/300 inch.
struct ScanArea {
  float x = 0, y = 0, width = 0, length = 0;
};

void BuildOptions(OptionModel& model, LibrarySettings& library);
// sane_control_option for a device that is not scanning.
SANE_Status ControlOption(OptionModel& model, SANE_Int option, SANE_Action action, void* value, SANE_Int* info);
// The frame the options ask for, before a scan tells the real one.
SANE_Parameters EstimateParameters(const OptionModel& model);
// The area the options describe; SANE_STATUS_INVAL when it holds no pixel
// or no line at the resolution (it lies on the bed's far edge, or its edges
// coincide), said on stderr.
SANE_Status AreaToScan(const OptionModel& model, ScanArea* area);
// Whether the area is narrower than the widest pixel alignment a scanner
// model uses: the library then refuses it, without saying why.
bool AreaMayBeTooNarrow(const OptionModel& model, const ScanArea& area);
// Every option to the library; its first refusal, else SX_OK.
int32_t ApplySettings(const OptionModel& model, LibrarySettings& library, const ScanArea& area);
bool FromFeeder(const OptionModel& model);

}  // namespace sxsane
