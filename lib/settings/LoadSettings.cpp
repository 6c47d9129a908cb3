// LoadScanSettings: every host-visible setting from its stored default under
// Software\Quillmark\ScanData, fitted to the bound scanner. The steps run in a
// fixed order because later ones read fields set by earlier ones (the pixel
// type decides the depth, the units decide how positions are read).
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <type_traits>

#include "frame/RegistryUtil.h"
#include "settings/SettingsInternal.h"

namespace sx {

namespace {

// --- Reading stored defaults -------------------------------------------------

uint32_t StoredNumber(const char* name, uint32_t fallback) {
  uint32_t value = 0;
  if (ReadRegValue(kKeyScanData, name, &value, kKindNumber, sizeof value) != 0) return fallback;
  return value;
}

// A stored text of `room` bytes (zero-filled first), or the default text. The
// extra byte keeps even a text that fills its room terminated.
template <size_t Room>
struct StoredText {
  char Text[Room + 1] = {};
  StoredText(const char* name, const char* fallback) {
    if (ReadRegValue(kKeyScanData, name, Text, kKindText, Room) != 0) {
      std::memset(Text, 0, sizeof Text);
      std::strncpy(Text, fallback, Room);
    }
  }
  int32_t Integer() const { return IntegerText(Text, Room); }
  float Real() const { return RealText(Text, Room); }
};

constexpr size_t kNumberTextRoom = 64;
constexpr size_t kXferCountRoom = 63;

// --- Fitting the scan source -------------------------------------------------

// Models whose alternate-area source depends on the firmware: the source is
// there when the first `FirmwareChars` characters of the firmware version
// compare at or above `MinFirmware`.
struct Source3Model {
  const char* Prefix;
  const char* MinFirmware;
  size_t FirmwareChars;
};
constexpr Source3Model kSource3Models[] = {
    {"QM7110", "2", 1},
    {"QMB4", "1", 1},
    {"QM415CS", "0.4", 3},
};

bool HasSource3(const ScannerAbility& a) {
  if (a.FeatureFlags & SX_FEATURE_SOURCE3) return true;
  for (const Source3Model& m : kSource3Models) {
    if (std::strncmp(a.ModelName, m.Prefix, std::strlen(m.Prefix)) == 0 &&
        std::strncmp(a.FirmwareVersion, m.MinFirmware, m.FirmwareChars) >= 0)
      return true;
  }
  return false;
}

struct Sources {
  bool Feeder, Flatbed, Source3, Source4;
};

Sources SourcesOf(const ScannerAbility& a) {
  return {(a.SourceFlags & SX_SOURCE_FEEDER_ANY) != 0, (a.SourceFlags & SX_SOURCE_FLATBED) != 0,
          HasSource3(a), (a.SourceFlags & SX_SOURCE_SOURCE4) != 0};
}

// The stored source if the scanner has it, else the first present source in
// that source's order of preference, else the order's last resort.
uint8_t FitScanType(uint8_t stored, const Sources& s) {
  struct Choice {
    bool Present;
    uint8_t Type;
  };
  auto first = [](std::initializer_list<Choice> order, uint8_t lastResort) {
    for (const Choice& c : order)
      if (c.Present) return c.Type;
    return lastResort;
  };
  switch (stored) {
    case 1: return first({{s.Feeder, 1}, {s.Flatbed, 2}, {s.Source3, 3}}, 4);
    case 2: return first({{s.Flatbed, 2}, {s.Feeder, 1}, {s.Source3, 3}}, 4);
    case 3: return first({{s.Source3, 3}, {s.Flatbed, 2}, {s.Feeder, 1}}, 4);
    case 4: return first({{s.Source4, 4}, {s.Flatbed, 2}, {s.Feeder, 1}}, 3);
    default: return stored;  // automatic, and values the parameter check refuses
  }
}

// --- Field groups -------------------------------------------------------------

constexpr const char* kBrightnessNames[kChannels] = {"BRIGHTNESS", "BRIGHTNESS_R",
                                                     "BRIGHTNESS_G", "BRIGHTNESS_B"};
constexpr const char* kContrastNames[kChannels] = {"CONTRAST", "CONTRAST_R", "CONTRAST_G",
                                                   "CONTRAST_B"};
constexpr const char* kHighlightNames[kChannels] = {"HIGHLIGHT", "HIGHLIGHT_R", "HIGHLIGHT_G",
                                                    "HIGHLIGHT_B"};
constexpr const char* kShadowNames[kChannels] = {"SHADOW", "SHADOW_R", "SHADOW_G", "SHADOW_B"};
constexpr const char* kGammaNames[kChannels] = {"GAMMA", "GAMMA_R", "GAMMA_G", "GAMMA_B"};
constexpr const char* kGammaDefaults[kChannels] = {"2.2", "1.0", "1.0", "1.0"};

constexpr uint8_t kBitsForPixelType[] = {1, 8, 24};

// A plain number field: name, default, and where its low bytes go.
template <auto Member>
void Store(ScanSettings& s, uint32_t v) {
  using Field = std::remove_reference_t<decltype(s.*Member)>;
  s.*Member = static_cast<Field>(v);
}
struct NumberField {
  const char* Name;
  uint32_t Default;
  void (*Set)(ScanSettings&, uint32_t);
};

constexpr NumberField kFilterAndCompression[] = {
    {"FILTER", 2, Store<&ScanSettings::Filter>},
    {"COMPRESSION", 0, Store<&ScanSettings::Compression>},
};
constexpr NumberField kThresholdInvertUnits[] = {
    {"THRESHOLD", 128, Store<&ScanSettings::Threshold>},
    {"INVERT", 0, Store<&ScanSettings::Invert>},
    {"UNITS", 2, Store<&ScanSettings::Units>},
};
constexpr NumberField kOptions[] = {
    {"PAGESIZE", 0, Store<&ScanSettings::PageSize>},
    {"INDICATORS", 0, Store<&ScanSettings::Indicators>},
    {"UICONTROL", 0, Store<&ScanSettings::UIControl>},
    {"SHARPEN", 0, Store<&ScanSettings::Sharpen>},
    {"COLORMATCH", 0, Store<&ScanSettings::ColorMatch>},
    {"DESCREEN", 0, Store<&ScanSettings::Descreen>},
    {"BACKGROUND", 0, Store<&ScanSettings::Background>},
    {"ENERGYSAVING", 15, Store<&ScanSettings::EnergySaving>},
    {"OVERSCAN", 0, Store<&ScanSettings::Overscan>},
    {"BACKGROUNDLINES", 50, Store<&ScanSettings::BackgroundLines>},
};

template <size_t N>
void LoadNumbers(ScanSettings& s, const NumberField (&fields)[N]) {
  for (const NumberField& f : fields) f.Set(s, StoredNumber(f.Name, f.Default));
}

// Area fields in the order they are read, with their defaults.
struct AreaField {
  const char* Name;
  const char* Default;
  uint16_t ScanSettings::*Field;
};
constexpr AreaField kArea[] = {
    {"XPOSITION", "0", &ScanSettings::XPosition},
    {"YPOSITION", "0", &ScanSettings::YPosition},
    {"IMAGELENGTH", "3300", &ScanSettings::ImageLength},
    {"IMAGEWIDTH", "2550", &ScanSettings::ImageWidth},
};

void LoadSourceAndResolution(ScanSettings& s, const ScannerAbility& a) {
  s.ScanType = FitScanType(static_cast<uint8_t>(StoredNumber("SCANTYPE", 0)), SourcesOf(a));
  s.FeederType = static_cast<uint8_t>(StoredNumber("FEEDERTYPE", 0));
  if (s.FeederType == 1 && !(a.SourceFlags & SX_SOURCE_FEEDER_TYPES)) s.FeederType = 0;
  constexpr uint16_t kDefaultResolution = 300;
  const uint16_t resolution =
      a.MaxResolution <= kDefaultResolution ? a.MaxResolution : kDefaultResolution;
  s.XResolution = static_cast<uint16_t>(StoredNumber("XRESOLUTION", resolution));
  s.YResolution = static_cast<uint16_t>(StoredNumber("YRESOLUTION", resolution));
  s.PixelType = static_cast<uint8_t>(StoredNumber("PIXELTYPE", 0));
  s.BitsPerPixel = static_cast<uint8_t>(StoredNumber("BITSPERPIXEL", 1));
  if (s.PixelType < std::size(kBitsForPixelType)) s.BitsPerPixel = kBitsForPixelType[s.PixelType];
}

void LoadTone(ScanSettings& s) {
  for (int c = 0; c < kChannels; ++c)
    s.Brightness[c] = StoredText<kNumberTextRoom>(kBrightnessNames[c], "0").Integer();
  for (int c = 0; c < kChannels; ++c)
    s.Contrast[c] = StoredText<kNumberTextRoom>(kContrastNames[c], "0").Integer();
  for (int c = 0; c < kChannels; ++c)
    s.Highlight[c] = static_cast<uint8_t>(StoredNumber(kHighlightNames[c], 255));
  for (int c = 0; c < kChannels; ++c)
    s.Shadow[c] = static_cast<uint8_t>(StoredNumber(kShadowNames[c], 0));
  for (int c = 0; c < kChannels; ++c) {
    const float gamma = StoredText<kNumberTextRoom>(kGammaNames[c], kGammaDefaults[c]).Real();
    s.Gamma[c] = static_cast<uint16_t>(TruncateReal(Single(gamma * 100.0f)));
  }
}

void LoadDither(ScanSettings& s, const ScannerAbility& a) {
  const StoredText<kDitherNameSize> name("DITHER", "None");
  DitherWords words;
  LoadDitherWords(words);
  s.Dither = DitherFromName(name.Text, a.HalftonePatternCount, words);
}

void LoadArea(ScanSettings& s) {
  for (const AreaField& f : kArea) {
    uint16_t pixels;
    const float real = StoredText<kNumberTextRoom>(f.Name, f.Default).Real();
    if (UnitsToPixels(real, s.Units, pixels)) s.*f.Field = pixels;
  }
}

}  // namespace

void LoadScanSettings(ScanSettings& settings, const ScannerAbility& ability) {
  LoadSourceAndResolution(settings, ability);
  LoadTone(settings);
  LoadNumbers(settings, kFilterAndCompression);
  LoadDither(settings, ability);
  LoadNumbers(settings, kThresholdInvertUnits);
  LoadArea(settings);
  settings.XferCount = StoredText<kXferCountRoom>("XFERCOUNT", "-1").Integer();
  LoadNumbers(settings, kOptions);
}

}  // namespace sx
