// The tone tables the library hands to the colour module (SX_Icc_Adjust):
// applied to a line before its colour conversion, on every system.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace sx::cmms {

inline constexpr int32_t kToneEntries = 256;

struct ToneStage {
  bool Active = false;  // some table is not the identity
  uint8_t Table[3][kToneEntries] = {};

  // Tables of another length, or missing ones, leave the samples alone.
  void Set(const uint8_t* red, const uint8_t* green, const uint8_t* blue, int32_t entries) {
    const uint8_t* tables[3] = {red, green, blue};
    Active = false;
    if (entries != kToneEntries || !red || !green || !blue) return;
    for (int c = 0; c < 3; ++c) {
      std::memcpy(Table[c], tables[c], kToneEntries);
      for (int i = 0; i < kToneEntries; ++i) Active |= tables[c][i] != i;
    }
  }

  // The tables map 8-bit samples; a 16-bit sample goes through the entry of
  // its high byte, spread back over 16 bits.
  void Apply(const uint8_t* source, uint8_t* out, size_t pixels, bool deep) const {
    if (!deep) {
      for (size_t p = 0; p < pixels; ++p, source += 3, out += 3) {
        out[0] = Table[0][source[0]];
        out[1] = Table[1][source[1]];
        out[2] = Table[2][source[2]];
      }
      return;
    }
    for (size_t i = 0; i < pixels * 3; ++i) {
      uint16_t sample;
      std::memcpy(&sample, source + 2 * i, 2);
      const uint16_t toned = static_cast<uint16_t>(Table[i % 3][sample >> 8] * 257);
      std::memcpy(out + 2 * i, &toned, 2);
    }
  }
};

}  // namespace sx::cmms
