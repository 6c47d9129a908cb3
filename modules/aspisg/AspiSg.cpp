// wnaspi32.dll for the SCSI devices of a Linux machine: the host adapters
// sysfs lists (in the order of their host numbers) and their devices'
// generic nodes, commands sent over SG_IO's request/answer interface and
// completed before SendASPI32Command returns. A machine without SCSI, a node
// that cannot be opened (no such device, no permission) or a device that
// does not answer within the command timeout gives a status, never a hang.
//
// SX_SCSI_SYSFS and SX_SCSI_DEV (default "/sys" and "/dev") move the two
// trees, for a container or a test.
//
// Thread contract: the caller's thread only, one command at a time.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "modules/aspisg/SgBus.h"
#include "modules/common/AspiRequest.h"

namespace sx::aspisg {

namespace {

constexpr uint32_t kCommandTimeoutMs = 2000;
constexpr size_t kMaxAdapters = 255;
constexpr uint8_t kTargetsPerAdapter = 8;
constexpr uint8_t kAdapterScsiId = 7;
constexpr char kManagerId[] = "Linux SG_IO";

std::string Root(const char* variable, const char* fallback) {
  const char* value = std::getenv(variable);
  return value && *value ? value : fallback;
}

std::string Sysfs() { return Root("SX_SCSI_SYSFS", "/sys"); }

// Adapters as GetASPI32SupportInfo last counted them; SendASPI32Command
// numbers them the same way.
std::vector<SgAdapter> gAdapters;

void PutText(uint8_t (&field)[16], const std::string& text) {
  std::memset(field, 0, sizeof field);
  std::memcpy(field, text.data(), std::min(text.size(), sizeof field));
}

uint32_t AdapterInquiry(SRB_HAInquiry& block) {
  if (block.SRB_HaId >= gAdapters.size()) return block.SRB_Status = SS_INVALID_HA;
  block.HA_Count = kTargetsPerAdapter;
  block.HA_SCSI_ID = kAdapterScsiId;
  PutText(block.HA_ManagerId, kManagerId);
  PutText(block.HA_Identifier, gAdapters[block.SRB_HaId].Identifier);
  return block.SRB_Status = SS_COMP;
}

uint32_t Execute(SRB_ExecSCSICmd& srb) {
  if (srb.SRB_HaId >= gAdapters.size()) return srb.SRB_Status = SS_INVALID_HA;
  const std::string node = FindGenericDevice(Sysfs(), gAdapters[srb.SRB_HaId].Host, srb.SRB_Target, srb.SRB_Lun);
  if (node.empty()) return srb.SRB_Status = SS_NO_DEVICE;
  const int fd = ::open((Root("SX_SCSI_DEV", "/dev") + "/" + node).c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return srb.SRB_Status = errno == ENOENT || errno == ENXIO || errno == ENODEV ? SS_NO_DEVICE : SS_ERR;
  const uint8_t status = ExecuteOnDevice(fd, srb, kCommandTimeoutMs);
  ::close(fd);
  return status;
}

}  // namespace

}  // namespace sx::aspisg

extern "C" {

__attribute__((visibility("default"))) uint32_t GetASPI32SupportInfo(void) {
  using namespace sx::aspisg;
  gAdapters = ListAdapters(Sysfs());
  if (gAdapters.size() > kMaxAdapters) gAdapters.resize(kMaxAdapters);
  return sx::aspi::SupportInfoAnswer(static_cast<uint32_t>(gAdapters.size()));
}

__attribute__((visibility("default"))) uint32_t SendASPI32Command(void* srb) {
  using namespace sx::aspisg;
  return sx::aspi::RouteAspiRequest(srb, AdapterInquiry, Execute);
}

}  // extern "C"
