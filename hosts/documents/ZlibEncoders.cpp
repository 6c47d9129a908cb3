// PNG and PDF written line by line with zlib alone.
//
// Design note: PNG is written here rather than through libpng because
// libpng ends the compressed stream only after the last line its header
// announced: a page the scanner ends early could only be padded. Here the
// stream is ended after the last delivered line and, on a file, the
// header's height is rewritten (with its checksum). Filters are chosen per
// line as libpng does by default (the smallest sum of absolute differences
// among the five; none for line art), at zlib's default level, so files are
// of the same size.
//
// PDF: no PDF library takes a page's image line by line (one holds every
// page until the document is saved, another wants the page as a 32-bit
// surface, 135 MB at 600 dpi), and a scanned document needs only a handful
// of objects: the catalog, the page tree, and per page its image (deflated
// as the lines arrive, its /Length an object written after the stream), its
// content stream and the page. The page's size and content come after its
// image, so a page that ends early shows only its delivered lines while the
// image keeps the announced height, padded white: nothing is rewritten and a
// stream serves as well as a file. Each page ends with a cross-reference
// section and trailer of its own (the first one also holds the catalog; each
// one the page tree anew, and a link to the one before), so the document is
// whole and valid after every page, and the next page is an incremental
// update appended to it: a document that cannot be finished is cut back to
// its last page's end (PartialFiles.h). Measured with sxscan on a 600 dpi
// colour Letter page (101 MB of pixels): the whole-document library peaked
// at 207 MB for one page and 407 MB for three; written here, the program
// peaks at 17 MB for one page and for twenty alike.
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "documents/Encoders.h"

namespace sx::host {
namespace {

constexpr int kDeflateLevel = Z_DEFAULT_COMPRESSION;
constexpr int kWindowBits = 15;
constexpr int kMemoryLevel = 8;
// Compressed bytes gathered before they go to the sink (one PNG chunk).
constexpr size_t kOutputBytes = 64 * 1024;

void PutBig32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24), p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8), p[3] = static_cast<uint8_t>(v);
}

// A deflate stream whose output is handed, a buffer at a time, to `drain`.
class Deflater {
 public:
  ~Deflater() { End(); }
  bool Start(int strategy) {
    End();
    stream_ = {};
    if (deflateInit2(&stream_, kDeflateLevel, Z_DEFLATED, kWindowBits, kMemoryLevel, strategy) != Z_OK) return false;
    open_ = true;
    out_.resize(kOutputBytes);
    stream_.next_out = out_.data();
    stream_.avail_out = static_cast<uInt>(out_.size());
    return true;
  }
  using Drain = std::function<bool(const uint8_t*, size_t)>;
  bool Feed(const uint8_t* data, size_t bytes, int flush, const Drain& drain) {
    stream_.next_in = const_cast<Bytef*>(data);
    stream_.avail_in = static_cast<uInt>(bytes);
    for (;;) {
      const int result = deflate(&stream_, flush);
      if (result == Z_STREAM_ERROR) return false;
      if (stream_.avail_out == 0) {
        if (!drain(out_.data(), out_.size())) return false;
        stream_.next_out = out_.data();
        stream_.avail_out = static_cast<uInt>(out_.size());
        continue;
      }
      if (flush == Z_FINISH ? result == Z_STREAM_END : stream_.avail_in == 0) break;
    }
    if (flush != Z_FINISH) return true;
    const size_t left = out_.size() - stream_.avail_out;
    stream_.next_out = out_.data();
    stream_.avail_out = static_cast<uInt>(out_.size());
    return left == 0 || drain(out_.data(), left);
  }
  void End() {
    if (open_) deflateEnd(&stream_);
    open_ = false;
  }
  uint64_t TotalOut() const { return stream_.total_out; }

 private:
  z_stream stream_{};
  bool open_ = false;
  std::vector<uint8_t> out_;
};

// ---- PNG ----

