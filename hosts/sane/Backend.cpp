// The SANE entry points over libsxscan.so. The library is loaded with dlopen
// after sxscan.conf has named the system tree, so that the library's attach
// already works in that tree. The library is process-wide, so one device is
// open at a time. Design note: as a separate host program this backend uses
// POSIX itself (dlopen, a pipe for the select descriptor).
#include <dlfcn.h>
#include <sane/sane.h>
#include <sane/saneopts.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Transfer.h"
#include "sxscan.h"
#include "sxsys.h"

#define ENTRY(name) extern "C" __attribute__((visibility("default"))) SANE_Status sane_sxscan_##name

namespace {

constexpr double kMmPerInch = 25.4;
constexpr double kLibraryDpi = 300.0;  // positions are read in 1/300 inch
constexpr uint8_t kUnitsPixels = 2;
constexpr size_t kTransferBytes = 1u << 20;
constexpr SANE_Int kBuild = 0;
constexpr SANE_Word kDefaultDpi = 300;
constexpr int32_t kDefaultPixelType = 2, kGrayPixelType = 1;  // colour, gray

struct Api {
  void* handle = nullptr;
  decltype(&SxLoad) load = nullptr;
  decltype(&SxFree) free = nullptr;
  decltype(&SxGetDS) getDS = nullptr;
  decltype(&SxSetDriverById) setDriver = nullptr;
  decltype(&SxSetValue) setValue = nullptr;
  decltype(&SxGetValue) getValue = nullptr;
  decltype(&SxQueryData) query = nullptr;
  sxsane::AcquireApi acquire;
};
Api g_api;

template <typename F>
bool Bind(F* slot, const char* name) {
  *slot = reinterpret_cast<F>(dlsym(g_api.handle, name));
  return *slot != nullptr;
}

std::vector<std::string> ConfigDirs() {
  std::vector<std::string> dirs;
  const char* env = std::getenv("SANE_CONFIG_DIR");
  std::string list = env ? env : "";
  bool defaults = list.empty() || list.back() == ':';
  std::stringstream ss(list);
  for (std::string d; std::getline(ss, d, ':');)
    if (!d.empty()) dirs.push_back(d);
  if (defaults) dirs.push_back("/etc/sane.d");
  return dirs;
}

// sxscan.conf: "root PATH" and "library PATH" lines, '#' comments.
void ReadConfig(std::string* root, std::string* library) {
  for (const auto& dir : ConfigDirs()) {
    std::ifstream in(dir + "/sxscan.conf");
    if (!in) continue;
    for (std::string line; std::getline(in, line);) {
      std::stringstream words(line);
      std::string key, value;
      words >> key;
      std::getline(words >> std::ws, value);
      while (!value.empty() && std::isspace(static_cast<unsigned char>(value.back()))) value.pop_back();
      if (key == "root") *root = value;
      if (key == "library") *library = value;
    }
    return;
  }
}

std::string OwnFolder() {
  Dl_info info{};
  if (!dladdr(reinterpret_cast<void*>(&ConfigDirs), &info) || !info.dli_fname) return "";
  std::string path = info.dli_fname;
  auto slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash + 1);
}

bool LoadLibrary() {
  std::string root, library;
  ReadConfig(&root, &library);
  if (!root.empty()) setenv("SX_ROOT", root.c_str(), 1);
  std::vector<std::string> candidates;
  if (!library.empty()) candidates.push_back(library);
  candidates.push_back(OwnFolder() + "libsxscan.so");
  // Installed, the backend lies in the sane folder of the library's folder.
  candidates.push_back(OwnFolder() + "../libsxscan.so.1");
  candidates.push_back("libsxscan.so.1");
  candidates.push_back("libsxscan.so");
  for (const auto& c : candidates)
    if ((g_api.handle = dlopen(c.c_str(), RTLD_NOW | RTLD_LOCAL))) break;
  if (!g_api.handle) return false;
  auto& a = g_api.acquire;
  return Bind(&g_api.load, "SxLoad") && Bind(&g_api.free, "SxFree") && Bind(&g_api.getDS, "SxGetDS") &&
         Bind(&g_api.setDriver, "SxSetDriverById") && Bind(&g_api.setValue, "SxSetValue") &&
         Bind(&g_api.getValue, "SxGetValue") && Bind(&g_api.query, "SxQueryData") &&
         Bind(&a.acquire, "SxAcquire") && Bind(&a.globalHandle, "SxSysGlobalHandle") &&
         Bind(&a.globalSize, "SxSysGlobalSize") && Bind(&a.globalAlloc, "SxSysGlobalAlloc") &&
         Bind(&a.globalLock, "SxSysGlobalLock") && Bind(&a.globalUnlock, "SxSysGlobalUnlock") &&
         Bind(&a.globalFree, "SxSysGlobalFree");
}

// ---- library helpers -------------------------------------------------------

void ReleaseBlock(void* address) {
  void* h = address ? g_api.acquire.globalHandle(address) : nullptr;
  if (!h) return;
  for (int i = 0; i < (1 << 16) && g_api.acquire.globalUnlock(h) != 0; ++i) {
  }
  g_api.acquire.globalFree(h);
}

// SxQueryData as 32-bit integers (or reals): the count and the items.
template <typename T>
std::vector<T> Query(uint32_t cap, uint32_t type, int32_t* count, size_t minItems = 1) {
  std::vector<T> out;
  SxValueList* list = nullptr;
  g_api.query(cap, type, &list);
  if (!list) return out;
  *count = list->Count;
  void* items = list->Items;
  void* h = items ? g_api.acquire.globalHandle(items) : nullptr;
  size_t n = h ? g_api.acquire.globalSize(h) / sizeof(T) : 0;
  const T* p = static_cast<const T*>(items);
  out.assign(p, p + std::max(n, minItems) * (n > 0));
  ReleaseBlock(items);
  ReleaseBlock(list);
  return out;
}

std::vector<int32_t> Enumeration(uint32_t cap) {
  int32_t count = 0;
  auto items = Query<int32_t>(cap, TY_INT32, &count);
  items.resize(std::min<size_t>(items.size(), count > 0 ? count : 0));
  return items;
}

