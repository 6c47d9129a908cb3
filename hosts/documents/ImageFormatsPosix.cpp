// The document encoders on the libraries of the system: JPEG line by line
// through libjpeg (a destination manager on the sink), multi-page TIFF strip
// by strip through libtiff (client procedures on the sink), PNG and PDF on
// zlib (ZlibEncoders.cpp). Line art (1 bit per pixel) stays at 1 bit in PNG,
// TIFF and PDF and is spread to gray in JPEG.
//
// Design note, JPEG pages that end early: on a file the encoder puts a
// restart marker before every row of blocks. When the page ends, the rows
// up to the one after the last delivered line are completed with white;
// the file is then cut at the marker that opens that following row, ended,
// and its frame header given the delivered height. Every byte left belongs
// to a delivered row, and the decoder reads exactly the delivered lines. On
// a stream that cannot be cut, the page is padded white to the announced
// height, which its header already says.
#include <png.h>
#include <tiffio.h>

#include <cstdio>  // jpeglib.h needs FILE declared first
#include <jpeglib.h>

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstdarg>
#include <cstring>
#include <vector>

#include "documents/Encoders.h"
#include "documents/ImageWriter.h"

namespace sx::host {
namespace {

// ---- JPEG ----

constexpr size_t kJpegBufferBytes = 64 * 1024;
constexpr uint8_t kMarker = 0xFF, kSoi = 0xD8, kEoi = 0xD9, kSos = 0xDA, kRst0 = 0xD0, kRst7 = 0xD7;
// Frame headers (baseline, extended, progressive); the height follows the
// marker, length and precision.
constexpr size_t kFrameHeightAt = 5;

// One line as 8-bit samples: line art bits (0 = black) become 0 or 255.
void GrayLine(const PageFormat& f, const uint8_t* row, uint8_t* out) {
  for (uint32_t x = 0; x < f.width; ++x) out[x] = (row[x / 8] >> (7 - x % 8)) & 1 ? 255 : 0;
}

class JpegEncoder;

// Everything libjpeg touches, as plain data: an error leaves by longjmp,
// which must not skip destructors.
struct JpegContext {
  jpeg_compress_struct jpeg;
  jpeg_error_mgr errors;
  jpeg_destination_mgr destination;
  std::jmp_buf jump;
  char message[JMSG_LENGTH_MAX];
  JpegEncoder* owner;
  bool created;
};

// Follows the file's marker structure as it is written: where the frame
// header is, and where the last restart marker of the coded data begins.
class JpegMarkerScan {
 public:
  void Feed(const uint8_t* data, size_t bytes, uint64_t at);
  uint64_t frameHeader = 0;   // offset of the frame header's marker; 0: none yet
  uint64_t lastRestart = 0;   // offset of the last restart marker; 0: none yet

 private:
  enum class State { Marker, Code, Length1, Length2, Segment, Coded, CodedMarker };
  State state_ = State::Marker;
  uint8_t code_ = 0;
  uint32_t left_ = 0;
  uint64_t markerAt_ = 0;
};

void JpegMarkerScan::Feed(const uint8_t* data, size_t bytes, uint64_t at) {
  for (size_t i = 0; i < bytes; ++i) {
    const uint8_t b = data[i];
    switch (state_) {
      case State::Marker:
        if (b == kMarker) state_ = State::Code, markerAt_ = at + i;
        break;
      case State::Code:
        code_ = b;
        if (b == kMarker) break;  // fill byte
        state_ = b == kSoi || b == kEoi ? State::Marker : State::Length1;
        if ((b >= 0xC0 && b <= 0xC2) && frameHeader == 0) frameHeader = markerAt_;
        break;
      case State::Length1:
        left_ = uint32_t{b} << 8;
        state_ = State::Length2;
        break;
      case State::Length2:
        left_ |= b;
        left_ = left_ >= 2 ? left_ - 2 : 0;
        state_ = left_ ? State::Segment : code_ == kSos ? State::Coded : State::Marker;
        break;
      case State::Segment:
        if (--left_ == 0) state_ = code_ == kSos ? State::Coded : State::Marker;
        break;
      case State::Coded:
        if (b == kMarker) state_ = State::CodedMarker, markerAt_ = at + i;
        break;
      case State::CodedMarker:
        if (b >= kRst0 && b <= kRst7) lastRestart = markerAt_;
        state_ = b == kMarker ? State::CodedMarker : b == kEoi ? State::Marker : State::Coded;
        break;
    }
  }
}

class JpegEncoder final : public PageEncoder {
 public:
  JpegEncoder(ByteSink& sink, int quality) : PageEncoder(sink, true), quality_(quality) {
    context_ = {};
    context_.owner = this;
  }
  ~JpegEncoder() override {
    if (context_.created) jpeg_destroy_compress(&context_.jpeg);
  }

