// SCSI scanners over ASPI: the module is loaded for the list building only,
// each host adapter is asked for its identifier and each of its targets 0 to
// 6 for an inquiry; a scanner of the maker (or one that says it speaks our
// command set) becomes a data-source entry that a SCSI driver can claim.
//
// Thread contract: host's thread only. The one inquiry block may be completed
// by the ASPI module on a thread of its own; its status byte is the only
// field read while the request is pending, with acquire order, and the data
// and status bytes only after it left SS_PENDING.
#include "sources/Aspi.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <thread>

#include "platform/Module.h"
#include "platform/Paths.h"
#include "platform/System.h"
#include "sxaspi.h"

namespace sx {

namespace {

constexpr char kAspiNt[] = SX_PATH_SEP "system32" SX_PATH_SEP "wnaspi32.dll";
constexpr char kAspiOther[] = SX_PATH_SEP "system" SX_PATH_SEP "wnaspi32.dll";
constexpr char kSupportInfoName[] = "GetASPI32SupportInfo";
constexpr char kSendCommandName[] = "SendASPI32Command";

constexpr uint8_t kTargets = 7;  // 0 to 6: the adapter itself is 7
constexpr uint8_t kInquiryCommand = 0x12;
constexpr uint8_t kInquiryBytes = 90;
constexpr uint8_t kSenseBytes = 22;
constexpr uint8_t kInquiryCdbBytes = 6;
constexpr uint32_t kPollLimitMs = 6000;
constexpr uint8_t kDeviceTypeScanner = 6;
constexpr size_t kOwnCommandSetByte = 39;  // bit 0: the device speaks the maker's commands
constexpr char kMakerVendor[] = "CORVANE";
constexpr size_t kVendorAt = 8, kProductAt = 16, kRevisionAt = 32;
constexpr size_t kProductBytes = 16, kRevisionBytes = 4, kVendorBytes = 8;
constexpr size_t kRevisionColumn = 27;  // where the revision goes in DisplayName
constexpr size_t kIdentifierChars = 16;

struct Aspi {
  plat::ModuleHandle Module = nullptr;
  SxGetAspiSupportInfoFn SupportInfo = nullptr;
  SxSendAspiCommandFn SendCommand = nullptr;
};
Aspi gAspi;

// The one inquiry request, reused for every device. Design note: the request
// asks for 22 bytes of sense data while the block's sense area holds 16; the
// block is followed by room for the rest, so a module that honours the length
// stays inside the library's memory.
struct InquiryRequest {
  SRB_ExecSCSICmd Srb;
  uint8_t SenseSpill[kSenseBytes - sizeof(SRB_ExecSCSICmd::SenseArea)];
};
InquiryRequest gRequest;
uint8_t gInquiryData[kInquiryBytes];

uint8_t StatusOf(uint8_t& field) { return std::atomic_ref<uint8_t>(field).load(std::memory_order_acquire); }

// 0 with the number of host adapters, or SX_ERR_NO_ASPI.
int32_t LoadAspi(int32_t& adapters) {
  adapters = 0;
  const std::string path =
      plat::WindowsDirectory() + (plat::PlatformId() == plat::kPlatformIdNt ? kAspiNt : kAspiOther);
  gAspi.Module = plat::LoadModule(path);
  if (!gAspi.Module) return SX_ERR_NO_ASPI;
  gAspi.SupportInfo = reinterpret_cast<SxGetAspiSupportInfoFn>(plat::ModuleSymbol(gAspi.Module, kSupportInfoName));
  gAspi.SendCommand = reinterpret_cast<SxSendAspiCommandFn>(plat::ModuleSymbol(gAspi.Module, kSendCommandName));
  // Design note: a module without both entry points is as good as none.
  if (!gAspi.SupportInfo || !gAspi.SendCommand) {
    ReleaseAspi();
    return SX_ERR_NO_ASPI;
  }
  adapters = static_cast<int32_t>(gAspi.SupportInfo() & 0xFFu);
  return 0;
}

// True with the adapter's identifier (at most 16 characters) when the
// adapter answered its inquiry.
bool HostAdapterInquiry(uint8_t adapter, std::string& identifier) {
  SRB_HAInquiry block{};
  block.SRB_Cmd = SC_HA_INQUIRY;
  block.SRB_HaId = adapter;
  gAspi.SendCommand(&block);
  if (StatusOf(block.SRB_Status) != SS_COMP) return false;
  const auto* id = reinterpret_cast<const char*>(block.HA_Identifier);
  identifier.assign(id, strnlen(id, kIdentifierChars));
  return true;
}

void SendInquiry(uint8_t adapter, uint8_t target) {
  SRB_ExecSCSICmd& srb = gRequest.Srb;
  srb.SRB_Cmd = SC_EXEC_SCSI_CMD;
  srb.SRB_HaId = adapter;
  srb.SRB_Flags = 0;
  srb.SRB_Target = target;
  srb.SRB_Lun = 0;
  srb.SRB_BufLen = kInquiryBytes;
  srb.SRB_BufPointer = gInquiryData;
  srb.SRB_SenseLen = kSenseBytes;
  srb.SRB_CDBLen = kInquiryCdbBytes;
  const uint8_t cdb[kInquiryCdbBytes] = {kInquiryCommand, 0, 0, 0, kInquiryBytes, 0};
  std::memcpy(srb.CDBByte, cdb, sizeof cdb);
  gAspi.SendCommand(&srb);
}

// Waits, busily, until the request leaves SS_PENDING or the limit passes; a
// request still pending then is left as it is.
uint8_t AwaitCompletion() {
  const uint32_t start = plat::TickCount();
  uint8_t status = StatusOf(gRequest.Srb.SRB_Status);
  while (status == SS_PENDING && plat::TickCount() - start <= kPollLimitMs) {
    std::this_thread::yield();
    status = StatusOf(gRequest.Srb.SRB_Status);
  }
  return status;
}

bool IsAcceptedScanner(const uint8_t* data) {
  if (data[0] != kDeviceTypeScanner) return false;
  return (data[kOwnCommandSetByte] & 1u) != 0 ||
         std::memcmp(data + kVendorAt, kMakerVendor, sizeof kMakerVendor - 1) == 0;
}

// "ID#<target> - ", the product identification as it came, four blanks at
// its end, and the revision at column 27: the name a SCSI driver of the same
// model gives itself, so that it claims the entry.
void NameDevice(uint8_t target, const uint8_t* data, SxDataSource& host) {
  char* name = host.DisplayName;
  std::memset(name, 0, sizeof host.DisplayName);
  std::snprintf(name, sizeof host.DisplayName, "ID#%d - ", target);
  const size_t at = std::strlen(name);
  std::memcpy(name + at, data + kProductAt, kProductBytes);
  const size_t end = strnlen(name, sizeof host.DisplayName);
  std::memcpy(name + end, "    ", 4);
  std::memcpy(name + kRevisionColumn, data + kRevisionAt, kRevisionBytes);
  std::memset(host.Vendor, 0, sizeof host.Vendor);
  std::memcpy(host.Vendor, data + kVendorAt, kVendorBytes);
}

// True after naming `entry` when the target holds an accepted scanner.
bool DeviceInquiry(uint8_t adapter, uint8_t target, DataSourceEntry& entry) {
  if (!gAspi.Module) return false;
  SendInquiry(adapter, target);
  if (AwaitCompletion() != SS_COMP || !IsAcceptedScanner(gInquiryData)) return false;
  NameDevice(target, gInquiryData, entry.Host);
  return true;
}

}  // namespace

int32_t AddScsiSources(DataSourceEntry*& tail) {
  int32_t adapters = 0;
  if (const int32_t loaded = LoadAspi(adapters); loaded != 0) return loaded;
  for (int32_t adapter = 0; adapter < adapters; ++adapter) {
    std::string identifier;
    if (!HostAdapterInquiry(static_cast<uint8_t>(adapter), identifier)) continue;
    for (uint8_t target = 0; target < kTargets; ++target) {
      if (!DeviceInquiry(static_cast<uint8_t>(adapter), target, *tail)) continue;
      SxDataSource& host = tail->Host;
      host.HostAdapter = static_cast<uint8_t>(adapter);
      host.DeviceNumber = target;
      std::snprintf(host.PortName, sizeof host.PortName, "SCSI-%s", identifier.c_str());
      DataSourceEntry* next = new (std::nothrow) DataSourceEntry{};
      if (!next) {
        // Out of memory: the entry is given up, so that the tail still
        // waits empty for the driver walk.
        tail->Host = SxDataSource{};
        return 0;
      }
      tail->Next = next;
      tail = next;
    }
  }
  return 0;
}

void ReleaseAspi() {
  if (gAspi.Module) plat::FreeModule(gAspi.Module);
  gAspi = Aspi{};
}

}  // namespace sx