int32_t GetInt(uint32_t cap) {
  int32_t v = 0;
  g_api.getValue(cap, TY_INT32, &v);
  return v;
}
int32_t SetInt(uint32_t cap, int32_t v) { return g_api.setValue(cap, TY_INT32, &v); }
int32_t SetReal(uint32_t cap, float v) { return g_api.setValue(cap, TY_FLOAT32, &v); }

// Runs `access` with CAP_FILTER choosing `element`, then restores the filter.
template <typename F>
int32_t WithElement(int element, F access) {
  const int32_t filter = GetInt(CAP_FILTER);
  int32_t r = SetInt(CAP_FILTER, element);
  if (!r) r = access();
  const int32_t restored = SetInt(CAP_FILTER, filter);
  return r ? r : restored;
}

// ---- devices ----------------------------------------------------------------

struct DeviceEntry {
  SxDataSource source{};
  std::string name, vendor, model, type;
  SANE_Device device{};
};
std::vector<std::unique_ptr<DeviceEntry>> g_devices;
std::vector<const SANE_Device*> g_deviceList;

std::string Field(const char* f, size_t n) { return std::string(f, strnlen(f, n)); }

// The model in a display name: the port, " - ", the model padded with blanks
// to its field, then the firmware.
constexpr size_t kModelField = 20;
std::string ModelOf(const SxDataSource& source) {
  const std::string display = Field(source.DisplayName, sizeof source.DisplayName);
  const size_t dash = display.find(" - ");
  std::string model = dash == std::string::npos ? display : display.substr(dash + 3, kModelField);
  while (!model.empty() && model.back() == ' ') model.pop_back();
  return model;
}

// The name a person types after "sxscan:": the model, or where two sources
// share it, the driver module's file. Both stay the same from run to run.
std::string DeviceName(const std::vector<SxDataSource>& sources, size_t i) {
  const std::string model = ModelOf(sources[i]);
  size_t same = 0;
  for (const auto& other : sources) same += ModelOf(other) == model;
  if (same == 1 && !model.empty()) return model;
  return Field(sources[i].Directory, sizeof sources[i].Directory) +
         Field(sources[i].FileName, sizeof sources[i].FileName);
}

std::vector<SxDataSource> ListSources() {
  std::vector<SxDataSource> out;
  SxDataSource e{};
  if (g_api.getDS(SX_DS_FIRST, &e) != SX_OK) return out;
  do {
    out.push_back(e);
    std::memset(&e, 0, sizeof e);
  } while (out.size() < 4096 && g_api.getDS(SX_DS_NEXT, &e) == SX_OK);
  return out;
}

// Binds the named source. The library is freed and mapped afresh first: the
// choice takes effect at once, and the worker threads of buffered transfers,
// which the library makes when it is mapped and ends with SxFree, are there
// again.
int32_t BindSource(const SxDataSource& wanted) {
  g_api.free();
  dlclose(g_api.handle);
  g_api.handle = nullptr;
  if (!LoadLibrary()) return SX_ERR_DRIVER;
  ListSources();  // builds the list SxSetDriverById looks in
  SxDataSource copy = wanted;
  return g_api.setDriver(&copy, 0);
}

bool HasScanType(int32_t t) {
  for (int32_t v : Enumeration(CAP_SCANTYPE))
    if (v == t) return true;
  return false;
}

// ---- the open device ---------------------------------------------------------

// Tone settings are arrays of four elements: the whole image, then red,
// green and blue. The library addresses the element CAP_FILTER chooses, so
// every access names its element and leaves the filter as it was.
struct Tone {
  uint32_t cap;
  const char* name;  // the channels' options add "-r", "-g", "-b"
  const char* title;
  const char* text;
};
constexpr Tone kTones[] = {
    {CAP_BRIGHTNESS, SANE_NAME_BRIGHTNESS, SANE_TITLE_BRIGHTNESS, SANE_DESC_BRIGHTNESS},
    {CAP_CONTRAST, SANE_NAME_CONTRAST, SANE_TITLE_CONTRAST, SANE_DESC_CONTRAST},
    {CAP_HIGHLIGHT, SANE_NAME_HIGHLIGHT, SANE_TITLE_HIGHLIGHT, SANE_DESC_HIGHLIGHT},
    {CAP_SHADOW, SANE_NAME_SHADOW, SANE_TITLE_SHADOW, SANE_DESC_SHADOW},
    {CAP_GAMMA, "gamma", "Gamma", "Gamma of the tone curve."},
};
constexpr int kToneCount = 5;
constexpr int kGammaTone = 4;
constexpr int kChannels = 3;  // red, green, blue: elements 1 to 3
constexpr int kWholeImage = 0;
// Gamma is kept in hundredths in 16 bits, and 0 makes every pixel black.
constexpr double kGammaLeast = 0.01, kGammaMost = 655.35;

enum Opt {
  kNumOptions, kModeGroup, kMode, kSource, kResolution, kGeometryGroup, kTlX, kTlY, kBrX, kBrY,
  kEnhancementGroup, kBrightness, kContrast, kHighlight, kShadow, kGamma, kThreshold, kFilter,
  kAdvancedGroup, kDescreen, kSharpen, kColorMatch, kBuffered, kChannelGroup, kChannelFirst,
  kOptionCount = kChannelFirst + kToneCount * kChannels
};
static_assert(kGamma == kBrightness + kGammaTone, "the whole-image tone options follow kTones");

// The option of a tone setting's element (0 the whole image, 1 to 3 a colour).
constexpr int ToneOption(int tone, int element) {
  return element == kWholeImage ? kBrightness + tone : kChannelFirst + tone * kChannels + element - 1;
}

struct Choice {
  const char* name;
  int32_t value;
};
constexpr Choice kModes[] = {{SANE_VALUE_SCAN_MODE_LINEART, 0}, {SANE_VALUE_SCAN_MODE_GRAY, 1},
                             {SANE_VALUE_SCAN_MODE_COLOR, 2}};
