// SxLoad and SxFree: opening the stored data source, and releasing
// everything the library made since attach.
#include <cstring>
#include <string>

#include "driver/DriverTable.h"
#include "frame/HostCall.h"
#include "frame/LibraryState.h"
#include "frame/Trace.h"
#include "imaging/ColorMatch.h"
#include "platform/Paths.h"
#include "platform/Registry.h"
#include "settings/ScanSettings.h"
#include "sources/DataSourceList.h"
#include "sources/Discovery.h"
#include "sources/SourceBinding.h"
#include "sxscan.h"

namespace sx {

namespace {

constexpr char kLoadLabel[] = "SxLoad";
constexpr char kFreeLabel[] = "SxFree";
constexpr char kSourceNameValue[] = "SOURCENAME";

// The stored name selects the first entry whose DisplayName it begins with,
// in any letter case; the built-in source matches whatever is stored.
bool MatchesStoredName(const DataSourceEntry& entry, const char* stored) {
  const char* name = entry.Host.DisplayName;
  return EqualNoCase(stored, name, strnlen(name, kDisplayNameField)) ||
         std::strncmp(name, kSampleDisplayName, kDisplayNameField) == 0;
}

DataSourceEntry* SelectStoredSource() {
  char stored[kPathBufferSize + 1] = {};
  ReadRegValue(kKeyOptions, kSourceNameValue, stored, kKindText, kPathBufferSize);
  for (gSourceCursor = gSourceHead; gSourceCursor; gSourceCursor = gSourceCursor->Next) {
    if (MatchesStoredName(*gSourceCursor, stored)) break;
  }
  return gSourceCursor;
}

// A damaged store is still read for every intact value; the trace says how
// much of it was skipped, since settings may silently fall back to defaults.
void TraceDamagedStore() {
  const uint32_t ignored = plat::RegistryIgnoredLines();
  if (ignored == 0) return;
  const std::string text = "registry store: " + std::to_string(ignored) +
                           " damaged line(s) skipped, read " + plat::RegistryStorePath();
  TraceLog(kTraceFile, kLoadLabel, kTagDetail, 1, reinterpret_cast<intptr_t>(text.c_str()),
           kKindText, 1);
}

int32_t Load(void* window) {
  TraceIn(kLoadLabel);
  TraceDamagedStore();
  gLib.HostWindow = window;
  // Already open (or enumerated): nothing to do until SxFree.
  if (gDriver.Module || gSourceHead || gSettings.ToneTables[0]) return SX_OK;
  if (!gLib.DialogFont) CreateDialogFont();

  SxDataSource scratch;
  const int32_t listed = GetDataSource(SX_DS_FIRST, &scratch);
  if (listed != SX_OK) return listed;

  const DataSourceEntry* entry = SelectStoredSource();
  const int32_t result =
      entry ? OpenDataSource(*entry, Binding::Load, SX_ERR_DRIVER) : SX_ERR_NO_SOURCE;
  TraceOut(kLoadLabel, 1, result);
  return result;
}

// The scanner keeps the power-save time the host chose, then the driver is
// terminated and its module unloaded.
void ReleaseBoundDriver() {
  if (!gDriver.Module) return;
  NvRam record{};
  driver::ReadNVMData(&record);
  record.PowerSaveTime = gSettings.EnergySaving;
  driver::WriteNVMData(&record);
  driver::SetPowerSaveTime(gSettings.EnergySaving);
  ReleaseDriver();
}

void DropEvent(plat::EventHandle& event) {
  if (!event) return;
  plat::CloseEvent(event);
  event = nullptr;
}

// Design note: the workers are stopped by the platform's terminate, which
// releases a parked worker and joins it; they are parked between
// acquisitions, so this never waits on a running job.
void StopWorker(plat::ThreadHandle& thread) {
  if (!thread) return;
  plat::TerminateThread(thread, 0);
  thread = nullptr;
}

void Free() {
  TraceIn(kFreeLabel);
  FreeToneTables();
  CloseCMatch();
  ReleaseBoundDriver();
  FreeDataSourceList();
  if (gRing) ReleaseBufferRing();
  if (gLib.DialogFont) {
    plat::DeleteFont(gLib.DialogFont);
    gLib.DialogFont = nullptr;
  }
  DropEvent(gLib.ProcessedEvent);
  DropEvent(gLib.PageEvent);
  DropEvent(gLib.BlockFreeEvent);
  DropEvent(gLib.RawReadyEvent);
  StopWorker(gLib.ReadThread);
  StopWorker(gLib.IPThread);
  TraceOut(kFreeLabel, 1);
}

}  // namespace

}  // namespace sx

// Design note: nothing may escape to the host. A load that throws reports a
// failed driver (-4); SxFree always answers 0.
SX_EXPORT int32_t SX_API SxLoad(void* window) {
  return sx::GuardedHostCall(SX_ERR_DRIVER, [&] { return sx::Load(window); });
}

SX_EXPORT int32_t SX_API SxFree(void) {
  sx::HostCall call;
  if (call.Refused()) return SX_ERR_DRIVER;
  try {
    sx::Free();
  } catch (...) {
  }
  return SX_OK;
}
