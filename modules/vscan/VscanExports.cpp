// The driver entry points of the virtual scanner. Each one takes the module's
// lock, checks the session and the injected faults, runs its body in
// VscanDevice.cpp, keeps the status of the call and writes its log line.
// Nothing thrown inside may leave an entry point: a failure is result 0.
#include <mutex>
#include <string>

#include "modules/common/ModuleIni.h"
#include "modules/vscan/VscanDevice.h"
#include "sxdriver.h"

using sx::vscan::Device;
using sx::vscan::Entry;

namespace {

// Guards gDevice; held for the whole of every entry point.
std::mutex gLock;
Device gDevice;

// A module unloaded without TerminateDriver must not leave its log file open.
// Declared after gDevice, so it runs first at unload.
struct LogCloser {
  ~LogCloser() { sx::vscan::CloseLog(gDevice); }
} gLogCloser;

bool IsStatusQuery(Entry e) { return e == Entry::GetScannerStatusEx || e == Entry::GetScannerStatus; }

// Everything but starting and ending a session and asking the status needs
// an initialised driver, as a real scanner driver would.
bool NeedsSession(Entry e) {
  return e != Entry::InitializeDriver && e != Entry::TerminateDriver && !IsStatusQuery(e);
}

std::string NoArgs() { return {}; }

template <class Args, class Body>
int32_t Call(Entry e, Args&& args, Body&& body) noexcept {
  try {
    std::lock_guard<std::mutex> lock(gLock);
    Device& d = gDevice;
    if (d.Folder.empty()) d.Folder = sx::modini::ModuleFolder();
    std::string extra;
    int32_t result = 0;
    if (NeedsSession(e) && !d.Initialized) {
      d.Status = sx::vscan::kStatusNotReady;
      extra = "reason=NoSession";
    } else if (e != Entry::InitializeDriver && !IsStatusQuery(e) && sx::vscan::InjectFault(d, e)) {
      extra = "reason=Injected";
    } else {
      result = body(d, extra);
    }
    if (!IsStatusQuery(e) && result) d.Status = 0;
    if (sx::vscan::IsLogOpen(d)) {
      std::string line = std::string(sx::vscan::EntryName(e)) + "(" + args() + ") -> " + std::to_string(result);
      if (!extra.empty()) line += " " + extra;
      if (!result && !IsStatusQuery(e)) line += " status=" + std::to_string(d.Status);
      sx::vscan::LogLine(d, line);
    }
    if (e == Entry::TerminateDriver && result) sx::vscan::CloseLog(d);
    return result;
  } catch (...) {
    return 0;
  }
}

}  // namespace

