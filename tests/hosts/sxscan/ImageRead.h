// Test helpers: a temporary folder, and PNG, TIFF, JPEG and PDF files read
// back with libpng, libtiff, libjpeg and zlib, independently of the writers
// under test; the PNM pages scanning front ends write.
#pragma once
#include <png.h>
#include <tiffio.h>
#include <zlib.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <jpeglib.h>

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

// The document's structure as a reader follows it: from the last startxref
// through every cross-reference section (/Prev), each object in use where its
// entry says, the catalog's page tree counting its pages, and each of them a
// page. The page count, or -1 with the reason in *why.
inline int PdfStructurePages(const std::vector<uint8_t>& bytes, std::string* why) {
  const std::string text(bytes.begin(), bytes.end());
  std::map<int, size_t> objects;  // the newest definition of each
  std::string root;
  const size_t last = text.rfind("startxref\n");
  if (last == std::string::npos || text.compare(text.size() - 6, 6, "%%EOF\n") != 0) return *why = "no trailer", -1;
  for (long at = std::atol(text.c_str() + last + 10), sections = 0; at > 0 && sections < 100000; ++sections) {
    if (static_cast<size_t>(at) >= text.size() || text.compare(at, 5, "xref\n") != 0)
      return *why = "no xref section", -1;
    size_t p = at + 5;
    for (int first = 0, count = 0; std::sscanf(text.c_str() + p, "%d %d\n", &first, &count) == 2;) {
      p = text.find('\n', p) + 1;
      for (int i = 0; i < count; ++i, p += 20)
        if (text.compare(p + 17, 1, "n") == 0) objects.emplace(first + i, std::strtoull(text.c_str() + p, nullptr, 10));
    }
    const size_t end = text.find(">>", p);
    if (text.compare(p, 8, "trailer\n") != 0 || end == std::string::npos) return *why = "no trailer dictionary", -1;
    const std::string trailer = text.substr(p, end - p);
    if (root.empty() && trailer.find("/Root ") != std::string::npos) root = trailer.substr(trailer.find("/Root ") + 6);
    at = trailer.find("/Prev ") == std::string::npos ? 0 : std::atol(trailer.c_str() + trailer.find("/Prev ") + 6);
  }
  for (const auto& [number, offset] : objects)
    if (text.compare(offset, std::to_string(number).size() + 6, std::to_string(number) + " 0 obj") != 0)
      return *why = "object " + std::to_string(number) + " is not where its entry says", -1;
  const auto body = [&](int number) {
    const auto found = objects.find(number);
    if (found == objects.end()) return std::string();
    return text.substr(found->second, text.find("endobj", found->second) - found->second);
  };
  const std::string catalog = body(std::atoi(root.c_str()));
  const size_t pagesAt = catalog.find("/Pages ");
  const std::string tree = pagesAt == std::string::npos ? "" : body(std::atoi(catalog.c_str() + pagesAt + 7));
  if (tree.find("/Type /Pages") == std::string::npos) return *why = "no page tree", -1;
  const int count = std::atoi(tree.c_str() + tree.find("/Count ") + 7);
  std::istringstream kids(tree.substr(tree.find("/Kids [") + 7));
  int kid = 0, pages = 0;
  std::string generation, reference;
  while (kids >> kid >> generation >> reference && reference == "R") {
    if (body(kid).find("/Type /Page ") == std::string::npos) return *why = "a kid is no page", -1;
    ++pages;
  }
  if (pages != count) return *why = "/Count says " + std::to_string(count), -1;
  return pages;
}

// The pixel bytes of a binary PNM page (P4, P5 or P6), and its size.
inline std::vector<uint8_t> PnmPixels(const std::string& pnm, int* width, int* height) {
  const size_t wanted = pnm.compare(0, 2, "P4") == 0 ? 3 : 4;  // a bitmap has no maximum value
  std::vector<std::string> fields;
  size_t pos = 0;
  while (fields.size() < wanted && pos < pnm.size()) {
    if (pnm[pos] == '#') {
      pos = pnm.find('\n', pos);
    } else if (std::isspace(static_cast<unsigned char>(pnm[pos]))) {
      ++pos;
    } else {
      const size_t end = std::min(pnm.find_first_of(" \t\r\n", pos), pnm.size());
      fields.push_back(pnm.substr(pos, end - pos));
      pos = end;
    }
  }
  if (fields.size() < wanted || pos >= pnm.size()) return {};
  *width = std::stoi(fields[1]);
  *height = std::stoi(fields[2]);
  return std::vector<uint8_t>(pnm.begin() + static_cast<long>(pos) + 1, pnm.end());
}

}  // namespace sx::host
