// SCSI scanners seen over ASPI. Discovery asks for them before it walks the
// driver folders; a driver that gives the same display name claims such an
// entry. Host's thread only, during list building.
#pragma once
#include <cstdint>

#include "sources/DataSourceList.h"

namespace sx {

// Loads ASPI ("wnaspi32.dll" in the system folder) and fills the list's
// waiting tail with one entry per accepted scanner that answers an inquiry,
// appending a new tail after each (`tail` follows it). SX_ERR_NO_ASPI when the
// module or one of its two entry points is missing. ASPI stays loaded until
// ReleaseAspi.
int32_t AddScsiSources(DataSourceEntry*& tail);

// Unloads ASPI if it is loaded (end of list building, process detach).
void ReleaseAspi();

}  // namespace sx
