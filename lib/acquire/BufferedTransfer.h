// Buffered acquisition: SxAcquire's side of the pipeline (the consumer of the
// ring) and the state it shares with the read and processing threads.
//
// Thread contract: one buffered acquisition runs at a time, inside SxAcquire
// on the host's thread. gJob and the ring nodes' working fields are shared by
// the host's thread, the read thread and the processing thread without a
// lock; every shared value is an atomic (or reached through std::atomic_ref).
// Before SxAcquire resumes the workers it resets gJob; it returns only after
// both workers have parked again, so nothing of a job outlives the call.
#pragma once
#include <atomic>
#include <cstdint>

#include "settings/ScanSettings.h"
#include "sxscan.h"

namespace sx {

// Raw raster the read thread puts into one node at most.
inline constexpr int32_t kBlockBytes = 1048576;

// States of a node's Taken field. The processing thread claims a node by
// moving it from free to processing and publishes the result by moving it to
// processed (a block may legitimately shrink to zero output lines, so the
// byte count alone cannot say that it is done). While an acquisition is
// ending after a failure, SxAcquire withholds a filled node the processing
// thread has not claimed, so that the two never work on the same node.
enum TakenState : int32_t { kTakenFree, kTakenProcessing, kTakenProcessed, kTakenWithheld };

struct BufferedJob {
  // The acquisition's result. It only ever changes from 0 to a code: the
  // first failure wins and a later success cannot hide it.
  std::atomic<int32_t> Result{0};
  // Set (release) by each worker after its last change to the ring in the
  // job, before its final events.
  std::atomic<bool> ReaderDone{false};
  std::atomic<bool> ProcessorDone{false};
};

extern BufferedJob gJob;

inline int32_t JobResult() { return gJob.Result.load(std::memory_order_acquire); }

// Records `code` as the result unless one is recorded already; 0 changes
// nothing.
inline void FailJob(int32_t code) {
  int32_t none = 0;
  if (code != 0) gJob.Result.compare_exchange_strong(none, code, std::memory_order_acq_rel);
}

// The page counters live in the settings record as plain fields; during a
// job they are reached only through these.
inline std::atomic_ref<int32_t> PagesStartedRef() {
  return std::atomic_ref<int32_t>(gSettings.PagesStarted);
}
inline std::atomic_ref<int32_t> PagesDeliveredRef() {
  return std::atomic_ref<int32_t>(gSettings.PagesDelivered);
}

// Starts the scanner for a page; a cold lamp gets one retry after the
// warm-up wait when the indicators are on. 0, or the mapped code of the
// first refusal. Used by both transfer modes.
int32_t StartScanner(const ScanSettings& settings);

// The buffered transfer of one acquisition, after the parameter check and
// the descreen and sharpen set-ups: starts the workers, hands each processed
// block to `callback` through `buffer`, and returns the acquisition's result
// once both workers have parked.
int32_t RunBufferedTransfer(ScanSettings& settings, SxTransferCallback callback, void* buffer);

}  // namespace sx
