#include "documents/ImageWriter.h"

#include "documents/DocumentStream.h"
#include "documents/Encoders.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <system_error>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace sx::host {
namespace {

uint32_t BitsPerPixel(PixelKind kind) {
  switch (kind) {
    case PixelKind::Lineart: return 1;
    case PixelKind::Gray: return 8;
    default: return 24;
  }
}

bool HasTiffExtension(const std::string& path) {
  std::string ext = std::filesystem::path(path).extension().string();
  for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return ext == ".tif" || ext == ".tiff";
}

}  // namespace

bool CheckPageFormat(const PageFormat& f, std::string* error) {
  uint64_t bits = uint64_t{f.width} * BitsPerPixel(f.kind);
  if (f.width == 0 || f.lines == 0 || f.bytesPerLine == 0) {
    *error = "the page has no pixels";
    return false;
  }
  if (bits > uint64_t{f.bytesPerLine} * 8) {
    *error = "a line holds fewer bytes than its pixels need";
    return false;
  }
  if (uint64_t{f.lines} * f.bytesPerLine > kMaxPageBytes) {
    *error = "the page is larger than an image file can hold";
    return false;
  }
  return true;
}

namespace {

// Enough for any folder a user scans into; a longer name is written all the
// same, only not removed by an interrupt that ends the program at once.
constexpr size_t kPartialNameBytes = 4096;
// Names tried before giving up: each is new with near certainty.
constexpr int kPartialAttempts = 16;

// Thread contract: written by one thread at a time (the scan's encoder
// thread, then the host's once that one has ended), read by the interrupt
// handler, which may run at any moment: the name is complete before its slot
// is marked used, and the mark is a lock-free atomic.
char g_partialNames[kPartialSlots][kPartialNameBytes];
std::atomic<bool> g_partialUsed[kPartialSlots];
static_assert(std::atomic<bool>::is_always_lock_free);

void Remember(const std::string& partial) {
  if (partial.size() >= kPartialNameBytes) return;
  for (int i = 0; i < kPartialSlots; ++i) {
    if (g_partialUsed[i].load()) continue;
    std::memcpy(g_partialNames[i], partial.c_str(), partial.size() + 1);
    g_partialUsed[i].store(true);
    return;
  }
}

void Forget(const std::string& partial) {
  for (int i = 0; i < kPartialSlots; ++i) {
    if (g_partialUsed[i].load() && partial == g_partialNames[i]) g_partialUsed[i].store(false);
  }
}

// ".<name>.<16 hex digits>.part" beside the output.
std::string PartialCandidate(const std::string& path) {
  static std::mt19937_64 random = [] {
    std::random_device device;
    // The clock and an address vary the seed where the device does not.
    const uint64_t clock = static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    std::seed_seq seed{device(), device(), static_cast<unsigned>(clock), static_cast<unsigned>(clock >> 32),
                       static_cast<unsigned>(reinterpret_cast<uintptr_t>(&device))};
    return std::mt19937_64(seed);
  }();
  // Windows also separates folders with a backslash; elsewhere it is part of a name.
  constexpr char kSeparators[] = {'/', static_cast<char>(std::filesystem::path::preferred_separator), '\0'};
  const size_t slash = path.find_last_of(kSeparators);
  const size_t name = slash == std::string::npos ? 0 : slash + 1;
  char tag[24];
  std::snprintf(tag, sizeof tag, ".%016llx", static_cast<unsigned long long>(random()));
  return path.substr(0, name) + "." + path.substr(name) + tag + ".part";
}

std::string SystemText(int code) { return std::error_code(code, std::generic_category()).message(); }

}  // namespace

std::string WriteFailure(const std::string& path, int code, const std::string& why) {
  if (code == ENOSPC) return "no space left on device while writing " + path;
  return "cannot write " + path + ": " + (why.empty() && code ? SystemText(code) : why);
}

bool CreatePartial(const std::string& path, std::string* partial, std::string* error) {
  int code = 0;
  for (int attempt = 0; attempt < kPartialAttempts; ++attempt) {
    *partial = PartialCandidate(path);
    // Recorded first, so that no moment exists where the file is there and
    // an interrupt would not remove it; a name taken already is never
    // created, and the chance of its removal meanwhile is nil.
    Remember(*partial);
    if (CreateNewFile(*partial, &code)) return true;
    Forget(*partial);
    if (code != EEXIST) break;
  }
  const std::string folder = std::filesystem::path(path).parent_path().string();
  *error = "cannot create a file in the folder " + (folder.empty() ? std::string(".") : folder) + ": " +
           SystemText(code);
  partial->clear();
  return false;
}