constexpr int32_t kModeBits[] = {1, 8, 24};
constexpr Choice kSources[] = {{"ADF", 1}, {"Flatbed", 2}, {"Alternate area", 3}, {"Alternate area 2", 4}};
constexpr Choice kFilters[] = {{"None", 0}, {"Red", 1}, {"Green", 2}, {"Blue", 3}};
constexpr const char* kChannelSuffixes[kChannels] = {"-r", "-g", "-b"};
constexpr const char* kChannelNames[kChannels] = {"red", "green", "blue"};

struct Scanner {
  SANE_Option_Descriptor desc[kOptionCount]{};
  SANE_Word value[kOptionCount]{};
  std::string mode, source, filter;
  std::vector<SANE_String_Const> modeList, sourceList, filterList;
  std::vector<int32_t> sourceTypes;
  std::vector<float> maxWidths, maxLengths;  // pixels at 300 dpi, per source
  SANE_Range resolution{}, xRange{}, yRange{}, toneRanges[kToneCount]{};
  std::string channelNames[kToneCount * kChannels], channelTitles[kToneCount * kChannels];
  std::vector<SANE_Word> thresholds, descreens, sharpens;
  std::unique_ptr<sxsane::Transfer> transfer;
  SxImageInfo page{};
  bool scanning = false, pageOpen = false, nonblocking = false;
  std::atomic<bool> busy{false};
  // Each gamma option's value as read from the library, and the library's
  // exact value, which the fixed-point form would round.
  SANE_Word gammaRead[1 + kChannels]{};
  float gammaValue[1 + kChannels]{};
  bool toneSet[kToneCount]{};  // the whole-image tone options the frontend set
};
Scanner* g_open = nullptr;

SANE_Word Mm(double px) { return SANE_FIX(px * kMmPerInch / kLibraryDpi); }
float Px(SANE_Word mm) { return std::round(SANE_UNFIX(mm) * kLibraryDpi / kMmPerInch); }

std::vector<SANE_Word> WordList(const std::vector<int32_t>& items) {
  std::vector<SANE_Word> w{static_cast<SANE_Word>(items.size())};
  w.insert(w.end(), items.begin(), items.end());
  return w;
}

SANE_Range RangeOf(uint32_t cap) {
  int32_t count = 0;
  auto r = Query<int32_t>(cap, TY_INT32, &count);
  r.resize(3, 0);
  return SANE_Range{r[0], r[1], r[2]};
}

void Describe(Scanner& s, int i, const char* name, const char* title, const char* text, SANE_Value_Type type,
              SANE_Unit unit, SANE_Int cap = SANE_CAP_SOFT_SELECT | SANE_CAP_SOFT_DETECT) {
  auto& d = s.desc[i];
  d.name = name;
  d.title = title;
  d.desc = text;
  d.type = type;
  d.unit = unit;
  d.size = type == SANE_TYPE_GROUP ? 0 : sizeof(SANE_Word);
  d.cap = type == SANE_TYPE_GROUP ? 0 : cap;
}

void SetRange(Scanner& s, int i, const SANE_Range* r) {
  s.desc[i].constraint_type = SANE_CONSTRAINT_RANGE;
  s.desc[i].constraint.range = r;
}
void SetWords(Scanner& s, int i, const std::vector<SANE_Word>& w) {
  s.desc[i].constraint_type = SANE_CONSTRAINT_WORD_LIST;
  s.desc[i].constraint.word_list = w.data();
}

// The area ranges of the chosen source.
void UpdateArea(Scanner& s) {
  size_t k = 0;
  for (; k < s.sourceList.size(); ++k)
    if (s.source == s.sourceList[k]) break;
  float w = k < s.maxWidths.size() ? s.maxWidths[k] : 2550, l = k < s.maxLengths.size() ? s.maxLengths[k] : 3508;
  s.xRange = SANE_Range{0, Mm(w), 0};
  s.yRange = SANE_Range{0, Mm(l), 0};
  for (int i : {kTlX, kBrX}) s.value[i] = std::min(s.value[i], s.xRange.max);
  for (int i : {kTlY, kBrY}) s.value[i] = std::min(s.value[i], s.yRange.max);
}

void Inactive(Scanner& s, int i, bool inactive) {
  if (inactive)
    s.desc[i].cap |= SANE_CAP_INACTIVE;
  else
    s.desc[i].cap &= ~SANE_CAP_INACTIVE;
}

int32_t ChoiceValue(const Choice* list, size_t n, const std::string& name) {
  for (size_t i = 0; i < n; ++i)
    if (name == list[i].name) return list[i].value;
  return -1;
}

// The element that shapes the image: a gray or lineart scan taken from one
// colour uses that colour's element alone.
int ImageElement(const Scanner& s) {
  const int32_t mode = ChoiceValue(kModes, 3, s.mode), filter = ChoiceValue(kFilters, 4, s.filter);
  return mode >= 0 && mode < 2 && filter >= 1 && filter <= kChannels ? filter : kWholeImage;
}

// One tone element to the library; an unchanged gamma keeps its exact value.
int32_t SetTone(const Scanner& s, int tone, int element, SANE_Word word) {
  const uint32_t cap = kTones[tone].cap;
  if (tone != kGammaTone) return WithElement(element, [&] { return SetInt(cap, word); });
  // The library truncates to hundredths: a typed 2.2, a little less in fixed
  // point, is meant as 2.2.
  constexpr double kHundredths = 100;
  const float gamma = word == s.gammaRead[element]
                          ? s.gammaValue[element]
                          : static_cast<float>(std::round(SANE_UNFIX(word) * kHundredths) / kHundredths);
  return WithElement(element, [&] { return SetReal(cap, gamma); });
}


