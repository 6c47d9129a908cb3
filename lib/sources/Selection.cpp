// SxSetDriverById: the host's choice of a data source, stored as
// "SOURCENAME" and, when no driver is bound yet, opened at once.
#include <cstring>

#include "driver/DriverTable.h"
#include "frame/HostCall.h"
#include "frame/RegistryUtil.h"
#include "platform/System.h"
#include "sources/Discovery.h"
#include "sources/SourceBinding.h"
#include "sxscan.h"

namespace sx {

namespace {

constexpr char kSourceNameValue[] = "SOURCENAME";

// Moves the cursor along the list to the entry of that exact name; the
// cursor ends empty when there is none.
DataSourceEntry* SelectByName(const char* name) {
  for (gSourceCursor = gSourceHead; gSourceCursor; gSourceCursor = gSourceCursor->Next) {
    if (std::strncmp(gSourceCursor->Host.DisplayName, name, kDisplayNameField) == 0) break;
  }
  return gSourceCursor;
}

int32_t SetDriverById(SxDataSource* record) {
  // Only the name is read from the host's record; an unreadable record names
  // no source.
  char name[kDisplayNameField + 1] = {};
  if (!record || !plat::SafeRead(name, record->DisplayName, kDisplayNameField)) {
    gSourceCursor = nullptr;
    return SX_ERR_DRIVER;
  }
  DataSourceEntry* entry = SelectByName(name);
  if (!entry) return SX_ERR_DRIVER;
  // The host gets the complete entry back; a record it cannot have written
  // does not undo the choice.
  plat::SafeWrite(record, &entry->Host, sizeof entry->Host);
  // The whole field, terminator and trailing zero bytes included.
  WriteRegValue(kKeyOptions, kSourceNameValue, entry->Host.DisplayName, kKindText,
                kDisplayNameField);

  if (gDriver.Module) {
    if (!IsSampleSource(*entry)) return SX_OK;  // takes effect at the next SxLoad
    // Design note: the built-in source has no module; binding it in place of
    // a bound driver first terminates and unloads that driver, so its module
    // is not stranded and no slot keeps pointing into it.
    ReleaseDriver();
  }
  return OpenDataSource(*entry, Binding::Select, SX_OK);
}

}  // namespace

}  // namespace sx

// Design note: nothing may escape to the host; a failure that throws reads
// as a failed choice (-4).
SX_EXPORT int32_t SX_API SxSetDriverById(SxDataSource* dataSource, uintptr_t) {
  return sx::GuardedHostCall(SX_ERR_DRIVER, [&] { return sx::SetDriverById(dataSource); });
}
