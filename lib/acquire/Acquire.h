// SxAcquire and its helpers. One acquisition at a time, entered on the host's
// thread; the settings' acquisition fields and the image record belong to it
// for its duration.
#pragma once
#include <cstdint>

#include "settings/ScanSettings.h"
#include "sxscan.h"

namespace sx {

// The result of an acquisition asked for with Buffering set when the threaded
// transfer cannot run: the workers and events of process attach are gone
// (after SxFree), the ring is missing or has a buffer smaller than one block,
// a raster line is longer than one block, or the host's buffer (when the
// library can tell its size) cannot hold a processed block.
inline constexpr int32_t kBufferedNotAvailable = SX_ERR_DRIVER;

// The image description announced before every page (46 bytes).
extern ::SxImageInfo gImageInfo;

// Fills `info` from the settings and geometry of the parameter check; 0.
int32_t SxImageInfo(::SxImageInfo* info);

// Complements the first `count` bytes of `buffer`; a count of 0 or less
// changes nothing.
void InvertBuffer(uint8_t* buffer, int64_t count);

}  // namespace sx
