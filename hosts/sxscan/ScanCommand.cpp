// The scan command: settings from the options, a transfer buffer from the
// library's memory functions, one SxAcquire, and the pages encoded into a
// file beside the acquisition (BackgroundEncoder.h) as the transfer callback
// receives them.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <new>
#include <system_error>

#include "documents/BackgroundEncoder.h"
#include "sxscan/Commands.h"
#include "kit/Console.h"
#include "documents/ImageWriter.h"
#include "kit/Progress.h"
#include "kit/ScanPlan.h"
#include "kit/Session.h"
#include "sxscan.h"
#include "sxsys.h"

namespace sx::host {
namespace {

// The callback's answer when the program itself must stop the transfer (a
// page it cannot write); any nonzero answer stops it, and this one is not a
// library code, so the reason is told from HostStop.
constexpr int32_t kHostStop = -1;
// Line widths are rounded down to a multiple of at most this many pixels.
constexpr unsigned kLargestAlignment = 32;

// Set by the interrupt handler (Console.h), read by the transfer callback.
std::atomic<bool> g_interrupted{false};

// Everything the transfer callback works on. Thread contract: the library
// calls the callback on the host's thread inside SxAcquire in both transfer
// modes, so this is touched by that thread only; the document is the
// encoder's thread's until the scan ends.
struct Transfer {
  BackgroundEncoder* encoder = nullptr;
  uint64_t pageBytes = 0;  // of the page being delivered, up to its announced size
  std::chrono::steady_clock::time_point lastBlock;  // when the library delivered the last one
  bool pageOpen = false;
  const uint8_t* buffer = nullptr;  // the address handed to SxAcquire
  size_t bufferBytes = 0;
  const void* lastData = nullptr;   // the current block address, if it moved
  bool showProgress = false;
  bool terminal = false;
  ProgressState progress;
  std::string lastDrawn;
  int lastDecile = -1;
  std::string stopReason;
  bool stopForValue = false;  // the stop names a value the person gave (exit 2)
  bool areaTooSmall = false;  // the area holds less than the widest alignment unit
  PageFormat format;  // of the page being delivered
  uint32_t askedPixels = 0;  // the area's width at the resolution, as set
  uint32_t askedLines = 0;
};
Transfer* g_transfer = nullptr;

void DrawProgress(Transfer& t) {
  if (!t.showProgress) return;
  t.progress.bytesDone = t.pageBytes;
  if (t.terminal) {
    std::string text = RenderProgress(t.progress, TerminalWidth() - 1);
    if (text != t.lastDrawn) DrawProgressLine(text);
    t.lastDrawn = text;
    return;
  }
  // Not a terminal: one line per tenth of the page is enough for a log.
  int decile = t.progress.bytesExpected
                   ? static_cast<int>(t.progress.bytesDone * 10 / t.progress.bytesExpected)
                   : 0;
  if (decile != t.lastDecile) DrawProgressLine(RenderProgress(t.progress, 80));
  t.lastDecile = decile;
}

// What the page that just ended holds, as the user asked for it.
void ReportPage(const Transfer& t, uint64_t lines, bool endedEarly) {
  static const char* const kKinds[] = {"line art", "gray", "colour"};
  EndProgressLine();
  std::fprintf(stderr, "page %d: %u x %llu pixels at %u dpi, %s%s\n", t.progress.page, t.format.width,
               static_cast<unsigned long long>(lines), t.format.xdpi,
               kKinds[static_cast<int>(t.format.kind)],
               endedEarly ? " (the scanner ended the page early)" : "");
  // Design note: a width short by less than a 32-pixel unit is the model's
  // alignment; anything more, and any shortfall of lines, is the source's
  // area cutting the requested one.
  constexpr uint32_t kAlignmentSlack = 32;
  if (t.askedPixels > t.format.width) {
    std::fprintf(stderr, "sxscan: the width was %s: %u of the %u pixels asked for\n",
                 t.askedPixels - t.format.width < kAlignmentSlack ? "reduced to the scanner's alignment"
                                                                  : "clipped to the source's area",
                 t.format.width, t.askedPixels);
  }
  if (t.askedLines > t.format.lines && !endedEarly) {
    std::fprintf(stderr, "sxscan: the length was clipped to the source's area: %u of the %u lines asked for\n",
                 t.format.lines, t.askedLines);
  }
}

// The area's size at the resolution, in pixels, as the settings ask for it.
void ReadAskedSize(Transfer& t) {
  uint16_t width = 0, length = 0, dpi = 0;
  const auto read = [](const char* name, uint16_t* out) {
    Value v;
    const CapabilityInfo* cap = FindCapability(name);
    if (cap && cap->getType == TY_UINT16 && ReadValue(*cap, &v) == SX_OK) std::memcpy(out, v.bytes.data(), 2);
  };
  read("imagewidth", &width);
  read("imagelength", &length);
  read("xresolution", &dpi);
  t.askedPixels = static_cast<uint32_t>((uint64_t{width} * dpi + 150) / 300);
  t.askedLines = static_cast<uint32_t>((uint64_t{length} * dpi + 150) / 300);
}

int32_t HostStop(Transfer& t, const std::string& reason) {
  t.stopReason = reason;
  return kHostStop;
}

// The encoder failed (a full disk): the scan stops with its words.
int32_t EncoderStop(Transfer& t) {
  std::string why;
  t.encoder->Failed(&why);
  return HostStop(t, why.empty() ? "the page could not be written" : why);
}

int32_t OnImageInfo(Transfer& t, const void* data, int64_t* byteCount) {
  if (!data) return HostStop(t, "the library announced a page without its description");
  SxImageInfo info;
  std::memcpy(&info, data, sizeof info);
  PageFormat format;
  std::string error;
  if (!PageFormatFromInfo(info, &format, &error)) return HostStop(t, error);
  // Direct transfers come a whole number of lines at a time: a buffer smaller
  // than one line could never take the page. Said before the scanner starts.
  if (t.bufferBytes < format.bytesPerLine) {
    t.stopForValue = true;
    return HostStop(t, "the transfer buffer of " + std::to_string(t.bufferBytes) +
                           " bytes is smaller than one line of this page (" +
                           std::to_string(format.bytesPerLine) + " bytes); give --buffer " +
                           std::to_string(format.bytesPerLine) + " or more, or leave it out");
  }
  if (!t.encoder->BeginPage(format)) return EncoderStop(t);
  t.format = format;
  t.pageBytes = 0;
  t.pageOpen = true;
  ++t.progress.page;
  t.progress.bytesExpected = uint64_t{format.lines} * format.bytesPerLine;
  t.lastDecile = -1;
  DrawProgress(t);
  // Direct transfers size their blocks from this answer.
  if (byteCount) *byteCount = static_cast<int64_t>(t.bufferBytes);
  return SX_OK;
}

// The bytes that can be read at `data`: the library may have enlarged and
// moved the buffer, so the block's own size counts, not the size asked for.
// Design note: the count is trusted only up to that size, so a wrong count
// cannot make the program read past the block.
size_t ReadableBytes(const Transfer& t, const void* data) {
  SxHandle handle = SxSysGlobalHandle(data);
  if (handle) return SxSysGlobalSize(handle);
  return data == t.buffer ? t.bufferBytes : 0;
}

int32_t OnImageData(Transfer& t, const void* data, const int64_t* byteCount, int32_t code) {
  if (!t.pageOpen || !data) return SX_OK;
  t.lastData = data;
  t.lastBlock = std::chrono::steady_clock::now();
  int64_t count = byteCount ? *byteCount : 0;
  // Design note: no block reaches 4 GiB, so bits above 32 can only be the
  // neighbour of a 32-bit count (a block status); they are ignored.
  if (count > INT64_C(0xFFFFFFFF)) count &= INT64_C(0xFFFFFFFF);
  size_t bytes = count > 0 ? static_cast<size_t>(std::min<uint64_t>(count, ReadableBytes(t, data))) : 0;
  // Bytes past the announced page are the document's to drop; the count
  // shown stops at the page's size.
  t.pageBytes = std::min(t.pageBytes + bytes, t.progress.bytesExpected);
  if (!t.encoder->Append(static_cast<const uint8_t*>(data), bytes)) return EncoderStop(t);
  DrawProgress(t);
  if (code == SX_XFER_PAGE_END || code == SX_XFER_SHORT_PAGE) {
    const uint64_t lines = t.format.bytesPerLine ? t.pageBytes / t.format.bytesPerLine : 0;
    t.pageOpen = false;
    if (!t.encoder->EndPage()) return EncoderStop(t);
    ReportPage(t, lines, code == SX_XFER_SHORT_PAGE);
  }
  return SX_OK;
}

int32_t Dispatch(Transfer& t, void* data, int64_t* byteCount, int32_t code) {
  switch (code) {
    case SX_XFER_IMAGE_INFO:
      return OnImageInfo(t, data, byteCount);
    case SX_XFER_DATA:
    case SX_XFER_PAGE_END:
    case SX_XFER_SHORT_PAGE:
      return OnImageData(t, data, byteCount, code);
    default:
      // Cancelled or failed blocks carry no data. Design note: a page that
      // did not end is dropped when the transfer ends, never written half.
      return SX_OK;
  }
}

// Called by the library, so nothing may be thrown out of it.
extern "C" int32_t SX_API OnTransfer(void* data, int64_t* byteCount, int32_t code) {
  Transfer& t = *g_transfer;
  if (g_interrupted.load()) return SX_ERR_CANCELLED;
  try {
    return Dispatch(t, data, byteCount, code);
  } catch (const std::bad_alloc&) {
    return HostStop(t, "out of memory for the page");
  } catch (const std::exception& e) {
    return HostStop(t, e.what());
  }
}

// Every value is checked before any reaches the library.
bool AllAdmissible(const std::vector<SettingChange>& changes) {
  for (const auto& change : changes) {
    if (!CheckAdmissible(*change.cap, change.value)) return false;
  }
  return true;
}

bool ApplySettings(const std::vector<SettingChange>& changes) {
  for (const auto& change : changes) {
    int32_t result = change.element == kNoElement ? WriteValue(*change.cap, change.value)
                                                  : WriteElement(*change.cap, change.element, change.value);
    if (result != SX_OK) {
      std::fprintf(stderr, "sxscan: cannot set %s: %s (%d)\n", change.cap->name, ResultText(result).c_str(),
                   result);
      return false;
    }
  }
  return true;
}

// Output folders are never made on the user's behalf: a mistyped path would
// otherwise scatter folders, even at the root.
bool PrepareOutputFolder(const std::string& output) {
  std::filesystem::path parent = std::filesystem::path(output).parent_path();
  std::error_code ec;
  if (!parent.empty() && !std::filesystem::is_directory(parent, ec)) {
    std::fprintf(stderr, "sxscan: the folder %s does not exist; create it first (mkdir -p %s)\n",
                 parent.string().c_str(), parent.string().c_str());
    return false;
  }
  // A folder that takes no new file is found before anything is scanned:
  // the pages would otherwise be lost at the end.
  std::string partial, error;
  if (!CreatePartial(output, &partial, &error)) {
    std::fprintf(stderr, "sxscan: %s\n", error.c_str());
    return false;
  }
  DiscardPartial(partial);
  return true;
}

double InchesPer(int units) {
  constexpr double kCentimetresPerInch = 2.54;
  constexpr double kThreeHundredthsPerInch = 300;
  switch (static_cast<AreaUnits>(units)) {
    case AreaUnits::Inches: return 1;
    case AreaUnits::Centimetres: return 1 / kCentimetresPerInch;
    case AreaUnits::ThreeHundredths: return 1 / kThreeHundredthsPerInch;
  }
  return 0;  // a unit the host does not know: no check
}

// An area that starts beyond the source's bed holds nothing: refused before
// the scan, with the bed's size. (One that runs past the edge is clipped.)
bool AreaOnSource(const ScanOptions& options, ScanSource source, const SourceFacts& facts) {
  const auto at = std::find(facts.sources.begin(), facts.sources.end(), static_cast<int>(source));
  const size_t index = static_cast<size_t>(at - facts.sources.begin());
  const double asked = InchesPer(static_cast<int>(options.units)), bed = InchesPer(facts.units);
  if (!options.hasArea || index >= facts.maxWidths.size() || index >= facts.maxLengths.size() || !asked || !bed)
    return true;
  const double width = facts.maxWidths[index] * bed, length = facts.maxLengths[index] * bed;
  if (options.area.x * asked < width && options.area.y * asked < length) return true;
  std::fprintf(stderr, "sxscan: the area starts at %g,%g in, outside the source's %g x %g in\n",
               options.area.x * asked, options.area.y * asked, width, length);
  return false;
}

// Whether the area is narrower than the widest pixel alignment a model uses
// or shorter than a line: the library then refuses the scan without saying why.
bool AreaMayBeTooSmall(const ScanOptions& options) {
  const double inches = InchesPer(static_cast<int>(options.units));
  if (!options.hasArea || !options.resolution || !inches) return false;
  return options.area.width * inches * options.resolution < kLargestAlignment ||
         options.area.length * inches * options.resolution < 1;
}

// The transfer buffer: a movable global block, locked while the scan runs.
struct TransferBuffer {
  SxHandle handle = nullptr;
  uint8_t* address = nullptr;
  size_t bytes = 0;