constexpr uint8_t kPngSignature[8] = {137, 80, 78, 71, 13, 10, 26, 10};
constexpr double kMetresPerInch = 0.0254;
constexpr int kFilterCount = 5;
constexpr size_t kIhdrBytes = 13;
enum PngFilter : uint8_t { kNone, kSub, kUp, kAverage, kPaeth };

// The filter's byte and the weight libpng's heuristic gives it (its value
// read as signed, made positive), for one byte with the neighbours a (left),
// b (above) and c (above left). Written without branches so that the
// compiler can work on many bytes at once.
template <int Type>
inline uint8_t Filtered(uint8_t x, int a, int b, int c) {
  int predicted = 0;
  if constexpr (Type == kSub) predicted = a;
  if constexpr (Type == kUp) predicted = b;
  if constexpr (Type == kAverage) predicted = (a + b) >> 1;
  if constexpr (Type == kPaeth) {
    const int pa = std::abs(b - c), pb = std::abs(a - c), pc = std::abs(a + b - 2 * c);
    predicted = pa <= pb && pa <= pc ? a : pb <= pc ? b : c;
  }
  return static_cast<uint8_t>(x - predicted);
}

inline uint32_t Weight(uint8_t v) { return v < 128 ? v : 256u - v; }

// Filters a line with one filter type into `out` (after its type byte) and
// returns the line's weight.
template <int Type>
uint64_t FilterLine(const uint8_t* row, const uint8_t* up, size_t n, size_t bpp, uint8_t* out) {
  uint64_t sum = 0;
  out[0] = static_cast<uint8_t>(Type);
  ++out;
  const size_t head = std::min(n, bpp);
  for (size_t i = 0; i < head; ++i) {
    out[i] = Filtered<Type>(row[i], 0, up[i], 0);
    sum += Weight(out[i]);
  }
  uint32_t part = 0;  // summed in 32 bits, vector-wide, a line at most 2^24 bytes
  for (size_t i = head; i < n; ++i) {
    const uint8_t v = Filtered<Type>(row[i], row[i - bpp], up[i], up[i - bpp]);
    out[i] = v;
    part += Weight(v);
  }
  return sum + part;
}

class PngEncoder final : public PageEncoder {
 public:
  explicit PngEncoder(ByteSink& sink) : PageEncoder(sink, true) {}

 private:
  bool OnBeginPage(std::string* error) override {
    rowBytes_ = PackedLineBytes(format_);
    pixelBytes_ = format_.kind == PixelKind::Rgb ? 3 : 1;
    filtered_ = format_.kind != PixelKind::Lineart;
    previous_.assign(rowBytes_, 0);
    for (auto& row : rows_) row.assign(rowBytes_ + 1, 0);
    white_ = WhiteLine(format_);
    if (!deflater_.Start(filtered_ ? Z_FILTERED : Z_DEFAULT_STRATEGY)) {
      *error = "no memory for the compressor";
      return false;
    }
    if (!Put(kPngSignature, sizeof kPngSignature, error)) return false;
    ihdrOffset_ = offset_;
    if (!Chunk("IHDR", Header(format_.lines).data(), kIhdrBytes, error)) return false;
    if (format_.xdpi && format_.ydpi) {
      uint8_t phys[9];
      PutBig32(phys, static_cast<uint32_t>(std::lround(format_.xdpi / kMetresPerInch)));
      PutBig32(phys + 4, static_cast<uint32_t>(std::lround(format_.ydpi / kMetresPerInch)));
      phys[8] = 1;  // per metre
      if (!Chunk("pHYs", phys, sizeof phys, error)) return false;
    }
    return true;
  }

  bool OnLines(const uint8_t* data, uint32_t lines, std::string* error) override {
    for (uint32_t y = 0; y < lines; ++y, data += format_.bytesPerLine) {
      const std::vector<uint8_t>& row = Filter(data);
      if (!deflater_.Feed(row.data(), row.size(), Z_NO_FLUSH, Drain(error))) return Failed(error);
      std::memcpy(previous_.data(), data, rowBytes_);
    }
    return true;
  }

