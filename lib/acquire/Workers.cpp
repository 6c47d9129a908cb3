// The read thread and the processing thread of a buffered acquisition.
//
// Thread contract. Both threads are created parked at process attach and run
// one job per resume by SxAcquire, which resumes them only while both are
// parked and returns only after both have parked again. During a job:
// - ring node fields are atomics. The read thread writes a node's Data and
//   Status only while its RawBytes is 0 and publishes it with a release store
//   of RawBytes. The processing thread claims a filled node (Taken free ->
//   processing), works on Data in place and publishes it with a release store
//   of Taken = processed. SxAcquire reads Data once it has seen processed
//   (acquire), and frees the node by clearing Status, Taken, ProcessedBytes
//   and, last with release, RawBytes. The end mark (Status 3) is only ever put
//   on a free node, with a release store.
// - gJob.Result is written by all three parties, first failure wins; the page
//   counters are written by one party each through std::atomic_ref.
// - the settings fields BlockLines and the ScanParameter record are written by
//   the read thread only, LinesDelivered and the line-scaling state by the
//   processing thread only (after the read thread's first set-up, which the
//   first published node orders before them). Every other settings field is
//   only read while a job runs.
// - the progress dialog belongs to the read thread for the whole job.
// - every wait is `while (!condition) WaitEvent(event)`, the condition re-read
//   from the atomics after each wake; the party that changes a condition
//   stores the fields before it sets the event, so no wake-up is lost.
#include "acquire/Workers.h"

#include <cstdint>

#include "acquire/BufferedTransfer.h"
#include "acquire/ProgressDialog.h"
#include "driver/DriverTable.h"
#include "driver/ErrorCodes.h"
#include "frame/LibraryState.h"
#include "frame/RegistryUtil.h"
#include "frame/Trace.h"
#include "imaging/BlockChain.h"
#include "imaging/ColorMatch.h"
#include "imaging/ToneTable.h"
#include "platform/Thread.h"

