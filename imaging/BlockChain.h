// Per-block post-processing: descreen with resolution scaling, sharpening.
// Each runs in place on a block of raw lines and returns the lines now held.
#pragma once
#include <cstdint>

#include "settings/ScanSettings.h"

namespace sx {

int32_t PrepareLineScaling(ScanSettings& settings);
int32_t ReleaseLineScaling();
int32_t PrepareDescreen(ScanSettings& settings);
void ReleaseDescreen();
int32_t DescreenBlock(uint8_t* out, uint8_t* in, ScanSettings& settings, int32_t lines);
int32_t PrepareSharpen(ScanSettings& settings);
void ReleaseSharpen();
int32_t SharpenBlock(uint8_t* out, uint8_t* in, uint8_t level, ScanSettings& settings,
                     int32_t lines);

}  // namespace sx
