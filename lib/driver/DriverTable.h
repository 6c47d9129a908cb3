// The driver boundary: the loaded module's handle, one slot per entry point,
// and one traced call per entry point. Everything else in the library reaches
// the driver only through the traced calls below.
#pragma once
#include <cstdint>

#include "platform/Module.h"
#include "sxdriver.h"

namespace sx {

struct DriverTable {
  plat::ModuleHandle Module = nullptr;
  PFN_TerminateDriver TerminateDriver = nullptr;
  PFN_InitializeDriver InitializeDriver = nullptr;
  PFN_InitializeScanner InitializeScanner = nullptr;
  PFN_GetScannerStatusEx GetScannerStatusEx = nullptr;
  PFN_GetScannerStatus GetScannerStatus = nullptr;
  PFN_GetScannerAbilityEx GetScannerAbilityEx = nullptr;
  PFN_GetScannerAbility GetScannerAbility = nullptr;
  PFN_InitialButton InitialButton = nullptr;
  PFN_ResetPushButton ResetPushButton = nullptr;
  PFN_ReadPushButton ReadPushButton = nullptr;
  PFN_SetGammaTable SetGammaTable = nullptr;
  PFN_StartScan StartScan = nullptr;
  PFN_ReadScan ReadScan = nullptr;
  PFN_ReadScanEx ReadScanEx = nullptr;
  PFN_StopScan StopScan = nullptr;
  PFN_SetScanParameter SetScanParameter = nullptr;
  PFN_CheckPushButton CheckPushButton = nullptr;
  PFN_SetPowerSaveTime SetPowerSaveTime = nullptr;
  PFN_LampOff LampOff = nullptr;
  PFN_GetADFStatus GetADFStatus = nullptr;
  PFN_ReadNVMData ReadNVMData = nullptr;
  PFN_GetLightStatus GetLightStatus = nullptr;
  PFN_ChooseSCSIScannerByID ChooseSCSIScannerByID = nullptr;
  PFN_TuneScanLength TuneScanLength = nullptr;
  PFN_GetBackgroundRaster GetBackgroundRaster = nullptr;
  PFN_DoCancel DoCancel = nullptr;
  PFN_WriteNVMData WriteNVMData = nullptr;
};

// The one table. Slots are filled by bindings; driver calls come from the
// host's thread and, in buffered acquisitions, from the read thread, never at
// the same time as a binding.
extern DriverTable gDriver;

// The three lists of names a binding looks up.
enum class Binding {
  Load,        // SxLoad: all 26
  Select,      // SxSetDriverById: 22 (no ReadScanEx, TuneScanLength, GetBackgroundRaster, DoCancel)
  Discovery,   // VerifyDriver: the six discovery needs
};

// Looks the binding's names up in `module` and stores them (or null) in their
// slots; sets gDriver.Module. Slots outside the list keep their contents.
void BindDriver(plat::ModuleHandle module, Binding binding);
// Unloads the bound module (without calling anything) and empties every slot.
void UnbindDriver();
// Traced TerminateDriver, then UnbindDriver.
void ReleaseDriver();

// The library's driver records (library-wide; written on the host's thread or
// by the parameter check).
extern ScannerAbility gAbility;
extern NvRam gNvRam;
extern ScanParameter gScanParameter;

namespace driver {
// Traced calls, named after their entry points. An empty slot calls nothing
// and yields 1 (ReadScan 0).
int32_t InitializeDriver();
int32_t TerminateDriver();
int32_t InitializeScanner();
int32_t StartScan();
int32_t StopScan();
int32_t ResetPushButton();
int32_t DoCancel();
int32_t GetScannerStatusEx(uint8_t* a, uint8_t* b, uint8_t* c, uint32_t* statusCode);
int32_t GetScannerAbility(ScannerAbilityBasic* record);
int32_t GetScannerAbilityEx(ScannerAbility* record);
int32_t SetScanParameter(ScanParameter* parameter);
// Result 0: all wanted bytes came; 5: fewer came and *count was lowered;
// -4: the driver failed.
int32_t ReadScan(uint8_t* unused, uint8_t* buffer, uint32_t* count);
int32_t ReadNVMData(NvRam* record);
int32_t WriteNVMData(NvRam* record);
int32_t SetPowerSaveTime(uint32_t value);
int32_t GetADFStatus(uint8_t* paper);
int32_t GetLightStatus(uint8_t* state);
int32_t InitialButton(uintptr_t record);
int32_t ReadPushButton(uintptr_t record);
int32_t TuneScanLength(int32_t first, int32_t length, int32_t third);
int32_t GetBackgroundRaster(uintptr_t buffer, uint32_t bytes);

// Asks GetScannerStatusEx and returns its StatusCode (0 when nothing answers).
uint32_t QueryStatusCode();
}  // namespace driver

// Empties NvRam's serial number when its text is longer than 24 characters.
void SanitizeSerialNumber(NvRam& record);

}  // namespace sx
