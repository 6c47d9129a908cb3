// Fake driver entry points that log their calls and answer from the control
// block of FakeDriver.h.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "FakeDriver.h"
#include "ModuleExport.h"

#define FAKE_EXPORT SX_TEST_EXPORT

namespace {

FakeDriverState gState;

int32_t Log(const char* format, ...) __attribute__((format(printf, 1, 2)));
int32_t Log(const char* format, ...) {
  size_t used = std::strlen(gState.Log);
  va_list args;
  va_start(args, format);
  std::vsnprintf(gState.Log + used, sizeof gState.Log - used, format, args);
  va_end(args);
  return gState.Result;
}

}  // namespace

FAKE_EXPORT FakeDriverState* FakeDriverReset() {
  std::memset(&gState, 0, sizeof gState);
  gState.Result = 1;
  return &gState;
}

#define FAKE_NOARG(name) \
  FAKE_EXPORT int32_t SX_DRIVERAPI name(void) { return Log(#name ";"); }

FAKE_NOARG(InitializeDriver)
FAKE_NOARG(TerminateDriver)
FAKE_NOARG(InitializeScanner)
FAKE_NOARG(StartScan)
FAKE_NOARG(StopScan)
FAKE_NOARG(ResetPushButton)
FAKE_NOARG(DoCancel)
FAKE_NOARG(CheckPushButton)
FAKE_NOARG(LampOff)

FAKE_EXPORT int32_t SX_DRIVERAPI GetScannerStatus(uint8_t*, uint8_t*, uint8_t*, uint8_t* status) {
  *status = static_cast<uint8_t>(gState.StatusCode);
  return Log("GetScannerStatus;");
}

FAKE_EXPORT int32_t SX_DRIVERAPI GetScannerAbility(ScannerAbilityBasic* basic) {
  basic->HasExtendedAbility = gState.HasExtendedAbility;
  basic->DefaultAreaWidth = gState.DefaultAreaWidth;
  basic->DefaultAreaLength = gState.DefaultAreaLength;
  return Log("GetScannerAbility;");
}

FAKE_EXPORT int32_t SX_DRIVERAPI GetScannerAbilityEx(ScannerAbility* ability) {
  std::memcpy(ability, &gState.Ability, sizeof *ability);
  return Log("GetScannerAbilityEx;");
}

FAKE_EXPORT int32_t SX_DRIVERAPI InitialButton(uintptr_t record) {
  return Log("InitialButton(%lu);", static_cast<unsigned long>(record));
}

FAKE_EXPORT int32_t SX_DRIVERAPI ReadPushButton(uintptr_t record) {
  return Log("ReadPushButton(%lu);", static_cast<unsigned long>(record));
}

FAKE_EXPORT int32_t SX_DRIVERAPI SetGammaTable(uint8_t*, int32_t channel, int32_t count) {
  return Log("SetGammaTable(%d,%d);", channel, count);
}

FAKE_EXPORT int32_t SX_DRIVERAPI ReadScan(uint8_t*, uint8_t* buffer, uint32_t bytes) {
  std::memset(buffer, 0x5A, bytes);
  return Log("ReadScan(%u);", bytes);
}

FAKE_EXPORT int32_t SX_DRIVERAPI SetScanParameter(ScanParameter* parameter) {
  return Log("SetScanParameter(%u);", parameter->XRes);
}

FAKE_EXPORT int32_t SX_DRIVERAPI SetPowerSaveTime(uint32_t value) {
  return Log("SetPowerSaveTime(%u);", value);
}

FAKE_EXPORT int32_t SX_DRIVERAPI GetADFStatus(uint8_t* paper) {
  *paper = gState.Adf;
  return Log("GetADFStatus;");
}

FAKE_EXPORT int32_t SX_DRIVERAPI GetLightStatus(uint8_t* state) {
  *state = gState.Light;
  return Log("GetLightStatus;");
}

FAKE_EXPORT int32_t SX_DRIVERAPI ReadNVMData(NvRam* record) {
  std::memcpy(record, &gState.Nv, sizeof *record);
  return Log("ReadNVMData;");
}

FAKE_EXPORT int32_t SX_DRIVERAPI WriteNVMData(NvRam*) { return Log("WriteNVMData;"); }

FAKE_EXPORT int32_t SX_DRIVERAPI ChooseSCSIScannerByID(uint32_t id) {
  return Log("ChooseSCSIScannerByID(%u);", id);
}

FAKE_EXPORT int32_t SX_DRIVERAPI TuneScanLength(int32_t a, int32_t length, int32_t c) {
  return Log("TuneScanLength(%d,%d,%d);", a, length, c);
}

FAKE_EXPORT int32_t SX_DRIVERAPI GetBackgroundRaster(uintptr_t buffer, uint32_t bytes) {
  return Log("GetBackgroundRaster(%lu,%u);", static_cast<unsigned long>(buffer), bytes);
}

#ifndef FAKE_LEGACY_DRIVER
FAKE_EXPORT int32_t SX_DRIVERAPI GetScannerStatusEx(uint8_t*, uint8_t*, uint8_t*, uint32_t* code) {
  *code = gState.StatusCode;
  return Log("GetScannerStatusEx;");
}

FAKE_EXPORT int32_t SX_DRIVERAPI ReadScanEx(ReadScanRequest* request) {
  gState.SeenRequest = *request;
  const uint32_t wanted = request->BytesRequested;
  request->BytesReturned =
      gState.BytesReturned < 0 ? wanted : static_cast<uint32_t>(gState.BytesReturned);
  const uint32_t filled = request->BytesReturned < wanted ? request->BytesReturned : wanted;
  std::memset(request->Buffer, 0xA5, filled);
  return Log("ReadScanEx(%u);", wanted);
}
#endif