  // The destination's bytes reach the sink; false when the sink fails.
  bool Emit(const uint8_t* data, size_t bytes) {
    if (cuttable_) scan_.Feed(data, bytes, offset_);
    return Put(data, bytes, &sinkError_);
  }
  std::vector<uint8_t> buffer_;
  std::string sinkError_;

 private:
  bool OnBeginPage(std::string* error) override;
  bool OnLines(const uint8_t* data, uint32_t lines, std::string* error) override;
  bool OnEndPage(uint32_t lines, std::string* error) override;
  bool OnFinish(std::string*) override { return true; }
  bool Failure(std::string* error) {
    *error = sinkError_.empty() ? context_.message : sinkError_;
    return false;
  }
  bool CutAfter(uint32_t lines, std::string* error);

  JpegContext context_;
  JpegMarkerScan scan_;
  std::vector<uint8_t> gray_;
  int quality_;
  bool cuttable_ = false;
};

extern "C" void OnJpegError(j_common_ptr info) {
  auto* context = static_cast<JpegContext*>(info->client_data);
  (*info->err->format_message)(info, context->message);
  std::longjmp(context->jump, 1);
}

extern "C" void OnJpegStart(j_compress_ptr jpeg) {
  auto* context = static_cast<JpegContext*>(jpeg->client_data);
  context->destination.next_output_byte = context->owner->buffer_.data();
  context->destination.free_in_buffer = context->owner->buffer_.size();
}

extern "C" boolean OnJpegFull(j_compress_ptr jpeg) {
  auto* context = static_cast<JpegContext*>(jpeg->client_data);
  if (!context->owner->Emit(context->owner->buffer_.data(), context->owner->buffer_.size()))
    std::longjmp(context->jump, 1);
  OnJpegStart(jpeg);
  return TRUE;
}

// The bytes still in the buffer; called by libjpeg at the end of the image
// and by the encoder before it cuts the file.
bool FlushJpeg(JpegContext* context) {
  const size_t used = context->owner->buffer_.size() - context->destination.free_in_buffer;
  if (used && !context->owner->Emit(context->owner->buffer_.data(), used)) return false;
  context->destination.next_output_byte = context->owner->buffer_.data();
  context->destination.free_in_buffer = context->owner->buffer_.size();
  return true;
}

extern "C" void OnJpegEnd(j_compress_ptr jpeg) {
  auto* context = static_cast<JpegContext*>(jpeg->client_data);
  if (!FlushJpeg(context)) std::longjmp(context->jump, 1);
}

bool StartJpeg(JpegContext* c, const PageFormat& f, int quality, bool restarts) {
  if (setjmp(c->jump)) return false;
  c->jpeg.err = jpeg_std_error(&c->errors);
  c->errors.error_exit = OnJpegError;
  jpeg_create_compress(&c->jpeg);
  c->created = true;
  c->jpeg.client_data = c;
  c->destination.init_destination = OnJpegStart;
  c->destination.empty_output_buffer = OnJpegFull;
  c->destination.term_destination = OnJpegEnd;
  c->jpeg.dest = &c->destination;
  c->jpeg.image_width = f.width;
  c->jpeg.image_height = f.lines;
  c->jpeg.input_components = f.kind == PixelKind::Rgb ? 3 : 1;
  c->jpeg.in_color_space = f.kind == PixelKind::Rgb ? JCS_RGB : JCS_GRAYSCALE;
  jpeg_set_defaults(&c->jpeg);
  jpeg_set_quality(&c->jpeg, quality, TRUE);
  c->jpeg.density_unit = 1;  // dots per inch
  c->jpeg.X_density = static_cast<UINT16>(f.xdpi);
  c->jpeg.Y_density = static_cast<UINT16>(f.ydpi);
  if (restarts) c->jpeg.restart_in_rows = 1;
  jpeg_start_compress(&c->jpeg, TRUE);
  return true;
}

// The destination never suspends, so every line is taken in one call.
bool WriteJpegLines(JpegContext* c, uint8_t* const* rows, uint32_t count) {
  if (setjmp(c->jump)) return false;
  return jpeg_write_scanlines(&c->jpeg, const_cast<JSAMPARRAY>(rows), count) == count;
}

bool FinishJpeg(JpegContext* c) {
  if (setjmp(c->jump)) return false;
  jpeg_finish_compress(&c->jpeg);
  return true;
}

bool JpegEncoder::OnBeginPage(std::string* error) {
  buffer_.resize(kJpegBufferBytes);
  cuttable_ = sink_.CanRewrite();
  white_ = WhiteLine(format_);
  if (format_.kind == PixelKind::Lineart) gray_.resize(format_.width);
  if (!StartJpeg(&context_, format_, quality_, cuttable_)) return Failure(error);
  return true;
}

bool JpegEncoder::OnLines(const uint8_t* data, uint32_t lines, std::string* error) {
  constexpr uint32_t kRowsPerCall = 16;
  uint8_t* rows[kRowsPerCall];
  for (uint32_t y = 0; y < lines;) {
    const uint32_t n = format_.kind == PixelKind::Lineart ? 1 : std::min(kRowsPerCall, lines - y);
    for (uint32_t i = 0; i < n; ++i) rows[i] = const_cast<uint8_t*>(data + size_t{y + i} * format_.bytesPerLine);
    if (format_.kind == PixelKind::Lineart) {
      GrayLine(format_, rows[0], gray_.data());
      rows[0] = gray_.data();
    }
    if (!WriteJpegLines(&context_, rows, n)) return Failure(error);
    y += n;
  }
  return true;
}

bool JpegEncoder::OnEndPage(uint32_t lines, std::string* error) {
  if (lines < format_.lines && cuttable_) return CutAfter(lines, error);
  for (uint32_t y = lines; y < format_.lines; ++y) {
    if (!OnLines(white_.data(), 1, error)) return false;
  }
  return FinishJpeg(&context_) || Failure(error);
}

// Ends the file after the row of blocks holding line `lines - 1` (see the
// design note above).
bool JpegEncoder::CutAfter(uint32_t lines, std::string* error) {
  const uint32_t rowHeight = static_cast<uint32_t>(context_.jpeg.max_v_samp_factor) * DCTSIZE;
  const uint32_t rows = (format_.lines + rowHeight - 1) / rowHeight;
  const uint32_t lastRow = (lines - 1) / rowHeight;
  // In the last row, padding it is exact: the header's height cuts it.
  const bool cut = lastRow + 1 < rows;
  const uint32_t padTo = cut ? std::min(format_.lines, (lastRow + 2) * rowHeight) : format_.lines;
  for (uint32_t y = lines; y < padTo; ++y) {
    if (!OnLines(white_.data(), 1, error)) return false;
  }
  if (cut) {
    if (!FlushJpeg(&context_)) return Failure(error);
    jpeg_abort_compress(&context_.jpeg);
    const uint8_t end[2] = {kMarker, kEoi};
    if (scan_.lastRestart == 0 || !sink_.Truncate(scan_.lastRestart)) return SinkFailed(error);
    offset_ = scan_.lastRestart;
    if (!Put(end, sizeof end, error)) return false;
  } else if (!FinishJpeg(&context_)) {
    return Failure(error);
  }
  const uint8_t height[2] = {static_cast<uint8_t>(lines >> 8), static_cast<uint8_t>(lines)};
  if (scan_.frameHeader == 0 || !sink_.Rewrite(scan_.frameHeader + kFrameHeightAt, height, sizeof height))
    return SinkFailed(error);
  return true;
}

// ---- TIFF ----

// libtiff reports through process-wide handlers; each encoder thread keeps
// its own message.
thread_local char t_tiffMessage[256];

void OnTiffError(const char* module, const char* format, va_list args) {
  char text[200];
  std::vsnprintf(text, sizeof text, format, args);
  if (t_tiffMessage[0]) return;  // the first error is the cause
  std::snprintf(t_tiffMessage, sizeof t_tiffMessage, "%s%s%s", module ? module : "", module ? ": " : "", text);
}

class TiffEncoder;
tsize_t TiffRead(thandle_t, tdata_t, tsize_t);
tsize_t TiffWrite(thandle_t, tdata_t, tsize_t);
toff_t TiffSeek(thandle_t, toff_t, int);
int TiffClose(thandle_t) { return 0; }
toff_t TiffSize(thandle_t);
int TiffMap(thandle_t, tdata_t*, toff_t*) { return 0; }
void TiffUnmap(thandle_t, tdata_t, toff_t) {}

// A TIFF's numbers, in the byte order its header names.
struct TiffOrder {
  bool big = false;
  uint32_t Get(const uint8_t* p, int bytes) const {
    uint32_t v = 0;
    for (int i = 0; i < bytes; ++i) v |= uint32_t{p[big ? bytes - 1 - i : i]} << (8 * i);
    return v;
  }
  void Put16(uint8_t* p, uint16_t v) const {
    p[big ? 1 : 0] = static_cast<uint8_t>(v), p[big ? 0 : 1] = static_cast<uint8_t>(v >> 8);
  }
};

constexpr size_t kTiffEntryBytes = 12;
constexpr uint64_t kFirstLink = 4;  // the header's link to the first directory

bool ReadTiffOrder(ByteSink& sink, TiffOrder* order) {
  uint8_t header[2];
  if (!sink.Read(0, header, sizeof header)) return false;
  order->big = header[0] == 'M';
  return true;
}

// The directory the link at `link` points to and the link that ends it; false
// when the chain cannot be read or ends there.
bool FollowTiffLink(ByteSink& sink, const TiffOrder& order, uint64_t link, uint64_t* directory, uint16_t* entries,
                    uint64_t* next) {
  uint8_t word[4], count[2];
  if (!sink.Read(link, word, sizeof word)) return false;
  *directory = order.Get(word, 4);
  if (*directory == 0 || !sink.Read(*directory, count, sizeof count)) return false;
  *entries = static_cast<uint16_t>(order.Get(count, 2));
  *next = *directory + 2 + kTiffEntryBytes * *entries;
  return true;
}

// Each page learns the document's page count once the last one is written:
// "page n of total" for a reader, which the pages could not tell at the time
// (until then the total reads 0, "unknown", as in a document cut back to a
// page's end). Both numbers fit in the directory entry itself, so they are
// patched in place, one read and one write a page: rewriting the directories
// through libtiff reads the whole chain again for every page, a tenth of a
// second at the end of a twenty-page document.
bool NumberTiffPages(ByteSink& sink, uint16_t pages) {
  constexpr uint16_t kPageNumber = 297;
  constexpr size_t kValueAt = 8;
  TiffOrder order;
  if (!ReadTiffOrder(sink, &order)) return false;
  uint64_t link = kFirstLink;
  std::vector<uint8_t> entries;
  for (uint16_t page = 0; page < pages; ++page) {
    uint64_t at = 0, next = 0;
    uint16_t count = 0;
    if (!FollowTiffLink(sink, order, link, &at, &count, &next)) return false;
    entries.resize(kTiffEntryBytes * count);
    if (!sink.Read(at + 2, entries.data(), entries.size())) return false;
    for (size_t e = 0; e < entries.size(); e += kTiffEntryBytes) {
      if (order.Get(&entries[e], 2) != kPageNumber) continue;
      uint8_t value[4];
      order.Put16(value, page), order.Put16(value + 2, pages);
      if (!sink.Rewrite(at + 2 + e + kValueAt, value, sizeof value)) return false;
    }
    link = next;
  }
  return true;
}

class TiffEncoder final : public PageEncoder {
 public:
  explicit TiffEncoder(ByteSink& sink) : PageEncoder(sink, false) {}
  ~TiffEncoder() override { Seal(); }

