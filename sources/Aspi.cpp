#include "sources/Aspi.h"

namespace sx {

// The seam for SCSI discovery: loading wnaspi32.dll, the host adapter and
// device inquiries and the SCSI entries belong here. Until then there is no
// ASPI, and discovery lists driver modules only.
int32_t AddScsiSources(DataSourceEntry*&) { return SX_ERR_NO_ASPI; }

void ReleaseAspi() {}

}  // namespace sx
