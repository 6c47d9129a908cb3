#include "modules/vscan/VscanConfig.h"

#include "modules/common/ModuleIni.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string_view>
#include <vector>

namespace sx::vscan {

namespace {

using modini::Find;

constexpr const char* kEntryNames[kEntryCount] = {
    "TerminateDriver", "InitializeDriver", "InitializeScanner", "GetScannerStatusEx",
    "GetScannerStatus", "GetScannerAbilityEx", "GetScannerAbility", "InitialButton",
    "ResetPushButton", "ReadPushButton", "SetGammaTable", "StartScan", "ReadScan", "ReadScanEx",
    "StopScan", "SetScanParameter", "CheckPushButton", "SetPowerSaveTime", "LampOff",
    "GetADFStatus", "ReadNVMData", "GetLightStatus", "ChooseSCSIScannerByID", "TuneScanLength",
    "GetBackgroundRaster", "DoCancel", "WriteNVMData",
};

// The defaults are kept as ini text, so they are read by the same rules as a
// user's file and cannot drift from vscan.ini.example.
constexpr char kDefaultIni[] = R"([Scanner]
Vendor=CORVANE
Model=QM7110V
Firmware=1.00
Port=USB
DeviceId=0
Extended=1
DefaultAreaWidth=2550
DefaultAreaLength=3508
FeatureFlags=0x00000011
AbilityFlags=0
FlatbedMaxWidth=2550
FlatbedMaxLength=3508
AdfMaxWidth=2550
AdfMaxLength=4200
MaxResolution=600
ResolutionLimitA=600
ResolutionLimitB=600
ResolutionLimitC=1200
ResolutionLimitD=1200
PixelTypeFlags=0xA0
SourceFlags=0xA4
ModeFlags=0xC0
OptionFlags=0x90
HalftonePatternCount=4
DiffusionPatternCount=2
HalftonePatternMap=1,2,3,4,5,6,7,8
LineartAlignment=32
GrayAlignment=8
ColorAlignment=8
HalftoneAlignment=32
DiffusionAlignment=32
Gray4Alignment=32
ExtraFlags=0x180
AltAreaWidth=0
AltAreaLength=0
Buttons=2
PressedButton=0
[NVRAM]
SerialNumber=VS0001234
PadCount=12
ADFSingleCount=345
ADFDuplexCount=6
PowerSaveTime=15
)";

// A numeric field of a binary record, set from the key of the same meaning.
struct FieldSpec {
  const char* Key;
  size_t Offset;
  size_t Width;  // 1, 2 or 4 bytes
};

struct TextSpec {
  const char* Key;
  size_t Offset;
  size_t Size;
};

#define SX_ABILITY(key, field) {key, offsetof(ScannerAbility, field), sizeof(ScannerAbility::field)}
constexpr FieldSpec kAbilityFields[] = {
    SX_ABILITY("FeatureFlags", FeatureFlags),
    SX_ABILITY("FeatureFlags2", FeatureFlags2),
    SX_ABILITY("AbilityFlags", AbilityFlags),
    SX_ABILITY("FlatbedMaxWidth", FlatbedMaxWidth),
    SX_ABILITY("FlatbedMaxLength", FlatbedMaxLength),
    SX_ABILITY("AdfMaxWidth", AdfMaxWidth),
    SX_ABILITY("AdfMaxLength", AdfMaxLength),
    SX_ABILITY("MaxResolution", MaxResolution),
    SX_ABILITY("ResolutionLimitA", ResolutionLimitA),
    SX_ABILITY("ResolutionLimitB", ResolutionLimitB),
    SX_ABILITY("ResolutionLimitC", ResolutionLimitC),
    SX_ABILITY("ResolutionLimitD", ResolutionLimitD),
    SX_ABILITY("PixelTypeFlags", PixelTypeFlags),
    SX_ABILITY("SourceFlags", SourceFlags),
    SX_ABILITY("ModeFlags", ModeFlags),
    SX_ABILITY("OptionFlags", OptionFlags),
    SX_ABILITY("HalftonePatternCount", HalftonePatternCount),
    SX_ABILITY("DiffusionPatternCount", DiffusionPatternCount),
    SX_ABILITY("LineartAlignment", LineartAlignment),
    SX_ABILITY("GrayAlignment", GrayAlignment),
    SX_ABILITY("ColorAlignment", ColorAlignment),
    SX_ABILITY("HalftoneAlignment", HalftoneAlignment),
    SX_ABILITY("DiffusionAlignment", DiffusionAlignment),
    SX_ABILITY("Gray4Alignment", Gray4Alignment),
    SX_ABILITY("ExtraFlags", ExtraFlags),
    SX_ABILITY("AltAreaWidth", AltAreaWidth),
    SX_ABILITY("AltAreaLength", AltAreaLength),
};
#undef SX_ABILITY

constexpr TextSpec kAbilityTexts[] = {
    {"Vendor", offsetof(ScannerAbility, Vendor), sizeof(ScannerAbility::Vendor)},
    {"Model", offsetof(ScannerAbility, ModelName), sizeof(ScannerAbility::ModelName)},
    {"Firmware", offsetof(ScannerAbility, FirmwareVersion), sizeof(ScannerAbility::FirmwareVersion)},
    {"Port", offsetof(ScannerAbility, PortName), sizeof(ScannerAbility::PortName)},
    {"DeviceId", offsetof(ScannerAbility, DeviceId), sizeof(ScannerAbility::DeviceId)},
};

#define SX_NVRAM(field) {#field, offsetof(NvRam, field), sizeof(NvRam::field)}
constexpr FieldSpec kNvramFields[] = {
    SX_NVRAM(PadCount),       SX_NVRAM(ADFSingleCount),      SX_NVRAM(ADFDuplexCount),
    SX_NVRAM(PadFBCountCount), SX_NVRAM(FBLeadingEdge),      SX_NVRAM(FBSideEdge),
    SX_NVRAM(ADFFrontLeadingEdge), SX_NVRAM(ADFFrontSideEdge), SX_NVRAM(ADFRearLeadingEdge),
    SX_NVRAM(ADFRearSideEdge), SX_NVRAM(BornMonth),          SX_NVRAM(BornDay),
    SX_NVRAM(BornYear),       SX_NVRAM(FirstScanMonth),      SX_NVRAM(FirstScanDay),
    SX_NVRAM(FirstScanYear),  SX_NVRAM(VMag),                SX_NVRAM(HMag),
    SX_NVRAM(CCDType),        SX_NVRAM(ScanSpeed),           SX_NVRAM(PowerSaveTime),
};
#undef SX_NVRAM

// The configuration's plain 32-bit counts, delays and status codes, by key
// within their section.
struct CountSpec {
  const char* Key;
  uint32_t Config::*Field;
};
constexpr CountSpec kPageCounts[] = {
    {"WarmUpRefusals", &Config::WarmUpRefusals}, {"WarmUpStatus", &Config::WarmUpStatus},
    {"WarmUpPolls", &Config::WarmUpPolls},       {"ReadDelayMs", &Config::ReadDelayMs},
    {"LineDelayUs", &Config::LineDelayUs},       {"KeepLastPage", &Config::KeepLastPage},
    {"Prerender", &Config::Prerender},
};
constexpr CountSpec kFaultCounts[] = {
    {"ShortReadAtLine", &Config::ShortReadAtLine}, {"FailReadAtLine", &Config::FailReadAtLine},
    {"ReadStatus", &Config::ReadStatus},           {"FaultPage", &Config::FaultPage},
    {"ReadScanExExtra", &Config::ReadScanExExtra}, {"ParameterStatus", &Config::ParameterStatus},
    {"PaperOutStatus", &Config::PaperOutStatus},
};

template <class T>
void ReadNumber(const modini::Ini& ini, const char* section, const char* key, T& out) {
  int64_t v = 0;
  if (const auto s = Find(ini, section, key); s && ParseIniNumber(*s, v)) out = static_cast<T>(v);
}

template <size_t N>
void ReadCounts(Config& c, const modini::Ini& ini, const char* section, const CountSpec (&counts)[N]) {
  for (const CountSpec& n : counts) ReadNumber(ini, section, n.Key, c.*n.Field);
}

// Little-endian store of the low `width` bytes of v.
void StoreField(uint8_t* record, const FieldSpec& f, int64_t v) {
  for (size_t i = 0; i < f.Width; ++i) record[f.Offset + i] = static_cast<uint8_t>(static_cast<uint64_t>(v) >> (8 * i));
}

// A text fills its field; only a shorter text is zero-terminated, so a field
// can be filled completely when a test needs an unterminated one.
void StoreText(uint8_t* record, size_t offset, size_t size, const std::string& text) {
  std::memset(record + offset, 0, size);
  std::memcpy(record + offset, text.data(), std::min(size, text.size()));
}

void ApplyScanner(Config& c, const modini::Ini& ini) {
  auto* ability = reinterpret_cast<uint8_t*>(&c.Ability);
  for (const TextSpec& t : kAbilityTexts)
    if (const auto s = Find(ini, "Scanner", t.Key)) StoreText(ability, t.Offset, t.Size, *s);
  for (const FieldSpec& f : kAbilityFields) {
    int64_t v = 0;
    if (const auto s = Find(ini, "Scanner", f.Key); s && ParseIniNumber(*s, v)) StoreField(ability, f, v);
  }
  if (const auto s = Find(ini, "Scanner", "HalftonePatternMap")) {
    size_t pos = 0;
    for (size_t i = 0; i < sizeof c.Ability.HalftonePatternMap && pos <= s->size(); ++i) {
      size_t comma = std::min(s->find(',', pos), s->size());
      int64_t v = 0;
      if (ParseIniNumber(s->substr(pos, comma - pos), v)) c.Ability.HalftonePatternMap[i] = static_cast<uint8_t>(v);
      pos = comma + 1;
    }
  }
  ReadNumber(ini, "Scanner", "Extended", c.Extended);
  ReadNumber(ini, "Scanner", "DefaultAreaWidth", c.DefaultAreaWidth);
  ReadNumber(ini, "Scanner", "DefaultAreaLength", c.DefaultAreaLength);
  ReadNumber(ini, "Scanner", "Buttons", c.Buttons);
  ReadNumber(ini, "Scanner", "PressedButton", c.PressedButton);
}

void ApplyNvram(Config& c, const modini::Ini& ini) {
  auto* nvram = reinterpret_cast<uint8_t*>(&c.Nvram);
  for (const FieldSpec& f : kNvramFields) {
    int64_t v = 0;
    if (const auto s = Find(ini, "NVRAM", f.Key); s && ParseIniNumber(*s, v)) StoreField(nvram, f, v);
  }
  if (const auto s = Find(ini, "NVRAM", "SerialNumber"))
    StoreText(nvram, offsetof(NvRam, SerialNumber), sizeof c.Nvram.SerialNumber, *s);
}

void ApplyFaults(Config& c, const modini::Ini& ini) {
  for (size_t i = 0; i < kEntryCount; ++i) {
    const std::string name = kEntryNames[i];
    ReadNumber(ini, "Faults", name.c_str(), c.Faults[i].Status);
    ReadNumber(ini, "Faults", (name + "Times").c_str(), c.Faults[i].Times);
    ReadNumber(ini, "Faults", (name + "After").c_str(), c.Faults[i].After);
  }
  // Older spellings of the same faults.
  auto alias = [&](const char* key, Entry e) { ReadNumber(ini, "Faults", key, c.Faults[size_t(e)].Status); };
  alias("FailInitializeDriver", Entry::InitializeDriver);
  alias("FailInitializeScanner", Entry::InitializeScanner);
  alias("FailAbility", Entry::GetScannerAbility);
  alias("FailAbility", Entry::GetScannerAbilityEx);
  ReadCounts(c, ini, "Faults", kFaultCounts);
}

std::string Resolve(const std::string& path, const std::string& folder) {
  if (path.empty() || sx::modini::IsAbsolutePath(path) || folder.empty()) return path;
  return folder + "/" + path;
}

}  // namespace

const char* EntryName(Entry e) {
  auto i = static_cast<size_t>(e);
  return i < kEntryCount ? kEntryNames[i] : "?";
}


Config DefaultConfig() {
  Config c;
  ApplyIni(c, kDefaultIni, "");
  return c;
}

void ApplyIni(Config& c, const std::string& text, const std::string& folder) {
  const modini::Ini ini = modini::ParseIni(text);
  ApplyScanner(c, ini);
  ApplyNvram(c, ini);
  ReadNumber(ini, "Feeder", "Sheets", c.Sheets);
  ReadNumber(ini, "Feeder", "PaperFlag", c.PaperFlag);
  ReadCounts(c, ini, "Page", kPageCounts);
  if (const auto s = Find(ini, "Page", "Image")) c.ImagePath = Resolve(*s, folder);
  ApplyFaults(c, ini);
  if (const auto s = Find(ini, "Log", "File")) c.LogPath = Resolve(*s, folder);
}

}  // namespace sx::vscan
