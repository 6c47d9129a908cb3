// Tone tables: 256 one-byte output levels indexed by the input level.
#pragma once
#include <cstdint>

#include "settings/ScanSettings.h"

namespace sx {

inline constexpr int kToneEntries = 256;

void BuildToneTable(uint8_t* table, int32_t brightness, int32_t contrast, uint8_t highlight,
                    uint8_t shadow, uint16_t gamma);
// Rebuilds the four slots from the settings (master, red, green, blue).
void RebuildToneTables(ScanSettings& settings);
// Uploads the tables through the bound SetGammaTable by the channel rule.
int32_t SetGammaTableFunction(ScanSettings& settings);

}  // namespace sx
