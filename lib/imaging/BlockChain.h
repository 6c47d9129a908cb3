// Per-block post-processing: descreen with resolution scaling, sharpening.
// Each runs in place on a block of raw lines and returns the lines now held.
#pragma once
#include <cstdint>

#include "settings/ScanSettings.h"

namespace sx {

int32_t PrepareLineScaling(ScanSettings& settings);
int32_t ReleaseLineScaling();
// True while the current page has a line table, i.e. needs vertical scaling.
bool VerticalScalingActive();
// Vertical pass: `lines` input lines at `in` (stride ScanBytesPerLine) become
// output lines at `out` (same stride); returns the output lines written.
int32_t ScaleLinesVertical(ScanSettings& settings, uint8_t* out, const uint8_t* in, int32_t lines);
// Horizontal pass: each of `lines` lines at `in` (stride ScanBytesPerLine)
// becomes OutputBytesPerLine bytes at `out`, packed.
void ScalePixelsHorizontal(uint8_t* out, const uint8_t* in, const ScanSettings& settings,
                           int32_t lines);
int32_t PrepareDescreen(ScanSettings& settings);
void ReleaseDescreen();
// The 4 x 4 averaging filter over `lines` lines of `lineBytes` bytes; returns
// the lines written (0 for an unknown mode).
int32_t DescreenFilter(uint8_t* out, const uint8_t* in, ScanSettings& settings, int32_t lineBytes,
                       int32_t lines);
int32_t DescreenBlock(uint8_t* out, uint8_t* in, ScanSettings& settings, int32_t lines);
int32_t PrepareSharpen(ScanSettings& settings);
void ReleaseSharpen();
int32_t SharpenBlock(uint8_t* out, uint8_t* in, uint8_t level, ScanSettings& settings,
                     int32_t lines);

}  // namespace sx
