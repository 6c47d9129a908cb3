// SxAcquire's side of a buffered acquisition: it starts the read and
// processing threads, announces each page, hands each processed block to the
// host and frees the block's node. The thread contract is in
// acquire/BufferedTransfer.h and acquire/Workers.cpp.
#include "acquire/BufferedTransfer.h"

#include <algorithm>
#include <cstring>

#include "acquire/Acquire.h"
#include "frame/LibraryState.h"
#include "platform/System.h"
#include "platform/Thread.h"
#include "sxsys.h"

namespace sx {

BufferedJob gJob;

namespace {

constexpr int32_t kNoPageLimit = -1;
constexpr uint32_t kParkPollMs = 1;
// More nodes than any ring holds: a ring whose links do not close within
// this many steps is damaged.
constexpr int kMostRingNodes = 256;

// One block as it goes to the host.
struct Delivery {
  int32_t Bytes = 0;  // processed bytes in the node's buffer
  int32_t Code = 0;   // the node's status
};

struct Consumer {
  ScanSettings& Settings;
  SxTransferCallback Callback;
  uint8_t* Buffer;
  RingNode* Cursor;
  int32_t Announced = 0;  // pages whose code-2 call has been made
  int64_t PageBytes = 0;  // bytes handed to the host for the announced page
};

bool WorkersExist() {
  return gLib.ReadThread && gLib.IPThread && gLib.PageEvent && gLib.BlockFreeEvent &&
         gLib.RawReadyEvent && gLib.ProcessedEvent;
}

// Every node must hold a whole raw block: the read thread reads up to
// kBlockBytes into a node whatever size the ring was built with.
bool RingUsable() {
  RingNode* node = gRing;
  for (int i = 0; node && i < kMostRingNodes; ++i) {
    if (!node->Data || SxSysGlobalSize(SxSysGlobalHandle(node->Data)) < size_t{kBlockBytes}) {
      return false;
    }
    node = node->Next;
    if (node == gRing) return true;
  }
  return false;
}

// Design note: the library learns the size of the host's buffer only when
// the host allocated it with the platform's memory functions. Such a buffer
// that cannot hold the largest processed block of this scan is refused
// before the scanner starts, instead of being overrun; any other buffer is
// taken on the host's word.
bool HostBufferFits(const ScanSettings& s, const void* buffer) {
  SxHandle block = SxSysGlobalHandle(buffer);
  if (!block) return true;
  const int64_t lines = std::min<int64_t>(kBlockBytes / s.ScanBytesPerLine, s.ScanLines);
  return static_cast<int64_t>(SxSysGlobalSize(block)) >= lines * s.OutputBytesPerLine;
}

// A buffered acquisition needs the workers and events of process attach
// (gone after SxFree), a usable ring, and lines of 1 to kBlockBytes bytes.
bool CanRunBuffered(const ScanSettings& s, const void* buffer) {
  return WorkersExist() && RingUsable() && s.ScanBytesPerLine > 0 &&
         s.ScanBytesPerLine <= kBlockBytes && HostBufferFits(s, buffer);
}

bool IsEndMark(const RingNode* node) {
  return node->Status.load(std::memory_order_acquire) == kBlockEndMark;
}

bool PageLimitAllows(int32_t pages) {
  const int32_t limit = gSettings.XferCount;
  return limit == kNoPageLimit || pages < limit;
}

// The host's answer in the count is not used in this mode.
int32_t Announce(Consumer& c) {
  ++c.Announced;
  c.PageBytes = 0;
  int64_t count = sizeof(::SxImageInfo);
  return c.Callback(&gImageInfo, &count, SX_XFER_IMAGE_INFO);
}

// Waits until a page has begun that is not announced yet, the end mark is at
// the cursor, or the job has failed.
void WaitForPage(const RingNode* node) {
  const int32_t delivered = PagesDeliveredRef().load(std::memory_order_relaxed);
  while (PagesStartedRef().load(std::memory_order_acquire) == delivered && !IsEndMark(node) &&
         JobResult() == 0) {
    plat::WaitEvent(gLib.PageEvent);
  }
}

enum class Take { Block, Wait, End };

// After a failure nothing more is processed: each filled node goes to the
// host as it is, until the read thread's job is over and its end (or its
// last node) is reached. A node the processing thread already holds is
// waited for; one it has not claimed is withheld from it first.
Take TakeUnprocessed(RingNode* node, Delivery& d) {
  if (node->RawBytes.load(std::memory_order_acquire) != 0) {
    int32_t taken = kTakenFree;
    if (node->Taken.compare_exchange_strong(taken, kTakenWithheld, std::memory_order_acq_rel)) {
      d = {0, node->Status.load(std::memory_order_relaxed)};
      return Take::Block;
    }
    if (taken == kTakenProcessed) return Take::Wait;  // re-examined at once
    plat::WaitEvent(gLib.ProcessedEvent);
    return Take::Wait;
  }
  if (!gJob.ReaderDone.load(std::memory_order_acquire)) {
    plat::WaitEvent(gLib.PageEvent);
    return Take::Wait;
  }
  // The read thread is done: a failed read that brought no bytes is still a
  // block for the host; anything else here means nothing more will come.
  if (node->Status.load(std::memory_order_relaxed) == kBlockReadFailed) {
    d = {0, kBlockReadFailed};
    return Take::Block;
  }
  return Take::End;
}

// Waits for the block at the cursor. False when the job is over there.
bool TakeBlock(RingNode* node, Delivery& d) {
  for (;;) {
    if (node->Taken.load(std::memory_order_acquire) == kTakenProcessed) {
      d = {node->ProcessedBytes.load(std::memory_order_relaxed),
           node->Status.load(std::memory_order_relaxed)};
      return true;
    }
    if (IsEndMark(node)) return false;
    if (JobResult() == 0) {
      plat::WaitEvent(gLib.ProcessedEvent);
      continue;
    }
    const Take take = TakeUnprocessed(node, d);
    if (take != Take::Wait) return take == Take::Block;
  }
}

// Design note: the callback gets a count of its own, a true 64-bit number,
// rather than the node's 32-bit field, so that a host reading 64 bits never
// sees the node's status in the high half.
void Deliver(Consumer& c, const Delivery& d) {
  // A block never holds more than one raw block's bytes; a larger count from
  // the processing chain is not trusted past the node's buffer.
  int64_t count = std::clamp<int32_t>(d.Bytes, 0, kBlockBytes);
  if (count > 0) {
    std::memcpy(c.Buffer, c.Cursor->Data, static_cast<size_t>(count));
    if (c.Settings.Invert != 0) InvertBuffer(c.Buffer, count);
  }
  c.PageBytes += count;
  // Design note: a page that ends with fewer bytes than its ImageInfo
  // announced (blocks handed over unprocessed after a failure or Cancel)
  // ends with code 5, so that a host never waits for lines that will not
  // come.
  int32_t code = d.Code;
  const int64_t announced = int64_t{gImageInfo.LinesPerPage} * c.Settings.OutputBytesPerLine;
  if (code == kBlockPageEnd && c.PageBytes < announced) code = SX_XFER_SHORT_PAGE;
  FailJob(c.Callback(c.Buffer, &count, code));
}

// Hands the node back to the read thread; RawBytes goes last.
void ReleaseNode(RingNode* node) {
  node->Status.store(kBlockOrdinary, std::memory_order_relaxed);
  node->Taken.store(kTakenFree, std::memory_order_relaxed);
  node->ProcessedBytes.store(0, std::memory_order_relaxed);
  node->RawBytes.store(0, std::memory_order_release);
  plat::SetEvent(gLib.BlockFreeEvent);
}

// After a page's last block: counts the page and, when the next one has
// begun already, announces it now, since its start signal is being dropped.
void EndDeliveredPage(Consumer& c) {
  const int32_t delivered = PagesDeliveredRef().fetch_add(1, std::memory_order_relaxed) + 1;
  if (PagesStartedRef().load(std::memory_order_acquire) > delivered) FailJob(Announce(c));
  plat::ResetEvent(gLib.PageEvent);
}

void Consume(Consumer& c) {
  for (;;) {
    // Design note: whether the next block's page is announced yet is counted
    // here rather than read from the started and delivered pages alone: the
    // read thread may start the first page before this thread first looks,
    // and that page must still be announced.
    if (c.Announced == PagesDeliveredRef().load(std::memory_order_relaxed)) {
      WaitForPage(c.Cursor);
      if (IsEndMark(c.Cursor)) return;
      // A page that has begun is announced even when the job has failed in
      // the meantime, since its blocks still go to the host below.
      if (PagesStartedRef().load(std::memory_order_acquire) > c.Announced) {
        FailJob(Announce(c));
      }
    }
    Delivery d;
    if (!TakeBlock(c.Cursor, d)) return;
    Deliver(c, d);
    if (d.Code == kBlockPageEnd) EndDeliveredPage(c);
    ReleaseNode(c.Cursor);
    c.Cursor = c.Cursor->Next;
    if (IsEndMark(c.Cursor)) return;
    // Design note: the page limit is checked after a page's last block only.
    // A limit of 0 or below (other than -1) would otherwise end the transfer
    // after the first block while the read thread, which counts pages,
    // still reads the first page into a ring nobody frees; such a limit
    // gives one whole page, as in direct mode.
    const int32_t delivered = PagesDeliveredRef().load(std::memory_order_relaxed);
    if (d.Code == kBlockPageEnd && !PageLimitAllows(delivered)) return;
  }
}

// Waits until both workers have made their last change to the ring and then
// parked, so that the next acquisition, a release of the ring or SxFree never
// meets a worker still inside its job.
void WaitForWorkers() {
  while (!gJob.ReaderDone.load(std::memory_order_acquire)) plat::WaitEvent(gLib.PageEvent);
  while (!gJob.ProcessorDone.load(std::memory_order_acquire)) {
    plat::WaitEvent(gLib.ProcessedEvent);
  }
  // Only the workers' final event calls remain; they take microseconds.
  while (!plat::IsThreadParked(gLib.ReadThread) || !plat::IsThreadParked(gLib.IPThread)) {
    plat::SleepMs(kParkPollMs);
  }
}

}  // namespace

int32_t RunBufferedTransfer(ScanSettings& s, SxTransferCallback callback, void* buffer) {
  if (!CanRunBuffered(s, buffer)) return kBufferedNotAvailable;
  gJob.Result.store(0, std::memory_order_relaxed);
  gJob.ReaderDone.store(false, std::memory_order_relaxed);
  gJob.ProcessorDone.store(false, std::memory_order_relaxed);
  // Design note: the descreen filter takes a block as the first of its page
  // while LinesDelivered is 0; an earlier acquisition may have left any
  // value there, so the first page starts from 0.
  s.LinesDelivered = 0;

  plat::ResetEvent(gLib.RawReadyEvent);
  plat::ResumeThread(gLib.IPThread);
  plat::ResumeThread(gLib.ReadThread);
  plat::SetEvent(gLib.BlockFreeEvent);

  Consumer c{s, callback, static_cast<uint8_t*>(buffer), gRing};
  Consume(c);
  WaitForWorkers();
  // The end mark of this job (if any) lies where the consumer stopped; the
  // ring is left wholly free for the next acquisition.
  c.Cursor->Status.store(kBlockOrdinary, std::memory_order_relaxed);
  return JobResult();
}

}  // namespace sx