  bool OnEndPage(uint32_t lines, std::string* error) override {
    const bool recordLength = lines < format_.lines && sink_.CanRewrite();
    for (uint32_t y = lines; y < format_.lines && !recordLength; ++y) {
      if (!OnLines(white_.data(), 1, error)) return false;
    }
    if (!deflater_.Feed(nullptr, 0, Z_FINISH, Drain(error))) return Failed(error);
    deflater_.End();
    if (!Chunk("IEND", nullptr, 0, error)) return false;
    if (!recordLength) return true;
    const std::array<uint8_t, kIhdrBytes> header = Header(lines);
    const std::vector<uint8_t> chunk = ChunkBytes("IHDR", header.data(), header.size());
    if (sink_.Rewrite(ihdrOffset_, chunk.data(), chunk.size())) return true;
    return SinkFailed(error);
  }

  bool OnFinish(std::string*) override { return true; }

  std::array<uint8_t, kIhdrBytes> Header(uint32_t height) const {
    std::array<uint8_t, kIhdrBytes> h{};
    PutBig32(h.data(), format_.width);
    PutBig32(h.data() + 4, height);
    h[8] = format_.kind == PixelKind::Lineart ? 1 : 8;
    h[9] = format_.kind == PixelKind::Rgb ? 2 : 0;  // truecolour or gray
    return h;  // deflate, adaptive filtering, no interlace: all zero
  }

  static std::vector<uint8_t> ChunkBytes(const char* type, const uint8_t* data, size_t bytes) {
    std::vector<uint8_t> out(12 + bytes);
    PutBig32(out.data(), static_cast<uint32_t>(bytes));
    std::memcpy(out.data() + 4, type, 4);
    if (bytes) std::memcpy(out.data() + 8, data, bytes);
    PutBig32(out.data() + 8 + bytes, static_cast<uint32_t>(crc32(0, out.data() + 4, static_cast<uInt>(bytes + 4))));
    return out;
  }

  bool Chunk(const char* type, const uint8_t* data, size_t bytes, std::string* error) {
    uint8_t head[8];
    PutBig32(head, static_cast<uint32_t>(bytes));
    std::memcpy(head + 4, type, 4);
    uLong crc = crc32(0, head + 4, 4);
    if (bytes) crc = crc32(crc, data, static_cast<uInt>(bytes));
    uint8_t tail[4];
    PutBig32(tail, static_cast<uint32_t>(crc));
    return Put(head, sizeof head, error) && (bytes == 0 || Put(data, bytes, error)) && Put(tail, sizeof tail, error);
  }

  Deflater::Drain Drain(std::string* error) {
    return [this, error](const uint8_t* data, size_t bytes) { return Chunk("IDAT", data, bytes, error); };
  }

  bool Failed(std::string* error) {
    if (error->empty()) *error = "the compressor failed";
    return false;
  }

  // The filtered line with the smallest sum of absolute (signed) values.
  const std::vector<uint8_t>& Filter(const uint8_t* row) {
    const uint8_t* up = previous_.data();
    const size_t n = rowBytes_, bpp = pixelBytes_;
    if (!filtered_) {
      rows_[kNone][0] = kNone;
      std::memcpy(rows_[kNone].data() + 1, row, n);
      return rows_[kNone];
    }
    const uint64_t sums[kFilterCount] = {
        FilterLine<kNone>(row, up, n, bpp, rows_[kNone].data()),
        FilterLine<kSub>(row, up, n, bpp, rows_[kSub].data()),
        FilterLine<kUp>(row, up, n, bpp, rows_[kUp].data()),
        FilterLine<kAverage>(row, up, n, bpp, rows_[kAverage].data()),
        FilterLine<kPaeth>(row, up, n, bpp, rows_[kPaeth].data()),
    };
    int chosen = kNone;
    for (int type = kSub; type < kFilterCount; ++type) {
      if (sums[type] < sums[chosen]) chosen = type;
    }
    return rows_[chosen];
  }

