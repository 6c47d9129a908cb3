// The SCSI bus of a Linux machine as ASPI sees it: host adapters from sysfs
// (/sys/class/scsi_host, in the order of their numbers), devices through
// their SCSI generic nodes (/dev/sg*), commands over the sg driver's
// request/answer interface (write a request, poll, read the answer) so that
// no command can hold the caller longer than its timeout.
#pragma once
#include <scsi/sg.h>

#include <cstdint>
#include <string>
#include <vector>

#include "sxaspi.h"

namespace sx::aspisg {

struct SgAdapter {
  int Host = 0;            // the kernel's host number
  std::string Identifier;  // its driver's name (proc_name), cut to 16
};

// The machine's host adapters under `sysfs` (normally "/sys"); empty when
// there are none or sysfs cannot be read.
std::vector<SgAdapter> ListAdapters(const std::string& sysfs);

// The name ("sg3") of the generic node of host:channel 0:target:lun, or "".
std::string FindGenericDevice(const std::string& sysfs, int host, int target, int lun);

// The sg request for an ASPI command block: CDB, data buffer and direction
// (SRB_DIR_OUT to the device, else from it when there is a buffer), sense
// area (at most its 16 bytes), timeout in milliseconds.
sg_io_hdr_t BuildRequest(SRB_ExecSCSICmd& srb, uint32_t timeoutMs);

// Copies an sg answer's adapter and target status into the block and gives
// the ASPI status: SS_COMP when the adapter, driver and target all report
// success, else SS_ERR.
uint8_t ReadAnswer(const sg_io_hdr_t& answer, SRB_ExecSCSICmd& srb);

// Runs the block's command on an open generic node and stores the final
// status in SRB_Status (release order), also returning it. SS_ERR when the
// node refuses the request or gives no answer within the timeout (plus a
// little slack); the request is then left to the kernel, which drops it when
// the node is closed.
uint8_t ExecuteOnDevice(int fd, SRB_ExecSCSICmd& srb, uint32_t timeoutMs);

}  // namespace sx::aspisg
