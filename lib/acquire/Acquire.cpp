// SxAcquire: one acquisition, from the parameter check to the last page.
#include "acquire/Acquire.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "acquire/BufferedTransfer.h"
#include "acquire/CheckParameter.h"
#include "acquire/ProgressDialog.h"
#include "acquire/WarmUpDialog.h"
#include "driver/DriverTable.h"
#include "driver/ErrorCodes.h"
#include "frame/HostCall.h"
#include "frame/RegistryUtil.h"
#include "frame/Trace.h"
#include "imaging/BlockChain.h"
#include "imaging/ColorMatch.h"
#include "imaging/ToneTable.h"
#include "imaging/kernels/Kernels.h"

namespace sx {

::SxImageInfo gImageInfo;

namespace {

constexpr char kLabel[] = "SxAcquire";
constexpr int32_t kLargestProcessedBlock = 1048575;
constexpr int32_t kShortRead = 5;  // the traced ReadScan: fewer bytes came than asked

// What one page of a direct transfer left behind for the page end.
enum class PageOutcome { Ended, Abandoned };

int32_t MapDriverFailure() { return ErrorCodeMapping(driver::QueryStatusCode()); }

bool LampWarmingUp(uint32_t status) {
  return status == SX_STATUS_WARMING_UP || status == SX_STATUS_WARMING_UP_EX;
}

// Announces the page. The host answers the size of its transfer buffer, which
// fixes the raw lines per block.
int32_t AnnouncePage(ScanSettings& s, SxTransferCallback callback) {
  int64_t count = sizeof(::SxImageInfo);
  const int32_t answer = callback(&gImageInfo, &count, SX_XFER_IMAGE_INFO);
  if (answer != 0) return answer;
  // Design note: a buffer that cannot hold one raw line would make blocks of
  // no lines and a transfer without progress; it is refused before the
  // scanner starts. A huge answer is capped so that one block's byte count
  // still fits the driver's 32-bit read size.
  if (count < s.ScanBytesPerLine) return SX_ERR_DRIVER;
  const int64_t most = std::numeric_limits<int32_t>::max() / s.ScanBytesPerLine;
  s.BlockLines = static_cast<int32_t>(std::min<int64_t>(count / s.ScanBytesPerLine, most));
  return 0;
}

// The per-block chain, in place in the transfer buffer; returns the lines now
// held (descreening scales raw lines down to output lines).
int32_t ProcessBlock(ScanSettings& s, int32_t lines) {
  uint8_t* block = s.DirectBuffer;
  lines = DescreenBlock(block, block, s, lines);
  lines = SharpenBlock(block, block, s.Sharpen, s, lines);
  ConvertBlock(block, s, lines);
  return lines;
}

// Reads and delivers the blocks of one started page. Returns the result for
// the page end: 0, 1 or 5 from a page that ran to its end, a positive or
// negative callback answer, -5 for Cancel, or a mapped driver code.
int32_t TransferBlocks(ScanSettings& s, SxTransferCallback callback) {
  int64_t blockSize = static_cast<int64_t>(s.BlockLines) * s.ScanBytesPerLine;
  for (;;) {
    s.BlockLines = static_cast<int32_t>(blockSize / s.ScanBytesPerLine);
    if (s.ScanLines < s.BlockLines) {
      s.BlockLines = s.ScanLines;
      blockSize = static_cast<int64_t>(s.ScanBytesPerLine) * s.ScanLines;
    }
    uint8_t unused = 0;
    uint32_t came = static_cast<uint32_t>(blockSize);
    int32_t result = driver::ReadScan(&unused, s.DirectBuffer, &came);
    const bool shortPage = result == kShortRead;
    if (shortPage) {
      s.BlockLines = static_cast<int32_t>(came / static_cast<uint32_t>(s.ScanBytesPerLine));
    } else if (result != 0) {
      return MapDriverFailure();
    }

    const uint32_t linesRead = came / static_cast<uint32_t>(s.ScanBytesPerLine);
    if (TrackDialogCommand(TRACK_STEP, linesRead, 0, 0) == 1) {
      int64_t count = blockSize;
      callback(s.DirectBuffer, &count, SX_XFER_CANCELLED);
      TrackDialogCommand(TRACK_CLOSE, 0, 0, 0);
      driver::DoCancel();
      return SX_ERR_CANCELLED;
    }

    s.ScanLines -= s.BlockLines;
    s.BlockLines = ProcessBlock(s, s.BlockLines);
    // Inversion covers what the driver delivered, before any scaling.
    if (s.Invert != 0) InvertBuffer(s.DirectBuffer, came);

    s.LinesDelivered += s.BlockLines;
    // Design note: the page also ends when the raw lines run out, even if
    // fewer output lines were made than announced (descreening with
    // overscan); the block that ends it is then the page's last.
    const bool lastBlock = s.LinesDelivered >= s.OutputLines || s.ScanLines <= 0;
    // A page that ends short of its announced lines says so with code 5.
    if (lastBlock && result == 0)
      result = s.LinesDelivered < s.OutputLines ? SX_XFER_SHORT_PAGE : SX_XFER_PAGE_END;
    int64_t bytes = static_cast<int64_t>(s.OutputBytesPerLine) * s.BlockLines;
    result = callback(s.DirectBuffer, &bytes, result);
    if (shortPage && result == 0) result = kShortRead;
    if (result != 0 || lastBlock) return result;
  }
}

// Ends a page: stops the scanner, asks the feeder for paper and, with paper,
// reprograms the driver for the next sheet. `paper` is 1 only when another
// feeder page can follow.
int32_t EndPage(ScanSettings& s, int32_t result, uint8_t& paper, PageOutcome& outcome) {
  paper = 0;
  outcome = PageOutcome::Abandoned;
  if (driver::StopScan() == 0) return MapDriverFailure();
  // A positive result (page end, short page, or a positive callback answer)
  // only ends the page.
  if (result > 0) result = 0;
  ++s.PagesDelivered;
  if (s.FeederInUse == 1) {
    if (driver::GetADFStatus(&paper) == 0) {
      paper = 0;
      return MapDriverFailure();
    }
    if (paper != 0) {
      if ((gAbility.FeatureFlags & SX_FEATURE_KEEP_PARAMS_BETWEEN_PAGES) == 0 &&
          driver::SetScanParameter(&gScanParameter) == 0) {
        result = MapDriverFailure();
      }
      if ((gAbility.FeatureFlags & SX_FEATURE_KEEP_TONE_BETWEEN_PAGES) == 0) {
        RebuildToneTables(s);
        SetGammaTableFunction(s);
      }
    }
  }
  outcome = PageOutcome::Ended;
  return result;
}

bool MorePages(const ScanSettings& s, uint8_t paper, int32_t result) {
  return paper == 1 && result == 0 && (s.PagesDelivered < s.XferCount || s.XferCount == -1);
}

// One page of a direct transfer, from its announcement to its end.
int32_t RunDirectPage(ScanSettings& s, SxTransferCallback callback, int32_t pageLines,
                      bool& another) {
  another = false;
  int32_t result = AnnouncePage(s, callback);
  if (result != 0) {
    ReleaseLineScaling();
    return result;
  }
  s.LinesDelivered = 0;
  s.ScanLines = pageLines;
  TrackDialogCommand(TRACK_NEWPAGE, static_cast<uint32_t>(s.ScanLines),
                     static_cast<uint32_t>(s.PagesDelivered + 1), 0);
  result = PrepareLineScaling(s);
  if (result != 0) return result;
  // The scaling set-up may turn the block into raw lines; a block that has
  // none would never finish the page.
  if (s.BlockLines <= 0) return SX_ERR_DRIVER;
  result = StartScanner(s);
  if (result != 0) return result;

  result = TransferBlocks(s, callback);
  uint8_t paper = 0;
  PageOutcome outcome;
  result = EndPage(s, result, paper, outcome);
  if (outcome == PageOutcome::Abandoned) return result;
  ReleaseLineScaling();
  another = MorePages(s, paper, result);
  return result;
}

// Direct mode: everything on the host's thread, block by block in the host's
// own buffer. DirectBuffer always holds the buffer's current address, which
// the scaling set-up may move.
int32_t RunDirectTransfer(ScanSettings& s, SxTransferCallback callback, void* buffer,
                          int32_t pageLines) {
  uint32_t transferMode = 0;
  ReadRegValue(kKeyScanData, "TRANSFERMODE", &transferMode, kKindNumber, sizeof(transferMode));
  CreateTrackDialog(nullptr);
  TrackDialogCommand(TRACK_MODE, transferMode, 0, 0);

  s.DirectBuffer = static_cast<uint8_t*>(buffer);
  int32_t result = 0;
  bool another = true;
  while (another) result = RunDirectPage(s, callback, pageLines, another);
  TrackDialogCommand(TRACK_CLOSE, 0, 0, 0);
  return result;
}

int32_t Acquire(SxTransferCallback callback, void* buffer) {
  ScanSettings& s = gSettings;
  int32_t result = CheckParameter(s);
  if (result != 0) return result;

  const int32_t pageLines = s.ScanLines;
  s.PagesStarted = 0;
  s.PagesDelivered = 0;
  SxImageInfo(&gImageInfo);
  // Design note: the descreen and sharpen set-ups run before a buffered
  // transfer starts its workers (which it does itself), so that the
  // processing thread never meets half-made filter state.
  PrepareDescreen(s);
  PrepareSharpen(s);

  if (s.Buffering == 0) {
    result = RunDirectTransfer(s, callback, buffer, pageLines);
  } else {
    result = RunBufferedTransfer(s, callback, buffer);
  }

  ReleaseLineScaling();
  ReleaseSharpen();
  ReleaseDescreen();
  TraceLog(kTraceFile, kLabel, kTagOut, 1, result, kKindNumber, 1);
  return result;
}

}  // namespace

// The code of the first refusal is the one reported.
int32_t StartScanner(const ScanSettings& s) {
  if (driver::StartScan() != 0) return 0;
  const uint32_t status = driver::QueryStatusCode();
  if (s.Indicators != 0 && LampWarmingUp(status)) {
    RunWarmUpDialog();
    if (driver::StartScan() != 0) return 0;
  }
  return ErrorCodeMapping(status);
}

int32_t SxImageInfo(::SxImageInfo* info) {
  TraceLog(kTraceFile, "SxImageInfo", kTagIn, 1, 0, kKindNumber, 1);
  const ScanSettings& s = gSettings;
  std::memset(info, 0, sizeof(*info));
  info->ResolutionX = s.XResolution;
  info->ResolutionY = s.YResolution;
  info->PixelsPerLine = s.OutputPixels;
  info->LinesPerPage = s.OutputLines;
  info->BitsPerPixel = s.BitsPerPixel;
  info->BufferSizeHint = std::max(s.OutputBytesPerLine, kLargestProcessedBlock);
  info->SamplesPerPixel = s.PixelType == kPixelColor ? 3 : 1;
  for (int16_t i = 0; i < info->SamplesPerPixel; ++i) {
    info->BitsPerSample[i] = static_cast<int16_t>(s.BitsPerPixel / info->SamplesPerPixel);
  }
  info->PixelType = s.PixelType;
  TraceLog(kTraceFile, "SxImageInfo", kTagOut, 1, 0, kKindNumber, 1);
  return 0;
}

void InvertBuffer(uint8_t* buffer, int64_t count) {
  if (count > 0) Kernels().Invert(buffer, static_cast<size_t>(count));
}

}  // namespace sx

SX_EXPORT int32_t SX_API SxAcquire(SxTransferCallback callback, void* transferBuffer) {
  sx::HostCall call;
  if (call.Refused()) return SX_ERR_DRIVER;
  sx::TraceLog(sx::kTraceFile, sx::kLabel, sx::kTagIn, 1, 0, sx::kKindNumber, 1);
  // Design note: without a callback or a buffer there is nowhere to deliver
  // the raster, and without a bound ReadScan (before SxLoad, after SxFree)
  // nothing to deliver; the request is refused before the scanner is
  // programmed.
  if (callback == nullptr || transferBuffer == nullptr ||
      (sx::gDriver.ReadScan == nullptr && sx::gDriver.ReadScanEx == nullptr)) {
    sx::TraceLog(sx::kTraceFile, sx::kLabel, sx::kTagOut, 1, SX_ERR_DRIVER, sx::kKindNumber, 1);
    return SX_ERR_DRIVER;
  }
  try {
    return sx::Acquire(callback, transferBuffer);
  } catch (...) {
    // Nothing may escape to the host; a failure inside is a failed scan.
    return SX_ERR_DRIVER;
  }
}
