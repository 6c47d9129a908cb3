// Pages encoded line by line, read back with libpng, libtiff, libjpeg and
// zlib: the pixels delivered, at the length delivered, in every format.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include <filesystem>

#include "documents/DocumentStream.h"
#include "ImageRead.h"
#include "documents/ImageWriter.h"

namespace sx::host {
namespace {

// A sink in memory: a file (rewrite, read, truncate) or a stream, and one
// that fails after a number of bytes as a full disk does.
class MemorySink : public ByteSink {
 public:
  explicit MemorySink(bool file = true, size_t failAfter = SIZE_MAX) : file_(file), failAfter_(failAfter) {}
  bool Write(const void* data, size_t bytes) override {
    if (bytes_.size() + bytes > failAfter_) return false;
    bytes_.insert(bytes_.end(), static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + bytes);
    return true;
  }
  bool Rewrite(uint64_t offset, const void* data, size_t n) override {
    if (!file_ || offset + n > bytes_.size()) return false;
    std::memcpy(bytes_.data() + offset, data, n);
    return true;
  }
  bool CanRewrite() const override { return file_; }
  bool Read(uint64_t offset, void* data, size_t n) override {
    if (!file_ || offset + n > bytes_.size()) return false;
    std::memcpy(data, bytes_.data() + offset, n);
    return true;
  }
  bool Truncate(uint64_t size) override {
    if (!file_ || size > bytes_.size()) return false;
    bytes_.resize(size);
    return true;
  }
  std::string Failure() const override { return "the disk is full"; }
  std::vector<uint8_t> bytes_;