#define SX_VSCAN_EXPORT extern "C" __attribute__((visibility("default")))

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI InitializeDriver(void) {
  return Call(Entry::InitializeDriver, NoArgs, [](Device& d, std::string& x) { return DoInitializeDriver(d, x); });
}

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI TerminateDriver(void) {
  return Call(Entry::TerminateDriver, NoArgs, [](Device& d, std::string&) { return DoTerminateDriver(d); });
}

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI InitializeScanner(void) {
  return Call(Entry::InitializeScanner, NoArgs, [](Device& d, std::string&) { return DoInitializeScanner(d); });
}

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI GetScannerStatusEx(uint8_t* a, uint8_t* b, uint8_t* c, uint32_t* status) {
  return Call(Entry::GetScannerStatusEx, NoArgs, [=](Device& d, std::string& x) {
    int32_t r = DoGetScannerStatus(d, a, b, c, status);
    x = "StatusCode=" + std::to_string(d.Status);
    return r;
  });
}

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI GetScannerStatus(uint8_t* a, uint8_t* b, uint8_t* c, uint8_t* status) {
  return Call(Entry::GetScannerStatus, NoArgs, [=](Device& d, std::string& x) {
    // The 8-bit status is the low byte of the status code.
    uint32_t code = 0;
    int32_t r = DoGetScannerStatus(d, a, b, c, &code);
    if (status) *status = static_cast<uint8_t>(code);
    x = "StatusCode=" + std::to_string(static_cast<uint8_t>(code));
    return r;
  });
}

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI GetScannerAbilityEx(ScannerAbility* ability) {
  return Call(Entry::GetScannerAbilityEx, NoArgs,
              [=](Device& d, std::string& x) { return DoGetScannerAbilityEx(d, ability, x); });
}

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI GetScannerAbility(ScannerAbilityBasic* basic) {
  return Call(Entry::GetScannerAbility, NoArgs,
              [=](Device& d, std::string& x) { return DoGetScannerAbility(d, basic, x); });
}

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI InitialButton(uintptr_t record) {
  return Call(Entry::InitialButton, NoArgs, [=](Device& d, std::string& x) { return DoInitialButton(d, record, x); });
}

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI ResetPushButton(void) {
  return Call(Entry::ResetPushButton, NoArgs, [](Device& d, std::string&) { return DoResetPushButton(d); });
}

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI ReadPushButton(uintptr_t record) {
  return Call(Entry::ReadPushButton, NoArgs, [=](Device& d, std::string& x) { return DoReadPushButton(d, record, x); });
}

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI SetGammaTable(uint8_t* table, int32_t channel, int32_t count) {
  auto args = [=] {
    return "channel=" + std::to_string(channel) + ", count=" + std::to_string(count) +
           ", table=" + (table ? sx::vscan::HexBytes(table, count == 256 ? 256 : 0) : std::string("null"));
  };
  return Call(Entry::SetGammaTable, args,
              [=](Device& d, std::string&) { return DoSetGammaTable(d, table, channel, count); });
}

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI StartScan(void) {
  return Call(Entry::StartScan, NoArgs, [](Device& d, std::string& x) { return DoStartScan(d, x); });
}

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI ReadScan(uint8_t*, uint8_t* buffer, uint32_t bytes) {
  return Call(Entry::ReadScan, [=] { return "requested=" + std::to_string(bytes); },
              [=](Device& d, std::string& x) { return DoReadScan(d, buffer, bytes, x); });
}

#ifndef VSCAN_NO_READSCANEX
SX_VSCAN_EXPORT int32_t SX_DRIVERAPI ReadScanEx(ReadScanRequest* request) {
  return Call(Entry::ReadScanEx,
              [=] { return request ? "requested=" + std::to_string(request->BytesRequested) : std::string("null"); },
              [=](Device& d, std::string& x) { return DoReadScanEx(d, request, x); });
}
#endif

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI StopScan(void) {
  return Call(Entry::StopScan, NoArgs, [](Device& d, std::string&) { return DoStopScan(d); });
}

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI SetScanParameter(ScanParameter* p) {
  return Call(Entry::SetScanParameter, [=] { return sx::vscan::FormatScanParameter(p); },
              [=](Device& d, std::string& x) { return DoSetScanParameter(d, p, x); });
}

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI CheckPushButton(void) {
  return Call(Entry::CheckPushButton, NoArgs, [](Device& d, std::string& x) { return DoCheckPushButton(d, x); });
}

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI SetPowerSaveTime(uint32_t value) {
  return Call(Entry::SetPowerSaveTime, [=] { return std::to_string(value); },
              [=](Device& d, std::string&) { return DoSetPowerSaveTime(d, value); });
}

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI LampOff(void) {
  return Call(Entry::LampOff, NoArgs, [](Device& d, std::string&) { return DoLampOff(d); });
}

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI GetADFStatus(uint8_t* paper) {
  return Call(Entry::GetADFStatus, NoArgs, [=](Device& d, std::string& x) { return DoGetADFStatus(d, paper, x); });
}

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI ReadNVMData(NvRam* nvram) {
  return Call(Entry::ReadNVMData, NoArgs, [=](Device& d, std::string& x) {
    int32_t r = DoReadNVMData(d, nvram);
    if (r) x = sx::vscan::FormatNvram(nvram, " ");
    return r;
  });
}

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI GetLightStatus(uint8_t* lamp) {
  return Call(Entry::GetLightStatus, NoArgs, [=](Device& d, std::string& x) { return DoGetLightStatus(d, lamp, x); });
}

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI ChooseSCSIScannerByID(uint32_t id) {
  return Call(Entry::ChooseSCSIScannerByID, [=] { return std::to_string(id); },
              [=](Device& d, std::string&) { return DoChooseSCSIScannerByID(d, id); });
}

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI TuneScanLength(int32_t first, int32_t length, int32_t third) {
  return Call(Entry::TuneScanLength,
              [=] { return std::to_string(first) + ", " + std::to_string(length) + ", " + std::to_string(third); },
              [=](Device& d, std::string&) { return DoTuneScanLength(d, length); });
}

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI GetBackgroundRaster(uintptr_t buffer, uint32_t bytes) {
  return Call(Entry::GetBackgroundRaster, [=] { return "bytes=" + std::to_string(bytes); },
              [=](Device& d, std::string&) { return DoGetBackgroundRaster(d, buffer, bytes); });
}

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI DoCancel(void) {
  return Call(Entry::DoCancel, NoArgs, [](Device& d, std::string&) { return DoStopScan(d); });
}

