#include "serve/EsclScanner.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>

#include "sxscan/Commands.h"
#include "kit/Progress.h"
#include "kit/ScanPlan.h"
#include "kit/Session.h"
#include "sxscan.h"
#include "sxsys.h"

namespace sx::host::escl {
namespace {

using namespace std::chrono_literals;

// The transfer buffer of a job; direct transfers come a whole number of
// lines at a time, and a line of the widest page fits.
constexpr size_t kTransferBytes = 1u << 20;
// Lines asked for in one block: small blocks let the page's bytes reach the
// client as it is scanned, and let a cancel stop the scanner within a few
// lines instead of a whole buffer.
constexpr size_t kLinesPerBlock = 32;
// Encoded bytes waiting for the client: the bound on what a job holds
// beyond the encoder's own state.
constexpr size_t kQueueBytes = 4u << 20;
// A client that reads nothing for this long has gone away: its pages are
// dropped and the scanner is free for the next job.
constexpr auto kStall = 30s;
// Jobs kept after they end, for ScannerStatus.
constexpr size_t kKeptJobs = 8;
// How often an idle scanner is asked whether its feeder holds paper.
constexpr auto kRefreshEvery = 5s;
// How long a request waits for the scanner to take a job's settings.
constexpr auto kAcceptWait = 60s;
constexpr int kJpegQuality = 85;
// Resolutions offered when the library states a range: the usual ones
// within it.
constexpr uint32_t kUsualResolutions[] = {75, 100, 150, 200, 300, 400, 600, 1200, 2400};
constexpr double kThreeHundredthsPerInch = 300, kCentimetresPerInch = 2.54;

const CapabilityInfo& Cap(uint16_t code) {
  for (const auto& cap : AllCapabilities()) {
    if (cap.code == code) return cap;
  }
  std::terminate();  // every code used here is in the table
}

std::vector<int32_t> Integers(const QueriedList& list) {
  std::vector<int32_t> out(list.items.size() / 4);
  for (size_t i = 0; i < out.size(); ++i) std::memcpy(&out[i], &list.items[i * 4], 4);
  return out;
}

std::vector<uint32_t> OfferedResolutions() {
  const QueriedList list = QueryList(Cap(CAP_XRESOLUTION));
  const std::vector<int32_t> items = Integers(list);
  std::vector<uint32_t> out;
  if (list.count == 0 && items.size() >= 3) {  // least, most, step
    const int32_t step = std::max(items[2], 1);
    for (uint32_t r : kUsualResolutions) {
      const int64_t v = r;
      if (v >= items[0] && v <= items[1] && (v - items[0]) % step == 0) out.push_back(r);
    }
  } else {
    for (int32_t i = 0; i < list.count && i < static_cast<int32_t>(items.size()); ++i) {
      if (items[i] > 0) out.push_back(static_cast<uint32_t>(items[i]));
    }
  }
  std::sort(out.begin(), out.end());
  out.erase(std::unique(out.begin(), out.end()), out.end());
  return out;
}

std::vector<ColourMode> OfferedModes() {
  const QueriedList list = QueryList(Cap(CAP_PIXELTYPE));
  const std::vector<int32_t> items = Integers(list);
  std::vector<ColourMode> out;
  for (int32_t i = 0; i < list.count && i < static_cast<int32_t>(items.size()); ++i) {
    if (items[i] >= 0 && items[i] <= static_cast<int32_t>(ColourMode::Rgb24))
      out.push_back(static_cast<ColourMode>(items[i]));
  }
  return out;
}

std::string TextValue(uint16_t code) {
  Value value;
  if (ReadValue(Cap(code), &value) != SX_OK) return {};
  return FieldText(reinterpret_cast<const char*>(value.bytes.data()), value.bytes.size());
}

uint32_t ToThreeHundredths(float length, int units) {
  const double perUnit = units == 0 ? kThreeHundredthsPerInch
                         : units == 1 ? kThreeHundredthsPerInch / kCentimetresPerInch
                                      : 1;
  return length > 0 ? static_cast<uint32_t>(length * perUnit + 0.5) : 0;
}

void ReadAreas(const SourceFacts& source, ScannerFacts* facts) {
  for (size_t i = 0; i < source.sources.size(); ++i) {
    const auto kind = static_cast<ScanSource>(source.sources[i]);
    SourceArea* area = kind == ScanSource::Flatbed  ? &facts->platen
                       : kind == ScanSource::Feeder ? &facts->feeder
                                                    : nullptr;
    if (!area || i >= source.maxWidths.size() || i >= source.maxLengths.size()) continue;
    area->present = true;
    area->maxWidth = ToThreeHundredths(source.maxWidths[i], source.units);
    area->maxHeight = ToThreeHundredths(source.maxLengths[i], source.units);
  }
  facts->feederLoaded = source.feederLoaded;
}

// What the transfer callback works on. Thread contract: the library calls
// the callback on the job's thread inside SxAcquire, so this is touched by
// that thread only; g_transfer is set only while SxAcquire runs.
struct Transfer {
  Job* job = nullptr;
  QueueSink* sink = nullptr;
  size_t bufferBytes = 0;
  const void* lastData = nullptr;
  PageFormat delivered;  // as the library sends the page
  PageFormat format;     // as the client gets it (AskedFormat)
  std::unique_ptr<DocumentEncoder> encoder;
  std::vector<uint8_t> carry;  // the start of a line split between blocks
  std::vector<uint8_t> line;   // a delivered line widened to the asked width
  uint32_t linesWritten = 0;
  std::string failure;
};
Transfer* g_transfer = nullptr;

DocumentFormat EncoderFormat(Format format) {
  switch (format) {
    case Format::Png: return DocumentFormat::Png;
    case Format::Jpeg: return DocumentFormat::Jpeg;
    case Format::Pdf: return DocumentFormat::Pdf;
  }
  return DocumentFormat::Png;
}

int32_t Stop(Transfer& t, const std::string& why) {
  if (t.failure.empty()) t.failure = why;
  return SX_ERR_CANCELLED;
}

bool EndPage(Transfer& t) {
  if (!t.encoder) return true;
  std::string error;
  const bool ok = t.encoder->EndPage(&error) && t.encoder->Finish(&error);
  t.encoder.reset();
  t.carry.clear();
  if (!ok) {
    t.failure = error;
    return false;
  }
  t.job->queue.EndDocument();
  std::lock_guard<std::mutex> guard(t.job->lock);
  ++t.job->pagesScanned;
  return true;
}

// What the client asked for. Clients lay out the page from the region and
// the resolution, and some wait for every pixel of it, while the library
// narrows a line to its alignment (and a bed may end short): the page is
// widened and lengthened to the asked size with white, which every pixel
// kind reads as all bits set.
PageFormat AskedFormat(const PageFormat& delivered, const ScanRequest& request) {
  PageFormat f = delivered;
  const uint32_t width = static_cast<uint32_t>(uint64_t{request.region.width} * request.xResolution / 300);
  const uint32_t lines = static_cast<uint32_t>(uint64_t{request.region.height} * request.yResolution / 300);
  if (width > f.width) {
    constexpr uint32_t kBytesPerPixel[] = {0, 1, 3};  // line art is counted in bits
    f.bytesPerLine = f.kind == PixelKind::Lineart ? (width + 7) / 8 : width * kBytesPerPixel[static_cast<int>(f.kind)];
    f.width = width;
  }
  f.lines = std::max(f.lines, lines);
  return f;
}

int32_t OnImageInfo(Transfer& t, const void* data, int64_t* byteCount) {
  if (!data) return Stop(t, "the library announced a page without its description");
  SxImageInfo info;
  std::memcpy(&info, data, sizeof info);
  std::string error;
  PageFormat format;
  if (!PageFormatFromInfo(info, &format, &error)) return Stop(t, error);
  if (format.bytesPerLine > t.bufferBytes) return Stop(t, "a line of the page is larger than the transfer buffer");
  // A page never marked as ended is over once the next one begins.
  if (!EndPage(t)) return SX_ERR_CANCELLED;
  t.delivered = format;
  t.format = AskedFormat(format, t.job->request);
  if (!CheckPageFormat(t.format, &error)) return Stop(t, error);
  t.line.assign(t.format.bytesPerLine, 0xFF);
  t.encoder = MakeDocumentEncoder(EncoderFormat(t.job->request.format), *t.sink, kJpegQuality);
  if (!t.encoder || !t.encoder->BeginPage(t.format, &error)) return Stop(t, error.empty() ? "no encoder" : error);
  t.linesWritten = 0;
  if (byteCount) *byteCount = static_cast<int64_t>(std::min(t.bufferBytes, kLinesPerBlock * t.delivered.bytesPerLine));
  return SX_OK;
}

// Whole lines go to the encoder; the start of a line cut by the block's end
// waits for the next block. Lines past the announced ones are dropped.
bool WriteLines(Transfer& t, const uint8_t* data, size_t bytes) {
  const size_t stride = t.delivered.bytesPerLine;
  std::string error;
  const auto write = [&](const uint8_t* lines, uint32_t count) {
    count = std::min(count, t.format.lines - t.linesWritten);
    if (count == 0) return true;
    t.linesWritten += count;
    if (t.format.bytesPerLine == stride) return t.encoder->WriteLines(lines, count, &error);
    for (uint32_t i = 0; i < count; ++i) {
      std::copy_n(lines + i * stride, stride, t.line.begin());
      if (!t.encoder->WriteLines(t.line.data(), 1, &error)) return false;
    }
    return true;
  };
  if (!t.carry.empty()) {
    const size_t take = std::min(bytes, stride - t.carry.size());
    t.carry.insert(t.carry.end(), data, data + take);
    data += take, bytes -= take;
    if (t.carry.size() < stride) return true;
    if (!write(t.carry.data(), 1)) return t.failure = error, false;
    t.carry.clear();
  }
  const size_t whole = bytes / stride;
  if (whole && !write(data, static_cast<uint32_t>(whole))) return t.failure = error, false;
  t.carry.assign(data + whole * stride, data + bytes);
  return true;
}

int32_t OnImageData(Transfer& t, const void* data, const int64_t* byteCount, int32_t code) {
  if (!t.encoder || !data) return SX_OK;
  t.lastData = data;
  int64_t count = byteCount ? *byteCount : 0;
  // No block reaches 4 GiB: bits above 32 are not part of the count.
  count &= INT64_C(0xFFFFFFFF);
  SxHandle handle = SxSysGlobalHandle(data);
  const size_t readable = handle ? SxSysGlobalSize(handle) : t.bufferBytes;
  const size_t bytes = static_cast<size_t>(std::min<uint64_t>(static_cast<uint64_t>(count), readable));
  if (!WriteLines(t, static_cast<const uint8_t*>(data), bytes)) return SX_ERR_CANCELLED;
  if ((code == SX_XFER_PAGE_END || code == SX_XFER_SHORT_PAGE) && !EndPage(t)) return SX_ERR_CANCELLED;
  return SX_OK;
}

// Called by the library, so nothing may be thrown out of it.
extern "C" int32_t SX_API OnJobTransfer(void* data, int64_t* byteCount, int32_t code) {
  Transfer& t = *g_transfer;
  if (t.job->cancel.load()) return SX_ERR_CANCELLED;
  try {
    switch (code) {
      case SX_XFER_IMAGE_INFO: return OnImageInfo(t, data, byteCount);
      case SX_XFER_DATA:
      case SX_XFER_PAGE_END:
      case SX_XFER_SHORT_PAGE: return OnImageData(t, data, byteCount, code);
      default: return SX_OK;  // a cancelled or failed block carries no data
    }
  } catch (const std::exception& e) {
    return Stop(t, e.what());
  }
}

// The settings of a job, in the scan command's terms, so that the server
// and `sxscan scan` ask the library for the same page.
ScanOptions OptionsFor(const ScanRequest& request) {
  ScanOptions o;
  o.resolution = static_cast<int32_t>(request.xResolution);
  o.mode = static_cast<ColorMode>(request.mode);
  o.hasArea = o.hasUnits = true;
  o.units = AreaUnits::ThreeHundredths;
  o.area = {static_cast<float>(request.region.x), static_cast<float>(request.region.y),
            static_cast<float>(request.region.width), static_cast<float>(request.region.height)};
  o.source = request.source == InputSource::Feeder ? ScanSource::Feeder : ScanSource::Flatbed;
  o.pages = request.source == InputSource::Feeder ? kAllPages : 0;
  return o;
}

bool ApplyAll(const std::vector<SettingChange>& changes, std::string* refusal) {
  for (const auto& change : changes) {
    if (!CheckAdmissible(*change.cap, change.value)) {
      *refusal = std::string("the scanner does not take this value of ") + change.cap->name;
      return false;
    }
  }
  for (const auto& change : changes) {
    const int32_t result = WriteValue(*change.cap, change.value);
    if (result != SX_OK) {
      *refusal = std::string("cannot set ") + change.cap->name + ": " + ResultText(result);
      return false;
    }
  }
  return true;
}

struct TransferBuffer {
  SxHandle handle = SxSysGlobalAlloc(SX_GHND, kTransferBytes);
  uint8_t* address = handle ? static_cast<uint8_t*>(SxSysGlobalLock(handle)) : nullptr;
  // `current`: the last block address the library handed back (it may have
  // moved the block).
  void Release(const void* current) {
    if (current && current != address && SxSysGlobalHandle(current)) {
      ReleaseLockedBlock(const_cast<void*>(current));
    } else if (address) {
      ReleaseLockedBlock(address);
    } else if (handle) {
      SxSysGlobalFree(handle);
    }
  }
};

}  // namespace

bool OpenServedSource(const std::string& sourceName) {
  if (sourceName.empty()) return OpenSourceForScan();
  int32_t listed = 0;
  std::vector<SxDataSource> sources = ListSources(&listed);
  std::vector<std::string> names;
  for (const auto& s : sources) names.push_back(FieldText(s.DisplayName, sizeof s.DisplayName));
  std::string error;
  const int index = FindSourceByName(names, sourceName, &error);
  if (index < 0) {
    std::fprintf(stderr, "sxscan: %s (see 'sxscan sources')\n", error.c_str());
    return false;
  }
  const int32_t result = SxSetDriverById(&sources[static_cast<size_t>(index)], 0);
  if (result != SX_OK) {
    std::fprintf(stderr, "sxscan: cannot open %s: %s (%d)\n", names[static_cast<size_t>(index)].c_str(),
                 ResultText(result).c_str(), result);
  }
  return result == SX_OK;
}

bool ReadScannerFacts(const std::string& sourceName, const std::string& displayName, ScannerFacts* facts) {
  if (!OpenServedSource(sourceName)) {
    SxFree();
    return false;
  }
  SxDataSource source{};
  CurrentSource(&source);
  const std::string vendor = FieldText(source.Vendor, sizeof source.Vendor);
  const std::string model = TextValue(CAP_MODELNAME);
  facts->makeAndModel = vendor.empty() ? model : vendor + " " + model;
  facts->serialNumber = TextValue(CAP_SERIALNUMBER);
  facts->uuid = StableUuid(facts->makeAndModel + "\n" + facts->serialNumber + "\n" +
                           FieldText(source.FileName, sizeof source.FileName));
  facts->name = displayName.empty() ? facts->makeAndModel : displayName;
  ReadAreas(ReadSourceFacts(), facts);
  facts->modes = OfferedModes();
  facts->resolutions = OfferedResolutions();
  SxFree();
  if (!facts->platen.present && !facts->feeder.present) {
    std::fprintf(stderr, "sxscan: the source lists neither a flatbed nor a feeder with its size\n");
    return false;
  }
  return true;
}

Job::Job(std::string id, const ScanRequest& scan) : uuid(std::move(id)), request(scan), queue(kQueueBytes) {}

JobSummary Job::Summary() const {
  std::lock_guard<std::mutex> guard(lock);
  JobSummary s;
  s.uuid = uuid;
  s.state = state;
  s.imagesCompleted = pagesSent;
  s.imagesToTransfer = request.source == InputSource::Platen ? 1 : 0;
  s.ageSeconds = static_cast<uint32_t>(std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - created).count());
  return s;
}