bool PublishPartial(const std::string& partial, const std::string& path, std::string* error,
                    std::string* replaced) {
  std::error_code ec;
  // The file replaced is first moved aside under a partial name of its own:
  // removing a large file whose pages the system still caches takes tens of
  // milliseconds, which the new file need not wait for to take its name.
  std::string aside;
  if (replaced && std::filesystem::is_regular_file(path, ec)) {
    aside = PartialCandidate(path);
    Remember(aside);
    std::filesystem::rename(path, aside, ec);
    if (ec) {
      Forget(aside);
      aside.clear();
    }
  }
  // The filesystem library replaces an existing output on every system
  // (std::rename does not on Windows).
  std::filesystem::rename(partial, path, ec);
  Forget(partial);
  if (!ec) {
    if (replaced) *replaced = aside;
    return true;
  }
  *error = "cannot write " + path + ": " + ec.message();
  std::remove(partial.c_str());
  if (!aside.empty()) {
    std::error_code ignored;
    std::filesystem::rename(aside, path, ignored);
    Forget(aside);
  }
  return false;
}

void DiscardPartial(const std::string& partial) {
  if (partial.empty()) return;
  std::remove(partial.c_str());
  Forget(partial);
}

const char* PartialInFlight(int slot) {
  if (slot < 0 || slot >= kPartialSlots || !g_partialUsed[slot].load()) return nullptr;
  return g_partialNames[slot];
}

// The file being written: its sink over a partial file and its encoder.
struct OutputDocument::File {
  std::string path;
  std::string partial;
  FileSink sink;
  std::unique_ptr<DocumentEncoder> encoder;
  bool pageOpen = false;  // the encoder has a page begun
  ~File() { DiscardPartial(partial); }
};

namespace {

DocumentFormat EncoderFormat(int format) {
  constexpr DocumentFormat kFormats[] = {DocumentFormat::Png, DocumentFormat::Tiff, DocumentFormat::Pdf,
                                         DocumentFormat::Jpeg};
  return kFormats[format];
}

}  // namespace

OutputDocument::OutputDocument(std::string path, int jpegQuality)
    : path_(std::move(path)), quality_(jpegQuality) {
  tiffNamed_ = HasTiffExtension(path_);
  tiffPath_ = tiffNamed_ ? path_ : std::filesystem::path(path_).replace_extension(".tif").string();
  std::string ext = std::filesystem::path(path_).extension().string();
  for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  format_ = tiffNamed_ ? Format::Tiff
            : ext == ".pdf" ? Format::Pdf
            : (ext == ".jpg" || ext == ".jpeg") ? Format::Jpeg
                                                : Format::Png;
}

OutputDocument::~OutputDocument() { RemoveReplaced(); }

void OutputDocument::RemoveReplaced() {
  for (const std::string& name : replaced_) DiscardPartial(name);
  replaced_.clear();
}

// The first page takes the name itself, the next ones "<stem>-2.jpg" and on.
std::string OutputDocument::JpegPath(int page) const {
  if (page <= 1) return path_;
  std::filesystem::path p(path_);
  return (p.parent_path() / (p.stem().string() + "-" + std::to_string(page) + p.extension().string()))
      .string();
}

bool OutputDocument::Fail(const std::string& why) {
  if (!failed_) {
    const int code = file_ ? file_->sink.FailureCode() : 0;
    const std::string path = file_ ? file_->path : path_;
    error_ = file_ && code ? WriteFailure(path, code, file_->sink.Failure()) : why;
  }
  failed_ = true;
  open_ = false;
  file_.reset();  // its partial file goes with it
  return false;
}

bool OutputDocument::StartFile(const std::string& path, Format format) {
  auto file = std::make_unique<File>();
  file->path = path;
  std::string error;
  if (!CreatePartial(path, &file->partial, &error)) return Fail(error);
  if (!file->sink.Open(file->partial)) {
    const std::string why = "cannot create " + path + ": " + file->sink.Failure();
    return Fail(why);
  }
  file->encoder = MakeDocumentEncoder(EncoderFormat(static_cast<int>(format)), file->sink, quality_);
  file_ = std::move(file);
  return true;
}

// A second page for a PNG name: the finished PNG is read back into a TIFF
// beside it, line by line, and the new page follows there. The PNG stays
// until that page is complete: should the scan stop inside it, the document
// is the PNG again.
bool OutputDocument::TurnIntoTiff() {
  png_ = std::move(file_);
  if (!StartFile(tiffPath_, Format::Tiff)) return false;
  converted_ = true;
  std::string why;
  if (!file_->encoder->BeginPage(firstPage_, &why) || !CopyPngPage(png_->partial, firstPage_, *file_->encoder, &why) ||
      !file_->encoder->EndPage(&why))
    return Fail(file_->path + ": " + why);
  return true;
}

// The open page's first whole line: the page enters its file.
bool OutputDocument::StartPageInFile() {
  if (format_ == Format::Jpeg) {
    if (!StartFile(JpegPath(pagesDone_ + 1), Format::Jpeg)) return false;
  } else if (format_ == Format::Png && !tiffNamed_ && pagesDone_ == 1 && file_ &&
             file_->path == path_) {
    if (!TurnIntoTiff()) return false;
  } else if (!file_ && !StartFile(format_ == Format::Png && pagesDone_ > 0 ? tiffPath_ : path_, format_)) {
    return false;
  }
  std::string why;
  if (!file_->encoder->BeginPage(page_, &why)) return Fail(why);
  file_->pageOpen = inFile_ = true;
  return true;
}

