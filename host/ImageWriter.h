// Image files for scanned pages: PNG for one page, multi-page TIFF for a
// stack of feeder pages, line art as 1 bit per pixel. Design note: pixel
// bytes are written as the library delivers them, never reinterpreted; line
// art included, whose 0 bits are black as in the grey scale (PNG's only
// reading, and TIFF's min-is-black).
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

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

// Whether the file formats can hold a page of this format; the reason if not.
bool CheckPageFormat(const PageFormat& format, std::string* error);

struct PageImage {
  PageFormat format;
  std::vector<uint8_t> raster;  // delivered bytes; only whole lines are written
  uint32_t Lines() const {
    return format.bytesPerLine ? static_cast<uint32_t>(raster.size() / format.bytesPerLine) : 0;
  }
};

// A file is written under a name of its own until it is complete: a hidden
// ".<name>.<random>.part" beside the output, so an interrupted write never
// leaves a partial file under the output's name, and two programs writing the
// same output never share a partial file (the last to finish replaces the
// output whole). CreatePartial makes the empty file (one system call per
// system, ImageFormats*.cpp) and records it for RemovePartialFilesNow;
// PublishPartial renames it to the output, DiscardPartial removes it.
bool CreatePartial(const std::string& path, std::string* partial, std::string* error);
bool PublishPartial(const std::string& partial, const std::string& path, std::string* error);
void DiscardPartial(const std::string& partial);
// Opens a partial file, lets `encode` write it (false with a message on
// failure), closes it and gives it the output's name; on any failure the
// partial file is removed and `error` says why.
bool WriteThroughPartial(const std::string& path, std::string* error,
                         const std::function<bool(std::FILE*, std::string*)>& encode);
// The message for a write that failed with the system's error `code` (0 when
// unknown) and the codec's own words `why`: a full disk reads the same for
// every format.
std::string WriteFailure(const std::string& path, int code, const std::string& why);

// Creates `name` as a new empty file, failing if it exists; `code` is the
// system's error then (errno values). One per system, ImageFormats*.cpp.
bool CreateNewFile(const std::string& name, int* code);

// The partial files being written, for an interrupt that ends the program at
// once: slot i's name or nullptr. Safe to call in a signal handler.
constexpr int kPartialSlots = 4;
const char* PartialInFlight(int slot);

// Whether this build can write the format the output's name asks for; the
// reason when not. Asked before a scan, so that no page is scanned in vain.
bool OutputFormatAvailable(const std::string& path, std::string* error);

bool WritePng(const std::string& path, const PageImage& page, std::string* error);
// A baseline JPEG of the page (line art becomes gray), at quality 1..100.
bool WriteJpeg(const std::string& path, const PageImage& page, int quality, std::string* error);

// A PDF document that takes one page after another, each image sized from
// its resolution; written (compressed) when Close is called.
class PdfWriter {
 public:
  PdfWriter() = default;
  ~PdfWriter();
  PdfWriter(const PdfWriter&) = delete;
  PdfWriter& operator=(const PdfWriter&) = delete;

  bool AppendPage(const PageImage& page, std::string* error);
  // Writes the document as a partial file and renames it to `path`.
  bool Close(const std::string& path, std::string* error);
  int Pages() const { return pages_; }

 private:
  void* doc_ = nullptr;  // HPDF_Doc
  int pages_ = 0;
};

// A TIFF file that takes one page after another; each page is complete in the
// file once AppendPage returns.
class TiffWriter {
 public:
  TiffWriter() = default;
  ~TiffWriter();
  TiffWriter(const TiffWriter&) = delete;
  TiffWriter& operator=(const TiffWriter&) = delete;

  // The file is written as a partial file beside the output and takes the
  // output's name only when Close completes it.
  bool Open(const std::string& path, std::string* error);
  bool AppendPage(const PageImage& page, std::string* error);
  bool Close(std::string* error);
  bool IsOpen() const { return file_ != nullptr; }

 private:
  std::string path_;
  std::string partial_;
  void* file_ = nullptr;  // TIFF*
  uint16_t pages_ = 0;
};

// The output of one scan. A .tif/.tiff name gets every page as it completes.
// Design note: a feeder may deliver any number of pages, known only as they
// come, so a .png name gets its page when the scan ends with one page; when
// a second page arrives, the document becomes a multi-page TIFF beside it
// (the name with .tif), holding every page, and no PNG is written.
class OutputDocument {
 public:
  explicit OutputDocument(std::string path, int jpegQuality = 85);

  // Pages larger than this are refused: a page is held in memory until it
  // is complete.
  static constexpr uint64_t kMaxPageBytes = 1ull << 30;

  bool BeginPage(const PageFormat& format);
  // Adds delivered bytes to the open page; bytes past the announced page are
  // dropped. Returns the bytes kept.
  size_t Append(const uint8_t* data, size_t bytes);
  // The page is complete: written (TIFF) or kept until Finish (PNG).
  bool EndPage();
  // Forgets an unfinished page (the scan stopped inside it).
  void DropPage();
  // Writes what is still kept and closes the file. Idempotent.
  bool Finish();

  bool PageOpen() const { return open_; }
  uint64_t PageBytes() const { return current_.raster.size(); }
  uint64_t PageExpectedBytes() const {
    return uint64_t{current_.format.lines} * current_.format.bytesPerLine;
  }
  int PagesDone() const { return pagesDone_; }
  int PagesSkipped() const { return pagesSkipped_; }
  // The file written (or to be written); empty before the first page is done.
  std::string WrittenPath() const;
  const std::string& Error() const { return error_; }

 private:
  bool WriteTiffPage(const PageImage& page);

  enum class Format { Png, Tiff, Pdf, Jpeg };
  std::string JpegPath(int page) const;

  std::string path_;
  std::string tiffPath_;
  bool tiffNamed_ = false;
  Format format_ = Format::Png;
  int quality_ = 85;
  TiffWriter tiff_;
  PdfWriter pdf_;
  std::optional<PageImage> kept_;
  PageImage current_;
  bool open_ = false;
  bool finished_ = false;
  int pagesDone_ = 0;
  int pagesSkipped_ = 0;
  std::string error_;
};

}  // namespace sx::host