bool Job::Holds() const {
  {
    std::lock_guard<std::mutex> guard(lock);
    if (running) return true;
    if (Clock::now() - lastRead > kStall) return false;
  }
  return queue.QueuedBytes() > 0;
}

void Job::Cancel() {
  cancel.store(true);
  queue.Close();
  // A scanner still warming up calls back only once it is ready; its
  // dialog's Cancel ends the wait.
  PressCancelIfInterrupted();
  std::lock_guard<std::mutex> guard(lock);
  if (!unfetched && (running || state == JobState::Processing)) state = JobState::Canceled;
}

void Job::MarkFetched() {
  std::lock_guard<std::mutex> guard(lock);
  fetched = true;
}

bool Job::AbortIfUnfetched() {
  {
    std::lock_guard<std::mutex> guard(lock);
    // A job whose page is scanned whole but never fetched is no success.
    const bool over = state != JobState::Processing && state != JobState::Completed;
    if (start != Start::Accepted || fetched || unfetched || over || Clock::now() - accepted < kUnfetchedTimeout)
      return false;
    unfetched = true;
    state = JobState::Aborted;
  }
  std::fprintf(stderr, "sxscan: job %s: no client asked for its pages within %lld s; the job is aborted\n",
               uuid.c_str(), static_cast<long long>(kUnfetchedTimeout.count()));
  Cancel();
  return true;
}