  // The client procedures: libtiff appends, and rewrites its directory links.
  tsize_t Read(void* data, tsize_t bytes) {
    const uint64_t n = std::min<uint64_t>(static_cast<uint64_t>(bytes), offset_ > position_ ? offset_ - position_ : 0);
    if (n && !sink_.Read(position_, data, n)) return SinkError();
    position_ += n;
    return static_cast<tsize_t>(n);
  }
  tsize_t Write(const void* data, tsize_t bytes) {
    if (sealed_) return -1;
    const auto* p = static_cast<const uint8_t*>(data);
    uint64_t n = static_cast<uint64_t>(bytes);
    std::string ignored;
    while (position_ > offset_) {  // a gap past the end reads as zeros
      const uint8_t zero = 0;
      if (!Put(&zero, 1, &ignored)) return SinkError();
    }
    const uint64_t over = std::min(n, offset_ - position_);
    if (over && !sink_.Rewrite(position_, p, over)) return SinkError();
    if (n > over && !Put(p + over, n - over, &ignored)) return SinkError();
    position_ += n;
    return bytes;
  }
  toff_t Seek(toff_t to, int whence) {
    position_ = whence == SEEK_SET ? to : whence == SEEK_CUR ? position_ + to : offset_ + to;
    return position_;
  }
  toff_t Size() const { return offset_; }

