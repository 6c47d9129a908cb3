// SxAcquire and its helpers. One acquisition at a time, entered on the host's
// thread; the settings' acquisition fields and the image record belong to it
// for its duration.
#pragma once
#include <cstdint>

#include "settings/ScanSettings.h"
#include "sxscan.h"

namespace sx {

// The result of an acquisition asked for with Buffering set: the threaded
// transfer is not available yet.
inline constexpr int32_t kBufferedNotAvailable = SX_ERR_UNSUPPORTED;

// The image description announced before every page (46 bytes).
extern ::SxImageInfo gImageInfo;

// Fills `info` from the settings and geometry of the parameter check; 0.
int32_t SxImageInfo(::SxImageInfo* info);

// Complements the first `count` bytes of `buffer`; a count of 0 or less
// changes nothing.
void InvertBuffer(uint8_t* buffer, int64_t count);

}  // namespace sx
