// The file formats on the libraries of the system: PNG pages through libpng,
// multi-page TIFF through libtiff, JPEG pages through libjpeg and PDF
// documents through libharu. JPEG and PDF work on whole delivered pages: line
// art (1 bit per pixel, 1 = black) is spread to gray for JPEG and kept at 1
// bit in PDF.
#include <hpdf.h>
#include <png.h>
#include <fcntl.h>
#include <tiffio.h>
#include <unistd.h>

#include <cstdio>  // jpeglib.h needs FILE declared first
#include <jpeglib.h>

#include <cerrno>
#include <cmath>
#include <csetjmp>
#include <cstdarg>
#include <cstring>
#include <vector>

#include "ImageWriter.h"

namespace sx::host {

namespace {

constexpr double kMetresPerInch = 0.0254;

struct PngErrorState {
  char message[256] = "";
  int code = 0;  // errno when the error was raised: a full disk reads as such
};

void OnPngError(png_structp png, png_const_charp message) {
  auto* state = static_cast<PngErrorState*>(png_get_error_ptr(png));
  state->code = errno;
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
int g_tiffCode = 0;  // errno at the first error

void OnTiffError(const char* module, const char* format, va_list args) {
  if (!g_tiffMessage[0]) g_tiffCode = errno;
  char text[200];
  std::vsnprintf(text, sizeof text, format, args);
  std::snprintf(g_tiffMessage, sizeof g_tiffMessage, "%s%s%s", module ? module : "", module ? ": " : "",
                text);
}

void InstallTiffHandlers() {
  TIFFSetErrorHandler(OnTiffError);
  TIFFSetWarningHandler(nullptr);
  g_tiffMessage[0] = '\0';
  g_tiffCode = 0;
}

std::string TiffFailure(const char* what) {
  std::string out = what;
  if (g_tiffMessage[0]) out += std::string(": ") + g_tiffMessage;
  return out;
}

// A full disk reads as for every format; other failures in libtiff's words.
std::string TiffWriteFailure(const std::string& path, const char* what) {
  return g_tiffCode == ENOSPC ? WriteFailure(path, ENOSPC, "") : TiffFailure(what);
}

constexpr double kPointsPerInch = 72.0;
constexpr uint32_t kAssumedDpi = 300;  // when the library announced none

// One line as 8-bit samples: line art bits (1 = black) become 0 or 255.
void GrayLine(const PageFormat& f, const uint8_t* row, std::vector<uint8_t>& out) {
  out.resize(f.width);
  for (uint32_t x = 0; x < f.width; ++x) out[x] = (row[x / 8] >> (7 - x % 8)) & 1 ? 0 : 255;
}

struct JpegFailure {
  jpeg_error_mgr manager;
  std::jmp_buf jump;
  char message[JMSG_LENGTH_MAX];
  int code;  // errno when the error was raised
};

extern "C" void OnJpegError(j_common_ptr info) {
  auto* failure = reinterpret_cast<JpegFailure*>(info->err);
  failure->code = errno;
  (*info->err->format_message)(info, failure->message);
  std::longjmp(failure->jump, 1);
}

// The encoding itself; false with the library's message on failure. Kept
// free of objects with destructors, since an error leaves it by longjmp.
bool EncodeJpeg(std::FILE* file, const PageImage& page, int quality, std::vector<uint8_t>& gray,
                JpegFailure& failure) {
  jpeg_compress_struct jpeg;
  jpeg.err = jpeg_std_error(&failure.manager);
  failure.manager.error_exit = OnJpegError;
  if (setjmp(failure.jump)) {
    jpeg_destroy_compress(&jpeg);
    return false;
  }
  jpeg_create_compress(&jpeg);
  jpeg_stdio_dest(&jpeg, file);
  const PageFormat& f = page.format;
  jpeg.image_width = f.width;
  jpeg.image_height = page.Lines();
  jpeg.input_components = f.kind == PixelKind::Rgb ? 3 : 1;
  jpeg.in_color_space = f.kind == PixelKind::Rgb ? JCS_RGB : JCS_GRAYSCALE;
  jpeg_set_defaults(&jpeg);
  jpeg_set_quality(&jpeg, quality, TRUE);
  jpeg.density_unit = 1;  // dots per inch
  jpeg.X_density = static_cast<UINT16>(f.xdpi);
  jpeg.Y_density = static_cast<UINT16>(f.ydpi);
  jpeg_start_compress(&jpeg, TRUE);
  for (uint32_t y = 0; y < page.Lines(); ++y) {
    const uint8_t* row = page.raster.data() + size_t{y} * f.bytesPerLine;
    JSAMPROW line = const_cast<JSAMPROW>(row);
    if (f.kind == PixelKind::Lineart) {
      GrayLine(f, row, gray);
      line = gray.data();
    }
    jpeg_write_scanlines(&jpeg, &line, 1);
  }
  jpeg_finish_compress(&jpeg);
  jpeg_destroy_compress(&jpeg);
  return true;
}

// libharu reports through a handler; the writer runs on the host's thread
// only, so one slot serves.
HPDF_STATUS g_pdfError = HPDF_OK;
void OnPdfError(HPDF_STATUS error, HPDF_STATUS, void*) { g_pdfError = error; }

std::string PdfFailure(const char* what) {
  char code[32];
  std::snprintf(code, sizeof code, " (libharu error 0x%04X)", static_cast<unsigned>(g_pdfError));
  return std::string(what) + code;
}

}  // namespace

// libpng, libtiff, libjpeg and libharu together write every format.
bool OutputFormatAvailable(const std::string&, std::string*) { return true; }

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
    errno = state.code;
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
  if (!CreatePartial(path, &partial_, error)) return false;
  file_ = TIFFOpen(partial_.c_str(), "w");
  if (!file_) {
    *error = TiffWriteFailure(path, ("cannot create " + path).c_str());
    DiscardPartial(partial_);
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
  g_tiffCode = 0;
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
      *error = TiffWriteFailure(path_, "cannot write a TIFF line");
      return false;
    }
  }
  if (!TIFFWriteDirectory(tif)) {
    *error = TiffWriteFailure(path_, "cannot finish a TIFF page");
    return false;
  }
  ++pages_;
  return true;
}

