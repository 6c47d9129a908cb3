// The scan command: settings from the options, one acquisition through the
// intake (Intake.h), and the pages encoded into a file beside the
// acquisition (BackgroundEncoder.h) as they arrive.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "documents/BackgroundEncoder.h"
#include "documents/ImageWriter.h"
#include "kit/Console.h"
#include "kit/Intake.h"
#include "kit/Progress.h"
#include "kit/ScanPlan.h"
#include "kit/Session.h"
#include "sxscan.h"
#include "sxscan/Commands.h"
#include "sxscan/SystemTexts.h"

namespace sx::host {
namespace {

// Line widths are rounded down to a multiple of at most this many pixels.
constexpr unsigned kLargestAlignment = 32;

// Set by the interrupt handler (Console.h), read by the transfer callback.
std::atomic<bool> g_interrupted{false};

// The pages of a scan, handed to the encoder's thread (BackgroundEncoder.h)
// as they arrive, each reported when it ends. On the thread that runs the
// acquisition (the intake's contract). The progress line is the library's
// own dialog (LibraryDialogs).
class FilePages final : public PageReceiver {
 public:
  explicit FilePages(BackgroundEncoder& encoder) : encoder_(encoder) {}

  bool BeginPage(const PageFormat& format, std::string* why) override {
    if (!encoder_.BeginPage(format)) return EncoderStop(why);
    format_ = format;
    ++page_;
    return true;
  }

  bool TakeLines(const uint8_t* lines, uint32_t count, std::string* why) override {
    lastBlock_ = std::chrono::steady_clock::now();
    return encoder_.Append(lines, size_t{count} * format_.bytesPerLine) || EncoderStop(why);
  }

  bool EndPage(uint32_t lines, bool early, std::string* why) override {
    lastBlock_ = std::chrono::steady_clock::now();
    if (!encoder_.EndPage()) return EncoderStop(why);
    ReportPage(lines, early);
    return true;
  }

  // The document leaves a page that never ended out when it is finished.
  void DropPage() override {}

  // The area's size at the resolution, in pixels, as the settings ask for it.
  void ReadAskedSize();
  std::chrono::steady_clock::time_point LastBlock() const { return lastBlock_; }

 private:
  // The encoder failed (a full disk): the scan stops with its words.
  bool EncoderStop(std::string* why) {
    encoder_.Failed(why);
    if (why->empty()) *why = "the page could not be written";
    return false;
  }
  void ReportPage(uint32_t lines, bool endedEarly) const;

