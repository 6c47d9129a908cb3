#include "serve/EsclScanner.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>

#include "kit/Intake.h"
#include "kit/Parse.h"
#include "kit/Progress.h"
#include "kit/ScanPlan.h"
#include "kit/Session.h"
#include "sxscan.h"

namespace sx::host::escl {
namespace {

using namespace std::chrono_literals;

// The transfer buffer of a job; direct transfers come a whole number of
// lines at a time, and a line of the widest page fits.
constexpr size_t kTransferBytes = 1u << 20;
// Lines asked for in one block: small blocks let the page's bytes reach the
// client as it is scanned, and let a cancel stop the scanner within a few
// lines instead of a whole buffer.
constexpr uint32_t kLinesPerBlock = 32;
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

ToneRange OfferedTone(uint16_t code) {
  const QueriedList list = QueryList(Cap(code));
  const std::vector<int32_t> items = Integers(list);
  if (list.count != 0 || items.size() < 3 || items[0] > items[1]) return {};
  return {true, items[0], items[1], std::max(items[2], 1)};
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

DocumentFormat EncoderFormat(Format format) {
  switch (format) {
    case Format::Png: return DocumentFormat::Png;
    case Format::Jpeg: return DocumentFormat::Jpeg;
    case Format::Pdf: return DocumentFormat::Pdf;
  }
  return DocumentFormat::Png;
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

// A job's pages, each encoded as a document of its own onto the job's
// queue as its lines arrive, and into the job's one PDF when it has one. On
// the job's thread (the intake's contract).
class JobPages final : public PageReceiver {
 public:
  JobPages(Job& job, QueueSink& sink) : job_(job), sink_(sink) {}

  bool BeginPage(const PageFormat& delivered, std::string* why) override {
    delivered_ = delivered;
    format_ = AskedFormat(delivered, job_.request);
    if (!CheckPageFormat(format_, why)) return false;
    line_.assign(format_.bytesPerLine, 0xFF);
    encoder_ = MakeDocumentEncoder(EncoderFormat(job_.request.format), sink_, kJpegQuality);
    if (!encoder_) *why = "no encoder";
    return encoder_ && encoder_->BeginPage(format_, why) && (!job_.batch || job_.batch->BeginPage(format_, why));
  }

  bool TakeLines(const uint8_t* lines, uint32_t count, std::string* why) override {
    const size_t stride = delivered_.bytesPerLine;
    if (format_.bytesPerLine == stride) return Write(lines, count, why);
    for (uint32_t i = 0; i < count; ++i) {
      std::copy_n(lines + i * stride, stride, line_.begin());
      if (!Write(line_.data(), 1, why)) return false;
    }
    return true;
  }

  bool EndPage(uint32_t, bool, std::string* why) override {
    const bool ok = encoder_->EndPage(why) && encoder_->Finish(why) && (!job_.batch || job_.batch->EndPage(why));
    encoder_.reset();
    if (!ok) return false;
    job_.queue.EndDocument();
    std::lock_guard<std::mutex> guard(job_.lock);
    ++job_.pagesScanned;
    return true;
  }

  // A page cut short is not sent as a document.
  void DropPage() override {
    encoder_.reset();
    if (job_.batch) job_.batch->DropPage();
  }

 private:
  bool Write(const uint8_t* lines, uint32_t count, std::string* why) {
    return encoder_->WriteLines(lines, count, why) && (!job_.batch || job_.batch->WriteLines(lines, count, why));
  }

  Job& job_;
  QueueSink& sink_;
  PageFormat delivered_;  // as the library sends the page
  PageFormat format_;     // as the client gets it (AskedFormat)
  std::unique_ptr<DocumentEncoder> encoder_;
  std::vector<uint8_t> line_;  // a delivered line widened to the asked width
};

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
  // Resolved to the library's values: as `--set brightness=N` gives them.
  if (request.brightness) o.settings.emplace_back("brightness", std::to_string(*request.brightness));
  if (request.contrast) o.settings.emplace_back("contrast", std::to_string(*request.contrast));
  return o;
}

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
  facts->brightness = OfferedTone(CAP_BRIGHTNESS);
  facts->contrast = OfferedTone(CAP_CONTRAST);
  SxFree();
  if (!facts->platen.present && !facts->feeder.present) {
    std::fprintf(stderr, "sxscan: the source lists neither a flatbed nor a feeder with its size\n");
    return false;
  }
  return true;
}

Job::Job(std::string id, const ScanRequest& scan)
    : uuid(std::move(id)),
      request(scan),
      queue(kQueueBytes),
      batch(scan.batchPdf ? std::make_unique<BatchPdf>() : nullptr) {}

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
  if (job.batch && !job.batch->Opened()) {
    *refusal = "no temporary file for the batch PDF";
    return false;
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
  return ApplySettings(changes, refusal) == SettingsOutcome::Applied;
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
  std::string failure;
  if (prepared) {
    QueueSink sink(job->queue, kStall);
    JobPages pages(*job, sink);
    Intake intake(LinkedLibrary(), pages, {kTransferBytes, kLinesPerBlock, &job->cancel});
    {
      LibraryDialogs dialogs(job->cancel, false);
      result = intake.Acquire();
    }
    failure = intake.StopReason();
    const bool loaded = ReadSourceFacts().feederLoaded;
    std::lock_guard<std::mutex> guard(lock_);
    facts_.feederLoaded = loaded;
  }
  SxFree();
  uint32_t pages;
  {
    std::lock_guard<std::mutex> guard(job->lock);
    pages = job->pagesScanned;
  }
  // A feeder that runs out after some pages ends the job normally.
  const bool whole = prepared && !job->cancel.load() && (result == SX_OK || (pages > 0 && result == SX_ERR_NO_PAPER));
  // Before the queue's end wakes the clients: one that read the last page
  // asks for the batch next.
  if (job->batch) job->batch->Finish(whole);
  job->queue.Finish();
  if (!failure.empty()) std::fprintf(stderr, "sxscan: job %s stopped: %s\n", job->uuid.c_str(), failure.c_str());
  std::lock_guard<std::mutex> guard(job->lock);
  job->result = result;
  job->failure = failure;
  job->noPaper = job->noPaper || result == SX_ERR_NO_PAPER;
  if (job->unfetched) {
    job->state = JobState::Aborted;
  } else if (job->cancel.load()) {
    job->state = JobState::Canceled;
  } else if (prepared) {
    job->state = whole ? JobState::Completed : JobState::Aborted;
  }
  job->running = false;
}

}  // namespace sx::host::escl