Scanner::Scanner(std::string sourceName, ScannerFacts facts)
    : sourceName_(std::move(sourceName)), facts_(std::move(facts)) {}

Scanner::~Scanner() {
  std::thread thread;
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (active_) active_->Cancel();
    thread = std::move(thread_);
  }
  if (thread.joinable()) thread.join();
}

ScannerFacts Scanner::Facts() const {
  std::lock_guard<std::mutex> guard(lock_);
  return facts_;
}

bool Scanner::Busy() const {
  std::lock_guard<std::mutex> guard(lock_);
  return active_ && active_->Holds();
}

void Scanner::RefreshWhenIdle() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    if ((active_ && active_->Holds()) || std::chrono::steady_clock::now() - refreshed_ < kRefreshEvery) return;
    refreshed_ = std::chrono::steady_clock::now();
  }
  std::unique_lock<std::mutex> library(library_, std::try_to_lock);
  if (!library.owns_lock()) return;  // a job has the scanner
  if (!OpenServedSource(sourceName_)) {
    SxFree();
    return;
  }
  const bool loaded = ReadSourceFacts().feederLoaded;
  SxFree();
  std::lock_guard<std::mutex> guard(lock_);
  facts_.feederLoaded = loaded;
}

Scanner::Start Scanner::StartJob(const ScanRequest& request, std::shared_ptr<Job>* started, std::string* error) {
  std::shared_ptr<Job> job;
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (active_ && active_->Holds()) return Start::Busy;
    if (active_) active_->queue.Close();  // pages nobody came for
    // The previous job's thread has ended (it no longer holds the scanner).
    if (thread_.joinable()) thread_.join();
    job = std::make_shared<Job>(RandomUuid(), request);
    job->queue.OnChange(onJobChange_);
    jobs_.push_back(job);
    if (jobs_.size() > kKeptJobs) jobs_.erase(jobs_.begin());
    active_ = job;
    thread_ = std::thread([this, job] { RunJob(job); });
  }
  std::unique_lock<std::mutex> guard(job->lock);
  if (!job->startChanged.wait_for(guard, kAcceptWait, [&] { return job->start != Job::Start::Waiting; })) {
    guard.unlock();
    job->Cancel();
    *error = "the scanner did not take the settings in time";
    return Start::Refused;
  }
  if (job->start == Job::Start::Refused) {
    *error = job->refusal;
    return Start::Refused;
  }
  *started = job;
  return Start::Started;
}