// The tone options: the whole image's in the enhancement group, each
// colour's in an advanced group of their own, as the library holds them.
void BuildToneOptions(Scanner& s) {
  const SANE_Int adv = SANE_CAP_SOFT_SELECT | SANE_CAP_SOFT_DETECT | SANE_CAP_ADVANCED;
  Describe(s, kChannelGroup, "", SANE_I18N("Colour channels"), "", SANE_TYPE_GROUP, SANE_UNIT_NONE);
  s.desc[kChannelGroup].cap = SANE_CAP_ADVANCED;
  for (int tone = 0; tone < kToneCount; ++tone) {
    const Tone& t = kTones[tone];
    const bool gamma = tone == kGammaTone;
    // 0.01 in fixed point falls just below it: the least is one step up.
    s.toneRanges[tone] = gamma ? SANE_Range{SANE_FIX(kGammaLeast) + 1, SANE_FIX(kGammaMost), 0} : RangeOf(t.cap);
    const SANE_Value_Type type = gamma ? SANE_TYPE_FIXED : SANE_TYPE_INT;
    for (int element = kWholeImage; element <= kChannels; ++element) {
      const int i = ToneOption(tone, element);
      if (element == kWholeImage) {
        Describe(s, i, t.name, t.title, t.text, type, SANE_UNIT_NONE);
      } else {
        const int k = i - kChannelFirst;
        s.channelNames[k] = std::string(t.name) + kChannelSuffixes[element - 1];
        s.channelTitles[k] = std::string(t.title) + " (" + kChannelNames[element - 1] + ")";
        Describe(s, i, s.channelNames[k].c_str(), s.channelTitles[k].c_str(), t.text, type, SANE_UNIT_NONE, adv);
      }
      SetRange(s, i, &s.toneRanges[tone]);
      if (gamma) {
        float v = 1;
        WithElement(element, [&] { return g_api.getValue(t.cap, TY_FLOAT32, &v); });
        s.value[i] = s.gammaRead[element] = SANE_FIX(v);
        s.gammaValue[element] = v;
      } else {
        WithElement(element, [&] { return g_api.getValue(t.cap, TY_INT32, &s.value[i]); });
      }
    }
  }
}

// Options that only a mode uses: the threshold is line art's, the filter is
// gray's and line art's.
void UpdateModeOptions(Scanner& s) {
  const int32_t mode = ChoiceValue(kModes, 3, s.mode);
  Inactive(s, kThreshold, mode != 0);
  Inactive(s, kFilter, mode == 2 || s.filterList.size() < 2);
}

