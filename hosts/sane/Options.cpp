#include "Options.h"

#include <sane/saneopts.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "kit/Keywords.h"
#include "sxscan.h"

namespace sxsane {
namespace {

using sx::host::FindKeyword;
using sx::host::Keyword;

constexpr double kMmPerInch = 25.4;
constexpr double kLibraryDpi = 300.0;  // positions are read in 1/300 inch
// CAP_UNITS 2: positions and extents in 1/300 inch, whatever the resolution.
constexpr uint8_t kUnitsThreeHundredths = 2;
constexpr SANE_Word kDefaultDpi = 300;
constexpr int32_t kLineArt = 0, kGray = 1, kColour = 2;  // pixel types
constexpr int32_t kFeederSource = 1, kFlatbedSource = 2, kAutomaticSource = 0;
constexpr float kLetterWidth = 2550, kA4Length = 3508;  // a source the library gives no size for
constexpr size_t kChoiceBytes = 32;
constexpr double kHundredths = 100;

// Tone settings are arrays of four elements: the whole image, then red,
// green and blue. The library addresses the element CAP_FILTER chooses, so
// every access names its element and leaves the filter as it was.
struct Tone {
  uint32_t cap;
  const char* name;  // the channels' options add "-r", "-g", "-b"
  const char* title;
  const char* text;
};
constexpr Tone kTones[kToneCount] = {
    {CAP_BRIGHTNESS, SANE_NAME_BRIGHTNESS, SANE_TITLE_BRIGHTNESS, SANE_DESC_BRIGHTNESS},
    {CAP_CONTRAST, SANE_NAME_CONTRAST, SANE_TITLE_CONTRAST, SANE_DESC_CONTRAST},
    {CAP_HIGHLIGHT, SANE_NAME_HIGHLIGHT, SANE_TITLE_HIGHLIGHT, SANE_DESC_HIGHLIGHT},
    {CAP_SHADOW, SANE_NAME_SHADOW, SANE_TITLE_SHADOW, SANE_DESC_SHADOW},
    {CAP_GAMMA, "gamma", "Gamma", "Gamma of the tone curve."},
};
constexpr int kGammaTone = 4;
constexpr int kWholeImage = 0;
// Gamma is kept in hundredths in 16 bits, and 0 makes every pixel black.
constexpr double kGammaLeast = 0.01, kGammaMost = 655.35;
static_assert(kGamma == kBrightness + kGammaTone, "the whole-image tone options follow kTones");

// The option of a tone setting's element (0 the whole image, 1 to 3 a colour).
constexpr int ToneOption(int tone, int element) {
  return element == kWholeImage ? kBrightness + tone : kChannelFirst + tone * kChannels + element - 1;
}

// The choices' words as frontends show them. A frontend must set one of the
// listed words; the case of its letters is left to the backend, so "color"
// is taken as "Color" and handed back with SANE_INFO_INEXACT, as any value
// the backend adjusts.
constexpr Keyword<int32_t> kModes[] = {
    {SANE_VALUE_SCAN_MODE_LINEART, kLineArt},
    {SANE_VALUE_SCAN_MODE_GRAY, kGray},
    {SANE_VALUE_SCAN_MODE_COLOR, kColour}};
constexpr int32_t kModeBits[] = {1, 8, 24};
constexpr Keyword<int32_t> kSources[] = {
    {"ADF", kFeederSource}, {"Flatbed", kFlatbedSource}, {"Alternate area", 3}, {"Alternate area 2", 4}};
constexpr Keyword<int32_t> kFilters[] = {{"None", 0}, {"Red", 1}, {"Green", 2}, {"Blue", 3}};
constexpr const char* kChannelSuffixes[kChannels] = {"-r", "-g", "-b"};
constexpr const char* kChannelNames[kChannels] = {"red", "green", "blue"};

template <size_t N>
int32_t ChoiceValue(const Keyword<int32_t> (&table)[N], const std::string& word) {
  const Keyword<int32_t>* k = FindKeyword(table, word);
  return k ? k->value : -1;
}

int32_t ModeOf(const OptionModel& m) {
  const int32_t mode = ChoiceValue(kModes, m.mode);
  return mode < 0 ? kColour : mode;
}

// ---- the library's values ------------------------------------------------------

int32_t GetInt(LibrarySettings& library, uint32_t cap) {
  int32_t v = 0;
  library.Get(cap, TY_INT32, &v);
  return v;
}
int32_t SetInt(LibrarySettings& library, uint32_t cap, int32_t v) { return library.Set(cap, TY_INT32, &v); }
int32_t SetReal(LibrarySettings& library, uint32_t cap, float v) { return library.Set(cap, TY_FLOAT32, &v); }

std::vector<int32_t> Enumeration(LibrarySettings& library, uint32_t cap) { return Listed(library.Integers(cap)); }

SANE_Range RangeOf(LibrarySettings& library, uint32_t cap) {
  std::vector<int32_t> r = library.Integers(cap).items;
  r.resize(3, 0);
  return SANE_Range{r[0], r[1], r[2]};
}

// Runs `access` with CAP_FILTER choosing `element`, then restores the filter.
template <typename F>
int32_t WithElement(LibrarySettings& library, int element, F access) {
  const int32_t filter = GetInt(library, CAP_FILTER);
  int32_t r = SetInt(library, CAP_FILTER, element);
  if (!r) r = access();
  const int32_t restored = SetInt(library, CAP_FILTER, filter);
  return r ? r : restored;
}

SANE_Word Mm(double px) { return SANE_FIX(px * kMmPerInch / kLibraryDpi); }
float Px(SANE_Word mm) { return static_cast<float>(std::round(SANE_UNFIX(mm) * kLibraryDpi / kMmPerInch)); }

// ---- descriptors ---------------------------------------------------------------

void Describe(OptionModel& m, int i, const char* name, const char* title, const char* text, SANE_Value_Type type,
              SANE_Unit unit, SANE_Int cap = SANE_CAP_SOFT_SELECT | SANE_CAP_SOFT_DETECT) {
  auto& d = m.desc[i];
  d.name = name;
  d.title = title;
  d.desc = text;
  d.type = type;
  d.unit = unit;
  d.size = type == SANE_TYPE_GROUP ? 0 : sizeof(SANE_Word);
  d.cap = type == SANE_TYPE_GROUP ? 0 : cap;
}

void Group(OptionModel& m, int i, const char* title) { Describe(m, i, "", title, "", SANE_TYPE_GROUP, SANE_UNIT_NONE); }

void SetRange(OptionModel& m, int i, const SANE_Range* r) {
  m.desc[i].constraint_type = SANE_CONSTRAINT_RANGE;
  m.desc[i].constraint.range = r;
}
void SetWords(OptionModel& m, int i, const std::vector<SANE_Word>& w) {
  m.desc[i].constraint_type = SANE_CONSTRAINT_WORD_LIST;
  m.desc[i].constraint.word_list = w.data();
}
void SetChoices(OptionModel& m, int i, std::vector<SANE_String_Const>& list) {
  list.push_back(nullptr);
  m.desc[i].size = kChoiceBytes;
  m.desc[i].constraint_type = SANE_CONSTRAINT_STRING_LIST;
  m.desc[i].constraint.string_list = list.data();
}

std::vector<SANE_Word> WordList(const std::vector<int32_t>& items) {
  std::vector<SANE_Word> w{static_cast<SANE_Word>(items.size())};
  w.insert(w.end(), items.begin(), items.end());
  return w;
}

void Inactive(OptionModel& m, int i, bool inactive) {
  if (inactive)
    m.desc[i].cap |= SANE_CAP_INACTIVE;
  else
    m.desc[i].cap &= ~SANE_CAP_INACTIVE;
}

// The area ranges of the chosen source; edges beyond them move onto them
// (the frontend reloads the options after a change of source).
void UpdateArea(OptionModel& m) {
  size_t k = 0;
  while (k < m.sourceList.size() && m.sourceList[k] && m.source != m.sourceList[k]) ++k;
  const float w = k < m.maxWidths.size() ? m.maxWidths[k] : kLetterWidth;
  const float l = k < m.maxLengths.size() ? m.maxLengths[k] : kA4Length;
  m.xRange = SANE_Range{0, Mm(w), 0};
  m.yRange = SANE_Range{0, Mm(l), 0};
  for (int i : {kTlX, kBrX}) m.value[i] = std::min(m.value[i], m.xRange.max);
  for (int i : {kTlY, kBrY}) m.value[i] = std::min(m.value[i], m.yRange.max);
}

// Options that only a mode uses: the threshold is line art's, the filter is
// gray's and line art's.
void UpdateModeOptions(OptionModel& m) {
  const int32_t mode = ModeOf(m);
  Inactive(m, kThreshold, mode != kLineArt);
  Inactive(m, kFilter, mode == kColour || m.filterList.size() < 2);  // no choice but the end mark
}

// ---- tone ----------------------------------------------------------------------

// The element that shapes the image: a gray or lineart scan taken from one
// colour uses that colour's element alone.
int ImageElement(const OptionModel& m) {
  const int32_t filter = ChoiceValue(kFilters, m.filter);
  return ModeOf(m) != kColour && filter >= 1 && filter <= kChannels ? filter : kWholeImage;
}

// One tone element to the library; an unchanged gamma keeps its exact value.
int32_t SetTone(const OptionModel& m, LibrarySettings& library, int tone, int element, SANE_Word word) {
  const uint32_t cap = kTones[tone].cap;
  if (tone != kGammaTone) return WithElement(library, element, [&] { return SetInt(library, cap, word); });
  // The library truncates to hundredths: a typed 2.2, a little less in fixed
  // point, is meant as 2.2.
  const float gamma = word == m.gammaRead[element]
                          ? m.gammaValue[element]
                          : static_cast<float>(std::round(SANE_UNFIX(word) * kHundredths) / kHundredths);
  return WithElement(library, element, [&] { return SetReal(library, cap, gamma); });
}

void ReadTone(OptionModel& m, LibrarySettings& library, int tone, int element) {
  const uint32_t cap = kTones[tone].cap;
  const int i = ToneOption(tone, element);
  if (tone != kGammaTone) {
    WithElement(library, element, [&] { return library.Get(cap, TY_INT32, &m.value[i]); });
    return;
  }
  float v = 1;
  WithElement(library, element, [&] { return library.Get(cap, TY_FLOAT32, &v); });
  m.value[i] = m.gammaRead[element] = SANE_FIX(v);
  m.gammaValue[element] = v;
}

// The tone options: the whole image's in the enhancement group, each
// colour's in an advanced group of their own, as the library holds them.
void BuildToneOptions(OptionModel& m, LibrarySettings& library) {
  const SANE_Int adv = SANE_CAP_SOFT_SELECT | SANE_CAP_SOFT_DETECT | SANE_CAP_ADVANCED;
  Group(m, kChannelGroup, SANE_I18N("Colour channels"));
  m.desc[kChannelGroup].cap = SANE_CAP_ADVANCED;
  for (int tone = 0; tone < kToneCount; ++tone) {
    const Tone& t = kTones[tone];
    const bool gamma = tone == kGammaTone;
    // 0.01 in fixed point falls just below it: the least is one step up.
    m.toneRanges[tone] =
        gamma ? SANE_Range{SANE_FIX(kGammaLeast) + 1, SANE_FIX(kGammaMost), 0} : RangeOf(library, t.cap);
    const SANE_Value_Type type = gamma ? SANE_TYPE_FIXED : SANE_TYPE_INT;
    for (int element = kWholeImage; element <= kChannels; ++element) {
      const int i = ToneOption(tone, element);
      if (element == kWholeImage) {
        Describe(m, i, t.name, t.title, t.text, type, SANE_UNIT_NONE);
      } else {
        const int k = i - kChannelFirst;
        m.channelNames[k] = std::string(t.name) + kChannelSuffixes[element - 1];
        m.channelTitles[k] = std::string(t.title) + " (" + kChannelNames[element - 1] + ")";
        Describe(m, i, m.channelNames[k].c_str(), m.channelTitles[k].c_str(), t.text, type, SANE_UNIT_NONE, adv);
      }
      SetRange(m, i, &m.toneRanges[tone]);
      ReadTone(m, library, tone, element);
    }
  }
}

// ---- building ------------------------------------------------------------------

// A person expects a colour page at 300 dpi, as from sxscan, whatever the
// library last stored; a scanner without colour starts in gray.
void BuildModeOptions(OptionModel& m, LibrarySettings& library) {
  Describe(m, kNumOptions, "", SANE_TITLE_NUM_OPTIONS, SANE_DESC_NUM_OPTIONS, SANE_TYPE_INT, SANE_UNIT_NONE,
           SANE_CAP_SOFT_DETECT);
  m.value[kNumOptions] = kOptionCount;
  Group(m, kModeGroup, SANE_I18N("Scan Mode"));
  const auto pixelTypes = Enumeration(library, CAP_PIXELTYPE);
  for (int32_t preferred : {kColour, kGray})
    if (m.mode.empty() && std::find(pixelTypes.begin(), pixelTypes.end(), preferred) != pixelTypes.end())
      m.mode = kModes[preferred].word;
  for (int32_t t : pixelTypes)
    for (const auto& mode : kModes)
      if (mode.value == t) {
        m.modeList.push_back(mode.word);
        if (m.mode.empty()) m.mode = mode.word;
      }
  Describe(m, kMode, SANE_NAME_SCAN_MODE, SANE_TITLE_SCAN_MODE, SANE_DESC_SCAN_MODE, SANE_TYPE_STRING, SANE_UNIT_NONE);
  SetChoices(m, kMode, m.modeList);

  const int32_t scanType = GetInt(library, CAP_SCANTYPE);
  m.maxWidths = Listed(library.Reals(CAP_MAXWIDTHS));
  m.maxLengths = Listed(library.Reals(CAP_MAXLENGTHS));
  for (int32_t t : Enumeration(library, CAP_SCANTYPE))
    for (const auto& c : kSources)
      if (c.value == t) {
        m.sourceList.push_back(c.word);
        // Design note: with no stored source the flatbed is the default.
        if (t == scanType || m.source.empty() || (t == kFlatbedSource && scanType == kAutomaticSource))
          m.source = c.word;
      }
  Describe(m, kSource, SANE_NAME_SCAN_SOURCE, SANE_TITLE_SCAN_SOURCE, SANE_DESC_SCAN_SOURCE, SANE_TYPE_STRING,
           SANE_UNIT_NONE);
  SetChoices(m, kSource, m.sourceList);

  // Both directions share one resolution: the smaller of the two ranges.
  m.resolution = RangeOf(library, CAP_XRESOLUTION);
  m.resolution.max = std::min(m.resolution.max, RangeOf(library, CAP_YRESOLUTION).max);
  Describe(m, kResolution, SANE_NAME_SCAN_RESOLUTION, SANE_TITLE_SCAN_RESOLUTION, SANE_DESC_SCAN_RESOLUTION,
           SANE_TYPE_INT, SANE_UNIT_DPI);
  SetRange(m, kResolution, &m.resolution);
  m.value[kResolution] = std::clamp(kDefaultDpi, m.resolution.min, m.resolution.max);
}

// The area as the library holds it, read in 1/300 inch.
void BuildGeometryOptions(OptionModel& m, LibrarySettings& library) {
  Group(m, kGeometryGroup, SANE_I18N("Geometry"));
  Describe(m, kTlX, SANE_NAME_SCAN_TL_X, SANE_TITLE_SCAN_TL_X, SANE_DESC_SCAN_TL_X, SANE_TYPE_FIXED, SANE_UNIT_MM);
  Describe(m, kTlY, SANE_NAME_SCAN_TL_Y, SANE_TITLE_SCAN_TL_Y, SANE_DESC_SCAN_TL_Y, SANE_TYPE_FIXED, SANE_UNIT_MM);
  Describe(m, kBrX, SANE_NAME_SCAN_BR_X, SANE_TITLE_SCAN_BR_X, SANE_DESC_SCAN_BR_X, SANE_TYPE_FIXED, SANE_UNIT_MM);
  Describe(m, kBrY, SANE_NAME_SCAN_BR_Y, SANE_TITLE_SCAN_BR_Y, SANE_DESC_SCAN_BR_Y, SANE_TYPE_FIXED, SANE_UNIT_MM);
  const int32_t x = GetInt(library, CAP_XPOSITION), y = GetInt(library, CAP_YPOSITION);
  m.value[kTlX] = Mm(x);
  m.value[kTlY] = Mm(y);
  m.value[kBrX] = Mm(x + GetInt(library, CAP_IMAGEWIDTH));
  m.value[kBrY] = Mm(y + GetInt(library, CAP_IMAGELENGTH));
  UpdateArea(m);
  for (int i : {kTlX, kBrX}) SetRange(m, i, &m.xRange);
  for (int i : {kTlY, kBrY}) SetRange(m, i, &m.yRange);
}

void BuildEnhancementOptions(OptionModel& m, LibrarySettings& library) {
  Group(m, kEnhancementGroup, SANE_I18N("Enhancement"));
  BuildToneOptions(m, library);
  m.thresholds = WordList(Enumeration(library, CAP_THRESHOLD));
  Describe(m, kThreshold, SANE_NAME_THRESHOLD, SANE_TITLE_THRESHOLD, SANE_DESC_THRESHOLD, SANE_TYPE_INT,
           SANE_UNIT_NONE);
  SetWords(m, kThreshold, m.thresholds);
  m.value[kThreshold] = GetInt(library, CAP_THRESHOLD);
  const int32_t filter = GetInt(library, CAP_FILTER);
  for (int32_t t : Enumeration(library, CAP_FILTER))
    for (const auto& c : kFilters)
      if (c.value == t) {
        m.filterList.push_back(c.word);
        if (t == filter || m.filter.empty()) m.filter = c.word;
      }
  Describe(m, kFilter, "color-filter", "Colour filter",
           "The colour a gray or lineart scan is taken from (None: all colours).", SANE_TYPE_STRING, SANE_UNIT_NONE);
  SetChoices(m, kFilter, m.filterList);
  UpdateModeOptions(m);
}

void BuildAdvancedOptions(OptionModel& m, LibrarySettings& library) {
  const SANE_Int adv = SANE_CAP_SOFT_SELECT | SANE_CAP_SOFT_DETECT | SANE_CAP_ADVANCED;
  Group(m, kAdvancedGroup, SANE_I18N("Advanced"));
  m.descreens = WordList(Enumeration(library, CAP_DESCREEN));
  Describe(m, kDescreen, "descreen", "Descreen", "Descreening filter level (0: off).", SANE_TYPE_INT, SANE_UNIT_NONE,
           adv);
  SetWords(m, kDescreen, m.descreens);
  m.value[kDescreen] = GetInt(library, CAP_DESCREEN);
  m.sharpens = WordList(Enumeration(library, CAP_SHARPEN));
  Describe(m, kSharpen, "sharpen", "Sharpen", "Sharpening filter level (0: off).", SANE_TYPE_INT, SANE_UNIT_NONE, adv);
  SetWords(m, kSharpen, m.sharpens);
  m.value[kSharpen] = GetInt(library, CAP_SHARPEN);
  Describe(m, kColorMatch, "color-matching", "Colour matching", "Match colours through the scanner's profile.",
           SANE_TYPE_BOOL, SANE_UNIT_NONE, adv);
  m.value[kColorMatch] = GetInt(library, CAP_COLORMATCH) != 0;
  Inactive(m, kColorMatch, Enumeration(library, CAP_COLORMATCH).size() < 2);
  Describe(m, kBuffered, "buffered", "Buffered transfer",
           "Read and process on the library's own threads over a ring of buffers.", SANE_TYPE_BOOL, SANE_UNIT_NONE,
           adv);
  m.value[kBuffered] = GetInt(library, CAP_BUFFERING) != 0;
}

// ---- setting -------------------------------------------------------------------

std::string& TextOption(OptionModel& m, SANE_Int n) { return n == kMode ? m.mode : n == kFilter ? m.filter : m.source; }

bool IsToneOption(SANE_Int n) { return (n >= kBrightness && n <= kGamma) || n >= kChannelFirst; }

// A tone value outside its range is a mistake, not a wish for the nearest
// one: it is refused, and the frontend's message is completed with the range.
SANE_Status RefuseTone(const SANE_Option_Descriptor& d, SANE_Word w) {
  const SANE_Range& r = *d.constraint.range;
  auto text = [&](SANE_Word v) {
    char t[32];
    if (d.type == SANE_TYPE_FIXED)
      std::snprintf(t, sizeof t, "%g", std::round(SANE_UNFIX(v) * kHundredths) / kHundredths);
    else
      std::snprintf(t, sizeof t, "%d", v);
    return std::string(t);
  };
  std::fprintf(stderr, "sxscan: %s cannot be %s; it takes %s to %s\n", d.name, text(w).c_str(), text(r.min).c_str(),
               text(r.max).c_str());
  return SANE_STATUS_INVAL;
}

SANE_Status SetChoice(OptionModel& m, SANE_Int n, char* text, SANE_Int* info) {
  const SANE_String_Const* match = m.desc[n].constraint.string_list;
  while (*match && !sx::host::SameWordNoCase(*match, text)) ++match;
  if (!*match) return SANE_STATUS_INVAL;
  if (std::strcmp(*match, text) != 0) {
    std::snprintf(text, kChoiceBytes, "%s", *match);
    if (info) *info |= SANE_INFO_INEXACT;
  }
  TextOption(m, n) = *match;
  UpdateModeOptions(m);
  UpdateArea(m);
  if (info) *info |= SANE_INFO_RELOAD_OPTIONS | SANE_INFO_RELOAD_PARAMS;
  return SANE_STATUS_GOOD;
}

// A value within the range, on its steps; the frontend learns the value kept,
// in its own buffer.
SANE_Status SetInRange(OptionModel& m, SANE_Int n, SANE_Word* w, SANE_Int* info) {
  const SANE_Range& r = *m.desc[n].constraint.range;
  if (IsToneOption(n) && (*w < r.min || *w > r.max)) return RefuseTone(m.desc[n], *w);
  SANE_Word c = std::clamp(*w, r.min, r.max);
  if (r.quant > 0) c = r.min + (c - r.min + r.quant / 2) / r.quant * r.quant;
  if (c != *w) {
    if (info) *info |= SANE_INFO_INEXACT;
    *w = c;
  }
  return SANE_STATUS_GOOD;
}

SANE_Status SetOption(OptionModel& m, SANE_Int n, void* v, SANE_Int* info) {
  const auto& d = m.desc[n];
  if (!(d.cap & SANE_CAP_SOFT_SELECT) || (d.cap & SANE_CAP_INACTIVE)) return SANE_STATUS_INVAL;
  if (d.type == SANE_TYPE_STRING) return SetChoice(m, n, static_cast<char*>(v), info);
  auto* w = static_cast<SANE_Word*>(v);
  if (d.type == SANE_TYPE_BOOL && *w != SANE_FALSE && *w != SANE_TRUE) return SANE_STATUS_INVAL;
  if (d.constraint_type == SANE_CONSTRAINT_RANGE) {
    const SANE_Status status = SetInRange(m, n, w, info);
    if (status != SANE_STATUS_GOOD) return status;
  } else if (d.constraint_type == SANE_CONSTRAINT_WORD_LIST) {
    const SANE_Word* list = d.constraint.word_list;
    if (std::find(list + 1, list + 1 + list[0], *w) == list + 1 + list[0]) return SANE_STATUS_INVAL;
  }
  m.value[n] = *w;
  if (n >= kBrightness && n <= kGamma) m.toneSet[n - kBrightness] = true;
  if (info) *info |= SANE_INFO_RELOAD_PARAMS;
  return SANE_STATUS_GOOD;
}

// Pixels or lines at the resolution, rounded as the library counts them.
double AtResolution(float extent, SANE_Word dpi) { return std::floor(extent * dpi / kLibraryDpi + 0.5); }

}  // namespace

void BuildOptions(OptionModel& m, LibrarySettings& library) {
  SetInt(library, CAP_UNITS, kUnitsThreeHundredths);
  BuildModeOptions(m, library);
  BuildGeometryOptions(m, library);
  BuildEnhancementOptions(m, library);
  BuildAdvancedOptions(m, library);
}

SANE_Status ControlOption(OptionModel& m, SANE_Int n, SANE_Action action, void* v, SANE_Int* info) {
  if (info) *info = 0;
  if (n < 0 || n >= kOptionCount || !v || m.desc[n].type == SANE_TYPE_GROUP) return SANE_STATUS_INVAL;
  if (action == SANE_ACTION_SET_VALUE) return SetOption(m, n, v, info);
  // No option is automatic: SANE_ACTION_SET_AUTO is refused.
  if (action != SANE_ACTION_GET_VALUE) return SANE_STATUS_INVAL;
  if (m.desc[n].type == SANE_TYPE_STRING)
    std::snprintf(static_cast<char*>(v), kChoiceBytes, "%s", TextOption(m, n).c_str());
  else
    *static_cast<SANE_Word*>(v) = m.value[n];
  return SANE_STATUS_GOOD;
}

SANE_Parameters EstimateParameters(const OptionModel& m) {
  const int32_t mode = ModeOf(m);
  const SANE_Word dpi = m.value[kResolution];
  SANE_Parameters p{};
  p.last_frame = SANE_TRUE;
  p.format = mode == kColour ? SANE_FRAME_RGB : SANE_FRAME_GRAY;
  p.depth = mode == kLineArt ? 1 : 8;
  p.pixels_per_line = static_cast<SANE_Int>(AtResolution(std::abs(Px(m.value[kBrX]) - Px(m.value[kTlX])), dpi));
  p.lines = static_cast<SANE_Int>(AtResolution(std::abs(Px(m.value[kBrY]) - Px(m.value[kTlY])), dpi));
  p.bytes_per_line = (p.pixels_per_line * kModeBits[mode] + 7) / 8;
  return p;
}

SANE_Status AreaToScan(const OptionModel& m, ScanArea* area) {
  const float left = Px(std::min(m.value[kTlX], m.value[kBrX])), right = Px(std::max(m.value[kTlX], m.value[kBrX]));
  const float top = Px(std::min(m.value[kTlY], m.value[kBrY])), bottom = Px(std::max(m.value[kTlY], m.value[kBrY]));
  *area = ScanArea{left, top, right - left, bottom - top};
  const SANE_Word dpi = m.value[kResolution];
  if (AtResolution(area->width, dpi) >= 1 && AtResolution(area->length, dpi) >= 1) return SANE_STATUS_GOOD;
  const double mm = kMmPerInch / kLibraryDpi;
  std::fprintf(stderr,
               "sxscan: the scan area holds no image: %.1f x %.1f mm from %.1f,%.1f mm is less than a pixel or a "
               "line at %d dpi (the source is %.1f x %.1f mm)\n",
               area->width * mm, area->length * mm, left * mm, top * mm, dpi, SANE_UNFIX(m.xRange.max),
               SANE_UNFIX(m.yRange.max));
  return SANE_STATUS_INVAL;
}

bool AreaMayBeTooNarrow(const OptionModel& m, const ScanArea& area) {
  return AtResolution(area.width, m.value[kResolution]) < kWidestAlignment;
}

bool FromFeeder(const OptionModel& m) { return ChoiceValue(kSources, m.source) == kFeederSource; }

int32_t ApplySettings(const OptionModel& m, LibrarySettings& library, const ScanArea& area) {
  const int32_t mode = ModeOf(m);
  int32_t r = SetInt(library, CAP_UNITS, kUnitsThreeHundredths);
  if (!r) r = SetInt(library, CAP_SCANTYPE, ChoiceValue(kSources, m.source));
  if (!r) r = SetInt(library, CAP_PIXELTYPE, mode);
  if (!r) r = SetInt(library, CAP_BITSPERPIXEL, kModeBits[mode]);
  if (!r) r = SetInt(library, CAP_XRESOLUTION, m.value[kResolution]);
  if (!r) r = SetInt(library, CAP_YRESOLUTION, m.value[kResolution]);
  if (!r) r = SetReal(library, CAP_XPOSITION, area.x);
  if (!r) r = SetReal(library, CAP_YPOSITION, area.y);
  if (!r) r = SetReal(library, CAP_IMAGEWIDTH, area.width);
  if (!r) r = SetReal(library, CAP_IMAGELENGTH, area.length);
  if (!r && !(m.desc[kFilter].cap & SANE_CAP_INACTIVE))
    r = SetInt(library, CAP_FILTER, ChoiceValue(kFilters, m.filter));
  // A gray scan taken from one colour is shaped by that colour's element
  // alone: a whole-image setting the frontend made goes there too.
  const int image = ImageElement(m);
  for (int tone = 0; tone < kToneCount && !r; ++tone) {
    const SANE_Word whole = m.value[ToneOption(tone, kWholeImage)];
    r = SetTone(m, library, tone, kWholeImage, whole);
    for (int element = 1; element <= kChannels && !r; ++element)
      r = SetTone(m, library, tone, element,
                  element == image && m.toneSet[tone] ? whole : m.value[ToneOption(tone, element)]);
  }
  if (!r && mode == kLineArt) r = SetInt(library, CAP_THRESHOLD, m.value[kThreshold]);
  if (!r) r = SetInt(library, CAP_DESCREEN, m.value[kDescreen]);
  if (!r) r = SetInt(library, CAP_SHARPEN, m.value[kSharpen]);
  if (!r && !(m.desc[kColorMatch].cap & SANE_CAP_INACTIVE)) r = SetInt(library, CAP_COLORMATCH, m.value[kColorMatch]);
  if (!r) r = SetInt(library, CAP_BUFFERING, m.value[kBuffered] ? 1 : 0);
  // The library turns its Invert over at every line-art acquisition: set
  // before each one, every scan of a session has the same polarity.
  if (!r) r = SetInt(library, CAP_INVERT, 0);
  return r;
}

}  // namespace sxsane