  BackgroundEncoder& encoder_;
  PageFormat format_;  // of the page being delivered
  int page_ = 0;       // 1-based, of the page being delivered
  std::chrono::steady_clock::time_point lastBlock_;  // when the library delivered the last one
  uint32_t askedPixels_ = 0;  // the area's width at the resolution, as set
  uint32_t askedLines_ = 0;
};

// What the page that just ended holds, as the user asked for it.
void FilePages::ReportPage(uint32_t lines, bool endedEarly) const {
  static const char* const kKinds[] = {"line art", "gray", "colour"};
  EndProgressLine();
  std::fprintf(stderr, "page %d: %u x %u pixels at %u dpi, %s%s\n", page_, format_.width, lines,
               format_.xdpi, kKinds[static_cast<int>(format_.kind)],
               endedEarly ? " (the scanner ended the page early)" : "");
  // Design note: a width short by less than a 32-pixel unit is the model's
  // alignment; anything more, and any shortfall of lines, is the source's
  // area cutting the requested one.
  constexpr uint32_t kAlignmentSlack = 32;
  if (askedPixels_ > format_.width) {
    std::fprintf(stderr, "sxscan: the width was %s: %u of the %u pixels asked for\n",
                 askedPixels_ - format_.width < kAlignmentSlack ? "reduced to the scanner's alignment"
                                                                : "clipped to the source's area",
                 format_.width, askedPixels_);
  }
  if (askedLines_ > format_.lines && !endedEarly) {
    std::fprintf(stderr, "sxscan: the length was clipped to the source's area: %u of the %u lines asked for\n",
                 format_.lines, askedLines_);
  }
}

void FilePages::ReadAskedSize() {
  uint16_t width = 0, length = 0, dpi = 0;
  const auto read = [](const char* name, uint16_t* out) {
    Value v;
    const CapabilityInfo* cap = FindCapability(name);
    if (cap && cap->getType == TY_UINT16 && ReadValue(*cap, &v) == SX_OK) std::memcpy(out, v.bytes.data(), 2);
  };
  read("imagewidth", &width);
  read("imagelength", &length);
  read("xresolution", &dpi);
  askedPixels_ = static_cast<uint32_t>((uint64_t{width} * dpi + 150) / 300);
  askedLines_ = static_cast<uint32_t>((uint64_t{length} * dpi + 150) / 300);
}

// Output folders are never made on the user's behalf: a mistyped path would
// otherwise scatter folders, even at the root.
bool PrepareOutputFolder(const std::string& output) {
  std::filesystem::path parent = std::filesystem::path(output).parent_path();
  std::error_code ec;
  if (!parent.empty() && !std::filesystem::is_directory(parent, ec)) {
    std::fprintf(stderr, "sxscan: the folder %s does not exist; create it first (%s)\n", parent.string().c_str(),
                 MakeFolderCommand(parent.string()).c_str());
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

// "a", "a and b", "a, b and c".
std::string Listed(const std::vector<std::string>& names) {
  std::string out;
  for (size_t i = 0; i < names.size(); ++i)
    out += (i == 0 ? "" : i + 1 == names.size() ? " and " : ", ") + names[i];
  return out;
}

// A feeder scan to a PNG name writes its pages to a TIFF beside it once a
// second page comes (OutputDocument): a file of that name is not replaced
// unasked, so the scan is refused before it starts.
bool TiffBesideIsFree(const ScanOptions& options, ScanSource source) {
  const std::string tiff = TiffForPngName(options.output);
  std::error_code ec;
  if (tiff.empty() || source == ScanSource::Flatbed || options.pages == 1 || !std::filesystem::exists(tiff, ec))
    return true;
  std::fprintf(stderr,
               "sxscan: %s exists, and a feeder scan to %s writes its pages there when more than one comes; "
               "move it away, scan to %s to replace it, or give --pages 1\n",
               tiff.c_str(), options.output.c_str(), tiff.c_str());
  return false;
}

// How a scan ended, for its report.
struct ScanEnd {
  int32_t result = SX_OK;  // SxAcquire's
  const Intake& intake;
  int pagesExpected = 0;   // 0: as many as come
  bool areaTooSmall = false;  // the area holds less than the widest alignment unit
};

// What the scan wrote, once: a scan that did not end well names what it kept
// after what ended it.
int Report(const ScanEnd& end, const OutputDocument& document, bool finished) {
  const int32_t result = end.result;
  EndProgressLine();
  const std::string kept = document.KeptText();
  const bool cancelled = g_interrupted.load() || result == SX_ERR_CANCELLED;
  if (document.PagesSkipped() > 0)
    std::fprintf(stderr, "sxscan: %d page(s) without image lines were left out\n", document.PagesSkipped());
  if (!document.StaleRemoved().empty())
    std::fprintf(stderr, "sxscan: removed %s, left by an earlier scan of more pages\n",
                 Listed(document.StaleRemoved()).c_str());
  if (!finished) {
    std::fprintf(stderr, "sxscan: %s; %s\n", document.Error().c_str(), kept.c_str());
    return kExitFailed;
  }
  if (cancelled) {
    std::fprintf(stderr, "sxscan: scan cancelled; %s\n", kept.c_str());
    return kExitCancelled;
  }
  if (end.intake.LineTooLong()) {
    std::fprintf(stderr, "sxscan: %s; give --buffer %u or more, or leave it out\n", end.intake.StopReason().c_str(),
                 end.intake.LineTooLong());
    return kExitUsage;
  }
  if (result == SX_ERR_UNSUPPORTED && end.areaTooSmall && end.intake.PagesBegun() == 0) {
    std::fprintf(stderr, "sxscan: the area is too small: narrower than the scanner's smallest line (%u "
                         "pixels) or shorter than one line at this resolution; make it larger\n",
                 kLargestAlignment);
    return kExitUsage;
  }
  if (result != SX_OK) {
    if (result == kIntakeStop && !end.intake.StopReason().empty())
      std::fprintf(stderr, "sxscan: scan stopped: %s; %s\n", end.intake.StopReason().c_str(), kept.c_str());
    else
      std::fprintf(stderr, "sxscan: scan failed: %s (%d); %s\n", ResultText(result).c_str(), result, kept.c_str());
    return kExitFailed;
  }
  if (document.PagesDone() == 0) {
    std::fprintf(stderr, "sxscan: the scanner delivered no page\n");
    return kExitFailed;
  }
  std::printf("wrote %d page%s to %s\n", document.PagesDone(), document.PagesDone() == 1 ? "" : "s",
              document.WrittenPath().c_str());
  if (document.PagesDone() < end.pagesExpected)
    std::fprintf(stderr, "sxscan: the feeder ran out of paper after %d of the %d pages asked for\n",
                 document.PagesDone(), end.pagesExpected);
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
  if (!PrepareOutputFolder(options.output)) return kExitUsage;
  // Declared before everything that holds the library's memory, so that it
  // is freed before the library is.
  LibraryScope session;
  if (!OpenSourceForScan()) return kExitFailed;
  const SourceFacts facts = ReadSourceFacts();
  const ScanSource source = ChooseSource(options.source, facts);
  AddSourceChanges(options, source, facts, &changes);
  if (!AreaOnSource(options, source, facts) || !TiffBesideIsFree(options, source)) return kExitUsage;
  if (const SettingsOutcome applied = ApplySettings(changes, &error); applied != SettingsOutcome::Applied) {
    std::fprintf(stderr, "sxscan: %s\n", error.c_str());
    return applied == SettingsOutcome::Refused ? kExitUsage : kExitFailed;
  }
  OutputDocument document(options.output, options.quality);
  BackgroundEncoder encoder(document, options.buffered ? BackgroundEncoder::kBufferedQueueBytes
                                                       : BackgroundEncoder::kQueueBytes);
  FilePages pages(encoder);
  if (AsksForAreaSize(options)) pages.ReadAskedSize();
  g_interrupted.store(false);
  const size_t bufferBytes = options.buffered ? std::max(options.transferBytes, kBufferedTransferBytes)
                                              : options.transferBytes;
  Intake intake(LinkedLibrary(), pages, {bufferBytes, 0, &g_interrupted});
  if (!intake.Ready()) {
    std::fprintf(stderr, "sxscan: no memory for the transfer buffer\n");
    return kExitFailed;
  }
  if (!encoder.Start(&error)) {
    std::fprintf(stderr, "sxscan: %s\n", error.c_str());
    return kExitFailed;
  }
  // The library's own progress dialog is the progress line, and an
  // interrupt presses its Cancel.
  LibraryDialogs dialogs(g_interrupted, options.progress || StderrIsTerminal());
  // An interrupt stops the scan through its Cancel; the pages already
  // complete are still written, so the handler stays until they are.
  WatchInterrupts(&g_interrupted);

  // Only a feeder scan delivers the pages asked for; a flatbed gives one.
  const ScanEnd end{intake.Acquire(), intake, source == ScanSource::Feeder && options.pages > 0 ? options.pages : 0,
                    AreaMayBeTooSmall(options)};

  // What is queued is encoded and the document finished on the encoder's
  // thread; then the document is this thread's again.
  bool finished = encoder.Finish();
  const auto closed = std::chrono::steady_clock::now();
  document.RemoveReplaced();
  // Watched until the outcome is said: a second interrupt before then says
  // it and ends the program, one after it only ends it (with 130 either way).
  const int status = Report(end, document, finished);
  StopWatchingInterrupts();
  if (options.stats) PrintStats(document.PagesDone(), pages.LastBlock(), closed);
  return status;
}

}  // namespace sx::host