void BuildOptions(Scanner& s) {
  SetInt(CAP_UNITS, kUnitsPixels);
  Describe(s, kNumOptions, "", SANE_TITLE_NUM_OPTIONS, SANE_DESC_NUM_OPTIONS, SANE_TYPE_INT, SANE_UNIT_NONE,
           SANE_CAP_SOFT_DETECT);
  s.value[kNumOptions] = kOptionCount;
  Describe(s, kModeGroup, "", SANE_I18N("Scan Mode"), "", SANE_TYPE_GROUP, SANE_UNIT_NONE);
  // A person expects a colour page at 300 dpi, as from sxscan, whatever
  // the library last stored; a scanner without colour starts in gray.
  const auto pixelTypes = Enumeration(CAP_PIXELTYPE);
  for (int32_t preferred : {kDefaultPixelType, kGrayPixelType})
    if (s.mode.empty() && std::find(pixelTypes.begin(), pixelTypes.end(), preferred) != pixelTypes.end())
      s.mode = kModes[preferred].name;
  for (int32_t t : pixelTypes)
    for (const auto& m : kModes)
      if (m.value == t) {
        s.modeList.push_back(m.name);
        if (s.mode.empty()) s.mode = m.name;
      }
  s.modeList.push_back(nullptr);
  Describe(s, kMode, SANE_NAME_SCAN_MODE, SANE_TITLE_SCAN_MODE, SANE_DESC_SCAN_MODE, SANE_TYPE_STRING,
           SANE_UNIT_NONE);
  s.desc[kMode].size = 32;
  s.desc[kMode].constraint_type = SANE_CONSTRAINT_STRING_LIST;
  s.desc[kMode].constraint.string_list = s.modeList.data();

  int32_t scanType = GetInt(CAP_SCANTYPE);
  s.sourceTypes = Enumeration(CAP_SCANTYPE);
  int32_t count = 0;
  s.maxWidths = Query<float>(CAP_MAXWIDTHS, TY_FLOAT32, &count);
  s.maxLengths = Query<float>(CAP_MAXLENGTHS, TY_FLOAT32, &count);
  for (int32_t t : s.sourceTypes)
    for (const auto& c : kSources)
      if (c.value == t) {
        s.sourceList.push_back(c.name);
        // Design note: with no stored source the flatbed is the default.
        if (t == scanType || s.source.empty() || (t == 2 && scanType == 0)) s.source = c.name;
      }
  s.sourceList.push_back(nullptr);
  Describe(s, kSource, SANE_NAME_SCAN_SOURCE, SANE_TITLE_SCAN_SOURCE, SANE_DESC_SCAN_SOURCE, SANE_TYPE_STRING,
           SANE_UNIT_NONE);
  s.desc[kSource].size = 32;
  s.desc[kSource].constraint_type = SANE_CONSTRAINT_STRING_LIST;
  s.desc[kSource].constraint.string_list = s.sourceList.data();

  // Both directions share one resolution: the smaller of the two ranges.
  s.resolution = RangeOf(CAP_XRESOLUTION);
  s.resolution.max = std::min(s.resolution.max, RangeOf(CAP_YRESOLUTION).max);
  Describe(s, kResolution, SANE_NAME_SCAN_RESOLUTION, SANE_TITLE_SCAN_RESOLUTION, SANE_DESC_SCAN_RESOLUTION,
           SANE_TYPE_INT, SANE_UNIT_DPI);
  SetRange(s, kResolution, &s.resolution);
  s.value[kResolution] = std::clamp(kDefaultDpi, s.resolution.min, s.resolution.max);

  Describe(s, kGeometryGroup, "", SANE_I18N("Geometry"), "", SANE_TYPE_GROUP, SANE_UNIT_NONE);
  Describe(s, kTlX, SANE_NAME_SCAN_TL_X, SANE_TITLE_SCAN_TL_X, SANE_DESC_SCAN_TL_X, SANE_TYPE_FIXED, SANE_UNIT_MM);
  Describe(s, kTlY, SANE_NAME_SCAN_TL_Y, SANE_TITLE_SCAN_TL_Y, SANE_DESC_SCAN_TL_Y, SANE_TYPE_FIXED, SANE_UNIT_MM);
  Describe(s, kBrX, SANE_NAME_SCAN_BR_X, SANE_TITLE_SCAN_BR_X, SANE_DESC_SCAN_BR_X, SANE_TYPE_FIXED, SANE_UNIT_MM);
  Describe(s, kBrY, SANE_NAME_SCAN_BR_Y, SANE_TITLE_SCAN_BR_Y, SANE_DESC_SCAN_BR_Y, SANE_TYPE_FIXED, SANE_UNIT_MM);
  int32_t x = GetInt(CAP_XPOSITION), y = GetInt(CAP_YPOSITION);
  s.value[kTlX] = Mm(x);
  s.value[kTlY] = Mm(y);
  s.value[kBrX] = Mm(x + GetInt(CAP_IMAGEWIDTH));
  s.value[kBrY] = Mm(y + GetInt(CAP_IMAGELENGTH));
  UpdateArea(s);
  for (int i : {kTlX, kBrX}) SetRange(s, i, &s.xRange);
  for (int i : {kTlY, kBrY}) SetRange(s, i, &s.yRange);

  Describe(s, kEnhancementGroup, "", SANE_I18N("Enhancement"), "", SANE_TYPE_GROUP, SANE_UNIT_NONE);
  BuildToneOptions(s);
  s.thresholds = WordList(Enumeration(CAP_THRESHOLD));
  Describe(s, kThreshold, SANE_NAME_THRESHOLD, SANE_TITLE_THRESHOLD, SANE_DESC_THRESHOLD, SANE_TYPE_INT,
           SANE_UNIT_NONE);
  SetWords(s, kThreshold, s.thresholds);
  s.value[kThreshold] = GetInt(CAP_THRESHOLD);
  const int32_t filter = GetInt(CAP_FILTER);
  for (int32_t t : Enumeration(CAP_FILTER))
    for (const auto& c : kFilters)
      if (c.value == t && (t == filter || s.filter.empty())) s.filter = c.name;
  for (int32_t t : Enumeration(CAP_FILTER))
    for (const auto& c : kFilters)
      if (c.value == t) s.filterList.push_back(c.name);
  s.filterList.push_back(nullptr);
  Describe(s, kFilter, "color-filter", "Colour filter",
           "The colour a gray or lineart scan is taken from (None: all colours).", SANE_TYPE_STRING, SANE_UNIT_NONE);
  s.desc[kFilter].size = 32;
  s.desc[kFilter].constraint_type = SANE_CONSTRAINT_STRING_LIST;
  s.desc[kFilter].constraint.string_list = s.filterList.data();
  UpdateModeOptions(s);

  const SANE_Int adv = SANE_CAP_SOFT_SELECT | SANE_CAP_SOFT_DETECT | SANE_CAP_ADVANCED;
  Describe(s, kAdvancedGroup, "", SANE_I18N("Advanced"), "", SANE_TYPE_GROUP, SANE_UNIT_NONE);
  s.descreens = WordList(Enumeration(CAP_DESCREEN));
  Describe(s, kDescreen, "descreen", "Descreen", "Descreening filter level (0: off).", SANE_TYPE_INT,
           SANE_UNIT_NONE, adv);
  SetWords(s, kDescreen, s.descreens);
  s.value[kDescreen] = GetInt(CAP_DESCREEN);
  s.sharpens = WordList(Enumeration(CAP_SHARPEN));
  Describe(s, kSharpen, "sharpen", "Sharpen", "Sharpening filter level (0: off).", SANE_TYPE_INT, SANE_UNIT_NONE,
           adv);
  SetWords(s, kSharpen, s.sharpens);
  s.value[kSharpen] = GetInt(CAP_SHARPEN);
  Describe(s, kColorMatch, "color-matching", "Colour matching", "Match colours through the scanner's profile.",
           SANE_TYPE_BOOL, SANE_UNIT_NONE, adv);
  s.value[kColorMatch] = GetInt(CAP_COLORMATCH) != 0;
  Inactive(s, kColorMatch, Enumeration(CAP_COLORMATCH).size() < 2);
  Describe(s, kBuffered, "buffered", "Buffered transfer",
           "Read and process on the library's own threads over a ring of buffers.", SANE_TYPE_BOOL,
           SANE_UNIT_NONE, adv);
  s.value[kBuffered] = GetInt(CAP_BUFFERING) != 0;
}


// One side of the area in 1/300 inch, from the options' edges. The library
// refuses an area narrower than a whole unit of the model's pixel alignment
// (32 pixels at most) or shorter than a line; such an area, which rounding
// or clipping to the bed easily makes, is widened to that size, moved back
// onto the bed when it would overhang.
void ScanArea(const Scanner& s, float* start, float* extent, float bed, SANE_Word from, SANE_Word to) {
  constexpr double kWidestAlignment = 32;
  const double least = std::ceil(kWidestAlignment * kLibraryDpi / std::max<SANE_Word>(s.value[kResolution], 1));
  *start = Px(from);
  *extent = std::max<float>(Px(to) - *start, static_cast<float>(std::min<double>(least, bed)));
  if (*start + *extent > bed) *start = std::max(0.0f, bed - *extent);
}

