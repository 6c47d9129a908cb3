// Scanned pages written as PNG and TIFF and read back with libpng and libtiff.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include "ImageRead.h"
#include "ImageWriter.h"

namespace sx::host {
namespace {

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

TEST(HostImageWriter, PngAndTiffRoundTrip) {
  TempDir dir;
  struct Case {
    PixelKind kind;
    uint32_t width, lines, dpi, ppm;
    int depth, colour;
    uint16_t photometric;
  } cases[] = {
      {PixelKind::Rgb, 40, 30, 200, 7874, 8, PNG_COLOR_TYPE_RGB, PHOTOMETRIC_RGB},
      {PixelKind::Gray, 17, 5, 300, 11811, 8, PNG_COLOR_TYPE_GRAY, PHOTOMETRIC_MINISBLACK},
      {PixelKind::Lineart, 48, 10, 300, 11811, 1, PNG_COLOR_TYPE_GRAY, PHOTOMETRIC_MINISBLACK},
  };
  std::vector<PageImage> pages;
  TiffWriter tiff;
  std::string error;
  ASSERT_TRUE(tiff.Open(dir / "stack.tif", &error)) << error;
  for (const auto& c : cases) {
    pages.push_back(Pattern(c.kind, c.width, c.lines, c.dpi));
    ASSERT_TRUE(WritePng(dir / "page.png", pages.back(), &error)) << error;
    ASSERT_TRUE(tiff.AppendPage(pages.back(), &error)) << error;
    PngRead png = ReadPng(dir / "page.png");
    EXPECT_TRUE(png.width == c.width && png.height == c.lines && png.depth == c.depth && png.colour == c.colour &&
                png.xppm == c.ppm);
    EXPECT_EQ(png.raster, pages.back().raster);
  }
  ASSERT_TRUE(tiff.Close(&error)) << error;
  std::vector<TiffPage> back = ReadTiff(dir / "stack.tif");
  ASSERT_EQ(back.size(), 3u);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_TRUE(back[i].width == cases[i].width && back[i].height == cases[i].lines &&
                back[i].bits == cases[i].depth && back[i].photometric == cases[i].photometric) << i;
    EXPECT_FLOAT_EQ(back[i].xres, float(cases[i].dpi));
    EXPECT_EQ(back[i].raster, pages[i].raster) << i;
  }
}

TEST(HostOutputDocument, ShortOverlongAndUnfinishedPages) {
  TempDir dir;
  OutputDocument doc(dir / "pages.tiff");
  PageImage page = Pattern(PixelKind::Gray, 10, 6);
  // Pages the driver ended early (3 whole lines and part of a fourth), sent
  // too long (the surplus is dropped), ended without one whole line (left
  // out) and left unfinished by the end of the scan (dropped).
  std::vector<uint8_t> overlong(page.raster);
  overlong.resize(overlong.size() + 50, 0xEE);
  for (size_t bytes : {size_t{35}, overlong.size(), size_t{9}, size_t{30}}) {
    ASSERT_TRUE(doc.BeginPage(page.format));
    EXPECT_EQ(doc.Append(overlong.data(), bytes), std::min(bytes, page.raster.size()));
    if (bytes != 30) { ASSERT_TRUE(doc.EndPage()); }
  }
  ASSERT_TRUE(doc.Finish());
  EXPECT_EQ(doc.PagesDone(), 2);
  EXPECT_EQ(doc.PagesSkipped(), 1);

  std::vector<TiffPage> back = ReadTiff(dir / "pages.tiff");
  ASSERT_EQ(back.size(), 2u);
  EXPECT_EQ(back[0].raster, std::vector<uint8_t>(page.raster.begin(), page.raster.begin() + 30));
  EXPECT_EQ(back[1].raster, page.raster);
}

TEST(HostOutputDocument, ReportsFilesItCannotWrite) {
  TempDir dir;
  PageImage page = Pattern(PixelKind::Gray, 8, 4);
  std::string error;
  EXPECT_FALSE(WritePng(dir / "no/such/x.png", page, &error));
  EXPECT_NE(error.find("cannot create"), std::string::npos) << error;
  OutputDocument tiff(dir / "no/such/x.tif");
  ASSERT_TRUE(tiff.BeginPage(page.format));
  tiff.Append(page.raster.data(), page.raster.size());
  EXPECT_FALSE(tiff.EndPage());
  EXPECT_FALSE(tiff.Error().empty());
}

}  // namespace
}  // namespace sx::host

#endif
