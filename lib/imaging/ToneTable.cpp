// Tone tables: the scanner corrects tone in hardware, so brightness, contrast,
// highlight, shadow and gamma become 256-entry lookup tables that are
// uploaded to the driver before every page.
#include "imaging/ToneTable.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "driver/DriverTable.h"
#include "frame/Trace.h"

namespace sx {

namespace {

inline constexpr int32_t kMaxLevel = 255;
inline constexpr int32_t kChannelMaster = 0;
inline constexpr int32_t kChannelBlue = 3;
inline constexpr uint8_t kColorMatchOn = 1;

int32_t ClampLevel(int64_t value) {
  return static_cast<int32_t>(std::clamp<int64_t>(value, 0, kMaxLevel));
}

// Scales a host value in -1000..1000 to -127..127. Computed in 64 bits so
// that a value far outside the offered range cannot overflow; the quotient
// always fits in 32 bits.
int32_t ScaleTone(int32_t value) {
  return static_cast<int32_t>(static_cast<int64_t>(value) * 127 / 1000);
}

// Input levels below `low` become 0, from `high` upward 255, linear between.
// The break points are kept within 0..256 so that extreme contrast settings
// can never index outside the table.
void LevelMap(int32_t* entries, int64_t low, int64_t high) {
  const int32_t lo = static_cast<int32_t>(std::clamp<int64_t>(low, 0, kToneEntries));
  const int32_t hi = static_cast<int32_t>(std::clamp<int64_t>(high, 0, kToneEntries));
  for (int32_t i = 0; i < kToneEntries; ++i) {
    if (i < lo) {
      entries[i] = 0;
    } else if (i < hi) {
      entries[i] = (i - lo) * kMaxLevel / (hi - lo);
    } else {
      entries[i] = kMaxLevel;
    }
  }
}

// Negative contrast compresses the output range toward the middle: 0 maps to
// -c and 255 to 255 + c. Entries are kept within 0..255, which changes
// nothing for contrasts in the offered range but keeps the gamma step below
// from ever seeing a level outside the table.
void CompressLevels(int32_t* entries, int32_t c) {
  int32_t k[kToneEntries];
  for (int64_t i = 0; i < kToneEntries; ++i) {
    k[i] = ClampLevel(i * (255 + 2 * static_cast<int64_t>(c)) / 255 - c);
  }
  for (int32_t i = 0; i < kToneEntries; ++i) entries[i] = k[entries[i]];
}

// The curve uses single-precision constants on purpose: 1/255 rounded to
// float is slightly above 1/255, so that 255 maps to a little over 1.0 and
// the top entry stays 255 after truncation.
void ApplyGamma(int32_t* entries, uint16_t gamma) {
  const float exponent = 100.0f / static_cast<float>(gamma);
  const float step = static_cast<float>(1.0 / 255.0);
  for (int32_t i = 0; i < kToneEntries; ++i) {
    const double base = static_cast<double>(entries[i]) * static_cast<double>(step);
    const double level = std::pow(base, static_cast<double>(exponent)) * 255.0 + 0.5;
    entries[i] = static_cast<int32_t>(level);
  }
}

constexpr std::array<uint8_t, kToneEntries> kIdentityTable = [] {
  std::array<uint8_t, kToneEntries> table{};
  for (int32_t i = 0; i < kToneEntries; ++i) table[i] = static_cast<uint8_t>(i);
  return table;
}();

bool TablesPresent(const ScanSettings& settings) {
  return std::all_of(settings.ToneTables, settings.ToneTables + kChannels,
                     [](const uint8_t* t) { return t != nullptr; });
}

// The bound SetGammaTable slot is called directly: the upload has its own
// trace records instead of the traced-call lines.
void Upload(const uint8_t* table, int32_t channel) {
  gDriver.SetGammaTable(const_cast<uint8_t*>(table), channel, kToneEntries);
}

void UploadPerChannel(ScanSettings& settings) {
  for (int32_t c = 1; c <= kChannelBlue; ++c) Upload(settings.ToneTables[c], c);
}

void UploadRepeated(const uint8_t* table) {
  for (int32_t c = 1; c <= kChannelBlue; ++c) Upload(table, c);
}

// Composes red, green and blue with the master table in place; the tables are
// rebuilt before every upload, so the composition never accumulates.
void ComposeWithMaster(ScanSettings& settings) {
  const uint8_t* master = settings.ToneTables[kChannelMaster];
  for (int32_t c = 1; c <= kChannelBlue; ++c) {
    uint8_t* table = settings.ToneTables[c];
    for (int32_t i = 0; i < kToneEntries; ++i) table[i] = master[table[i]];
  }
}

}  // namespace

void BuildToneTable(uint8_t* table, int32_t brightness, int32_t contrast, uint8_t highlight,
                    uint8_t shadow, uint16_t gamma) {
  const int32_t b = ScaleTone(brightness);
  const int32_t c = ScaleTone(contrast);
  int32_t entries[kToneEntries];

  if (c >= 0) {
    const int64_t d = (static_cast<int64_t>(highlight) - shadow) * c / 255;
    LevelMap(entries, shadow + d, highlight - d);
  } else {
    LevelMap(entries, shadow, highlight);
    CompressLevels(entries, c);
  }
  if (b != 0) {
    for (int32_t& e : entries) e = ClampLevel(static_cast<int64_t>(e) + b);
  }
  if (gamma == 0) {
    std::fill(entries, entries + kToneEntries, 0);
  } else {
    ApplyGamma(entries, gamma);
  }
  for (int32_t i = 0; i < kToneEntries; ++i) table[i] = static_cast<uint8_t>(entries[i]);
}

void RebuildToneTables(ScanSettings& settings) {
  for (int32_t i = 0; i < kChannels; ++i) {
    // The tables exist only while a driver is loaded; without them there is
    // nothing to rebuild.
    if (settings.ToneTables[i] == nullptr) continue;
    BuildToneTable(settings.ToneTables[i], settings.Brightness[i], settings.Contrast[i],
                   settings.Highlight[i], settings.Shadow[i], settings.Gamma[i]);
  }
}

int32_t SetGammaTableFunction(ScanSettings& settings) {
  constexpr int32_t kResult = 1;
  // Design note: only filters 1..3 name a colour table; a larger value set by
  // the host would index past the four slots, so it uploads as if no filter
  // were chosen. The trace records still show the value as set.
  const uint8_t filter = settings.Filter <= kChannelBlue ? settings.Filter : 0;
  const bool oneChannelScan = settings.PixelType <= 1;

  if (gDriver.SetGammaTable != nullptr && TablesPresent(settings)) {
    if (oneChannelScan && filter != 0) {
      Upload(settings.ToneTables[filter], filter);
    } else if (settings.ColorMatch == kColorMatchOn) {
      // The colour-management module applies the per-channel tables itself.
      if (settings.ScanType == kScanTypeSource4) {
        UploadPerChannel(settings);
      } else {
        UploadRepeated(kIdentityTable.data());
      }
    } else {
      ComposeWithMaster(settings);
      if (oneChannelScan) {
        UploadRepeated(settings.ToneTables[kChannelMaster]);
      } else {
        UploadPerChannel(settings);
      }
    }
  }

  TraceLog(kTraceFile, "SetGammaTableFunction", kTagOut, kResult, settings.Filter, kKindNumber, 1);
  TraceLog(kToneTraceFile, "filter:", kTagIn, 1, settings.Filter, kKindNumber, 1);
  return kResult;
}

}  // namespace sx
