#include "documents/ImageWriter.h"

#include "documents/DocumentStream.h"
#include "documents/Encoders.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <filesystem>
#include <system_error>

namespace sx::host {
namespace {

uint32_t BitsPerPixel(PixelKind kind) {
  switch (kind) {
    case PixelKind::Lineart: return 1;
    case PixelKind::Gray: return 8;
    default: return 24;
  }
}

std::string Extension(const std::string& path) {
  std::string ext = std::filesystem::path(path).extension().string();
  for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return ext;
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

std::string WriteFailure(const std::string& path, int code, const std::string& why) {
  if (code == ENOSPC) return "no space left on device while writing " + path;
  return "cannot write " + path + ": " +
         (why.empty() && code ? std::error_code(code, std::generic_category()).message() : why);
}

std::string KeptPhrase(int pages, const std::string& paths) {
  if (pages == 0) return "no page was complete, so nothing is kept";
  return "the " + std::to_string(pages) + (pages == 1 ? " page scanned before it is" : " pages scanned before it are") +
         " kept in " + paths;
}

// The file being written: its sink over a partial file and its encoder.
struct OutputDocument::File {
  std::string path;
  std::string partial;  // empty once published
  FileSink sink;
  bool closedWhole = false;  // a PNG's page, finished and closed
  std::unique_ptr<DocumentEncoder> encoder;
  ~File() {
    encoder.reset();
    sink.Close();  // an open file cannot be removed everywhere
    DiscardPartial(partial);
  }
};

namespace {

DocumentFormat EncoderFormat(int format) {
  constexpr DocumentFormat kFormats[] = {DocumentFormat::Png, DocumentFormat::Tiff, DocumentFormat::Pdf,
                                         DocumentFormat::Jpeg};
  return kFormats[format];
}

}  // namespace

std::string TiffForPngName(const std::string& path) {
  const std::string ext = Extension(path);
  if (ext == ".tif" || ext == ".tiff" || ext == ".pdf" || ext == ".jpg" || ext == ".jpeg") return "";
  return std::filesystem::path(path).replace_extension(".tif").string();
}

OutputDocument::OutputDocument(std::string path, int jpegQuality)
    : path_(std::move(path)), quality_(jpegQuality) {
  const std::string ext = Extension(path_);
  tiffNamed_ = ext == ".tif" || ext == ".tiff";
  tiffPath_ = tiffNamed_ ? path_ : TiffForPngName(path_);
  format_ = tiffNamed_ ? Format::Tiff
            : ext == ".pdf" ? Format::Pdf
            : (ext == ".jpg" || ext == ".jpeg") ? Format::Jpeg
                                                : Format::Png;
  SetAtOnceNote("; " + KeptPhrase(0, ""));
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

// The file or files that hold `pages` pages.
std::string OutputDocument::PathsOf(int pages) const {
  if (pages == 0) return "";
  if (format_ == Format::Pdf) return path_;
  // One file a page: the names read as a list ("a.jpg, a-2.jpg and a-3.jpg").
  if (format_ == Format::Jpeg) {
    if (pages == 1) return path_;
    std::string between;
    if (pages >= 3) between = ", " + JpegPath(2) + (pages > 3 ? ", ..." : "");
    return path_ + between + " and " + JpegPath(pages);
  }
  // A PNG document holds one page; a second one turned it into a TIFF.
  return (tiffNamed_ || converted_) ? tiffPath_ : path_;
}

std::string OutputDocument::WrittenPath() const { return PathsOf(pagesDone_); }

std::string OutputDocument::KeptText() const {
  if (kept_ == 0 && pagesDone_ > 0)
    return "the " + std::to_string(pagesDone_) + " page" + (pagesDone_ == 1 ? "" : "s") +
           " scanned before it could not be kept either";
  return KeptPhrase(kept_, PathsOf(kept_));
}

// The file's boundary and the note change in one turn: an interrupt that
// ends the program at once keeps what the note says.
void OutputDocument::MarkWhole(const PageBoundary& boundary, int pages) {
  WriteTurn turn;
  if (file_ && !file_->partial.empty()) PartialWhole(file_->partial, boundary);
  // A format whole only once finished (the system's TIFF encoder) keeps nothing.
  SetAtOnceNote(boundary.length ? "; " + KeptPhrase(pages, PathsOf(pages))
                                : "; the pages scanned before it could not be kept");
}

bool OutputDocument::Fail(const std::string& why) {
  if (!failed_) {
    const int code = file_ ? file_->sink.FailureCode() : 0;
    const std::string path = file_ ? file_->path : path_;
    error_ = file_ && code ? WriteFailure(path, code, file_->sink.Failure()) : why;
  }
  failed_ = true;
  open_ = false;
  KeepWholePages();
  return false;
}

// After a failure: the pages complete before it are kept, the page being
// written goes.
void OutputDocument::KeepWholePages() {
  inFile_ = false;
  if (png_) {  // the TIFF had not yet a page of its own: the document is the PNG
    file_ = std::move(png_);
    converted_ = false;
  }
  if (!file_ || file_->partial.empty() || format_ == Format::Jpeg) {
    file_.reset();  // a JPEG batch's pages are under their names already
    return;
  }
  std::string why;
  // A PNG's page is whole once its file is closed; a TIFF or PDF at its boundary.
  const bool whole = file_->closedWhole || (file_->encoder->KeepWholePages(&why) && file_->sink.Close());
  if (whole && Publish(&why)) return;
  file_.reset();
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
  inFile_ = true;
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
  if (!file_->encoder->EndPage(&why)) return Fail(why);
  ++pagesDone_;
  if (format_ == Format::Jpeg) return CloseFile();
  if (format_ == Format::Png && pagesDone_ == 1 && !tiffNamed_) {
    // Kept until the scan ends or a second page turns it into a TIFF,
    // which reads it back: its bytes must all be in the file now.
    firstPage_ = page_;
    firstPage_.lines = pageLines_;
    firstPage_.bytesPerLine = PackedLineBytes(page_);
    if (!file_->encoder->Finish(&why)) return Fail(why);
    if (!file_->sink.Close()) return Fail("cannot write " + file_->path);
    file_->closedWhole = true;
    MarkWhole({file_->sink.Size()}, pagesDone_);
    return true;
  }
  // A TIFF or PDF is whole at the page's end.
  WriteTurn turn;
  MarkWhole(file_->encoder->Boundary(), pagesDone_);
  png_.reset();  // the TIFF holds the PNG's page now
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
  if (!file_->encoder->AbandonPage(&why)) Fail(why);
}

// Completes the open file and gives it its name.
bool OutputDocument::CloseFile() {
  std::string why;
  if (file_->sink.IsOpen()) {
    if (!file_->encoder->Finish(&why)) return Fail(why);
    if (!file_->sink.Close()) return Fail("cannot write " + file_->path);
    if (format_ == Format::Jpeg) MarkWhole({file_->sink.Size()}, kept_ + 1);
  }
  return Publish(&why) || Fail(why);
}

// The whole, closed file takes its name: what it holds is kept.
bool OutputDocument::Publish(std::string* error) {
  WriteTurn turn;
  std::string replaced;
  const bool published = PublishPartial(file_->partial, file_->path, error, &replaced);
  file_->partial.clear();
  if (!replaced.empty()) replaced_.push_back(replaced);
  if (!published) return false;
  file_.reset();
  kept_ = format_ == Format::Jpeg ? kept_ + 1 : pagesDone_;
  // Pages published during the scan leave nothing for later.
  if (!finished_) RemoveReplaced();
  if (format_ == Format::Jpeg) SetAtOnceNote("; " + KeptPhrase(kept_, PathsOf(kept_)));
  return true;
}

// An earlier batch of more pages under the same JPEG name: its further
// pages would read as this batch's.
void OutputDocument::RemoveStalePages() {
  if (format_ != Format::Jpeg || kept_ == 0) return;
  std::error_code ec;
  for (int page = kept_ + 1; std::filesystem::is_regular_file(JpegPath(page), ec); ++page) {
    if (!std::filesystem::remove(JpegPath(page), ec)) break;
    stale_.push_back(JpegPath(page));
  }
}

bool OutputDocument::Finish() {
  if (finished_) return !failed_;
  finished_ = true;
  DropPage();
  // Only a document with pages takes the output's name.
  if (!failed_ && file_) {
    if (pagesDone_ > 0)
      CloseFile();
    else
      file_.reset();
  }
  RemoveStalePages();
  return !failed_;
}

}  // namespace sx::host