  Deflater deflater_;
  std::array<std::vector<uint8_t>, kFilterCount> rows_;
  std::vector<uint8_t> previous_;
  uint32_t rowBytes_ = 0;
  uint32_t pixelBytes_ = 1;
  bool filtered_ = true;
  uint64_t ihdrOffset_ = 0;
};

// ---- PDF ----

constexpr double kPointsPerInch = 72.0;
constexpr uint32_t kAssumedDpi = 300;  // when the library announced none
// Objects 1 and 2 are the catalog and the page tree; each page has four.
constexpr int kCatalog = 1, kPageTree = 2, kFirstPageObject = 3, kObjectsPerPage = 4;

std::string Number(double v) {
  char text[32];
  std::snprintf(text, sizeof text, "%.4f", v);
  std::string s = text;
  while (s.back() == '0') s.pop_back();
  if (s.back() == '.') s.pop_back();
  return s;
}

class PdfEncoder final : public PageEncoder {
 public:
  explicit PdfEncoder(ByteSink& sink) : PageEncoder(sink, false) {}

 private:
  int Object(int page, int which) const { return kFirstPageObject + page * kObjectsPerPage + which; }

  bool Begin(int object, std::string* error) {
    if (static_cast<size_t>(object) >= offsets_.size()) offsets_.resize(object + 1, 0);
    offsets_[object] = offset_;
    return Text(std::to_string(object) + " 0 obj\n", error);
  }
  bool Text(const std::string& text, std::string* error) { return Put(text.data(), text.size(), error); }

  bool OnBeginPage(std::string* error) override {
    if (offset_ == 0 && !Text("%PDF-1.4\n%\xE2\xE3\xCF\xD3\n", error)) return false;
    pageOffset_ = offset_;  // after the header: the header stays if the page is abandoned
    rowBytes_ = PackedLineBytes(format_);
    white_ = WhiteLine(format_);
    const bool rgb = format_.kind == PixelKind::Rgb, lineart = format_.kind == PixelKind::Lineart;
    if (!deflater_.Start(Z_DEFAULT_STRATEGY)) {
      *error = "no memory for the compressor";
      return false;
    }
    const int page = pages_;
    return Begin(Object(page, 0), error) &&
           Text("<< /Type /XObject /Subtype /Image /Width " + std::to_string(format_.width) + " /Height " +
                    std::to_string(format_.lines) + " /ColorSpace " + (rgb ? "/DeviceRGB" : "/DeviceGray") +
                    " /BitsPerComponent " + (lineart ? "1" : "8") + " /Filter /FlateDecode /Length " +
                    std::to_string(Object(page, 1)) + " 0 R >>\nstream\n",
                error);
  }

  bool OnLines(const uint8_t* data, uint32_t lines, std::string* error) override {
    for (uint32_t y = 0; y < lines; ++y, data += format_.bytesPerLine) {
      // PDF's 1-bit gray reads 0 as black, as delivered line art does.
      if (!deflater_.Feed(data, rowBytes_, Z_NO_FLUSH, Drain(error))) return Failed(error);
    }
    return true;
  }

  bool OnEndPage(uint32_t lines, std::string* error) override {
    for (uint32_t y = lines; y < format_.lines; ++y) {
      if (!OnLines(white_.data(), 1, error)) return false;
    }
    if (!deflater_.Feed(nullptr, 0, Z_FINISH, Drain(error))) return Failed(error);
    const uint64_t length = deflater_.TotalOut();
    deflater_.End();
    const int page = pages_;
    const double xdpi = format_.xdpi ? format_.xdpi : kAssumedDpi, ydpi = format_.ydpi ? format_.ydpi : kAssumedDpi;
    const double width = format_.width * kPointsPerInch / xdpi, height = lines * kPointsPerInch / ydpi;
    const double imageHeight = format_.lines * kPointsPerInch / ydpi;
    // The image's top at the page's top: the padded lines fall below it.
    const std::string content = "q " + Number(width) + " 0 0 " + Number(imageHeight) + " 0 " +
                                Number(height - imageHeight) + " cm /Im0 Do Q\n";
    return Text("\nendstream\nendobj\n", error) && Begin(Object(page, 1), error) &&
           Text(std::to_string(length) + "\nendobj\n", error) && Begin(Object(page, 2), error) &&
           Text("<< /Length " + std::to_string(content.size()) + " >>\nstream\n" + content + "endstream\nendobj\n",
                error) &&
           Begin(Object(page, 3), error) &&
           Text("<< /Type /Page /Parent 2 0 R /MediaBox [0 0 " + Number(width) + " " + Number(height) +
                    "] /Resources << /XObject << /Im0 " + std::to_string(Object(page, 0)) +
                    " 0 R >> >> /Contents " + std::to_string(Object(page, 2)) + " 0 R >>\nendobj\n",
                error) &&
           EndUpdate(error);
  }

