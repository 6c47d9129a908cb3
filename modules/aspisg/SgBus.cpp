#include "modules/aspisg/SgBus.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace sx::aspisg {

namespace {

namespace fs = std::filesystem;

constexpr size_t kIdentifierChars = 16;
constexpr int kAnswerSlackMs = 500;
constexpr char kSgInterface = 'S';
constexpr uint8_t kDriverSense = 0x08;  // the driver only says sense data came

// "host12" → 12; -1 for any other name.
int HostNumber(const std::string& name) {
  if (name.rfind("host", 0) != 0 || name.size() == 4 || name.size() > 12) return -1;
  int n = 0;
  for (size_t i = 4; i < name.size(); ++i) {
    if (name[i] < '0' || name[i] > '9') return -1;
    n = n * 10 + (name[i] - '0');
  }
  return n;
}

std::string FirstLine(const fs::path& file) {
  std::ifstream in(file);
  std::string line;
  std::getline(in, line);
  return line;
}

void StoreStatus(SRB_ExecSCSICmd& srb, uint8_t status) {
  std::atomic_ref<uint8_t>(srb.SRB_Status).store(status, std::memory_order_release);
}

}  // namespace

std::vector<SgAdapter> ListAdapters(const std::string& sysfs) {
  std::vector<SgAdapter> adapters;
  std::error_code ec;
  for (fs::directory_iterator it(fs::path(sysfs) / "class" / "scsi_host", ec), end; !ec && it != end;
       it.increment(ec)) {
    const int host = HostNumber(it->path().filename().string());
    if (host < 0) continue;
    std::string id = FirstLine(it->path() / "proc_name");
    if (id.size() > kIdentifierChars) id.resize(kIdentifierChars);
    adapters.push_back({host, id});
  }
  std::sort(adapters.begin(), adapters.end(), [](const SgAdapter& a, const SgAdapter& b) { return a.Host < b.Host; });
  return adapters;
}

std::string FindGenericDevice(const std::string& sysfs, int host, int target, int lun) {
  char wanted[48];
  std::snprintf(wanted, sizeof wanted, "%d:0:%d:%d", host, target, lun);
  std::error_code ec;
  for (fs::directory_iterator it(fs::path(sysfs) / "class" / "scsi_generic", ec), end; !ec && it != end;
       it.increment(ec)) {
    std::error_code link;
    const fs::path device = fs::read_symlink(it->path() / "device", link);
    if (!link && device.filename() == wanted) return it->path().filename().string();
  }
  return {};
}

sg_io_hdr_t BuildRequest(SRB_ExecSCSICmd& srb, uint32_t timeoutMs) {
  sg_io_hdr_t h{};
  h.interface_id = kSgInterface;
  h.cmd_len = std::min<uint8_t>(srb.SRB_CDBLen, sizeof srb.CDBByte);
  h.cmdp = srb.CDBByte;
  h.dxfer_len = srb.SRB_BufPointer ? srb.SRB_BufLen : 0;
  h.dxferp = srb.SRB_BufPointer;
  h.dxfer_direction = h.dxfer_len == 0                 ? SG_DXFER_NONE
                      : (srb.SRB_Flags & SRB_DIR_OUT) ? SG_DXFER_TO_DEV
                                                       : SG_DXFER_FROM_DEV;
  h.mx_sb_len = std::min<uint8_t>(srb.SRB_SenseLen, sizeof srb.SenseArea);
  h.sbp = srb.SenseArea;
  h.timeout = timeoutMs;
  return h;
}

uint8_t ReadAnswer(const sg_io_hdr_t& answer, SRB_ExecSCSICmd& srb) {
  srb.SRB_HaStat = static_cast<uint8_t>(std::min<unsigned>(answer.host_status, 0xFF));
  srb.SRB_TargStat = answer.status;
  const bool driverFailed = (answer.driver_status & ~kDriverSense) != 0;
  return answer.host_status == 0 && !driverFailed && answer.status == 0 ? SS_COMP : SS_ERR;
}

uint8_t ExecuteOnDevice(int fd, SRB_ExecSCSICmd& srb, uint32_t timeoutMs) {
  sg_io_hdr_t h = BuildRequest(srb, timeoutMs);
  uint8_t status = SS_ERR;
  pollfd answer{fd, POLLIN, 0};
  if (::write(fd, &h, sizeof h) == static_cast<ssize_t>(sizeof h) &&
      ::poll(&answer, 1, static_cast<int>(timeoutMs) + kAnswerSlackMs) == 1 && (answer.revents & POLLIN) &&
      ::read(fd, &h, sizeof h) == static_cast<ssize_t>(sizeof h)) {
    status = ReadAnswer(h, srb);
  }
  StoreStatus(srb, status);
  return status;
}

}  // namespace sx::aspisg
