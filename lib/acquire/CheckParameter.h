// The parameter check: turns the current settings into the driver's scan
// parameters and the acquisition geometry, builds and uploads the tone tables
// and programs the driver. Host's thread only (SxAcquire is its one caller).
#pragma once
#include <cstdint>

#include "settings/ScanSettings.h"

namespace sx {

// Result of a settings combination the check cannot turn into a scan: a pixel
// type or source outside the known ones, or a scan area that is empty once
// clamped to the source (a position beyond the area included).
inline constexpr int32_t kRefusedSettings = SX_ERR_UNSUPPORTED;

// 0 on success, else a negative library code (or a driver code passed through
// by the mapping). Writes the geometry fields, FeederInUse, the remapped
// Dither and the black-and-white adjustments into `settings`, fills
// gScanParameter and sends it to the driver.
int32_t CheckParameter(ScanSettings& settings);

// The pixel multiple line widths are rounded to for the current pixel type.
// Also fills the model's alignment bytes when the driver gave no extended
// ability record, and remaps Dither through the driver's pattern map.
uint8_t PixelAlignment(ScanSettings& settings);

}  // namespace sx
