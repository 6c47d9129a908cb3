// Test helpers: a temporary folder, and PNG and TIFF files read back with
// libpng and libtiff, independently of the writers under test.
#pragma once
#include <png.h>
#include <tiffio.h>

#include <cstdio>
#include <string>
#include <vector>

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
    tmsize_t line = TIFFScanlineSize(tif);
    p.raster.resize(size_t(line) * p.height);
    for (uint32_t y = 0; y < p.height; ++y) TIFFReadScanline(tif, p.raster.data() + y * line, y, 0);
    pages.push_back(std::move(p));
  } while (TIFFReadDirectory(tif));
  TIFFClose(tif);
  return pages;
}

}  // namespace sx::host
