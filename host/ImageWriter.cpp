#include "ImageWriter.h"

#include <png.h>
#include <tiffio.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace sx::host {
namespace {

constexpr double kMetresPerInch = 0.0254;

uint32_t BitsPerPixel(PixelKind kind) {
  switch (kind) {
    case PixelKind::Lineart: return 1;
    case PixelKind::Gray: return 8;
    default: return 24;
  }
}

struct PngErrorState {
  char message[256] = "";
};

void OnPngError(png_structp png, png_const_charp message) {
  auto* state = static_cast<PngErrorState*>(png_get_error_ptr(png));
  std::snprintf(state->message, sizeof state->message, "%s", message);
  png_longjmp(png, 1);
}

void OnPngWarning(png_structp, png_const_charp) {}

// Only plain data lives in this frame: libpng reports errors by a long jump
// back to setjmp, which must not skip destructors.
bool WritePngStream(std::FILE* file, const PageImage& page, PngErrorState* state) {
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, state, OnPngError, OnPngWarning);
  if (!png) return false;
  png_infop info = png_create_info_struct(png);
  if (!info) {
    png_destroy_write_struct(&png, nullptr);
    return false;
  }
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    return false;
  }
  const PageFormat& f = page.format;
  png_init_io(png, file);
  int depth = f.kind == PixelKind::Lineart ? 1 : 8;
  int colour = f.kind == PixelKind::Rgb ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_GRAY;
  png_set_IHDR(png, info, f.width, page.Lines(), depth, colour, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  if (f.xdpi && f.ydpi) {
    png_set_pHYs(png, info, static_cast<png_uint_32>(std::lround(f.xdpi / kMetresPerInch)),
                 static_cast<png_uint_32>(std::lround(f.ydpi / kMetresPerInch)), PNG_RESOLUTION_METER);
  }
  png_write_info(png, info);
  const uint8_t* row = page.raster.data();
  for (uint32_t y = page.Lines(); y > 0; --y, row += f.bytesPerLine)
    png_write_row(png, const_cast<png_bytep>(row));
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return true;
}

// libtiff reports through process-wide handlers. Thread contract: the writers
// run on one thread (the host's), so one message slot serves.
char g_tiffMessage[256];

void OnTiffError(const char* module, const char* format, va_list args) {
  char text[200];
  std::vsnprintf(text, sizeof text, format, args);
  std::snprintf(g_tiffMessage, sizeof g_tiffMessage, "%s%s%s", module ? module : "", module ? ": " : "",
                text);
}

void InstallTiffHandlers() {
  TIFFSetErrorHandler(OnTiffError);
  TIFFSetWarningHandler(nullptr);
  g_tiffMessage[0] = '\0';
}

std::string TiffFailure(const char* what) {
  std::string out = what;
  if (g_tiffMessage[0]) out += std::string(": ") + g_tiffMessage;
  return out;
}

bool HasTiffExtension(const std::string& path) {
  std::string ext = std::filesystem::path(path).extension().string();
  for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return ext == ".tif" || ext == ".tiff";
}

}  // namespace

bool CheckPageFormat(const PageFormat& f, std::string* error) {
  uint64_t bits = uint64_t{f.width} * BitsPerPixel(f.kind);
  if (f.width == 0 || f.lines == 0 || f.bytesPerLine == 0) {
    *error = "the page has no pixels";
    return false;
  }
  if (bits > uint64_t{f.bytesPerLine} * 8) {
    *error = "a line holds fewer bytes than its pixels need";
    return false;
  }
  if (uint64_t{f.lines} * f.bytesPerLine > OutputDocument::kMaxPageBytes) {
    *error = "the page is too large to hold";
    return false;
  }
  return true;
}

std::string PartialName(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  const size_t name = slash == std::string::npos ? 0 : slash + 1;
  return path.substr(0, name) + "." + path.substr(name) + ".part";
}

bool PublishPartial(const std::string& partial, const std::string& path, std::string* error) {
  if (std::rename(partial.c_str(), path.c_str()) == 0) return true;
  *error = "cannot write " + path + ": " + std::strerror(errno);
  std::remove(partial.c_str());
  return false;
}

