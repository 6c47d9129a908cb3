// wnaspi32.dll for a simulated SCSI bus: answers the two ASPI entry points
// from aspibus.ini in the module's own folder (re-read by every
// GetASPI32SupportInfo). A target that is not described answers
// SS_NO_DEVICE; a described one completes at once, after its DelayMs, or
// never (Silent).
//
// Thread contract: the entry points are called on the caller's thread; a
// delayed request is completed by a thread of this module (AspiLater.h),
// which writes the data and status bytes of the caller's block and stores
// SRB_Status last with release order. A completion is dropped when a newer
// request was sent meanwhile (the caller gave up and reuses its block) or
// when the module is being unloaded, which waits for completions under way.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>

#include "modules/aspisim/AspiBus.h"
#include "modules/aspisim/AspiLater.h"
#include "modules/common/AspiRequest.h"
#include "modules/common/ModuleIni.h"
#include "sxaspi.h"

namespace sx::aspisim {

namespace {

constexpr char kBusFile[] = "aspibus.ini";
constexpr uint8_t kAdapterScsiId = 7;
constexpr char kManagerId[] = "sxscan SCSI sim";

std::string ReadBusFile() {
  std::ifstream in(modini::ModuleFolder() + "/" + kBusFile, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void Complete(SRB_ExecSCSICmd& srb, const Target& t) {
  const size_t n = std::min<size_t>(srb.SRB_BufLen, t.InquiryLength);
  if (n && srb.SRB_BufPointer) std::memcpy(srb.SRB_BufPointer, t.Inquiry.data(), n);
  srb.SRB_HaStat = 0;
  srb.SRB_TargStat = 0;
  std::atomic_ref<uint8_t>(srb.SRB_Status).store(t.Status, std::memory_order_release);
}

class Simulator {
 public:
  uint32_t SupportInfo() {
    std::lock_guard<std::mutex> guard(lock_);
    bus_ = ParseBus(ReadBusFile());
    const size_t count = std::min<size_t>(bus_.Adapters.size(), kMaxAdapters);
    return aspi::SupportInfoAnswer(static_cast<uint32_t>(count));
  }

  uint32_t Send(void* request) {
    return aspi::RouteAspiRequest(
        request, [this](SRB_HAInquiry& block) { return AdapterInquiry(block); },
        [this](SRB_ExecSCSICmd& srb) { return Execute(srb); });
  }

 private:
  const Adapter* Find(uint8_t id) const {
    return id < bus_.Adapters.size() && bus_.Adapters[id].Present ? &bus_.Adapters[id] : nullptr;
  }

  uint32_t AdapterInquiry(SRB_HAInquiry& block) {
    std::lock_guard<std::mutex> guard(lock_);
    const Adapter* a = Find(block.SRB_HaId);
    if (!a) return block.SRB_Status = SS_INVALID_HA;
    block.HA_Count = static_cast<uint8_t>(kTargetsPerAdapter);
    block.HA_SCSI_ID = kAdapterScsiId;
    std::memset(block.HA_ManagerId, 0, sizeof block.HA_ManagerId);
    std::memcpy(block.HA_ManagerId, kManagerId, std::min(sizeof kManagerId - 1, sizeof block.HA_ManagerId));
    std::memset(block.HA_Identifier, 0, sizeof block.HA_Identifier);
    std::memcpy(block.HA_Identifier, a->Identifier.data(), std::min(a->Identifier.size(), sizeof block.HA_Identifier));
    return block.SRB_Status = a->Status;
  }

  uint32_t Execute(SRB_ExecSCSICmd& srb) {
    std::lock_guard<std::mutex> guard(lock_);
    const uint64_t sequence = ++sequence_;
    const Adapter* a = Find(srb.SRB_HaId);
    if (!a) return srb.SRB_Status = SS_INVALID_HA;
    if (srb.SRB_Target >= kTargetsPerAdapter || srb.SRB_Lun != 0 || !a->Targets[srb.SRB_Target].Present)
      return srb.SRB_Status = SS_NO_DEVICE;
    const Target& t = a->Targets[srb.SRB_Target];
    if (!t.Silent && t.DelayMs == 0) {
      Complete(srb, t);
      return t.Status;
    }
    srb.SRB_Status = SS_PENDING;
    if (!t.Silent) {
      const auto delay = std::chrono::duration<double, std::milli>(t.DelayMs);
      later_.After(delay, [this, &srb, t, sequence] { CompleteLater(srb, t, sequence); });
    }
    return SS_PENDING;
  }

  void CompleteLater(SRB_ExecSCSICmd& srb, const Target& t, uint64_t sequence) {
    std::lock_guard<std::mutex> guard(lock_);
    if (sequence == sequence_) Complete(srb, t);
  }

  std::mutex lock_;
  uint64_t sequence_ = 0;
  Bus bus_;
  // Last, so that it is destroyed first: no completion runs once the rest
  // of the simulator is gone.
  Later later_;
};

Simulator gSimulator;

}  // namespace

}  // namespace sx::aspisim

// The caller-cleans convention on every system, as the library calls them;
// aspi.map names the exports.
extern "C" {

__attribute__((visibility("default"))) uint32_t GetASPI32SupportInfo(void) {
  return sx::aspisim::gSimulator.SupportInfo();
}

__attribute__((visibility("default"))) uint32_t SendASPI32Command(void* srb) {
  return sx::aspisim::gSimulator.Send(srb);
}

}  // extern "C"
