// SxGetDS: hands the host the data sources one by one.
#include <cstring>

#include "frame/HostCall.h"
#include "frame/Trace.h"
#include "platform/System.h"
#include "sources/DataSourceList.h"
#include "sources/Discovery.h"
#include "sxscan.h"

namespace sx {

namespace {

constexpr char kTraceLabel[] = "SxGetDS";
constexpr uint32_t kMessageMask = 0xFFFFu;

// Design note: a host buffer that cannot be written receives nothing and the
// enumeration reads as ended (-10), which stops any host loop at once.
int32_t Deliver(const DataSourceEntry& entry, SxDataSource* out) {
  return plat::SafeWrite(out, &entry.Host, sizeof entry.Host) ? SX_OK : SX_ERR_NO_SOURCE;
}

}  // namespace

int32_t GetDataSource(uint32_t message, SxDataSource* out) {
  TraceIn(kTraceLabel);
  message &= kMessageMask;
  if (message == SX_DS_FIRST) {
    BuildDataSourceList();
    gSourceCursor = gSourceHead;
  } else if (message == SX_DS_NEXT && gSourceCursor) {
    gSourceCursor = gSourceCursor->Next;
  }
  TraceOut(kTraceLabel, 1);

  if (gSourceCursor) {
    // Entries without a folder are SCSI scanners that no driver claimed.
    while (gSourceCursor && gSourceCursor->Host.Directory[0] == '\0') {
      gSourceCursor = gSourceCursor->Next;
    }
    return gSourceCursor ? Deliver(*gSourceCursor, out) : SX_ERR_NO_SOURCE;
  }
  // With Shift held an empty list offers the built-in source; the cursor
  // stays unset, so only a new enumeration shows it again.
  if (!plat::IsShiftHeld() || gSourceHead) return SX_ERR_NO_SOURCE;
  gSourceHead = CreateSampleEntry();
  return gSourceHead ? Deliver(*gSourceHead, out) : SX_ERR_NO_SOURCE;
}

}  // namespace sx

// Design note: nothing may escape to the host; a failure that throws reads
// as a driver-side failure (-4).
SX_EXPORT int32_t SX_API SxGetDS(uint32_t message, SxDataSource* dataSource) {
  return sx::GuardedHostCall(SX_ERR_DRIVER, [&] { return sx::GetDataSource(message, dataSource); });
}