namespace sx {

namespace {

constexpr char kReadLabel[] = "ReadThread";
constexpr char kProcessLabel[] = "IPThread";
constexpr int32_t kPaperPresent = 1;
constexpr int32_t kNoPageLimit = -1;

int32_t MapDriverFailure() { return ErrorCodeMapping(driver::QueryStatusCode()); }

bool PageLimitAllows(int32_t pages) {
  const int32_t limit = gSettings.XferCount;
  return limit == kNoPageLimit || pages < limit;
}

void WaitUntilFree(RingNode* node) {
  while (node->RawBytes.load(std::memory_order_acquire) != 0) plat::WaitEvent(gLib.BlockFreeEvent);
}

void MarkEnd(RingNode* node) { node->Status.store(kBlockEndMark, std::memory_order_release); }

// ---------------------------------------------------------------------------
// Read thread

// Reads the blocks of one started page into the ring. Returns the node after
// the last one filled.
RingNode* ReadPageBlocks(const ScanSettings& s, RingNode* cursor, int32_t blockLines) {
  int32_t linesLeft = s.ScanLines;
  uint32_t readSize = static_cast<uint32_t>(s.ScanBytesPerLine) * static_cast<uint32_t>(blockLines);
  for (;;) {
    WaitUntilFree(cursor);
    // Design note: a free node always carries status 0 here (SxAcquire clears
    // the status of every node it frees, and the ring is free between
    // acquisitions), so a page-end status left on a free node, and a node
    // left over unprocessed ahead of this thread, cannot occur; the loop only
    // waits for the node to be freed.
    if (JobResult() != 0) return cursor;

    int32_t status = kBlockOrdinary;
    if (linesLeft <= blockLines) {
      readSize = static_cast<uint32_t>(linesLeft) * static_cast<uint32_t>(s.ScanBytesPerLine);
      status = kBlockPageEnd;
      linesLeft = 0;
    } else {
      linesLeft -= blockLines;
    }
    cursor->Status.store(status, std::memory_order_relaxed);

    uint8_t unused = 0;
    uint32_t came = readSize;
    // A short read fails the page here: the pipeline has no way to end a
    // page early, so the acquisition ends with the driver's code.
    if (driver::ReadScan(&unused, cursor->Data, &came) != 0) {
      readSize = came;
      cursor->Status.store(kBlockReadFailed, std::memory_order_relaxed);
      FailJob(MapDriverFailure());
    }
    const uint32_t linesRead = readSize / static_cast<uint32_t>(s.ScanBytesPerLine);
    if (TrackDialogCommand(TRACK_STEP, linesRead, 0, 0) == 1) FailJob(SX_ERR_CANCELLED);

    // Publishes the node. A failed read that brought nothing leaves RawBytes
    // at 0; SxAcquire finds such a node by its status once this job is done.
    cursor->RawBytes.store(static_cast<int32_t>(readSize), std::memory_order_release);
    plat::SetEvent(gLib.RawReadyEvent);
    cursor = cursor->Next;
    if (linesLeft == 0 || JobResult() != 0) return cursor;
  }
}

// The feeder's next sheet gets the parameters and tone tables again unless
// the model keeps them between pages. A refused record fails the job.
void ReprogramForNextSheet(ScanSettings& s, RingNode* cursor) {
  if ((gAbility.FeatureFlags & SX_FEATURE_KEEP_PARAMS_BETWEEN_PAGES) == 0 &&
      driver::SetScanParameter(&gScanParameter) == 0) {
    cursor->Status.store(kBlockReadFailed, std::memory_order_relaxed);
    FailJob(MapDriverFailure());
  }
  if ((gAbility.FeatureFlags & SX_FEATURE_KEEP_TONE_BETWEEN_PAGES) == 0) {
    RebuildToneTables(s);
    SetGammaTableFunction(s);
  }
}

// Ends a page: stops the scanner, waits until the node at the cursor is free
// and asks the feeder for the next sheet. True when another page follows.
bool EndReadPage(ScanSettings& s, RingNode* cursor) {
  driver::StopScan();  // its result does not change the job
  WaitUntilFree(cursor);
  uint8_t paper = 0;
  if (s.FeederInUse == 1) {
    driver::GetADFStatus(&paper);  // no answer leaves the flag at "no paper"
    // Design note: only 1 means paper. Any other answer ends the job here
    // with the end mark, as no paper does: the job goes on only with 1, and
    // SxAcquire, counting pages, would otherwise wait for a page that never
    // starts.
    if (paper != kPaperPresent) {
      MarkEnd(cursor);
    } else {
      ReprogramForNextSheet(s, cursor);
    }
  } else {
    MarkEnd(cursor);
  }
  return cursor->Status.load(std::memory_order_relaxed) != kBlockEndMark &&
         paper == kPaperPresent && JobResult() == 0 &&
         PageLimitAllows(PagesStartedRef().load(std::memory_order_relaxed));
}

// Closes the dialog, leaves the end mark after a failure, and wakes the other
// two parties. When the job stops at the page limit with paper left and no
// failure, the node stays unmarked: SxAcquire stops by its own page count.
void EndReadJob(RingNode* cursor) {
  TrackDialogCommand(TRACK_CLOSE, 0, 0, 0);
  if (JobResult() != 0) MarkEnd(cursor);
  gJob.ReaderDone.store(true, std::memory_order_release);
  plat::SetEvent(gLib.PageEvent);
  plat::SetEvent(gLib.RawReadyEvent);
}

void ReadJob() {
  ScanSettings& s = gSettings;
  uint32_t transferMode = 0;
  ReadRegValue(kKeyScanData, "TRANSFERMODE", &transferMode, kKindNumber, sizeof transferMode);
  CreateTrackDialog(nullptr);
  TrackDialogCommand(TRACK_MODE, transferMode, 0, 0);

  // SxAcquire admits only line sizes of 1 to kBlockBytes bytes, so a block
  // holds at least one line.
  const int32_t blockLines = kBlockBytes / s.ScanBytesPerLine;
  s.BlockLines = blockLines;
  RingNode* cursor = gRing;

  // Design note: a failed line-scaling set-up ends the job like any other
  // failure (end mark, events), so that SxAcquire returns its code instead of
  // waiting for a page that never starts.
  const int32_t prepared = PrepareLineScaling(s);
  if (prepared != 0) {
    FailJob(prepared);
    TraceLog(kTraceFile, kReadLabel, kTagOut, 1, prepared, kKindNumber, 1);
    EndReadJob(cursor);
    return;
  }

  for (;;) {
    TrackDialogCommand(TRACK_NEWPAGE, static_cast<uint32_t>(s.ScanLines),
                       static_cast<uint32_t>(PagesStartedRef().load() + 1), 0);
    const int32_t started = StartScanner(s);
    if (started != 0) {
      FailJob(started);
      break;
    }
    PagesStartedRef().fetch_add(1, std::memory_order_release);
    plat::SetEvent(gLib.PageEvent);
    cursor = ReadPageBlocks(s, cursor, blockLines);
    if (!EndReadPage(s, cursor)) break;
  }
  EndReadJob(cursor);
}

// ---------------------------------------------------------------------------
// Processing thread

bool HoldsUnclaimedRaw(const RingNode* node) {
  return node->RawBytes.load(std::memory_order_acquire) != 0 &&
         node->Taken.load(std::memory_order_acquire) == kTakenFree;
}

// Sleeps until the node holds raw data nobody has claimed, carries the end
// mark, or the job has failed (a failed read may publish no bytes at all).
void WaitForRaw(const RingNode* node) {
  while (!HoldsUnclaimedRaw(node) &&
         node->Status.load(std::memory_order_acquire) != kBlockEndMark && JobResult() == 0) {
    plat::WaitEvent(gLib.RawReadyEvent);
  }
}

// The block chain in place on one claimed node; publishes the processed bytes.
void ProcessNode(ScanSettings& s, RingNode* node) {
  const int32_t raw = node->RawBytes.load(std::memory_order_relaxed);
  int32_t lines = raw / s.ScanBytesPerLine;
  lines = DescreenBlock(node->Data, node->Data, s, lines);
  lines = SharpenBlock(node->Data, node->Data, s.Sharpen, s, lines);
  ConvertBlock(node->Data, s, lines);
  node->ProcessedBytes.store(s.OutputBytesPerLine * lines, std::memory_order_relaxed);
  node->Taken.store(kTakenProcessed, std::memory_order_release);
}

// The node being processed when something threw; published empty so that
// SxAcquire, which may be waiting for it, does not wait for ever. Used by the
// processing thread only.
RingNode* tClaimed = nullptr;

void ProcessJob() {
  ScanSettings& s = gSettings;
  RingNode* cursor = gRing;
  int32_t pageEnds = 0;
  for (;;) {
    WaitForRaw(cursor);
    const int32_t status = cursor->Status.load(std::memory_order_acquire);
    if ((status != kBlockOrdinary && status != kBlockPageEnd) || JobResult() != 0) break;
    int32_t expected = kTakenFree;
    // A failed claim means SxAcquire withheld the node while ending.
    if (!cursor->Taken.compare_exchange_strong(expected, kTakenProcessing,
                                               std::memory_order_acq_rel)) {
      break;
    }
    tClaimed = cursor;
    ProcessNode(s, cursor);
    tClaimed = nullptr;

    const bool pageEnd = status == kBlockPageEnd;
    if (pageEnd) {
      s.LinesDelivered = 0;
      FailJob(PrepareLineScaling(s));
      ++pageEnds;
    } else {
      s.LinesDelivered = 1;  // the next block is not the first of its page
    }
    cursor = cursor->Next;
    plat::SetEvent(gLib.ProcessedEvent);
    if (JobResult() != 0 || cursor->Status.load(std::memory_order_acquire) == kBlockEndMark) break;
    // Design note: with a finite page count the read thread leaves no end
    // mark after the last permitted page, so the job ends after processing
    // that page's last block. Counting page ends (rather than trusting
    // PagesStarted, which reaches the limit as soon as the last page starts)
    // lets every block of the page through.
    if (pageEnd && gSettings.XferCount != kNoPageLimit && pageEnds >= gSettings.XferCount) break;
  }
  gJob.ProcessorDone.store(true, std::memory_order_release);
  plat::SetEvent(gLib.ProcessedEvent);
  // SxAcquire releases the scaling state again only after this thread has
  // parked, so the two releases never overlap.
  ReleaseLineScaling();
}

// A job must end with its completion flag and events whatever happens inside,
// or SxAcquire would wait for ever; nothing may leave the thread procedure.
void RunReadJob() {
  try {
    ReadJob();
  } catch (...) {
    FailJob(SX_ERR_DRIVER);
    gJob.ReaderDone.store(true, std::memory_order_release);
    plat::SetEvent(gLib.PageEvent);
    plat::SetEvent(gLib.RawReadyEvent);
  }
}

void RunProcessJob() {
  try {
    ProcessJob();
  } catch (...) {
    FailJob(SX_ERR_DRIVER);
    if (tClaimed) {
      tClaimed->ProcessedBytes.store(0, std::memory_order_relaxed);
      tClaimed->Taken.store(kTakenProcessed, std::memory_order_release);
      tClaimed = nullptr;
    }
    gJob.ProcessorDone.store(true, std::memory_order_release);
    plat::SetEvent(gLib.ProcessedEvent);
  }
}

// A worker's life: one job each time SxAcquire resumes it, parked between
// jobs, until the library ends the thread.
uint32_t RunWorker(const char* label, void (*runJob)()) {
  TraceLog(kTraceFile, label, kTagIn, 1, kTraceNoValue, kKindNumber, 1);
  do {
    runJob();
  } while (plat::SuspendCurrentThread());
  return 0;
}

}  // namespace

uint32_t ReadThreadProc(void*) { return RunWorker(kReadLabel, RunReadJob); }

uint32_t IPThreadProc(void*) { return RunWorker(kProcessLabel, RunProcessJob); }

}  // namespace sx
