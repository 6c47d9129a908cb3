// Test helpers: a temporary folder, and PNG, TIFF, JPEG and PDF files read
// back with libpng, libtiff, libjpeg, zlib and qpdf, independently of the
// writers under test.
#pragma once
#include <png.h>
#include <tiffio.h>
#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <jpeglib.h>

#include "support/Pnm.h"
#include "support/Shell.h"
#include "support/TestEnv.h"

namespace sx::host {

// A temporary folder; TempRoot also points SX_ROOT at it, which is harmless here.
struct TempDir : sxtest::TempRoot {
  std::string operator/(const std::string& name) const { return (Path() / name).string(); }
};

struct PngRead {
  bool ok = false;
  png_uint_32 width = 0, height = 0;
  int depth = 0, colour = 0;
  png_uint_32 xppm = 0;
  std::vector<uint8_t> raster;  // rows packed as stored
};

inline PngRead ReadPng(const std::string& path) {
  PngRead out;
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (!file) return out;
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(file);
    return out;
  }
  png_init_io(png, file);
  png_read_info(png, info);
  out.width = png_get_image_width(png, info);
  out.height = png_get_image_height(png, info);
  out.depth = png_get_bit_depth(png, info);
  out.colour = png_get_color_type(png, info);
  out.xppm = png_get_x_pixels_per_meter(png, info);
  size_t rowBytes = png_get_rowbytes(png, info);
  out.raster.resize(rowBytes * out.height);
  for (png_uint_32 y = 0; y < out.height; ++y) png_read_row(png, out.raster.data() + y * rowBytes, nullptr);
  png_read_end(png, nullptr);
  png_destroy_read_struct(&png, &info, nullptr);
  std::fclose(file);
  out.ok = true;
  return out;
}

struct TiffPage {
  uint32_t width = 0, height = 0;
  uint16_t bits = 0, photometric = 0;
  float xres = 0;
  uint16_t page = 0, pages = 0;  // "page n of total"
  std::vector<uint8_t> raster;
};

inline std::vector<TiffPage> ReadTiff(const std::string& path) {
  std::vector<TiffPage> pages;
  TIFF* tif = TIFFOpen(path.c_str(), "r");
  if (!tif) return pages;
  do {
    TiffPage p;
    TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &p.width);
    TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &p.height);
    TIFFGetField(tif, TIFFTAG_BITSPERSAMPLE, &p.bits);
    TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &p.photometric);
    TIFFGetField(tif, TIFFTAG_XRESOLUTION, &p.xres);
    TIFFGetField(tif, TIFFTAG_PAGENUMBER, &p.page, &p.pages);
    tmsize_t line = TIFFScanlineSize(tif);
    p.raster.resize(size_t(line) * p.height);
    for (uint32_t y = 0; y < p.height; ++y) TIFFReadScanline(tif, p.raster.data() + y * line, y, 0);
    pages.push_back(std::move(p));
  } while (TIFFReadDirectory(tif));
  TIFFClose(tif);
  return pages;
}

struct JpegRead {
  bool ok = false;
  uint32_t width = 0, height = 0;
  int components = 0;
  std::vector<uint8_t> raster;
};

// Decodes JPEG bytes; a warning (data after the image, a marker out of
// place) counts as a failure, so a file that merely decodes is not enough.
inline JpegRead DecodeJpeg(const std::vector<uint8_t>& bytes) {
  JpegRead out;
  jpeg_decompress_struct jpeg;
  jpeg_error_mgr errors;
  jpeg.err = jpeg_std_error(&errors);
  jpeg_create_decompress(&jpeg);
  jpeg_mem_src(&jpeg, bytes.data(), static_cast<unsigned long>(bytes.size()));
  if (jpeg_read_header(&jpeg, TRUE) == JPEG_HEADER_OK) {
    // Plain replication of colour: the last lines do not borrow from below.
    jpeg.do_fancy_upsampling = FALSE;
    jpeg_start_decompress(&jpeg);
    out.width = jpeg.output_width, out.height = jpeg.output_height, out.components = jpeg.output_components;
    const size_t stride = size_t{out.width} * out.components;
    out.raster.resize(stride * out.height);
    while (jpeg.output_scanline < jpeg.output_height) {
      JSAMPROW row = out.raster.data() + stride * jpeg.output_scanline;
      jpeg_read_scanlines(&jpeg, &row, 1);
    }
    jpeg_finish_decompress(&jpeg);
    out.ok = errors.num_warnings == 0;
  }
  jpeg_destroy_decompress(&jpeg);
  return out;
}

inline std::vector<uint8_t> ReadBytes(const std::string& path) {
  std::vector<uint8_t> bytes;
  if (std::FILE* file = std::fopen(path.c_str(), "rb")) {
    uint8_t block[65536];
    for (size_t n; (n = std::fread(block, 1, sizeof block, file)) > 0;) bytes.insert(bytes.end(), block, block + n);
    std::fclose(file);
  }
  return bytes;
}

// One page of a PDF as the writers make it: its size in points and its one
// image, inflated.
struct PdfPage {
  double width = 0, height = 0;
  uint32_t imageWidth = 0, imageHeight = 0;
  int bits = 0;
  bool rgb = false;
  std::vector<uint8_t> raster;
};

inline double NumberAfter(const std::string& text, size_t at, const char* key) {
  const size_t k = text.find(key, at);
  return k == std::string::npos ? -1 : std::atof(text.c_str() + k + std::strlen(key));
}

// Pages in file order; each image is followed by its page's MediaBox.
inline std::vector<PdfPage> ReadPdf(const std::vector<uint8_t>& bytes) {
  const std::string text(bytes.begin(), bytes.end());
  std::vector<PdfPage> pages;
  for (size_t at = 0; (at = text.find("/Subtype /Image", at)) != std::string::npos; ++at) {
    PdfPage page;
    page.imageWidth = static_cast<uint32_t>(NumberAfter(text, at, "/Width "));
    page.imageHeight = static_cast<uint32_t>(NumberAfter(text, at, "/Height "));
    page.bits = static_cast<int>(NumberAfter(text, at, "/BitsPerComponent "));
    page.rgb = text.compare(text.find("/ColorSpace ", at) + 12, 10, "/DeviceRGB") == 0;
    const size_t start = text.find("stream\n", at) + 7, end = text.find("\nendstream", start);
    const size_t box = text.find("/MediaBox [0 0 ", end);
    page.width = NumberAfter(text, box, "[0 0 ");
    page.height = std::atof(text.c_str() + text.find(' ', box + 15));
    z_stream z{};
    inflateInit(&z);
    std::vector<uint8_t> out(size_t{page.imageWidth} * (page.rgb ? 3 : 1) * page.imageHeight + 64);
    z.next_in = const_cast<Bytef*>(bytes.data() + start);
    z.avail_in = static_cast<uInt>(end - start);
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    if (inflate(&z, Z_FINISH) == Z_STREAM_END) page.raster.assign(out.begin(), out.begin() + z.total_out);
    inflateEnd(&z);
    pages.push_back(std::move(page));
  }
  return pages;
}

// The pages of a PDF file as qpdf counts them once its check of the whole
// structure passes (every cross-reference section, each object where its
// entry says, the page tree); -1, with qpdf's words in *why, when it fails.
inline int PdfPages(const std::string& path, std::string* why) {
  int status = 0;
  *why = sxtest::RunShell("qpdf --check '" + path + "' 2>&1", &status);
  if (status != 0) return -1;
  return std::atoi(sxtest::RunShell("qpdf --show-npages '" + path + "'", &status).c_str());
}

using sxtest::PnmPixels;

}  // namespace sx::host
