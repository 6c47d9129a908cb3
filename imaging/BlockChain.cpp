// Per-block post-processing chain. Resolution scaling, descreening and
// sharpening are not built yet: every set-up succeeds without allocating and
// every block passes through untouched, so acquisitions deliver the raster as
// the scanner sent it.
#include "imaging/BlockChain.h"

namespace sx {

int32_t PrepareLineScaling(ScanSettings&) { return 0; }

int32_t ReleaseLineScaling() { return 0; }

int32_t PrepareDescreen(ScanSettings&) { return 1; }

void ReleaseDescreen() {}

int32_t DescreenBlock(uint8_t*, uint8_t*, ScanSettings&, int32_t lines) { return lines; }

int32_t PrepareSharpen(ScanSettings&) { return 1; }

void ReleaseSharpen() {}

int32_t SharpenBlock(uint8_t*, uint8_t*, uint8_t, ScanSettings&, int32_t lines) { return lines; }

}  // namespace sx