SX_VSCAN_EXPORT int32_t SX_DRIVERAPI WriteNVMData(NvRam* nvram) {
  return Call(Entry::WriteNVMData, [=] { return sx::vscan::FormatNvram(nvram, ", "); },
              [=](Device& d, std::string&) { return DoWriteNVMData(d, nvram); });
}

// The exported signatures must be exactly the library's entry-point types,
// calling convention included.
namespace {
[[maybe_unused]] constexpr PFN_InitializeDriver kCheckInitializeDriver = &InitializeDriver;
[[maybe_unused]] constexpr PFN_TerminateDriver kCheckTerminateDriver = &TerminateDriver;
[[maybe_unused]] constexpr PFN_InitializeScanner kCheckInitializeScanner = &InitializeScanner;
[[maybe_unused]] constexpr PFN_GetScannerStatusEx kCheckGetScannerStatusEx = &GetScannerStatusEx;
[[maybe_unused]] constexpr PFN_GetScannerStatus kCheckGetScannerStatus = &GetScannerStatus;
[[maybe_unused]] constexpr PFN_GetScannerAbilityEx kCheckGetScannerAbilityEx = &GetScannerAbilityEx;
[[maybe_unused]] constexpr PFN_GetScannerAbility kCheckGetScannerAbility = &GetScannerAbility;
[[maybe_unused]] constexpr PFN_InitialButton kCheckInitialButton = &InitialButton;
[[maybe_unused]] constexpr PFN_ResetPushButton kCheckResetPushButton = &ResetPushButton;
[[maybe_unused]] constexpr PFN_ReadPushButton kCheckReadPushButton = &ReadPushButton;
[[maybe_unused]] constexpr PFN_SetGammaTable kCheckSetGammaTable = &SetGammaTable;
[[maybe_unused]] constexpr PFN_StartScan kCheckStartScan = &StartScan;
[[maybe_unused]] constexpr PFN_ReadScan kCheckReadScan = &ReadScan;
#ifndef VSCAN_NO_READSCANEX
[[maybe_unused]] constexpr PFN_ReadScanEx kCheckReadScanEx = &ReadScanEx;
#endif
[[maybe_unused]] constexpr PFN_StopScan kCheckStopScan = &StopScan;
[[maybe_unused]] constexpr PFN_SetScanParameter kCheckSetScanParameter = &SetScanParameter;
[[maybe_unused]] constexpr PFN_CheckPushButton kCheckCheckPushButton = &CheckPushButton;
[[maybe_unused]] constexpr PFN_SetPowerSaveTime kCheckSetPowerSaveTime = &SetPowerSaveTime;
[[maybe_unused]] constexpr PFN_LampOff kCheckLampOff = &LampOff;
[[maybe_unused]] constexpr PFN_GetADFStatus kCheckGetADFStatus = &GetADFStatus;
[[maybe_unused]] constexpr PFN_ReadNVMData kCheckReadNVMData = &ReadNVMData;
[[maybe_unused]] constexpr PFN_GetLightStatus kCheckGetLightStatus = &GetLightStatus;
[[maybe_unused]] constexpr PFN_ChooseSCSIScannerByID kCheckChooseSCSIScannerByID = &ChooseSCSIScannerByID;
[[maybe_unused]] constexpr PFN_TuneScanLength kCheckTuneScanLength = &TuneScanLength;
[[maybe_unused]] constexpr PFN_GetBackgroundRaster kCheckGetBackgroundRaster = &GetBackgroundRaster;
[[maybe_unused]] constexpr PFN_DoCancel kCheckDoCancel = &DoCancel;
[[maybe_unused]] constexpr PFN_WriteNVMData kCheckWriteNVMData = &WriteNVMData;
}  // namespace