std::shared_ptr<Job> Scanner::Find(const std::string& uuid) const {
  std::lock_guard<std::mutex> guard(lock_);
  for (const auto& job : jobs_) {
    if (job->uuid == uuid) return job;
  }
  return nullptr;
}

void Scanner::AbortUnfetched() {
  std::shared_ptr<Job> job;
  {
    std::lock_guard<std::mutex> guard(lock_);
    job = active_;
  }
  if (job) job->AbortIfUnfetched();
}

std::vector<JobSummary> Scanner::Summaries() const {
  std::vector<std::shared_ptr<Job>> jobs;
  {
    std::lock_guard<std::mutex> guard(lock_);
    jobs = jobs_;
  }
  std::vector<JobSummary> out;
  for (auto it = jobs.rbegin(); it != jobs.rend(); ++it) out.push_back((*it)->Summary());
  return out;
}

// Opens the source and sets the job's settings. On the job's thread, with
// the library held.
bool Scanner::Prepare(Job& job, std::string* refusal) {
  if (!OpenServedSource(sourceName_)) {
    *refusal = "the data source cannot be opened";
    return false;
  }
  const SourceFacts source = ReadSourceFacts();
  {
    std::lock_guard<std::mutex> guard(lock_);
    facts_.feederLoaded = source.feederLoaded;
  }
  const ScanOptions options = OptionsFor(job.request);
  if (options.source == ScanSource::Feeder && !source.feederLoaded) {
    std::lock_guard<std::mutex> guard(job.lock);
    job.noPaper = true;
    *refusal = "the feeder holds no paper";
    return false;
  }
  std::vector<SettingChange> changes;
  if (!BuildScanSettings(options, &changes, refusal)) return false;
  AddSourceChanges(options, options.source, source, &changes);
  return ApplyAll(changes, refusal);
}