// Each page learns the document's page count once the last one is written:
// "page n of total" for a reader, which the pages could not tell at the time.
static void NumberTiffPages(TIFF* tif, uint16_t pages) {
  for (uint16_t page = 0; page < pages; ++page) {
    if (!TIFFSetDirectory(tif, page)) return;
    TIFFSetField(tif, TIFFTAG_PAGENUMBER, page, pages);
    if (!TIFFRewriteDirectory(tif)) return;
  }
}

bool TiffWriter::Close(std::string* error) {
  if (!file_) return true;
  g_tiffMessage[0] = '\0';
  g_tiffCode = 0;
  NumberTiffPages(static_cast<TIFF*>(file_), pages_);
  TIFFClose(static_cast<TIFF*>(file_));
  file_ = nullptr;
  if (g_tiffMessage[0]) {
    *error = TiffWriteFailure(path_, "cannot close the TIFF file");
    DiscardPartial(partial_);
    return false;
  }
  // Only a document with pages takes the output's name.
  if (pages_ == 0) {
    DiscardPartial(partial_);
    return true;
  }
  return PublishPartial(partial_, path_, error);
}

bool WriteJpeg(const std::string& path, const PageImage& page, int quality, std::string* error) {
  if (!CheckPageFormat(page.format, error)) return false;
  if (page.Lines() == 0) {
    *error = "the page has no complete line";
    return false;
  }
  return WriteThroughPartial(path, error, [&](std::FILE* file, std::string* why) {
    std::vector<uint8_t> gray;
    JpegFailure failure{};
    if (EncodeJpeg(file, page, quality, gray, failure)) return true;
    *why = failure.message;
    errno = failure.code;
    return false;
  });
}