bool WriteThroughPartial(const std::string& path, std::string* error,
                         const std::function<bool(std::FILE*, std::string*)>& encode) {
  const std::string partial = PartialName(path);
  std::FILE* file = std::fopen(partial.c_str(), "wb");
  if (!file) {
    *error = "cannot create " + path + ": " + std::strerror(errno);
    return false;
  }
  std::string why;
  bool ok = encode(file, &why);
  if (std::fclose(file) != 0 && ok) {
    ok = false;
    why = std::strerror(errno);
  }
  if (!ok) {
    *error = "cannot write " + path + ": " + why;
    std::remove(partial.c_str());
    return false;
  }
  return PublishPartial(partial, path, error);
}

bool WritePng(const std::string& path, const PageImage& page, std::string* error) {
  if (!CheckPageFormat(page.format, error)) return false;
  if (page.Lines() == 0) {
    *error = "the page has no complete line";
    return false;
  }
  return WriteThroughPartial(path, error, [&](std::FILE* file, std::string* why) {
    PngErrorState state;
    if (WritePngStream(file, page, &state)) return true;
    *why = state.message[0] ? state.message : "out of memory";
    return false;
  });
}

TiffWriter::~TiffWriter() {
  std::string ignored;
  Close(&ignored);
}

bool TiffWriter::Open(const std::string& path, std::string* error) {
  if (!Close(error)) return false;
  InstallTiffHandlers();
  path_ = path;
  file_ = TIFFOpen(PartialName(path).c_str(), "w");
  if (!file_) {
    *error = TiffFailure(("cannot create " + path).c_str());
    return false;
  }
  pages_ = 0;
  return true;
}

bool TiffWriter::AppendPage(const PageImage& page, std::string* error) {
  if (!file_) {
    *error = "no TIFF file is open";
    return false;
  }
  if (!CheckPageFormat(page.format, error)) return false;
  const PageFormat& f = page.format;
  TIFF* tif = static_cast<TIFF*>(file_);
  g_tiffMessage[0] = '\0';
  bool rgb = f.kind == PixelKind::Rgb;
  TIFFSetField(tif, TIFFTAG_SUBFILETYPE, FILETYPE_PAGE);
  TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, f.width);
  TIFFSetField(tif, TIFFTAG_IMAGELENGTH, page.Lines());
  TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, f.kind == PixelKind::Lineart ? 1 : 8);
  TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, rgb ? 3 : 1);
  TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, rgb ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK);
  TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_LZW);
  TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(tif, 0));
  TIFFSetField(tif, TIFFTAG_PAGENUMBER, pages_, 0);
  if (f.xdpi && f.ydpi) {
    TIFFSetField(tif, TIFFTAG_XRESOLUTION, static_cast<float>(f.xdpi));
    TIFFSetField(tif, TIFFTAG_YRESOLUTION, static_cast<float>(f.ydpi));
    TIFFSetField(tif, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
  }
  // TIFFWriteScanline may change the row it is given (encoders work in
  // place), so each row goes through a scratch copy.
  std::vector<uint8_t> row(f.bytesPerLine);
  for (uint32_t y = 0; y < page.Lines(); ++y) {
    std::memcpy(row.data(), page.raster.data() + size_t{y} * f.bytesPerLine, f.bytesPerLine);
    if (TIFFWriteScanline(tif, row.data(), y, 0) < 0) {
      *error = TiffFailure("cannot write a TIFF line");
      return false;
    }
  }
  if (!TIFFWriteDirectory(tif)) {
    *error = TiffFailure("cannot finish a TIFF page");
    return false;
  }
  ++pages_;
  return true;
}

bool TiffWriter::Close(std::string* error) {
  if (!file_) return true;
  g_tiffMessage[0] = '\0';
  TIFFClose(static_cast<TIFF*>(file_));
  file_ = nullptr;
  if (g_tiffMessage[0]) {
    *error = TiffFailure("cannot close the TIFF file");
    std::remove(PartialName(path_).c_str());
    return false;
  }
  // Only a document with pages takes the output's name.
  if (pages_ == 0) {
    std::remove(PartialName(path_).c_str());
    return true;
  }
  return PublishPartial(PartialName(path_), path_, error);
}