void Scanner::RunJob(const std::shared_ptr<Job>& job) {
  std::lock_guard<std::mutex> library(library_);
  std::string refusal;
  const bool prepared = Prepare(*job, &refusal);
  {
    std::lock_guard<std::mutex> guard(job->lock);
    job->start = prepared ? Job::Start::Accepted : Job::Start::Refused;
    job->accepted = Job::Clock::now();
    job->refusal = refusal;
    if (!prepared) job->state = JobState::Aborted;
  }
  job->startChanged.notify_all();
  int32_t result = SX_ERR_CANCELLED;
  Transfer transfer;
  if (prepared) {
    TransferBuffer buffer;
    QueueSink sink(job->queue, kStall);
    transfer.job = job.get();
    transfer.sink = &sink;
    transfer.bufferBytes = buffer.address ? kTransferBytes : 0;
    {
      LibraryDialogs dialogs(job->cancel, false);
      g_transfer = &transfer;
      result = buffer.address ? SxAcquire(OnJobTransfer, buffer.address) : SX_ERR_NO_MEMORY;
      g_transfer = nullptr;
    }
    transfer.encoder.reset();  // a page cut short is not sent as a document
    buffer.Release(transfer.lastData);
    const bool loaded = ReadSourceFacts().feederLoaded;
    std::lock_guard<std::mutex> guard(lock_);
    facts_.feederLoaded = loaded;
  }
  SxFree();
  job->queue.Finish();
  if (!transfer.failure.empty()) std::fprintf(stderr, "sxscan: job %s stopped: %s\n", job->uuid.c_str(), transfer.failure.c_str());
  std::lock_guard<std::mutex> guard(job->lock);
  job->result = result;
  job->noPaper = job->noPaper || result == SX_ERR_NO_PAPER;
  if (job->unfetched) {
    job->state = JobState::Aborted;
  } else if (job->cancel.load()) {
    job->state = JobState::Canceled;
  } else if (prepared) {
    // A feeder that runs out after some pages ends the job normally.
    job->state = result == SX_OK || (job->pagesScanned > 0 && result == SX_ERR_NO_PAPER) ? JobState::Completed
                                                                                          : JobState::Aborted;
  }
  job->running = false;
}

}  // namespace sx::host::escl