bool OutputDocument::BeginPage(const PageFormat& format) {
  if (finished_ || failed_) {
    if (error_.empty()) error_ = "the document is already finished";
    return false;
  }
  if (!CheckPageFormat(format, &error_)) return false;
  DropPage();
  page_ = format;
  part_.clear();
  pageBytes_ = 0;
  pageLines_ = 0;
  open_ = true;
  inFile_ = false;
  return true;
}

bool OutputDocument::EncodeLines(const uint8_t* data, uint32_t lines) {
  if (!inFile_ && !StartPageInFile()) return false;
  std::string why;
  if (!file_->encoder->WriteLines(data, lines, &why)) return Fail(why);
  pageLines_ += lines;
  return true;
}

bool OutputDocument::Append(const uint8_t* data, size_t bytes) {
  if (failed_) return false;
  if (!open_ || !data) return true;
  const size_t take = static_cast<size_t>(std::min<uint64_t>(bytes, PageExpectedBytes() - pageBytes_));
  pageBytes_ += take;
  const size_t stride = page_.bytesPerLine;
  // A line split between blocks is completed first.
  if (!part_.empty()) {
    const size_t more = std::min(take, stride - part_.size());
    part_.insert(part_.end(), data, data + more);
    data += more;
    bytes = take - more;
    if (part_.size() < stride) return true;
    if (!EncodeLines(part_.data(), 1)) return false;
    part_.clear();
  } else {
    bytes = take;
  }
  const auto whole = static_cast<uint32_t>(bytes / stride);
  if (whole && !EncodeLines(data, whole)) return false;
  part_.assign(data + size_t{whole} * stride, data + bytes);
  return true;
}

bool OutputDocument::EndPage() {
  if (failed_) return false;
  if (!open_) return true;
  open_ = false;
  part_.clear();
  if (!inFile_) {
    ++pagesSkipped_;
    return true;
  }
  inFile_ = false;
  std::string why;
  file_->pageOpen = false;
  if (!file_->encoder->EndPage(&why)) return Fail(why);
  ++pagesDone_;
  png_.reset();
  if (format_ == Format::Png && pagesDone_ == 1 && !tiffNamed_) {
    // Kept until the scan ends or a second page turns it into a TIFF,
    // which reads it back: its bytes must all be in the file now.
    firstPage_ = page_;
    firstPage_.lines = pageLines_;
    firstPage_.bytesPerLine = PackedLineBytes(page_);
    if (!file_->encoder->Finish(&why)) return Fail(why);
    if (!file_->sink.Close()) return Fail("cannot write " + file_->path);
  }
  if (format_ == Format::Jpeg) return CloseFile(true);
  return true;
}

void OutputDocument::DropPage() {
  if (!open_) return;
  open_ = false;
  part_.clear();
  if (!inFile_) return;
  inFile_ = false;
  // A file of one page goes entirely; a document keeps its pages before.
  if (format_ == Format::Jpeg || (file_ && file_->path == path_ && format_ == Format::Png)) {
    file_.reset();
    return;
  }
  if (png_) {
    file_ = std::move(png_);
    converted_ = false;
    return;
  }
  std::string why;
  file_->pageOpen = false;
  if (!file_->encoder->AbandonPage(&why)) Fail(why);
}

bool OutputDocument::CloseFile(bool publish) {
  std::unique_ptr<File> file = std::move(file_);
  if (!file || !publish) return true;  // a file without pages goes unnamed
  std::string why;
  if (file->sink.IsOpen() && !file->encoder->Finish(&why)) {
    file_ = std::move(file);
    return Fail(why);
  }
  if (!file->sink.Close()) {
    file_ = std::move(file);
    return Fail("cannot write " + file_->path);
  }
  std::string error, replaced;
  const bool published = PublishPartial(file->partial, file->path, &error, &replaced);
  file->partial.clear();
  if (!replaced.empty()) replaced_.push_back(replaced);
  // Pages published during the scan leave nothing for later.
  if (!finished_) RemoveReplaced();
  return published || Fail(error);
}

bool OutputDocument::Finish() {
  if (finished_) return !failed_;
  finished_ = true;
  DropPage();
  if (failed_) return false;
  // Only a document with pages takes the output's name.
  return CloseFile(pagesDone_ > 0);
}

std::string OutputDocument::WrittenPath() const {
  if (pagesDone_ == 0) return "";
  if (format_ == Format::Pdf) return path_;
  // One file a page: the names read as a list ("a.jpg, a-2.jpg and a-3.jpg").
  if (format_ == Format::Jpeg) {
    if (pagesDone_ == 1) return path_;
    std::string between;
    if (pagesDone_ >= 3) between = ", " + JpegPath(2) + (pagesDone_ > 3 ? ", ..." : "");
    return path_ + between + " and " + JpegPath(pagesDone_);
  }
  // A PNG document holds one page; a second one turned it into a TIFF.
  return (tiffNamed_ || converted_) ? tiffPath_ : path_;
}

}  // namespace sx::host