OutputDocument::OutputDocument(std::string path, int jpegQuality)
    : path_(std::move(path)), quality_(jpegQuality) {
  tiffNamed_ = HasTiffExtension(path_);
  tiffPath_ = tiffNamed_ ? path_ : std::filesystem::path(path_).replace_extension(".tif").string();
  std::string ext = std::filesystem::path(path_).extension().string();
  for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  format_ = tiffNamed_ ? Format::Tiff
            : ext == ".pdf" ? Format::Pdf
            : (ext == ".jpg" || ext == ".jpeg") ? Format::Jpeg
                                                : Format::Png;
}

// The first page takes the name itself, the next ones "<stem>-2.jpg" and on.
std::string OutputDocument::JpegPath(int page) const {
  if (page <= 1) return path_;
  std::filesystem::path p(path_);
  return (p.parent_path() / (p.stem().string() + "-" + std::to_string(page) + p.extension().string()))
      .string();
}

bool OutputDocument::BeginPage(const PageFormat& format) {
  if (finished_) {
    error_ = "the document is already finished";
    return false;
  }
  if (!CheckPageFormat(format, &error_)) return false;
  DropPage();
  current_.format = format;
  open_ = true;
  return true;
}

size_t OutputDocument::Append(const uint8_t* data, size_t bytes) {
  if (!open_ || !data) return 0;
  uint64_t room = PageExpectedBytes() - current_.raster.size();
  size_t take = static_cast<size_t>(std::min<uint64_t>(bytes, room));
  current_.raster.insert(current_.raster.end(), data, data + take);
  return take;
}

bool OutputDocument::WriteTiffPage(const PageImage& page) {
  if (!tiff_.IsOpen() && !tiff_.Open(tiffPath_, &error_)) return false;
  return tiff_.AppendPage(page, &error_);
}

bool OutputDocument::EndPage() {
  if (!open_) return true;
  open_ = false;
  PageImage page = std::move(current_);
  current_ = PageImage{};
  if (page.Lines() == 0) {
    ++pagesSkipped_;
    return true;
  }
  bool ok = true;
  if (format_ == Format::Pdf) {
    ok = pdf_.AppendPage(page, &error_);
  } else if (format_ == Format::Jpeg) {
    ok = WriteJpeg(JpegPath(pagesDone_ + 1), page, quality_, &error_);
  } else if (tiffNamed_ || tiff_.IsOpen()) {
    ok = WriteTiffPage(page);
  } else if (!kept_) {
    kept_ = std::move(page);
  } else {
    // A second page: the document becomes a TIFF holding both.
    ok = WriteTiffPage(*kept_) && WriteTiffPage(page);
    kept_.reset();
  }
  if (ok) ++pagesDone_;
  return ok;
}

void OutputDocument::DropPage() {
  open_ = false;
  current_ = PageImage{};
}

bool OutputDocument::Finish() {
  if (finished_) return error_.empty();
  finished_ = true;
  DropPage();
  bool ok = true;
  if (kept_) {
    ok = WritePng(path_, *kept_, &error_);
    kept_.reset();
  }
  std::string closeError;
  if (!pdf_.Close(path_, &closeError) && ok) {
    error_ = closeError;
    ok = false;
  }
  if (!tiff_.Close(&closeError) && ok) {
    error_ = closeError;
    ok = false;
  }
  return ok;
}

std::string OutputDocument::WrittenPath() const {
  if (pagesDone_ == 0) return "";
  if (format_ == Format::Pdf) return path_;
  if (format_ == Format::Jpeg) return pagesDone_ == 1 ? path_ : path_ + " to " + JpegPath(pagesDone_);
  // A PNG document holds one page; a second one turned it into a TIFF.
  return (tiffNamed_ || pagesDone_ > 1) ? tiffPath_ : path_;
}

}  // namespace sx::host