  bool Allocate(size_t n) {
    handle = SxSysGlobalAlloc(SX_GHND, n);
    address = handle ? static_cast<uint8_t*>(SxSysGlobalLock(handle)) : nullptr;
    bytes = n;
    return address != nullptr;
  }
  // `current` is the last address the library handed back (it may have moved
  // the block); the block is freed through whichever handle still names it.
  void Release(const void* current) {
    if (current && current != address && SxSysGlobalHandle(current)) {
      ReleaseLockedBlock(const_cast<void*>(current));
      return;
    }
    if (address) {
      ReleaseLockedBlock(address);
    } else if (handle) {
      SxSysGlobalFree(handle);
    }
  }
};

// The figures a benchmark reads, on one line of their own: the pages
// written, the time from the last block the library delivered to the file
// complete under its name, and the process's peak memory.
void PrintStats(int pages, std::chrono::steady_clock::time_point lastBlock,
                std::chrono::steady_clock::time_point closed) {
  const double tailMs =
      lastBlock.time_since_epoch().count() == 0
          ? 0.0
          : std::chrono::duration<double, std::milli>(closed - lastBlock).count();
  std::fprintf(stderr, "stats: pages %d, tail-ms %.1f, peak-rss-kb %llu\n", pages, tailMs,
               static_cast<unsigned long long>(PeakMemoryKb()));
}

int Report(int32_t result, const Transfer& transfer, const OutputDocument& document, bool finished) {
  EndProgressLine();
  std::string written = document.WrittenPath();
  const bool cancelled = g_interrupted.load() || result == SX_ERR_CANCELLED;
  if (document.PagesDone() > 0 && finished && !cancelled)
    std::printf("wrote %d page%s to %s\n", document.PagesDone(), document.PagesDone() == 1 ? "" : "s",
                written.c_str());
  if (document.PagesSkipped() > 0)
    std::fprintf(stderr, "sxscan: %d page(s) without image lines were left out\n", document.PagesSkipped());
  if (!finished) {
    std::fprintf(stderr, "sxscan: %s\n", document.Error().c_str());
    return kExitFailed;
  }
  if (cancelled) {
    // The pages complete before the interrupt are kept, and said so once.
    if (document.PagesDone() > 0)
      std::fprintf(stderr, "sxscan: scan cancelled; the %d page%s scanned before it %s kept in %s\n",
                   document.PagesDone(), document.PagesDone() == 1 ? "" : "s",
                   document.PagesDone() == 1 ? "is" : "are", written.c_str());
    else
      std::fprintf(stderr, "sxscan: scan cancelled\n");
    return kExitCancelled;
  }
  if (result == kHostStop && transfer.stopForValue) {
    std::fprintf(stderr, "sxscan: %s\n", transfer.stopReason.c_str());
    return kExitUsage;
  }
  if (result == SX_ERR_UNSUPPORTED && transfer.areaTooSmall && transfer.progress.page == 0) {
    std::fprintf(stderr, "sxscan: the area is too small: narrower than the scanner's smallest line (%u "
                         "pixels) or shorter than one line at this resolution; make it larger\n",
                 kLargestAlignment);
    return kExitUsage;
  }
  if (result != SX_OK) {
    if (result == kHostStop && !transfer.stopReason.empty())
      std::fprintf(stderr, "sxscan: scan stopped: %s\n", transfer.stopReason.c_str());
    else
      std::fprintf(stderr, "sxscan: scan failed: %s (%d)\n", ResultText(result).c_str(), result);
    return kExitFailed;
  }
  if (document.PagesDone() == 0) {
    std::fprintf(stderr, "sxscan: the scanner delivered no page\n");
    return kExitFailed;
  }
  if (document.PagesDone() < transfer.progress.pagesExpected)
    std::fprintf(stderr, "sxscan: the feeder ran out of paper after %d of the %d pages asked for\n",
                 document.PagesDone(), transfer.progress.pagesExpected);
  return kExitOk;
}

}  // namespace

int RunScan(const ScanOptions& options) {
  std::vector<SettingChange> changes;
  std::string error;
  if (!BuildScanSettings(options, &changes, &error)) {
    std::fprintf(stderr, "sxscan: %s\n", error.c_str());
    return kExitUsage;
  }
  if (!OutputFormatAvailable(options.output, &error)) {
    std::fprintf(stderr, "sxscan: %s\n", error.c_str());
    return kExitUsage;
  }
  if (!PrepareOutputFolder(options.output)) return kExitUsage;
  if (!OpenSourceForScan()) {
    SxFree();
    return kExitFailed;
  }
  const SourceFacts facts = ReadSourceFacts();
  const ScanSource source = ChooseSource(options.source, facts);
  AddSourceChanges(options, source, facts, &changes);
  if (!AreaOnSource(options, source, facts)) {
    SxFree();
    return kExitUsage;
  }
  if (!AllAdmissible(changes)) {
    SxFree();
    return kExitUsage;
  }
  size_t bufferBytes = options.buffered ? std::max(options.transferBytes, kBufferedTransferBytes)
                                        : options.transferBytes;
  TransferBuffer buffer;
  if (!ApplySettings(changes) || !buffer.Allocate(bufferBytes)) {
    if (!buffer.address && buffer.bytes) std::fprintf(stderr, "sxscan: no memory for the transfer buffer\n");
    buffer.Release(nullptr);
    SxFree();
    return kExitFailed;
  }

  OutputDocument document(options.output, options.quality);
  BackgroundEncoder encoder(document, options.buffered ? BackgroundEncoder::kBufferedQueueBytes
                                                       : BackgroundEncoder::kQueueBytes);
  if (!encoder.Start(&error)) {
    std::fprintf(stderr, "sxscan: %s\n", error.c_str());
    buffer.Release(nullptr);
    SxFree();
    return kExitFailed;
  }
  Transfer transfer;
  transfer.encoder = &encoder;
  transfer.buffer = buffer.address;
  transfer.bufferBytes = buffer.bytes;
  transfer.terminal = StderrIsTerminal();
  transfer.areaTooSmall = AreaMayBeTooSmall(options);
  // The library's own progress dialog is the progress line, and an
  // interrupt presses its Cancel.
  LibraryDialogs dialogs(g_interrupted, options.progress || transfer.terminal);
  // Only a feeder scan delivers the pages asked for; a flatbed gives one.
  transfer.progress.pagesExpected =
      source == ScanSource::Feeder && options.pages > 0 ? options.pages : 0;
  if (AsksForAreaSize(options)) ReadAskedSize(transfer);
  g_transfer = &transfer;
  g_interrupted.store(false);
  // An interrupt stops the scan through its Cancel; the pages already
  // complete are still written, so the handler stays until they are.
  WatchInterrupts(&g_interrupted);

  int32_t result = SxAcquire(OnTransfer, buffer.address);

  g_transfer = nullptr;
  // What is queued is encoded and the document finished on the encoder's
  // thread; then the document is this thread's again.
  bool finished = encoder.Finish();
  const auto closed = std::chrono::steady_clock::now();
  document.RemoveReplaced();
  StopWatchingInterrupts();
  buffer.Release(transfer.lastData);
  SxFree();
  const int status = Report(result, transfer, document, finished);
  if (options.stats) PrintStats(document.PagesDone(), transfer.lastBlock, closed);
  return status;
}

}  // namespace sx::host
