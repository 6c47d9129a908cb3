// What every ASPI module does alike with the two entry points' words: the
// support-info answer and the routing of a request block by its command.
#pragma once
#include <cstdint>

#include "sxaspi.h"

namespace sx::aspi {

// GetASPI32SupportInfo's answer: the status in the second byte, the number of
// host adapters in the first.
inline uint32_t SupportInfoAnswer(uint32_t adapters) {
  const uint32_t status = adapters ? SS_COMP : SS_NO_ADAPTERS;
  return (status << 8) | adapters;
}

// SendASPI32Command: the block's first byte names the command; a command
// other than the two a module serves is marked invalid in the block.
template <class Inquiry, class Execute>
uint32_t RouteAspiRequest(void* request, Inquiry&& inquiry, Execute&& execute) {
  if (!request) return SS_INVALID_CMD;
  const uint8_t command = *static_cast<uint8_t*>(request);
  if (command == SC_HA_INQUIRY) return inquiry(*static_cast<SRB_HAInquiry*>(request));
  if (command == SC_EXEC_SCSI_CMD) return execute(*static_cast<SRB_ExecSCSICmd*>(request));
  static_cast<uint8_t*>(request)[1] = SS_INVALID_CMD;
  return SS_INVALID_CMD;
}

}  // namespace sx::aspi