// The settings of the options, handed to the library before each acquisition.
int32_t ApplySettings(Scanner& s) {
  int32_t mode = ChoiceValue(kModes, 3, s.mode);
  int32_t r = SetInt(CAP_UNITS, kUnitsPixels);
  if (!r) r = SetInt(CAP_SCANTYPE, ChoiceValue(kSources, 4, s.source));
  if (!r) r = SetInt(CAP_PIXELTYPE, mode);
  if (!r) r = SetInt(CAP_BITSPERPIXEL, kModeBits[mode < 0 ? 2 : mode]);
  if (!r) r = SetInt(CAP_XRESOLUTION, s.value[kResolution]);
  if (!r) r = SetInt(CAP_YRESOLUTION, s.value[kResolution]);
  float x = 0, width = 0, y = 0, length = 0;
  ScanArea(s, &x, &width, Px(s.xRange.max), std::min(s.value[kTlX], s.value[kBrX]), std::max(s.value[kTlX], s.value[kBrX]));
  ScanArea(s, &y, &length, Px(s.yRange.max), std::min(s.value[kTlY], s.value[kBrY]), std::max(s.value[kTlY], s.value[kBrY]));
  if (!r) r = SetReal(CAP_XPOSITION, x);
  if (!r) r = SetReal(CAP_YPOSITION, y);
  if (!r) r = SetReal(CAP_IMAGEWIDTH, width);
  if (!r) r = SetReal(CAP_IMAGELENGTH, length);
  if (!r && !(s.desc[kFilter].cap & SANE_CAP_INACTIVE)) r = SetInt(CAP_FILTER, ChoiceValue(kFilters, 4, s.filter));
  // A gray scan taken from one colour is shaped by that colour's element
  // alone: a whole-image setting the frontend made goes there too.
  const int image = ImageElement(s);
  for (int tone = 0; tone < kToneCount && !r; ++tone) {
    const SANE_Word whole = s.value[ToneOption(tone, kWholeImage)];
    r = SetTone(s, tone, kWholeImage, whole);
    for (int element = 1; element <= kChannels && !r; ++element)
      r = SetTone(s, tone, element, element == image && s.toneSet[tone] ? whole : s.value[ToneOption(tone, element)]);
  }
  if (!r && mode == 0) r = SetInt(CAP_THRESHOLD, s.value[kThreshold]);
  if (!r) r = SetInt(CAP_DESCREEN, s.value[kDescreen]);
  if (!r) r = SetInt(CAP_SHARPEN, s.value[kSharpen]);
  if (!r && !(s.desc[kColorMatch].cap & SANE_CAP_INACTIVE)) r = SetInt(CAP_COLORMATCH, s.value[kColorMatch]);
  if (!r) r = SetInt(CAP_BUFFERING, s.value[kBuffered] ? 1 : 0);
  // The library turns its Invert over at every line-art acquisition: set
  // before each one, every scan of a session has the same polarity.
  if (!r) r = SetInt(CAP_INVERT, 0);
  return r;
}

SANE_Status StatusOf(int32_t result) {
  switch (result) {
    case SX_OK: return SANE_STATUS_GOOD;
    case SX_ERR_CANCELLED: return SANE_STATUS_CANCELLED;
    case SX_ERR_NO_PAPER: return SANE_STATUS_NO_DOCS;
    case SX_ERR_NO_MEMORY: return SANE_STATUS_NO_MEM;
    case SX_ERR_UNSUPPORTED: case SX_ERR_NO_COLOR: return SANE_STATUS_INVAL;
    default: return SANE_STATUS_IO_ERROR;
  }
}

// SANE_DEBUG_SXSCAN, as every backend reads SANE_DEBUG_<name>: 1 and more
// report each transfer's queue on stderr.
int DebugLevel() {
  static const int level = [] {
    const char* value = std::getenv("SANE_DEBUG_SXSCAN");
    return value ? std::atoi(value) : 0;
  }();
  return level;
}

void EndTransfer(Scanner& s) {
  if (s.transfer) {
    if (DebugLevel() >= 1)
      std::fprintf(stderr, "[sxscan] transfer queue: high-water %zu bytes, bound %zu bytes\n",
                   s.transfer->HighWater(), sxsane::Transfer::kQueueBound);
    s.transfer->RequestCancel();
    s.transfer.reset();
  }
  s.scanning = s.pageOpen = false;
}

struct Busy {
  explicit Busy(Scanner& s) : s_(s) { s_.busy.store(true); }
  ~Busy() { s_.busy.store(false); }
  Scanner& s_;
};

}  // namespace

// ---- entry points --------------------------------------------------------------

ENTRY(init)(SANE_Int* version, SANE_Auth_Callback) {
  if (version) *version = SANE_VERSION_CODE(SANE_CURRENT_MAJOR, 0, kBuild);
  if (!g_api.handle && !LoadLibrary()) return SANE_STATUS_IO_ERROR;
  return SANE_STATUS_GOOD;
}

extern "C" __attribute__((visibility("default"))) void sane_sxscan_close(SANE_Handle);

extern "C" __attribute__((visibility("default"))) void sane_sxscan_exit(void) {
  if (g_open) sane_sxscan_close(g_open);
  if (g_api.handle) {
    g_api.free();
    dlclose(g_api.handle);
  }
  g_api = Api{};
  g_devices.clear();
  g_deviceList.clear();
}

ENTRY(get_devices)(const SANE_Device*** list, SANE_Bool) {
  if (!g_api.handle) return SANE_STATUS_IO_ERROR;
  // The open device owns the library; its list stays as it was.
  if (!g_open) {
    g_devices.clear();
    const auto sources = ListSources();
    for (size_t i = 0; i < sources.size(); ++i) {
      const SxDataSource& src = sources[i];
      auto e = std::make_unique<DeviceEntry>();
      e->source = src;
      // The dll backend puts "sxscan:" in front of it.
      e->name = DeviceName(sources, i);
      e->vendor = Field(src.Vendor, sizeof src.Vendor);
      e->model = ModelOf(src);
      // Design note: the type needs the source's abilities, so each is bound.
      bool flatbed = BindSource(src) != SX_OK || HasScanType(2);
      e->type = flatbed ? "flatbed scanner" : "sheetfed scanner";
      g_devices.push_back(std::move(e));
    }
    g_api.free();
  }
  g_deviceList.clear();
  for (auto& e : g_devices) {
    e->device = SANE_Device{e->name.c_str(), e->vendor.c_str(), e->model.c_str(), e->type.c_str()};
    g_deviceList.push_back(&e->device);
  }
  g_deviceList.push_back(nullptr);
  *list = g_deviceList.data();
  return SANE_STATUS_GOOD;
}

