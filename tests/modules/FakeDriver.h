// The control block of the fake driver modules (drvfake.dll exports every
// entry point, drvlegacy.dll only those of an older driver: no
// GetScannerStatusEx and no ReadScanEx). Tests reach it through the exported
// FakeDriverControl and decide what the entry points answer; the entry points
// log each call with its arguments.
#pragma once
#include <cstdint>

#include "sxdriver.h"

struct FakeDriverState {
  int32_t Result;            // what every entry point returns (1 after a reset)
  char Log[4096];            // "Name(args);" per call, in call order
  uint32_t StatusCode;       // GetScannerStatusEx; its low 8 bits for GetScannerStatus
  uint8_t HasExtendedAbility;
  uint16_t DefaultAreaWidth;
  uint16_t DefaultAreaLength;
  ScannerAbility Ability;    // copied out by GetScannerAbilityEx
  NvRam Nv;                  // copied out by ReadNVMData
  int64_t BytesReturned;     // ReadScanEx answer; negative: as requested
  ReadScanRequest SeenRequest;  // the request as ReadScanEx received it
  uint8_t Adf;               // GetADFStatus output
  uint8_t Light;             // GetLightStatus output
};

// Resets the state (Result 1, everything else zero) and returns it.
using PFN_FakeDriverReset = FakeDriverState* (*)();