  bool OnAbandonPage(std::string* error) override {
    deflater_.End();
    return PageEncoder::OnAbandonPage(error);
  }

  // Every page's update ends the document already.
  bool OnFinish(std::string*) override { return true; }

  // The page tree anew with the page just ended, the catalog in the first
  // update, and the update's cross-reference section: the objects it
  // defines, in runs of consecutive numbers.
  bool EndUpdate(std::string* error) {
    kids_ += std::to_string(Object(pages_, 3)) + " 0 R ";
    const bool first = pages_ == 0;
    if (!Begin(kPageTree, error) ||
        !Text("<< /Type /Pages /Kids [ " + kids_ + "] /Count " + std::to_string(pages_ + 1) + " >>\nendobj\n",
              error) ||
        (first && (!Begin(kCatalog, error) || !Text("<< /Type /Catalog /Pages 2 0 R >>\nendobj\n", error))))
      return false;
    const uint64_t xref = offset_;
    const int size = Object(pages_ + 1, 0);
    std::string table = "xref\n";
    if (first) {
      table += "0 " + std::to_string(size) + "\n0000000000 65535 f \n" + Entries(kCatalog, size);
    } else {
      table += std::to_string(kPageTree) + " 1\n" + Entries(kPageTree, kPageTree + 1);
      table += std::to_string(Object(pages_, 0)) + " " + std::to_string(kObjectsPerPage) + "\n" +
               Entries(Object(pages_, 0), size);
    }
    table += "trailer\n<< /Size " + std::to_string(size) + " /Root 1 0 R" +
             (first ? std::string() : " /Prev " + std::to_string(previousXref_)) + " >>\nstartxref\n" +
             std::to_string(xref) + "\n%%EOF\n";
    previousXref_ = xref;
    if (!Text(table, error) || !sink_.Flush()) return SinkFailed(error);
    boundary_ = {offset_, 0, 0, {}};
    return true;
  }

  // Cross-reference entries of objects [from, to), 20 bytes each.
  std::string Entries(int from, int to) const {
    std::string out;
    char entry[24];
    for (int i = from; i < to; ++i) {
      std::snprintf(entry, sizeof entry, "%010llu 00000 n \n", static_cast<unsigned long long>(offsets_[i]));
      out += entry;
    }
    return out;
  }

  Deflater::Drain Drain(std::string* error) {
    return [this, error](const uint8_t* data, size_t bytes) { return Put(data, bytes, error); };
  }

  bool Failed(std::string* error) {
    if (error->empty()) *error = "the compressor failed";
    return false;
  }

  Deflater deflater_;
  std::vector<uint64_t> offsets_;
  std::string kids_;  // the page tree's references, one a page
  uint64_t previousXref_ = 0;
  uint32_t rowBytes_ = 0;
};

}  // namespace

std::unique_ptr<DocumentEncoder> MakePngEncoder(ByteSink& sink) { return std::make_unique<PngEncoder>(sink); }
std::unique_ptr<DocumentEncoder> MakePdfEncoder(ByteSink& sink) { return std::make_unique<PdfEncoder>(sink); }

}  // namespace sx::host