ENTRY(open)(SANE_String_Const name, SANE_Handle* handle) {
  if (!g_api.handle) return SANE_STATUS_IO_ERROR;
  if (g_open) return SANE_STATUS_DEVICE_BUSY;
  std::string wanted = name ? name : "";
  if (wanted.rfind("sxscan:", 0) == 0) wanted = wanted.substr(7);
  g_api.free();
  auto sources = ListSources();
  // The display name, as earlier versions named the device, still opens it.
  const SxDataSource* found = nullptr;
  for (size_t i = 0; i < sources.size() && !found; ++i)
    if (wanted.empty() || DeviceName(sources, i) == wanted ||
        Field(sources[i].DisplayName, sizeof sources[i].DisplayName) == wanted)
      found = &sources[i];
  if (!found) return SANE_STATUS_INVAL;
  int32_t r = BindSource(*found);
  if (r == SX_OK) r = g_api.load(nullptr);
  if (r != SX_OK) {
    g_api.free();
    return StatusOf(r) == SANE_STATUS_GOOD ? SANE_STATUS_IO_ERROR : StatusOf(r);
  }
  auto* s = new Scanner;
  BuildOptions(*s);
  g_open = s;
  *handle = s;
  return SANE_STATUS_GOOD;
}

extern "C" __attribute__((visibility("default"))) void sane_sxscan_close(SANE_Handle h) {
  auto* s = static_cast<Scanner*>(h);
  if (!s || s != g_open) return;
  EndTransfer(*s);
  g_api.free();
  delete s;
  g_open = nullptr;
}

extern "C" __attribute__((visibility("default"))) const SANE_Option_Descriptor*
sane_sxscan_get_option_descriptor(SANE_Handle h, SANE_Int n) {
  auto* s = static_cast<Scanner*>(h);
  if (!s || n < 0 || n >= kOptionCount) return nullptr;
  return &s->desc[n];
}

namespace {
std::string& TextOption(Scanner& s, SANE_Int n) { return n == kMode ? s.mode : n == kFilter ? s.filter : s.source; }

bool IsToneOption(SANE_Int n) { return (n >= kBrightness && n <= kGamma) || n >= kChannelFirst; }

// A tone value outside its range is a mistake, not a wish for the nearest
// one: it is refused, and the frontend's message is completed with the range.
SANE_Status RefuseTone(const SANE_Option_Descriptor& d, SANE_Word w) {
  const SANE_Range& r = *d.constraint.range;
  auto text = [&](SANE_Word v) {
    char t[32];
    constexpr double kHundredths = 100;
    if (d.type == SANE_TYPE_FIXED)
      std::snprintf(t, sizeof t, "%g", std::round(SANE_UNFIX(v) * kHundredths) / kHundredths);
    else
      std::snprintf(t, sizeof t, "%d", v);
    return std::string(t);
  };
  std::fprintf(stderr, "sxscan: %s cannot be %s; it takes %s to %s\n", d.name, text(w).c_str(),
               text(r.min).c_str(), text(r.max).c_str());
  return SANE_STATUS_INVAL;
}

SANE_Status SetOption(Scanner& s, SANE_Int n, void* v, SANE_Int* info) {
  const auto& d = s.desc[n];
  if (!(d.cap & SANE_CAP_SOFT_SELECT) || (d.cap & SANE_CAP_INACTIVE)) return SANE_STATUS_INVAL;
  if (d.type == SANE_TYPE_STRING) {
    std::string text = static_cast<const char*>(v);
    bool ok = false;
    for (const SANE_String_Const* p = d.constraint.string_list; *p; ++p) ok = ok || text == *p;
    if (!ok) return SANE_STATUS_INVAL;
    TextOption(s, n) = text;
    UpdateModeOptions(s);
    UpdateArea(s);
    if (info) *info |= SANE_INFO_RELOAD_OPTIONS | SANE_INFO_RELOAD_PARAMS;
    return SANE_STATUS_GOOD;
  }
  SANE_Word w = *static_cast<SANE_Word*>(v);
  if (d.type == SANE_TYPE_BOOL && w != SANE_FALSE && w != SANE_TRUE) return SANE_STATUS_INVAL;
  if (d.constraint_type == SANE_CONSTRAINT_RANGE) {
    const auto* r = d.constraint.range;
    if (IsToneOption(n) && (w < r->min || w > r->max)) return RefuseTone(d, w);
    SANE_Word c = std::clamp(w, r->min, r->max);
    if (r->quant > 0) c = r->min + (c - r->min + r->quant / 2) / r->quant * r->quant;
    // The frontend learns the value kept, in its own buffer.
    if (c != w) {
      if (info) *info |= SANE_INFO_INEXACT;
      *static_cast<SANE_Word*>(v) = c;
    }
    w = c;
  } else if (d.constraint_type == SANE_CONSTRAINT_WORD_LIST) {
    bool ok = false;
    for (SANE_Word i = 1; i <= d.constraint.word_list[0]; ++i) ok = ok || d.constraint.word_list[i] == w;
    if (!ok) return SANE_STATUS_INVAL;
  }
  s.value[n] = w;
  if (n >= kBrightness && n <= kGamma) s.toneSet[n - kBrightness] = true;
  if (info) *info |= SANE_INFO_RELOAD_PARAMS;
  return SANE_STATUS_GOOD;
}
}  // namespace

ENTRY(control_option)(SANE_Handle h, SANE_Int n, SANE_Action action, void* v, SANE_Int* info) {
  auto* s = static_cast<Scanner*>(h);
  if (info) *info = 0;
  if (!s || n < 0 || n >= kOptionCount || !v || s->desc[n].type == SANE_TYPE_GROUP) return SANE_STATUS_INVAL;
  if (s->scanning && action != SANE_ACTION_GET_VALUE) return SANE_STATUS_DEVICE_BUSY;
  if (action == SANE_ACTION_GET_VALUE) {
    if (s->desc[n].type == SANE_TYPE_STRING)
      std::snprintf(static_cast<char*>(v), 32, "%s", TextOption(*s, n).c_str());
    else
      *static_cast<SANE_Word*>(v) = s->value[n];
    return SANE_STATUS_GOOD;
  }
  if (action == SANE_ACTION_SET_VALUE) return SetOption(*s, n, v, info);
  return SANE_STATUS_INVAL;
}