 private:
  bool file_;
  size_t failAfter_;
};

// Line art's bits past the width are not part of the image: cleared in
// packed lines before they are compared.
std::vector<uint8_t> Masked(std::vector<uint8_t> packed, const PageFormat& f) {
  const uint32_t row = (f.width + 7) / 8;
  if (f.kind != PixelKind::Lineart || f.width % 8 == 0) return packed;
  for (size_t end = row; end <= packed.size(); end += row) packed[end - 1] &= static_cast<uint8_t>(0xFF00 >> (f.width % 8));
  return packed;
}

// A page whose every byte tells its position, so that swapped, shifted or
// lost lines show; the stride has a few bytes of padding past the pixels.
struct Page {
  PageFormat format;
  std::vector<uint8_t> raster;
  // The lines as a file stores them: packed, without the padding.
  std::vector<uint8_t> Packed(uint32_t lines) const {
    const uint32_t row = format.kind == PixelKind::Rgb ? format.width * 3
                         : format.kind == PixelKind::Gray ? format.width
                                                           : (format.width + 7) / 8;
    std::vector<uint8_t> out;
    for (uint32_t y = 0; y < lines; ++y) {
      const uint8_t* p = raster.data() + size_t{y} * format.bytesPerLine;
      out.insert(out.end(), p, p + row);
    }
    return Masked(out, format);
  }
};

Page Pattern(PixelKind kind, uint32_t width, uint32_t lines, uint32_t dpi = 300) {
  Page page;
  const uint32_t stride = (kind == PixelKind::Rgb ? width * 3 : kind == PixelKind::Gray ? width : (width + 7) / 8) + 3;
  page.format = {kind, width, lines, stride, dpi, dpi};
  page.raster.resize(size_t{stride} * lines);
  for (size_t i = 0; i < page.raster.size(); ++i) page.raster[i] = static_cast<uint8_t>(i * 7 + i / stride);
  // Line art's unused bits past the width are the scanner's business.
  return page;
}

// Delivers `lines` of the page in uneven blocks.
bool Encode(DocumentEncoder& encoder, const Page& page, uint32_t lines, std::string* error) {
  if (!encoder.BeginPage(page.format, error)) return false;
  for (uint32_t y = 0, block = 1; y < lines; y += block, block = block % 5 + 1) {
    block = std::min(block, lines - y);
    if (!encoder.WriteLines(page.raster.data() + size_t{y} * page.format.bytesPerLine, block, error)) return false;
  }
  return encoder.EndPage(error);
}

std::string Write(const std::string& path, const std::vector<uint8_t>& bytes) {
  sxtest::WriteFile(path, std::string(bytes.begin(), bytes.end()));
  return path;
}

// libjpeg's own whole-image encoding of the same lines, decoded: the pixels a
// JPEG of these lines must decode to (line art spread to gray, 1 = black).
JpegRead ReferenceJpeg(const Page& page, uint32_t lines, int quality) {
  const PageFormat& f = page.format;
  jpeg_compress_struct jpeg;
  jpeg_error_mgr errors;
  jpeg.err = jpeg_std_error(&errors);
  jpeg_create_compress(&jpeg);
  unsigned char* out = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&jpeg, &out, &size);
  jpeg.image_width = f.width;
  jpeg.image_height = lines;
  jpeg.input_components = f.kind == PixelKind::Rgb ? 3 : 1;
  jpeg.in_color_space = f.kind == PixelKind::Rgb ? JCS_RGB : JCS_GRAYSCALE;
  jpeg_set_defaults(&jpeg);
  jpeg_set_quality(&jpeg, quality, TRUE);
  jpeg_start_compress(&jpeg, TRUE);
  std::vector<uint8_t> gray(f.width);
  for (uint32_t y = 0; y < lines; ++y) {
    JSAMPROW row = const_cast<JSAMPROW>(page.raster.data() + size_t{y} * f.bytesPerLine);
    if (f.kind == PixelKind::Lineart) {
      for (uint32_t x = 0; x < f.width; ++x) gray[x] = (row[x / 8] >> (7 - x % 8)) & 1 ? 255 : 0;
      row = gray.data();
    }
    jpeg_write_scanlines(&jpeg, &row, 1);
  }
  jpeg_finish_compress(&jpeg);
  jpeg_destroy_compress(&jpeg);
  JpegRead read = DecodeJpeg(std::vector<uint8_t>(out, out + size));
  std::free(out);
  return read;
}

// Every line art, gray and colour page the formats hold, at its true length
// whether whole or ended early, and on a stream (no rewriting) padded white.
TEST(HostDocumentEncoders, EveryFormatKeepsTheDeliveredPixelsAndLength) {
  TempDir dir;
  const Page pages[] = {Pattern(PixelKind::Rgb, 41, 70, 200), Pattern(PixelKind::Gray, 17, 1),
                        Pattern(PixelKind::Lineart, 45, 35)};
  constexpr int kQuality = 80;
  for (const Page& page : pages) {
    const uint32_t full = page.format.lines;
    for (uint32_t lines : {full, full / 2 + 1, full > 40 ? 17u : full}) {
      for (bool file : {true, false}) {
        SCOPED_TRACE(testing::Message() << "kind " << int(page.format.kind) << " lines " << lines << " file " << file);
        // What the file must show: the delivered lines; padded on a stream
        // with white: 0xFF samples, and line art's 1 bits (PNG reads 0 as black).
        const uint32_t shown = file ? lines : full;
        Page padded = page;
        std::fill(padded.raster.begin() + size_t{lines} * page.format.bytesPerLine, padded.raster.end(), 0xFF);
        std::string error;

        MemorySink png(file);
        ASSERT_TRUE(Encode(*MakeDocumentEncoder(DocumentFormat::Png, png, 0), page, lines, &error)) << error;
        PngRead back = ReadPng(Write(dir / "p.png", png.bytes_));
        EXPECT_TRUE(back.ok && back.width == page.format.width && back.height == shown);
        EXPECT_EQ(back.xppm, uint32_t(page.format.xdpi / 0.0254 + 0.5));
        EXPECT_EQ(Masked(back.raster, page.format), padded.Packed(shown));

        MemorySink pdf(file);
        auto pdfEncoder = MakeDocumentEncoder(DocumentFormat::Pdf, pdf, 0);
        ASSERT_TRUE(Encode(*pdfEncoder, page, lines, &error) && pdfEncoder->Finish(&error)) << error;
        std::vector<PdfPage> pdfPages = ReadPdf(pdf.bytes_);
        ASSERT_EQ(pdfPages.size(), 1u);
        // The image keeps the announced height; the page shows the delivered lines.
        EXPECT_EQ(pdfPages[0].imageHeight, full);
        EXPECT_NEAR(pdfPages[0].height, lines * 72.0 / page.format.ydpi, 1e-3);
        EXPECT_NEAR(pdfPages[0].width, page.format.width * 72.0 / page.format.xdpi, 1e-3);
        EXPECT_EQ(Masked(pdfPages[0].raster, page.format), padded.Packed(full));

        MemorySink jpeg(file);
        ASSERT_TRUE(Encode(*MakeDocumentEncoder(DocumentFormat::Jpeg, jpeg, kQuality), page, lines, &error)) << error;
        JpegRead decoded = DecodeJpeg(jpeg.bytes_);
        ASSERT_TRUE(decoded.ok);
        EXPECT_EQ(decoded.height, shown);
        // The reference: the delivered lines, white to the end of the block
        // row after them (as the encoder completes them), cut to the length.
        const uint32_t rowHeight = page.format.kind == PixelKind::Rgb ? 16 : 8;
        JpegRead reference = ReferenceJpeg(padded, file ? std::min(full, (lines + rowHeight - 1) / rowHeight * rowHeight) : full, kQuality);
        reference.raster.resize(size_t{shown} * reference.width * reference.components);
        EXPECT_EQ(decoded.raster, reference.raster);

        if (!file) continue;  // a TIFF needs a file
        MemorySink tiff;
        auto tiffEncoder = MakeDocumentEncoder(DocumentFormat::Tiff, tiff, 0);
        ASSERT_TRUE(Encode(*tiffEncoder, page, lines, &error) && tiffEncoder->Finish(&error)) << error;
        std::vector<TiffPage> tiffPages = ReadTiff(Write(dir / "p.tif", tiff.bytes_));
        ASSERT_EQ(tiffPages.size(), 1u);
        EXPECT_EQ(tiffPages[0].height, lines);
        EXPECT_FLOAT_EQ(tiffPages[0].xres, float(page.format.xdpi));
        EXPECT_EQ(Masked(tiffPages[0].raster, page.format), page.Packed(lines));
      }
    }
  }
}

// The pages a reader finds in a TIFF or PDF document's bytes, each compared
// with the page delivered.
void ExpectPages(const TempDir& dir, DocumentFormat format, const std::vector<uint8_t>& bytes, const Page* pages,
                 size_t count) {
  const std::string path = Write(dir / (format == DocumentFormat::Tiff ? "b.tif" : "b.pdf"), bytes);
  std::vector<std::vector<uint8_t>> rasters;
  if (format == DocumentFormat::Tiff) {
    for (const TiffPage& page : ReadTiff(path)) rasters.push_back(page.raster);
  } else {
    std::string why;
    EXPECT_EQ(PdfPages(path, &why), int(count)) << why;
    for (const PdfPage& page : ReadPdf(bytes)) rasters.push_back(page.raster);
  }
  ASSERT_EQ(rasters.size(), count);
  for (size_t i = 0; i < count; ++i) EXPECT_EQ(rasters[i], pages[i].Packed(pages[i].format.lines)) << i;
}

// A feeder batch of pages of different kinds is a whole document at every
// page's end: cut back there (its patch written back), as a document that
// cannot be finished is, it holds the pages before. A page left unfinished
// is taken out, and a sink that fails inside a page keeps those before it.
TEST(HostDocumentEncoders, BatchesAreWholeAtEveryPageEnd) {
  TempDir dir;
  const Page pages[] = {Pattern(PixelKind::Rgb, 40, 30), Pattern(PixelKind::Lineart, 48, 10),
                        Pattern(PixelKind::Gray, 33, 21)};
  std::string error;
  for (DocumentFormat format : {DocumentFormat::Tiff, DocumentFormat::Pdf}) {
    SCOPED_TRACE(int(format));
    MemorySink sink;
    auto encoder = MakeDocumentEncoder(format, sink, 0);
    std::vector<PageBoundary> ends;
    for (const Page& page : pages) {
      ASSERT_TRUE(Encode(*encoder, page, page.format.lines, &error)) << error;
      ends.push_back(encoder->Boundary());
    }
    ASSERT_TRUE(encoder->BeginPage(pages[0].format, &error));
    ASSERT_TRUE(encoder->WriteLines(pages[0].raster.data(), 9, &error));
    ASSERT_TRUE(encoder->AbandonPage(&error)) << error;
    ASSERT_TRUE(encoder->Finish(&error)) << error;
    ExpectPages(dir, format, sink.bytes_, pages, 3);
    if (format == DocumentFormat::Tiff) {
      for (const TiffPage& page : ReadTiff(dir / "b.tif")) EXPECT_EQ(page.pages, 3) << page.page;
    }
    for (size_t k = 1; k <= 3; ++k) {
      const PageBoundary& end = ends[k - 1];
      std::vector<uint8_t> cut(sink.bytes_.begin(), sink.bytes_.begin() + end.length);
      std::copy(end.patch, end.patch + end.patchBytes, cut.begin() + end.patchAt);
      ExpectPages(dir, format, cut, pages, k);
    }

    MemorySink failing(true, (ends[1].length + ends[2].length) / 2);
    encoder = MakeDocumentEncoder(format, failing, 0);
    ASSERT_TRUE(Encode(*encoder, pages[0], 30, &error) && Encode(*encoder, pages[1], 10, &error)) << error;
    EXPECT_FALSE(Encode(*encoder, pages[2], 21, &error));
    ASSERT_TRUE(encoder->KeepWholePages(&error)) << error;
    ExpectPages(dir, format, failing.bytes_, pages, 2);
    if (format == DocumentFormat::Tiff) {
      EXPECT_EQ(ReadTiff(dir / "b.tif")[1].pages, 2);
    }

    MemorySink early(true, ends[0].length / 2);
    encoder = MakeDocumentEncoder(format, early, 0);
    EXPECT_FALSE(Encode(*encoder, pages[0], 30, &error));
    EXPECT_FALSE(encoder->KeepWholePages(&error));
  }
  // A stream cannot take a page back.
  MemorySink stream(false);
  auto pdf = MakeDocumentEncoder(DocumentFormat::Pdf, stream, 0);
  ASSERT_TRUE(pdf->BeginPage(pages[0].format, &error) && pdf->WriteLines(pages[0].raster.data(), 3, &error));
  EXPECT_FALSE(pdf->AbandonPage(&error));

  for (DocumentFormat format : {DocumentFormat::Png, DocumentFormat::Jpeg, DocumentFormat::Tiff, DocumentFormat::Pdf}) {
    for (size_t failAfter : {size_t{0}, size_t{100}, size_t{1000}}) {
      SCOPED_TRACE(testing::Message() << int(format) << " after " << failAfter);
      MemorySink sink(true, failAfter);
      auto encoder = MakeDocumentEncoder(format, sink, 90);
      Page page = Pattern(PixelKind::Rgb, 64, 64);
      uint32_t noise = 1;  // that no format compresses into a few bytes
      for (uint8_t& b : page.raster) b = static_cast<uint8_t>((noise = noise * 1103515245 + 12345) >> 16);
      error.clear();
      EXPECT_FALSE(Encode(*encoder, page, page.format.lines, &error) && encoder->Finish(&error));
      EXPECT_NE(error.find("the disk is full"), std::string::npos) << error;
    }
  }
}

TEST(HostOutputDocument, ShortOverlongAndUnfinishedPages) {
  TempDir dir;
  OutputDocument doc(dir / "pages.tiff");
  Page page = Pattern(PixelKind::Gray, 10, 6);
  const size_t stride = page.format.bytesPerLine;
  // Pages the driver ended early (3 whole lines and part of a fourth), sent
  // too long (the surplus is dropped), ended without one whole line (left
  // out) and left unfinished by the end of the scan (dropped).
  std::vector<uint8_t> overlong(page.raster);
  overlong.resize(overlong.size() + 50, 0xEE);
  for (size_t bytes : {3 * stride + 5, overlong.size(), stride - 1, 3 * stride}) {
    ASSERT_TRUE(doc.BeginPage(page.format));
    // In blocks that split lines.
    for (size_t at = 0; at < bytes; at += 7) ASSERT_TRUE(doc.Append(overlong.data() + at, std::min<size_t>(7, bytes - at)));
    EXPECT_EQ(doc.PageBytes(), std::min(bytes, page.raster.size()));
    if (bytes != 3 * stride) { ASSERT_TRUE(doc.EndPage()); }
  }
  ASSERT_TRUE(doc.Finish());
  EXPECT_EQ(doc.PagesDone(), 2);
  EXPECT_EQ(doc.PagesSkipped(), 1);

  std::vector<TiffPage> back = ReadTiff(dir / "pages.tiff");
  ASSERT_EQ(back.size(), 2u);
  EXPECT_EQ(back[0].raster, page.Packed(3));
  EXPECT_EQ(back[1].raster, page.Packed(6));
  for (const auto& entry : std::filesystem::directory_iterator(dir.Path()))
    EXPECT_NE(entry.path().extension(), ".part");
}

// A .png name holds one page; a second turns the document into a TIFF beside
// it with every page (the first read back from its PNG). A .jpg name gets a
// file a page.
TEST(HostOutputDocument, PngBecomesTiffAndJpegGetsAFileAPage) {
  TempDir dir;
  const Page pages[] = {Pattern(PixelKind::Rgb, 40, 30), Pattern(PixelKind::Gray, 17, 9),
                        Pattern(PixelKind::Lineart, 43, 12)};
  OutputDocument png(dir / "a.png"), jpeg(dir / "b.jpg");
  for (const Page& page : pages) {
    for (OutputDocument* doc : {&png, &jpeg}) {
      ASSERT_TRUE(doc->BeginPage(page.format));
      ASSERT_TRUE(doc->Append(page.raster.data(), page.raster.size()));
      ASSERT_TRUE(doc->EndPage()) << doc->Error();
      if (page.format.kind == PixelKind::Rgb) {
        EXPECT_EQ(doc->WrittenPath(), doc == &png ? dir / "a.png" : dir / "b.jpg");
      }
    }
  }
  ASSERT_TRUE(png.Finish() && jpeg.Finish());
  EXPECT_EQ(png.WrittenPath(), dir / "a.tif");
  EXPECT_FALSE(std::filesystem::exists(dir / "a.png"));
  std::vector<TiffPage> back = ReadTiff(dir / "a.tif");
  ASSERT_EQ(back.size(), 3u);
  for (size_t i = 0; i < 3; ++i) EXPECT_EQ(Masked(back[i].raster, pages[i].format), pages[i].Packed(pages[i].format.lines)) << i;
  EXPECT_EQ(jpeg.WrittenPath(), dir / "b.jpg" + ", " + dir / "b-2.jpg and " + dir / "b-3.jpg");
  EXPECT_EQ(DecodeJpeg(ReadBytes(dir / "b-3.jpg")).height, 12u);
  // A later batch of one page under that name: the earlier one's further
  // pages go with it.
  OutputDocument again(dir / "b.jpg");
  ASSERT_TRUE(again.BeginPage(pages[1].format) && again.Append(pages[1].raster.data(), pages[1].raster.size()) &&
              again.EndPage() && again.Finish());
  EXPECT_EQ(again.StaleRemoved(), (std::vector<std::string>{dir / "b-2.jpg", dir / "b-3.jpg"}));
  EXPECT_FALSE(std::filesystem::exists(dir / "b-2.jpg"));

  // One page, then an unfinished one: the PNG stays a PNG.
  OutputDocument one(dir / "c.png");
  ASSERT_TRUE(one.BeginPage(pages[0].format) && one.Append(pages[0].raster.data(), pages[0].raster.size()) && one.EndPage());
  ASSERT_TRUE(one.BeginPage(pages[1].format) && one.Append(pages[1].raster.data(), 100));
  ASSERT_TRUE(one.Finish());
  EXPECT_EQ(ReadPng(dir / "c.png").raster, pages[0].Packed(30));
  EXPECT_FALSE(std::filesystem::exists(dir / "c.tif"));
}

TEST(HostOutputDocument, ReportsFilesItCannotWrite) {
  TempDir dir;
  Page page = Pattern(PixelKind::Gray, 8, 4);
  for (const char* name : {"no/such/x.tif", "no/such/x.png"}) {
    OutputDocument doc(dir / name);
    ASSERT_TRUE(doc.BeginPage(page.format));
    EXPECT_FALSE(doc.Append(page.raster.data(), page.raster.size()));
    EXPECT_FALSE(doc.EndPage());
    EXPECT_NE(doc.Error().find("cannot create a file in the folder"), std::string::npos) << doc.Error();
  }
}

}  // namespace
}  // namespace sx::host

#endif
