#include "Session.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace sxsane {
namespace {

constexpr size_t kTransferBytes = 1u << 20;
// Library results that name what stopped a scan (the driver's codes as the
// library maps them).
constexpr int32_t kPaperOut = -20, kSettingsRefused = -12, kLampNotReady = -22, kFeederJammed = -27;
// White: line art in a SANE frame of depth 1 reads 1 as black.
constexpr SANE_Byte kWhiteLineArt = 0x00, kWhiteSample = 0xFF;

// SANE_DEBUG_SXSCAN, as every backend reads SANE_DEBUG_<name>: 1 and more
// report each transfer's queue on stderr.
int DebugLevel() {
  static const int level = [] {
    const char* value = std::getenv("SANE_DEBUG_SXSCAN");
    return value ? std::atoi(value) : 0;
  }();
  return level;
}

bool OpenNextPage(Session& s, int32_t* result) {
  if (s.transfer->NextPage(&s.page, result) != Transfer::Wait::Page) return false;
  const SANE_Parameters p = PageParameters(s.page);
  s.pageBytes = static_cast<uint64_t>(std::max(p.bytes_per_line, 0)) * static_cast<uint64_t>(std::max(p.lines, 0));
  s.delivered = 0;
  s.pageEnded = false;
  s.pageOpen = true;
  return true;
}

// The rest of a page whose end mark came: white up to its announced length.
SANE_Status FillPage(Session& s, SANE_Byte* data, SANE_Int max, SANE_Int* length) {
  const uint64_t rest = s.pageBytes - std::min(s.delivered, s.pageBytes);
  if (rest == 0) {
    s.pageOpen = false;
    return SANE_STATUS_EOF;
  }
  const auto n = static_cast<SANE_Int>(std::min<uint64_t>(rest, static_cast<uint64_t>(max)));
  std::memset(data, s.page.BitsPerPixel == 1 ? kWhiteLineArt : kWhiteSample, static_cast<size_t>(n));
  s.delivered += static_cast<uint64_t>(n);
  *length = n;
  return SANE_STATUS_GOOD;
}

// A page that never got its end mark.
SANE_Status EndCutPage(Session& s) {
  s.pageOpen = false;
  if (s.transfer->CancelRequested()) return SANE_STATUS_CANCELLED;
  // Ended without an error, the acquisition still lost the page's end.
  const int32_t r = s.transfer->Finished() ? s.transfer->Result() : SX_ERR_DRIVER;
  EndAcquisition(s);
  return r == SX_OK ? SANE_STATUS_IO_ERROR : StatusOf(r);
}

}  // namespace

SANE_Status StatusOf(int32_t result) {
  switch (result) {
    case SX_OK: return SANE_STATUS_GOOD;
    case SX_ERR_CANCELLED: return SANE_STATUS_CANCELLED;
    case SX_ERR_NO_PAPER: case kPaperOut: return SANE_STATUS_NO_DOCS;
    case kFeederJammed: return SANE_STATUS_JAMMED;
    case kLampNotReady: return SANE_STATUS_DEVICE_BUSY;
    case SX_ERR_NO_MEMORY: return SANE_STATUS_NO_MEM;
    case SX_ERR_UNSUPPORTED: case SX_ERR_NO_COLOR: case kSettingsRefused: return SANE_STATUS_INVAL;
    default: return SANE_STATUS_IO_ERROR;
  }
}

SANE_Parameters PageParameters(const SxImageInfo& i) {
  SANE_Parameters p{};
  p.last_frame = SANE_TRUE;
  p.format = i.SamplesPerPixel >= 3 ? SANE_FRAME_RGB : SANE_FRAME_GRAY;
  p.pixels_per_line = i.PixelsPerLine;
  p.lines = i.LinesPerPage;
  p.depth = i.SamplesPerPixel > 0 ? i.BitsPerPixel / i.SamplesPerPixel : i.BitsPerPixel;
  p.bytes_per_line = (i.PixelsPerLine * i.BitsPerPixel + 7) / 8;
  return p;
}

void EndAcquisition(Session& s) {
  if (s.transfer) {
    if (DebugLevel() >= 1)
      std::fprintf(stderr, "[sxscan] transfer queue: high-water %zu bytes, bound %zu bytes\n",
                   s.transfer->HighWater(), Transfer::kQueueBound);
    s.transfer->RequestCancel();
    s.transfer.reset();
  }
  s.scanning = s.pageOpen = false;
}

SANE_Status StartPage(Session& s, const AcquireApi& api, bool feeder, const std::function<SANE_Status()>& prepare) {
  Settle(s);
  s.pageOpen = false;
  int32_t result = SX_OK;
  // An acquisition still running may hold the feeder's next page; once it
  // has ended (a flatbed's after its one page, whenever its thread gets
  // there), the next page is a new acquisition.
  if (s.transfer) {
    s.scanning = true;
    if (OpenNextPage(s, &result)) return SANE_STATUS_GOOD;
    EndAcquisition(s);
    if (result != SX_OK) return StatusOf(result);
    // The feeder's batch is over: its pages were all delivered.
    if (feeder) return SANE_STATUS_NO_DOCS;
  }
  const SANE_Status prepared = prepare();
  if (prepared != SANE_STATUS_GOOD) return prepared;
  s.transfer = std::make_unique<Transfer>(api);
  if (!s.transfer->Start(kTransferBytes)) {
    s.transfer.reset();
    return SANE_STATUS_NO_MEM;
  }
  s.scanning = true;
  if (OpenNextPage(s, &result)) return SANE_STATUS_GOOD;
  EndAcquisition(s);
  if (result == SX_OK) return feeder ? SANE_STATUS_NO_DOCS : SANE_STATUS_IO_ERROR;
  return StatusOf(result);
}

SANE_Status ReadPage(Session& s, SANE_Byte* data, SANE_Int max, SANE_Int* length) {
  if (!s.scanning || !s.transfer || s.transfer->CancelRequested()) return SANE_STATUS_CANCELLED;
  if (!s.pageOpen) return SANE_STATUS_EOF;
  if (s.pageEnded) return FillPage(s, data, max, length);
  const Transfer::Chunk chunk = s.transfer->Read(data, static_cast<size_t>(max), !s.nonblocking);
  switch (chunk.end) {
    case Transfer::PageEnd::None:
      // The library's line art has 0 for black; a SANE frame of depth 1
      // reads 1 as black.
      if (s.page.BitsPerPixel == 1)
        for (size_t i = 0; i < chunk.bytes; ++i) data[i] = static_cast<SANE_Byte>(~data[i]);
      s.delivered += chunk.bytes;
      *length = static_cast<SANE_Int>(chunk.bytes);
      return SANE_STATUS_GOOD;
    case Transfer::PageEnd::Cut:
      return EndCutPage(s);
    case Transfer::PageEnd::Whole:
    case Transfer::PageEnd::EndedByScanner:
      break;
  }
  s.pageEnded = true;
  return FillPage(s, data, max, length);
}

// Design note: joining the acquisition's thread and freeing its memory are
// not safe in a signal handler, which may have interrupted the frontend
// inside the allocator; they wait for the frontend's next call.
void Cancel(Session& s) {
  if (Transfer* t = s.transfer.get()) t->RequestCancel();
}

void Settle(Session& s) {
  if (s.transfer && s.transfer->CancelRequested()) EndAcquisition(s);
}

}  // namespace sxsane
