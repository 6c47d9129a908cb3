// Image files for scanned pages: PNG for one page, multi-page TIFF for a
// stack of feeder pages, JPEG one file a page, PDF any number of pages; line
// art as 1 bit per pixel. Design note: pixel bytes are written as the library
// delivers them, never reinterpreted; line art included, whose 0 bits are
// black as in the grey scale (PNG's only reading, and TIFF's min-is-black).
// Pages are encoded line by line as they arrive (DocumentStream.h): no page
// is ever held whole.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "documents/PartialFiles.h"

namespace sx::host {

enum class PixelKind : uint8_t { Lineart, Gray, Rgb };

struct PageFormat {
  PixelKind kind = PixelKind::Gray;
  uint32_t width = 0;         // pixels per line written to the file
  uint32_t lines = 0;         // lines announced for the page
  uint32_t bytesPerLine = 0;  // stride of the delivered raster
  uint32_t xdpi = 0;          // 0: unknown
  uint32_t ydpi = 0;
};

// A TIFF addresses its bytes with 32 bits: a page and the pages beside it
// must fit in 4 GiB, so no one page may take more than half of that.
constexpr uint64_t kMaxPageBytes = 1ull << 31;

// Whether the file formats can hold a page of this format; the reason if not.
bool CheckPageFormat(const PageFormat& format, std::string* error);


// The message for a write that failed with the system's error `code` (0 when
// unknown) and the codec's own words `why`: a full disk reads the same for
// every format.
std::string WriteFailure(const std::string& path, int code, const std::string& why);

// What an unfinished document kept, as a message goes on after what ended it
// ("scan cancelled; ..."): "the 2 pages scanned before it are kept in b.tif",
// or that no page was complete and nothing is kept.
std::string KeptPhrase(int pages, const std::string& paths);

// The multi-page TIFF a PNG name becomes when a second page comes ("a.png":
// "a.tif"); empty for a name of another format.
std::string TiffForPngName(const std::string& path);

class ByteSink;
class DocumentEncoder;
class FileSink;

// The output of one scan, written as the lines arrive. A .tif/.tiff name gets
// every page in one file, as does a .pdf name; a .jpg name gets a file a page
// ("a.jpg", "a-2.jpg", ...). Design note: a feeder may deliver any number of
// pages, known only as they come, so a .png name gets its page when the scan
// ends with one page; when a second page arrives, the document becomes a
// multi-page TIFF beside it (the name with .tif), holding every page (the
// first read back from its finished PNG), and no PNG is written. Every file is
// written as a partial file and takes its name only when complete.
//
// A document that cannot be finished (the scan stopped inside a page, a write
// failed, a second interrupt: PartialFiles.h) keeps the pages complete before
// it, as a valid document: a TIFF or PDF cut back to its last page, the files
// of a JPEG batch written so far, a PNG's one page. The page being written is
// never kept. A JPEG batch that keeps fewer pages than an earlier one of the
// same name removes the earlier one's further pages ("a-3.jpg" when "a.jpg"
// and "a-2.jpg" were written), so the names hold one batch.
// Thread contract: one thread at a time (the scan's encoder thread).
class OutputDocument {
 public:
  explicit OutputDocument(std::string path, int jpegQuality = 85);
  ~OutputDocument();
  OutputDocument(const OutputDocument&) = delete;
  OutputDocument& operator=(const OutputDocument&) = delete;

  bool BeginPage(const PageFormat& format);
  // Adds delivered bytes to the open page: whole lines are encoded at once,
  // a part of a line waits for the rest; bytes past the announced page are
  // dropped. False when the page cannot be written (Error says why, and the
  // pages complete before it are kept).
  bool Append(const uint8_t* data, size_t bytes);
  // The page is complete; a page shorter than announced is recorded at its
  // true length, one without a whole line is left out (PagesSkipped).
  bool EndPage();
  // Leaves an unfinished page out (the scan stopped inside it).
  void DropPage();
  // Completes the files and gives them their names; after a failure, false.
  // Idempotent.
  bool Finish();
  // Removes the files the document's replaced (moved aside as they were
  // replaced, so that Finish need not wait for their removal). Also done
  // when the document is destroyed.
  void RemoveReplaced();

  bool PageOpen() const { return open_; }
  uint64_t PageBytes() const { return pageBytes_; }
  uint64_t PageExpectedBytes() const { return uint64_t{page_.lines} * page_.bytesPerLine; }
  int PagesDone() const { return pagesDone_; }
  int PagesSkipped() const { return pagesSkipped_; }
  // The pages under their names once the document has ended.
  int PagesKept() const { return kept_; }
  // The file written (or to be written); empty before the first page is done.
  std::string WrittenPath() const;
  // What the document kept, for a message about a scan that did not end
  // well (KeptPhrase).
  std::string KeptText() const;
  // The earlier batch's pages the document removed (see above).
  const std::vector<std::string>& StaleRemoved() const { return stale_; }
  const std::string& Error() const { return error_; }

 private:
  enum class Format { Png, Tiff, Pdf, Jpeg };
  struct File;
  std::string JpegPath(int page) const;
  std::string PathsOf(int pages) const;
  bool StartFile(const std::string& path, Format format);
  bool StartPageInFile();
  bool TurnIntoTiff();
  bool CloseFile();
  bool Publish(std::string* error);
  void MarkWhole(const PageBoundary& boundary, int pages);
  bool Fail(const std::string& why);
  void KeepWholePages();
  void RemoveStalePages();
  bool EncodeLines(const uint8_t* data, uint32_t lines);

  std::string path_;
  std::string tiffPath_;
  bool tiffNamed_ = false;
  Format format_ = Format::Png;
  int quality_ = 85;
  std::unique_ptr<File> file_;
  std::unique_ptr<File> png_;  // a PNG turned into a TIFF, until the TIFF's second page is complete
  PageFormat page_;            // of the open page
  PageFormat firstPage_;       // a PNG's page, as stored, for its move into a TIFF
  std::vector<uint8_t> part_;  // the start of a line whose rest has not come
  std::vector<std::string> replaced_;  // earlier outputs moved aside, to remove
  std::vector<std::string> stale_;     // an earlier JPEG batch's pages, removed
  uint64_t pageBytes_ = 0;
  uint32_t pageLines_ = 0;
  bool open_ = false;
  bool inFile_ = false;  // the open page has reached the encoder
  bool converted_ = false;  // a PNG name's pages went into a TIFF
  bool finished_ = false;
  bool failed_ = false;
  int pagesDone_ = 0;
  int pagesSkipped_ = 0;
  int kept_ = 0;  // pages under their names (a JPEG batch's as they are published)
  std::string error_;
};

}  // namespace sx::host
