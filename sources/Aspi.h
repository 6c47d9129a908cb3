// SCSI scanners seen over ASPI. Discovery asks for them before it walks the
// driver folders; a driver that gives the same display name claims such an
// entry. Host's thread only, during list building.
#pragma once
#include <cstdint>

#include "sources/DataSourceList.h"

namespace sx {

// Fills the list's waiting tail with one entry per maker's scanner that
// answers an inquiry, appending a new tail after each (`tail` follows it).
// SX_ERR_NO_ASPI when ASPI is not available; SCSI enumeration is not wired
// on this platform yet, so that is what it reports for now.
int32_t AddScsiSources(DataSourceEntry*& tail);

// Unloads ASPI if it is loaded (end of list building, process detach).
void ReleaseAspi();

}  // namespace sx
