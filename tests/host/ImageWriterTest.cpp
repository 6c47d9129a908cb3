// Scanned pages written as PNG and TIFF and read back with libpng and libtiff.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include <filesystem>

#include "ImageRead.h"
#include "ImageWriter.h"

namespace sx::host {
namespace {

namespace fs = std::filesystem;

// A page whose every byte tells its position, so that swapped, shifted or
// lost lines show.
PageImage Pattern(PixelKind kind, uint32_t width, uint32_t lines, uint32_t dpi = 300) {
  PageImage page;
  uint32_t stride = kind == PixelKind::Rgb ? width * 3 : kind == PixelKind::Gray ? width : width / 8;
  page.format = {kind, width, lines, stride, dpi, dpi};
  page.raster.resize(size_t{stride} * lines);
  for (size_t i = 0; i < page.raster.size(); ++i) page.raster[i] = static_cast<uint8_t>(i * 7 + i / stride);
  return page;
}

TEST(HostImageWriter, PngRoundTripEachKind) {
  TempDir dir;
  struct Case {
    PixelKind kind;
    int depth, colour;
  } cases[] = {{PixelKind::Rgb, 8, PNG_COLOR_TYPE_RGB},
               {PixelKind::Gray, 8, PNG_COLOR_TYPE_GRAY},
               {PixelKind::Lineart, 1, PNG_COLOR_TYPE_GRAY}};
  for (const auto& c : cases) {
    PageImage page = Pattern(c.kind, 64, 37);
    std::string path = dir / "page.png";
    std::string error;
    ASSERT_TRUE(WritePng(path, page, &error)) << error;
    PngRead back = ReadPng(path);
    ASSERT_TRUE(back.ok);
    EXPECT_EQ(back.width, 64u);
    EXPECT_EQ(back.height, 37u);
    EXPECT_EQ(back.depth, c.depth);
    EXPECT_EQ(back.colour, c.colour);
    EXPECT_EQ(back.xppm, 11811u);  // 300 dpi
    EXPECT_EQ(back.raster, page.raster);
  }
}

TEST(HostImageWriter, TiffPagesRoundTrip) {
  TempDir dir;
  std::string path = dir / "stack.tif";
  PageImage pages[] = {Pattern(PixelKind::Rgb, 40, 30, 200), Pattern(PixelKind::Lineart, 48, 10),
                       Pattern(PixelKind::Gray, 17, 5)};
  TiffWriter writer;
  std::string error;
  ASSERT_TRUE(writer.Open(path, &error)) << error;
  for (const auto& page : pages) ASSERT_TRUE(writer.AppendPage(page, &error)) << error;
  ASSERT_TRUE(writer.Close(&error)) << error;

  std::vector<TiffPage> back = ReadTiff(path);
  ASSERT_EQ(back.size(), 3u);
  EXPECT_EQ(back[0].samples, 3);
  EXPECT_EQ(back[0].photometric, PHOTOMETRIC_RGB);
  EXPECT_FLOAT_EQ(back[0].xres, 200.0f);
  EXPECT_EQ(back[1].bits, 1);
  EXPECT_EQ(back[1].photometric, PHOTOMETRIC_MINISBLACK);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(back[i].width, pages[i].format.width) << i;
    EXPECT_EQ(back[i].height, pages[i].format.lines) << i;
    EXPECT_EQ(back[i].raster, pages[i].raster) << i;
  }
}

// Feeds a page to the document as the transfer callback would: in blocks,
// the last one cut short.
void Deliver(OutputDocument& doc, const PageImage& page, size_t block) {
  ASSERT_TRUE(doc.BeginPage(page.format)) << doc.Error();
  for (size_t at = 0; at < page.raster.size(); at += block)
    doc.Append(page.raster.data() + at, std::min(block, page.raster.size() - at));
  ASSERT_TRUE(doc.EndPage()) << doc.Error();
}

TEST(HostOutputDocument, OnePagePngStaysPng) {
  TempDir dir;
  OutputDocument doc(dir / "one.png");
  PageImage page = Pattern(PixelKind::Gray, 30, 20);
  Deliver(doc, page, 7 * 30 + 3);  // blocks that split lines
  EXPECT_FALSE(fs::exists(dir / "one.png"));  // kept until the scan ends
  ASSERT_TRUE(doc.Finish()) << doc.Error();
  EXPECT_EQ(doc.WrittenPath(), dir / "one.png");
  EXPECT_EQ(ReadPng(dir / "one.png").raster, page.raster);
  EXPECT_FALSE(fs::exists(dir / "one.tif"));
}

TEST(HostOutputDocument, SecondPageTurnsPngIntoTiff) {
  TempDir dir;
  OutputDocument doc(dir / "feeder.png");
  PageImage first = Pattern(PixelKind::Rgb, 16, 8);
  PageImage second = Pattern(PixelKind::Rgb, 16, 9);
  Deliver(doc, first, 100);
  Deliver(doc, second, 100);
  // Each page is in the file as soon as it is complete.
  EXPECT_EQ(ReadTiff(dir / "feeder.tif").size(), 2u);
  Deliver(doc, first, 1000);
  ASSERT_TRUE(doc.Finish()) << doc.Error();
  EXPECT_EQ(doc.PagesDone(), 3);
  EXPECT_EQ(doc.WrittenPath(), dir / "feeder.tif");
  std::vector<TiffPage> back = ReadTiff(dir / "feeder.tif");
  ASSERT_EQ(back.size(), 3u);
  EXPECT_EQ(back[0].raster, first.raster);
  EXPECT_EQ(back[1].raster, second.raster);
  EXPECT_FALSE(fs::exists(dir / "feeder.png"));
}

TEST(HostOutputDocument, ShortOverlongAndUnfinishedPages) {
  TempDir dir;
  OutputDocument doc(dir / "pages.tiff");
  PageImage page = Pattern(PixelKind::Gray, 10, 6);
  // A page the driver ended early: 3 whole lines and part of a fourth.
  ASSERT_TRUE(doc.BeginPage(page.format));
  doc.Append(page.raster.data(), 35);
  ASSERT_TRUE(doc.EndPage());
  // More bytes than announced: the surplus is dropped.
  ASSERT_TRUE(doc.BeginPage(page.format));
  std::vector<uint8_t> overlong(page.raster);
  overlong.resize(overlong.size() + 50, 0xEE);
  EXPECT_EQ(doc.Append(overlong.data(), overlong.size()), page.raster.size());
  ASSERT_TRUE(doc.EndPage());
  // A page without one whole line is left out; an unfinished one is dropped.
  ASSERT_TRUE(doc.BeginPage(page.format));
  doc.Append(page.raster.data(), 9);
  ASSERT_TRUE(doc.EndPage());
  ASSERT_TRUE(doc.BeginPage(page.format));
  doc.Append(page.raster.data(), 30);
  ASSERT_TRUE(doc.Finish());
  EXPECT_EQ(doc.PagesDone(), 2);
  EXPECT_EQ(doc.PagesSkipped(), 1);

  std::vector<TiffPage> back = ReadTiff(dir / "pages.tiff");
  ASSERT_EQ(back.size(), 2u);
  EXPECT_EQ(back[0].height, 3u);
  EXPECT_EQ(back[0].raster, std::vector<uint8_t>(page.raster.begin(), page.raster.begin() + 30));
  EXPECT_EQ(back[1].raster, page.raster);
}

TEST(HostOutputDocument, ReportsFilesThatCannotBeWritten) {
  TempDir dir;
  PageImage page = Pattern(PixelKind::Gray, 4, 4);
  std::string missing = dir / "no/such/folder/x.png";
  std::string error;
  EXPECT_FALSE(WritePng(missing, page, &error));
  EXPECT_NE(error.find("cannot create"), std::string::npos) << error;

  OutputDocument tiff(dir / "no/such/x.tif");
  ASSERT_TRUE(tiff.BeginPage(page.format));
  tiff.Append(page.raster.data(), page.raster.size());
  EXPECT_FALSE(tiff.EndPage());
  EXPECT_FALSE(tiff.Error().empty());

  OutputDocument png(missing);
  Deliver(png, page, 16);
  EXPECT_FALSE(png.Finish());
  EXPECT_FALSE(png.Error().empty());

  PageFormat empty{};
  EXPECT_FALSE(png.BeginPage(empty));
}

TEST(HostOutputDocument, RefusesImpossibleFormats) {
  std::string error;
  EXPECT_FALSE(CheckPageFormat({PixelKind::Rgb, 10, 10, 29, 0, 0}, &error));  // line too short
  EXPECT_FALSE(CheckPageFormat({PixelKind::Lineart, 9, 10, 1, 0, 0}, &error));
  EXPECT_FALSE(CheckPageFormat({PixelKind::Gray, 1u << 16, 1u << 16, 1u << 16, 0, 0}, &error));
  EXPECT_TRUE(CheckPageFormat({PixelKind::Lineart, 8, 10, 1, 0, 0}, &error));
}

}  // namespace
}  // namespace sx::host

#else
TEST(HostImageWriter, NotBuilt) { GTEST_SKIP() << "the command-line host is not part of this build"; }
#endif