 private:
  tsize_t SinkError() {
    sinkFailed_ = true;
    return -1;
  }
  bool Failure(const char* what, std::string* error) {
    if (sinkFailed_) return SinkFailed(error);
    *error = std::string(what) + (t_tiffMessage[0] ? std::string(": ") + t_tiffMessage : std::string());
    return false;
  }

  // libtiff is let go of without a byte more: every page's directory is
  // written, and what it holds of a page left unfinished is not to be.
  void Seal() {
    sealed_ = true;
    if (tif_) TIFFCleanup(tif_);
    tif_ = nullptr;
  }

  bool OnBeginPage(std::string* error) override {
    if (sealed_) {
      *error = "no page may follow one left unfinished";
      return false;
    }
    t_tiffMessage[0] = '\0';
    TIFFSetErrorHandler(OnTiffError);
    TIFFSetWarningHandler(nullptr);
    if (!tif_) {
      if (!sink_.CanRewrite()) {
        *error = "a TIFF document needs a file";
        return false;
      }
      tif_ = TIFFClientOpen("scan", "w", this, TiffRead, TiffWrite, TiffSeek, TiffClose, TiffSize, TiffMap, TiffUnmap);
      if (!tif_) return Failure("cannot start the TIFF file", error);
      pageOffset_ = offset_;
    }
    const PageFormat& f = format_;
    const bool rgb = f.kind == PixelKind::Rgb;
    TIFFSetField(tif_, TIFFTAG_SUBFILETYPE, FILETYPE_PAGE);
    TIFFSetField(tif_, TIFFTAG_IMAGEWIDTH, f.width);
    TIFFSetField(tif_, TIFFTAG_IMAGELENGTH, f.lines);
    TIFFSetField(tif_, TIFFTAG_BITSPERSAMPLE, f.kind == PixelKind::Lineart ? 1 : 8);
    TIFFSetField(tif_, TIFFTAG_SAMPLESPERPIXEL, rgb ? 3 : 1);
    TIFFSetField(tif_, TIFFTAG_PHOTOMETRIC, rgb ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK);
    TIFFSetField(tif_, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tif_, TIFFTAG_COMPRESSION, COMPRESSION_LZW);
    TIFFSetField(tif_, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(tif_, 0));
    TIFFSetField(tif_, TIFFTAG_PAGENUMBER, pages_, 0);
    if (f.xdpi && f.ydpi) {
      TIFFSetField(tif_, TIFFTAG_XRESOLUTION, static_cast<float>(f.xdpi));
      TIFFSetField(tif_, TIFFTAG_YRESOLUTION, static_cast<float>(f.ydpi));
      TIFFSetField(tif_, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
    }
    row_.resize(f.bytesPerLine);
    line_ = 0;
    return true;
  }

  bool OnLines(const uint8_t* data, uint32_t lines, std::string* error) override {
    // TIFFWriteScanline may change the row it is given (encoders work in
    // place), so each row goes through a scratch copy.
    for (uint32_t y = 0; y < lines; ++y, data += format_.bytesPerLine) {
      std::memcpy(row_.data(), data, format_.bytesPerLine);
      if (TIFFWriteScanline(tif_, row_.data(), line_++, 0) < 0) return Failure("cannot write a TIFF line", error);
    }
    return true;
  }

  bool OnEndPage(uint32_t lines, std::string* error) override {
    // The directory, written now, records the lines that came.
    if (lines < format_.lines) TIFFSetField(tif_, TIFFTAG_IMAGELENGTH, lines);
    if (!TIFFWriteDirectory(tif_)) return Failure("cannot finish a TIFF page", error);
    if (!sink_.Flush()) return SinkFailed(error);
    pageOffset_ = offset_;
    // The page's directory ends the chain: the file is whole here, and the
    // link that ends it is what the next page's directory changes.
    uint64_t directory = 0, link = 0;
    uint16_t entries = 0;
    if ((pages_ == 0 && !ReadTiffOrder(sink_, &order_)) ||
        !FollowTiffLink(sink_, order_, lastLink_, &directory, &entries, &link))
      return Failure("cannot read back a TIFF directory", error);
    lastLink_ = link;
    boundary_ = {offset_, link, 4, {0, 0, 0, 0}};
    return true;
  }

  bool OnAbandonPage(std::string* error) override {
    // The strips written so far are cut off with the rest of the page.
    Seal();
    return PageEncoder::OnAbandonPage(error);
  }

  bool OnFinish(std::string* error) override {
    Seal();
    return NumberTiffPages(sink_, static_cast<uint16_t>(pages_)) || SinkFailed(error);
  }
  bool OnKeep(std::string* error) override { return OnFinish(error); }

  TIFF* tif_ = nullptr;
  TiffOrder order_;
  uint64_t lastLink_ = kFirstLink;  // the link that ends the chain
  bool sealed_ = false;
  bool sinkFailed_ = false;
  uint64_t position_ = 0;
  uint32_t line_ = 0;
  std::vector<uint8_t> row_;
};

tsize_t TiffRead(thandle_t h, tdata_t data, tsize_t bytes) { return static_cast<TiffEncoder*>(h)->Read(data, bytes); }
tsize_t TiffWrite(thandle_t h, tdata_t data, tsize_t bytes) {
  return static_cast<TiffEncoder*>(h)->Write(data, bytes);
}
toff_t TiffSeek(thandle_t h, toff_t to, int whence) { return static_cast<TiffEncoder*>(h)->Seek(to, whence); }
toff_t TiffSize(thandle_t h) { return static_cast<TiffEncoder*>(h)->Size(); }

// ---- PNG read back ----

struct PngReadFailure {
  char message[256];
};

void OnPngReadError(png_structp png, png_const_charp message) {
  auto* failure = static_cast<PngReadFailure*>(png_get_error_ptr(png));
  std::snprintf(failure->message, sizeof failure->message, "%s", message);
  png_longjmp(png, 1);
}

void OnPngWarning(png_structp, png_const_charp) {}

// Plain data only in this frame: libpng's errors leave it by longjmp.
bool CopyRows(std::FILE* file, uint8_t* row, uint32_t lines, DocumentEncoder* into, PngReadFailure* failure,
              bool* encoderFailed, std::string* error) {
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, failure, OnPngReadError, OnPngWarning);
  png_infop info = png ? png_create_info_struct(png) : nullptr;
  if (!info || setjmp(png_jmpbuf(png))) {
    png_destroy_read_struct(&png, &info, nullptr);
    return false;
  }
  png_init_io(png, file);
  png_read_info(png, info);
  for (uint32_t y = 0; y < lines; ++y) {
    png_read_row(png, row, nullptr);
    if (!into->WriteLines(row, 1, error)) {
      *encoderFailed = true;
      break;
    }
  }
  png_destroy_read_struct(&png, &info, nullptr);
  return !*encoderFailed;
}

}  // namespace

std::unique_ptr<DocumentEncoder> MakeDocumentEncoder(DocumentFormat format, ByteSink& sink, int quality) {
  switch (format) {
    case DocumentFormat::Png: return MakePngEncoder(sink);
    case DocumentFormat::Jpeg: return std::make_unique<JpegEncoder>(sink, quality);
    case DocumentFormat::Tiff: return std::make_unique<TiffEncoder>(sink);
    case DocumentFormat::Pdf: return MakePdfEncoder(sink);
  }
  return nullptr;
}

bool CopyPngPage(const std::string& png, const PageFormat& format, DocumentEncoder& into, std::string* error) {
  std::FILE* file = std::fopen(png.c_str(), "rb");
  if (!file) {
    *error = "cannot read back " + png + ": " + std::strerror(errno);
    return false;
  }
  std::vector<uint8_t> row(format.bytesPerLine);
  PngReadFailure failure{};
  bool encoderFailed = false;
  const bool ok = CopyRows(file, row.data(), format.lines, &into, &failure, &encoderFailed, error);
  std::fclose(file);
  if (!ok && !encoderFailed) *error = "cannot read back " + png + ": " + failure.message;
  return ok;
}

}  // namespace sx::host