PdfWriter::~PdfWriter() {
  if (doc_) HPDF_Free(static_cast<HPDF_Doc>(doc_));
}

bool PdfWriter::AppendPage(const PageImage& page, std::string* error) {
  if (!CheckPageFormat(page.format, error)) return false;
  if (!doc_) {
    doc_ = HPDF_New(OnPdfError, nullptr);
    if (!doc_) {
      *error = "no memory for the PDF document";
      return false;
    }
    HPDF_SetCompressionMode(static_cast<HPDF_Doc>(doc_), HPDF_COMP_ALL);
  }
  HPDF_Doc doc = static_cast<HPDF_Doc>(doc_);
  const PageFormat& f = page.format;
  g_pdfError = HPDF_OK;
  std::vector<uint8_t> samples;
  const uint8_t* raster = page.raster.data();
  HPDF_ColorSpace space = f.kind == PixelKind::Rgb ? HPDF_CS_DEVICE_RGB : HPDF_CS_DEVICE_GRAY;
  HPDF_UINT bits = 8;
  if (f.kind == PixelKind::Lineart) {
    // PDF's 1-bit gray has 0 for black: the delivered bits, inverted.
    samples.assign(raster, raster + size_t{page.Lines()} * f.bytesPerLine);
    for (uint8_t& b : samples) b = static_cast<uint8_t>(~b);
    raster = samples.data();
    bits = 1;
  }
  HPDF_Image image = HPDF_LoadRawImageFromMem(doc, raster, f.width, page.Lines(), space, bits);
  HPDF_Page pdfPage = image ? HPDF_AddPage(doc) : nullptr;
  if (!image || !pdfPage) {
    *error = PdfFailure("cannot add a page to the PDF document");
    return false;
  }
  const double xdpi = f.xdpi ? f.xdpi : kAssumedDpi, ydpi = f.ydpi ? f.ydpi : kAssumedDpi;
  const auto width = static_cast<HPDF_REAL>(f.width * kPointsPerInch / xdpi);
  const auto height = static_cast<HPDF_REAL>(page.Lines() * kPointsPerInch / ydpi);
  HPDF_Page_SetWidth(pdfPage, width);
  HPDF_Page_SetHeight(pdfPage, height);
  HPDF_Page_DrawImage(pdfPage, image, 0, 0, width, height);
  if (g_pdfError != HPDF_OK) {
    *error = PdfFailure("cannot draw the page");
    return false;
  }
  ++pages_;
  return true;
}

// The document is made in memory and written like every other file: libharu
// does not report a write that fails when its file is closed.
bool PdfWriter::Close(const std::string& path, std::string* error) {
  if (!doc_) return true;
  HPDF_Doc doc = static_cast<HPDF_Doc>(doc_);
  g_pdfError = HPDF_OK;
  std::vector<uint8_t> bytes;
  bool saved = pages_ == 0 || HPDF_SaveToStream(doc) == HPDF_OK;
  if (saved && pages_ > 0) {
    HPDF_UINT32 size = HPDF_GetStreamSize(doc);
    bytes.resize(size);
    // The whole stream in one read ends with its end reported.
    const HPDF_STATUS read = HPDF_ReadFromStream(doc, bytes.data(), &size);
    saved = (read == HPDF_OK || read == HPDF_STREAM_EOF) && size == bytes.size();
  }
  HPDF_Free(doc);
  doc_ = nullptr;
  if (!saved) {
    *error = PdfFailure(("cannot make the PDF document " + path).c_str());
    return false;
  }
  if (pages_ == 0) return true;
  return WriteThroughPartial(path, error, [&](std::FILE* file, std::string* why) {
    if (std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size()) return true;
    *why = std::strerror(errno);
    return false;
  });
}

// Exclusive creation with the permissions any new file gets (the umask's).
bool CreateNewFile(const std::string& name, int* code) {
  constexpr mode_t kNewFileMode = 0666;
  const int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kNewFileMode);
  if (fd < 0) {
    *code = errno;
    return false;
  }
  close(fd);
  return true;
}

}  // namespace sx::host