ENTRY(get_parameters)(SANE_Handle h, SANE_Parameters* p) {
  auto* s = static_cast<Scanner*>(h);
  if (!s || !p) return SANE_STATUS_INVAL;
  p->last_frame = SANE_TRUE;
  if (s->pageOpen) {
    const SxImageInfo& i = s->page;
    p->format = i.SamplesPerPixel >= 3 ? SANE_FRAME_RGB : SANE_FRAME_GRAY;
    p->pixels_per_line = i.PixelsPerLine;
    p->lines = i.LinesPerPage;
    p->depth = i.SamplesPerPixel > 0 ? i.BitsPerPixel / i.SamplesPerPixel : i.BitsPerPixel;
    p->bytes_per_line = (i.PixelsPerLine * i.BitsPerPixel + 7) / 8;
    return SANE_STATUS_GOOD;
  }
  // Before a scan: an estimate from the options.
  int32_t mode = ChoiceValue(kModes, 3, s->mode);
  int bits = kModeBits[mode < 0 ? 2 : mode];
  double scale = s->value[kResolution] / kLibraryDpi;
  p->format = mode == 2 ? SANE_FRAME_RGB : SANE_FRAME_GRAY;
  p->depth = mode == 0 ? 1 : 8;
  p->pixels_per_line = static_cast<SANE_Int>(std::abs(Px(s->value[kBrX]) - Px(s->value[kTlX])) * scale);
  p->lines = static_cast<SANE_Int>(std::abs(Px(s->value[kBrY]) - Px(s->value[kTlY])) * scale);
  p->bytes_per_line = (p->pixels_per_line * bits + 7) / 8;
  return SANE_STATUS_GOOD;
}

ENTRY(start)(SANE_Handle h) {
  auto* s = static_cast<Scanner*>(h);
  if (!s) return SANE_STATUS_INVAL;
  Busy busy(*s);
  s->pageOpen = false;
  const bool feeder = ChoiceValue(kSources, 4, s->source) == 1;
  int32_t result = SX_OK;
  // An acquisition still running may hold the feeder's next page; once it
  // has ended (a flatbed's after its one page, whenever its thread gets
  // there), the next page is a new acquisition.
  if (s->transfer) {
    s->scanning = true;
    if (s->transfer->NextPage(&s->page, &result) == sxsane::Transfer::Wait::Page) {
      s->pageOpen = true;
      return SANE_STATUS_GOOD;
    }
    EndTransfer(*s);
    // The feeder's batch is over: its pages were all delivered.
    if (feeder && result == SX_OK) return SANE_STATUS_NO_DOCS;
    if (result != SX_OK) return StatusOf(result);
  }
  int32_t r = ApplySettings(*s);
  if (r != SX_OK) return StatusOf(r);
  s->transfer = std::make_unique<sxsane::Transfer>(g_api.acquire);
  if (!s->transfer->Start(kTransferBytes)) {
    s->transfer.reset();
    return SANE_STATUS_NO_MEM;
  }
  s->scanning = true;
  if (s->transfer->NextPage(&s->page, &result) == sxsane::Transfer::Wait::Page) {
    s->pageOpen = true;
    return SANE_STATUS_GOOD;
  }
  EndTransfer(*s);
  if (result == SX_OK) return feeder ? SANE_STATUS_NO_DOCS : SANE_STATUS_IO_ERROR;
  return StatusOf(result);
}

ENTRY(read)(SANE_Handle h, SANE_Byte* data, SANE_Int max, SANE_Int* length) {
  auto* s = static_cast<Scanner*>(h);
  if (length) *length = 0;
  if (!s || !data || !length || max < 0) return SANE_STATUS_INVAL;
  if (!s->scanning || !s->transfer) return SANE_STATUS_CANCELLED;
  Busy busy(*s);
  if (!s->pageOpen) return SANE_STATUS_EOF;
  long n = s->transfer->Read(data, static_cast<size_t>(max), !s->nonblocking);
  if (n >= 0) {
    // The library's line art has 0 for black; a SANE frame of depth 1 reads
    // 1 as black.
    if (s->page.BitsPerPixel == 1)
      for (long i = 0; i < n; ++i) data[i] = static_cast<SANE_Byte>(~data[i]);
    *length = static_cast<SANE_Int>(n);
    return SANE_STATUS_GOOD;
  }
  s->pageOpen = false;
  if (s->transfer->Finished()) {
    int32_t r = s->transfer->Result();
    if (r != SX_OK) {
      EndTransfer(*s);
      return StatusOf(r);
    }
  }
  return SANE_STATUS_EOF;
}

extern "C" __attribute__((visibility("default"))) void sane_sxscan_cancel(SANE_Handle h) {
  auto* s = static_cast<Scanner*>(h);
  if (!s || !s->transfer) return;
  s->transfer->RequestCancel();
  // Called from a signal handler that interrupted a read: only the flag is
  // set; the read returns cancelled and a later call joins the thread.
  if (s->busy.load()) return;
  EndTransfer(*s);
}

ENTRY(set_io_mode)(SANE_Handle h, SANE_Bool nonblocking) {
  auto* s = static_cast<Scanner*>(h);
  if (!s || !s->scanning) return SANE_STATUS_INVAL;
  s->nonblocking = nonblocking == SANE_TRUE;
  return SANE_STATUS_GOOD;
}

ENTRY(get_select_fd)(SANE_Handle h, SANE_Int* fd) {
  auto* s = static_cast<Scanner*>(h);
  if (!s || !fd || !s->scanning || !s->transfer) return SANE_STATUS_INVAL;
  *fd = s->transfer->SelectFd();
  return SANE_STATUS_GOOD;
}
