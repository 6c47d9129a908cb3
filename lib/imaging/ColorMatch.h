// Colour matching through the maker's colour-management module "sxcmms.dll".
#pragma once
#include <cstdint>

#include "settings/ScanSettings.h"

namespace sx {

// The module's entry points use the caller-cleans convention.
#if defined(__i386__)
#define SX_CMMSAPI __attribute__((cdecl))
#else
#define SX_CMMSAPI
#endif

int32_t OpenCMatch(const char* modelName);
int32_t CloseCMatch();
int32_t InitialCMatch(ScanSettings& settings);
int32_t ConvertBlock(uint8_t* block, ScanSettings& settings, int32_t lines);

}  // namespace sx
