/* sxscan-example: a small Windows host of sxscan.dll.
 *
 * It does what an imaging application does with the library: lists the data
 * sources (and shows the version resource each driver module was accepted
 * by), selects one, which the library stores in the registry under
 * HKEY_CURRENT_USER\Software\Quillmark, opens it again from there as a fresh
 * session would, scans one colour page into a GlobalAlloc transfer buffer
 * with the library's progress dialog shown, and writes the page as PNG
 * through the Windows Imaging Component. It then decodes the file again and
 * checks size and pixels against what the library delivered.
 *
 *   sxscan-example [--resolution DPI] [--source TEXT] [--expect WxH] [OUTPUT.png]
 *
 * Only the public headers sxscan.h and sxsys.h and the import library of
 * sxscan.dll are used. Exit status 0 when the page was written and read
 * back intact, 1 otherwise. */
#define COBJMACROS
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
#include <wincodec.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "sxscan.h"
#include "sxsys.h"

enum {
  BUFFER_BYTES = 1 << 20, /* the transfer buffer; a direct transfer sizes its blocks from it */
  DEFAULT_DPI = 150,
  FLATBED = 2,
  COLOUR = 2,
  COLOUR_BITS = 24,
  BYTES_PER_PIXEL = 3
};

static const char kRegistryKey[] = "Software\\Quillmark";
static const char kMakerPrefix[] = "corvane"; /* what the library's maker check accepts */

/* One page as the library delivers it: RGB lines of PixelsPerLine pixels. */
typedef struct Page {
  SxImageInfo Info;
  BYTE* Pixels;
  size_t Capacity; /* bytes of the announced page */
  size_t Received;
  int Pages;       /* pages announced */
  int Ended;       /* the last page's final block arrived */
  HGLOBAL Buffer;  /* the transfer buffer's block, wherever the library moved it */
} Page;

static Page g_page;
static int g_progressShown;

static void Field(char* out, size_t size, const char* field, size_t width) {
  size_t n = 0;
  while (n < width && field[n]) ++n;
  if (n >= size) n = size - 1;
  memcpy(out, field, n);
  out[n] = '\0';
}

/* ------------------------------------------------------------------------
 * Data sources and the version resources the library verified them by.
 * ------------------------------------------------------------------------ */

/* A text of the module's version resource under its first translation, or
 * an empty text. */
static void VersionText(const void* block, const char* name, char* out, size_t size) {
  const BYTE* translation = NULL;
  const char* value = NULL;
  UINT bytes = 0;
  char query[96];
  out[0] = '\0';
  if (!VerQueryValueA(block, "\\VarFileInfo\\Translation", (LPVOID*)&translation, &bytes) || bytes < 4) return;
  snprintf(query, sizeof query, "\\StringFileInfo\\%02X%02X%02X%02X\\%s", translation[1], translation[0],
           translation[3], translation[2], name);
  if (VerQueryValueA(block, query, (LPVOID*)&value, &bytes) && bytes > 0) snprintf(out, size, "%s", value);
}

/* Reads the company and file version of a module's VS_VERSIONINFO; 0 when
 * it has none. */
static int ReadVersionResource(const char* path, char* company, char* version, size_t size) {
  DWORD ignored = 0;
  DWORD bytes = GetFileVersionInfoSizeA(path, &ignored);
  void* block = bytes ? HeapAlloc(GetProcessHeap(), 0, bytes) : NULL;
  int ok = block && GetFileVersionInfoA(path, 0, bytes, block);
  if (ok) {
    VersionText(block, "CompanyName", company, size);
    VersionText(block, "FileVersion", version, size);
  }
  if (block) HeapFree(GetProcessHeap(), 0, block);
  return ok;
}

static int IsMakersModule(const char* company) { return _strnicmp(company, kMakerPrefix, strlen(kMakerPrefix)) == 0; }

/* Lists every source; keeps the first whose name contains `wanted` (any
 * source when it is null) and whose module carries the maker's resource. */
static int ListSources(const char* wanted, SxDataSource* chosen) {
  SxDataSource source;
  int found = 0, count = 0;
  int32_t result = SxGetDS(SX_DS_FIRST, &source);
  while (result == SX_OK) {
    char name[43], directory[126], file[34], path[160], company[128], version[64];
    Field(name, sizeof name, source.DisplayName, sizeof source.DisplayName);
    Field(directory, sizeof directory, source.Directory, sizeof source.Directory);
    Field(file, sizeof file, source.FileName, sizeof source.FileName);
    snprintf(path, sizeof path, "%s%s", directory, file);
    ++count;
    printf("source %d: \"%s\"  vendor %.33s  port %.33s  version %.13s\n  module %s\n", count, name,
           source.Vendor, source.PortName, source.FileVersion, path);
    if (ReadVersionResource(path, company, version, sizeof company)) {
      printf("  version resource: CompanyName \"%s\", FileVersion \"%s\"\n", company, version);
      if (!found && IsMakersModule(company) && (!wanted || strstr(name, wanted))) {
        *chosen = source;
        found = 1;
      }
    } else {
      printf("  version resource: none\n");
    }
    result = SxGetDS(SX_DS_NEXT, &source);
  }
  if (count == 0) fprintf(stderr, "no data source: is a driver module installed under <windows>\\twain_32?\n");
  else if (!found) fprintf(stderr, "no source of the maker%s%s\n", wanted ? " named like " : "", wanted ? wanted : "");
  return found;
}

/* The name the library stored for the next session, read back. */
static int StoredSourceName(char* name, DWORD size) {
  return RegGetValueA(HKEY_CURRENT_USER, kRegistryKey, "SOURCENAME", RRF_RT_REG_SZ, NULL, name, &size) ==
         ERROR_SUCCESS;
}

static int SelectThroughRegistry(SxDataSource* chosen) {
  char name[43], stored[64];
  int32_t result = SxSetDriverById(chosen, 0);
  Field(name, sizeof name, chosen->DisplayName, sizeof chosen->DisplayName);
  if (result != SX_OK) {
    fprintf(stderr, "SxSetDriverById(\"%s\") failed: %d\n", name, result);
    return 0;
  }
  if (!StoredSourceName(stored, sizeof stored) || strcmp(stored, name) != 0) {
    fprintf(stderr, "HKCU\\%s\\SOURCENAME does not name the selected source\n", kRegistryKey);
    return 0;
  }
  printf("selected: HKCU\\%s\\SOURCENAME = \"%s\"\n", kRegistryKey, stored);
  /* A new session opens what the registry names. */
  SxFree();
  result = SxLoad(NULL);
  if (result != SX_OK) {
    fprintf(stderr, "SxLoad failed: %d\n", result);
    return 0;
  }
  return 1;
}

/* ------------------------------------------------------------------------
 * Settings and the scan.
 * ------------------------------------------------------------------------ */

/* The admissible resolutions, a range: the list blocks are the host's to
 * unlock and free. */
static int ResolutionRange(int32_t* low, int32_t* high) {
  SxValueList* list = NULL;
  HGLOBAL items, block;
  if (SxQueryData(CAP_XRESOLUTION, TY_INT32, &list) != SX_OK || !list || list->Count < 2) return 0;
  *low = ((const int32_t*)list->Items)[0];
  *high = ((const int32_t*)list->Items)[1];
  items = GlobalHandle(list->Items);
  block = GlobalHandle(list);
  GlobalUnlock(items);
  GlobalFree(items);
  GlobalUnlock(block);
  GlobalFree(block);
  return 1;
}

static int ApplySettings(uint16_t dpi) {
  uint8_t flatbed = FLATBED, colour = COLOUR, bits = COLOUR_BITS, indicators = 1;
  int32_t low = 0, high = 0;
  if (ResolutionRange(&low, &high)) printf("resolutions: %d to %d dpi\n", low, high);
  if (SxSetValue(CAP_SCANTYPE, TY_UINT8, &flatbed) != SX_OK || SxSetValue(CAP_XRESOLUTION, TY_UINT16, &dpi) != SX_OK ||
      SxSetValue(CAP_YRESOLUTION, TY_UINT16, &dpi) != SX_OK || SxSetValue(CAP_PIXELTYPE, TY_UINT8, &colour) != SX_OK ||
      SxSetValue(CAP_BITSPERPIXEL, TY_UINT8, &bits) != SX_OK ||
      SxSetValue(CAP_INDICATORS, TY_UINT8, &indicators) != SX_OK) {
    fprintf(stderr, "the scanner refused a colour page at %u dpi\n", (unsigned)dpi);
    return 0;
  }
  return 1;
}

/* Told of the library's dialogs; the progress dialog's templates are named
 * TRACK_<screen>. */
static void SX_API OnDialog(const SxUiEvent* event, void* context) {
  (void)context;
  if (event->Kind == SX_UI_OPEN && event->Name && strncmp(event->Name, "TRACK", 5) == 0) {
    if (!g_progressShown) printf("progress dialog: %s \"%s\"\n", event->Name, event->Text ? event->Text : "");
    g_progressShown = 1;
  }
}

static int32_t OnPageAnnounced(const void* data, int64_t* count) {
  const SxImageInfo* info = (const SxImageInfo*)data;
  size_t bytes;
  if (info->PixelType != COLOUR || info->PixelsPerLine <= 0 || info->LinesPerPage <= 0) return -1;
  /* One page is kept; a second one would come from a feeder. */
  if (g_page.Pixels) return -1;
  bytes = (size_t)info->PixelsPerLine * BYTES_PER_PIXEL * (size_t)info->LinesPerPage;
  g_page.Pixels = (BYTE*)HeapAlloc(GetProcessHeap(), 0, bytes);
  if (!g_page.Pixels) return -1;
  g_page.Info = *info;
  g_page.Capacity = bytes;
  ++g_page.Pages;
  printf("page: %d x %d pixels at %d dpi, %d bits\n", info->PixelsPerLine, info->LinesPerPage, info->ResolutionX,
         info->BitsPerPixel);
  *count = (int64_t)GlobalSize(g_page.Buffer);
  return 0;
}

static int32_t SX_API OnTransfer(void* data, int64_t* count, int32_t code) {
  if (code == SX_XFER_IMAGE_INFO) return OnPageAnnounced(data, count);
  if (code == SX_XFER_DATA || code == SX_XFER_PAGE_END || code == SX_XFER_SHORT_PAGE) {
    size_t room = g_page.Capacity - g_page.Received;
    size_t bytes = *count > 0 ? (size_t)*count : 0;
    if (!g_page.Pixels) return -1;
    /* The library may have moved the buffer: its block is the one at `data`. */
    if (GlobalHandle(data)) g_page.Buffer = GlobalHandle(data);
    memcpy(g_page.Pixels + g_page.Received, data, bytes < room ? bytes : room);
    g_page.Received += bytes < room ? bytes : room;
    if (code != SX_XFER_DATA) g_page.Ended = 1;
  }
  return 0;
}

static int Scan(void) {
  void* address;
  int32_t result;
  g_page.Buffer = GlobalAlloc(GHND, BUFFER_BYTES);
  address = g_page.Buffer ? GlobalLock(g_page.Buffer) : NULL;
  if (!address) {
    fprintf(stderr, "no memory for the transfer buffer\n");
    return 0;
  }
  SxSysUiSetObserver(OnDialog, NULL);
  result = SxAcquire(OnTransfer, address);
  SxSysUiSetObserver(NULL, NULL);
  while (GlobalUnlock(g_page.Buffer)) {
  }
  GlobalFree(g_page.Buffer);
  if (result != SX_OK || !g_page.Ended) {
    fprintf(stderr, "SxAcquire failed: %d\n", result);
    return 0;
  }
  if (!g_progressShown) {
    fprintf(stderr, "the progress dialog was not shown\n");
    return 0;
  }
  return 1;
}

/* ------------------------------------------------------------------------
 * The page through the Windows Imaging Component.
 * ------------------------------------------------------------------------ */

static UINT PageLines(void) {
  return (UINT)(g_page.Received / ((size_t)g_page.Info.PixelsPerLine * BYTES_PER_PIXEL));
}

/* The library delivers red first; WIC's PNG encoder takes blue first. */
static void SwapRedBlue(BYTE* pixels, size_t bytes) {
  for (size_t i = 0; i + 2 < bytes; i += BYTES_PER_PIXEL) {
    BYTE red = pixels[i];
    pixels[i] = pixels[i + 2];
    pixels[i + 2] = red;
  }
}

static HRESULT EncodeFrame(IWICBitmapEncoder* encoder, const BYTE* pixels, UINT width, UINT lines, UINT stride) {
  IWICBitmapFrameEncode* frame = NULL;
  IPropertyBag2* options = NULL;
  WICPixelFormatGUID format = GUID_WICPixelFormat24bppBGR;
  double dpi = g_page.Info.ResolutionX;
  HRESULT hr = IWICBitmapEncoder_CreateNewFrame(encoder, &frame, &options);
  if (SUCCEEDED(hr)) hr = IWICBitmapFrameEncode_Initialize(frame, options);
  if (SUCCEEDED(hr)) hr = IWICBitmapFrameEncode_SetSize(frame, width, lines);
  if (SUCCEEDED(hr)) hr = IWICBitmapFrameEncode_SetResolution(frame, dpi, dpi);
  if (SUCCEEDED(hr)) hr = IWICBitmapFrameEncode_SetPixelFormat(frame, &format);
  if (SUCCEEDED(hr) && !IsEqualGUID(&format, &GUID_WICPixelFormat24bppBGR)) hr = WINCODEC_ERR_UNSUPPORTEDPIXELFORMAT;
  if (SUCCEEDED(hr)) hr = IWICBitmapFrameEncode_WritePixels(frame, lines, stride, stride * lines, (BYTE*)pixels);
  if (SUCCEEDED(hr)) hr = IWICBitmapFrameEncode_Commit(frame);
  if (options) IPropertyBag2_Release(options);
  if (frame) IWICBitmapFrameEncode_Release(frame);
  return hr;
}

static HRESULT WritePng(IWICImagingFactory* factory, const wchar_t* path, const BYTE* pixels, UINT width, UINT lines) {
  IWICStream* stream = NULL;
  IWICBitmapEncoder* encoder = NULL;
  HRESULT hr = IWICImagingFactory_CreateStream(factory, &stream);
  if (SUCCEEDED(hr)) hr = IWICStream_InitializeFromFilename(stream, path, GENERIC_WRITE);
  if (SUCCEEDED(hr)) hr = IWICImagingFactory_CreateEncoder(factory, &GUID_ContainerFormatPng, NULL, &encoder);
  if (SUCCEEDED(hr)) hr = IWICBitmapEncoder_Initialize(encoder, (IStream*)stream, WICBitmapEncoderNoCache);
  if (SUCCEEDED(hr)) hr = EncodeFrame(encoder, pixels, width, lines, width * BYTES_PER_PIXEL);
  if (SUCCEEDED(hr)) hr = IWICBitmapEncoder_Commit(encoder);
  if (encoder) IWICBitmapEncoder_Release(encoder);
  if (stream) IWICStream_Release(stream);
  return hr;
}

/* Decodes the file and compares it with the pixels written: 1 when equal. */
static int ReadBack(IWICImagingFactory* factory, const wchar_t* path, const BYTE* pixels, UINT width, UINT lines) {
  IWICBitmapDecoder* decoder = NULL;
  IWICBitmapFrameDecode* frame = NULL;
  WICPixelFormatGUID format;
  UINT fileWidth = 0, fileLines = 0, stride = width * BYTES_PER_PIXEL;
  BYTE* decoded = (BYTE*)HeapAlloc(GetProcessHeap(), 0, (size_t)stride * lines);
  int same = 0;
  HRESULT hr = decoded ? S_OK : E_OUTOFMEMORY;
  if (SUCCEEDED(hr))
    hr = IWICImagingFactory_CreateDecoderFromFilename(factory, path, NULL, GENERIC_READ,
                                                       WICDecodeMetadataCacheOnDemand, &decoder);
  if (SUCCEEDED(hr)) hr = IWICBitmapDecoder_GetFrame(decoder, 0, &frame);
  if (SUCCEEDED(hr)) hr = IWICBitmapFrameDecode_GetSize(frame, &fileWidth, &fileLines);
  if (SUCCEEDED(hr)) hr = IWICBitmapFrameDecode_GetPixelFormat(frame, &format);
  if (SUCCEEDED(hr)) printf("read back: %u x %u pixels\n", fileWidth, fileLines);
  if (SUCCEEDED(hr) && fileWidth == width && fileLines == lines && IsEqualGUID(&format, &GUID_WICPixelFormat24bppBGR)) {
    hr = IWICBitmapFrameDecode_CopyPixels(frame, NULL, stride, stride * lines, decoded);
    same = SUCCEEDED(hr) && memcmp(decoded, pixels, (size_t)stride * lines) == 0;
  }
  if (FAILED(hr)) fprintf(stderr, "cannot decode the file: 0x%08lX\n", (unsigned long)hr);
  if (frame) IWICBitmapFrameDecode_Release(frame);
  if (decoder) IWICBitmapDecoder_Release(decoder);
  if (decoded) HeapFree(GetProcessHeap(), 0, decoded);
  return same;
}

static int WriteAndCheck(const char* output, UINT expectWidth, UINT expectLines) {
  IWICImagingFactory* factory = NULL;
  wchar_t path[MAX_PATH];
  UINT width = (UINT)g_page.Info.PixelsPerLine, lines = PageLines();
  int ok = 0;
  HRESULT hr;
  if (!MultiByteToWideChar(CP_ACP, 0, output, -1, path, MAX_PATH)) return 0;
  SwapRedBlue(g_page.Pixels, (size_t)width * BYTES_PER_PIXEL * lines);
  hr = CoCreateInstance(&CLSID_WICImagingFactory, NULL, CLSCTX_INPROC_SERVER, &IID_IWICImagingFactory,
                        (void**)&factory);
  if (SUCCEEDED(hr)) hr = WritePng(factory, path, g_page.Pixels, width, lines);
  if (FAILED(hr)) {
    fprintf(stderr, "cannot write %s through WIC: 0x%08lX\n", output, (unsigned long)hr);
  } else {
    printf("wrote %s\n", output);
    ok = ReadBack(factory, path, g_page.Pixels, width, lines);
    if (!ok) fprintf(stderr, "%s does not hold the page as delivered\n", output);
    if (ok && expectWidth && (width != expectWidth || lines != expectLines)) {
      fprintf(stderr, "expected %u x %u pixels\n", expectWidth, expectLines);
      ok = 0;
    }
  }
  if (factory) IWICImagingFactory_Release(factory);
  return ok;
}

/* ------------------------------------------------------------------------ */

typedef struct Options {
  uint16_t Dpi;
  const char* Source;
  const char* Output;
  UINT ExpectWidth, ExpectLines;
} Options;

static int ParseOptions(int argc, char** argv, Options* o) {
  o->Dpi = DEFAULT_DPI;
  o->Source = NULL;
  o->Output = "page.png";
  o->ExpectWidth = o->ExpectLines = 0;
  for (int i = 1; i < argc; ++i) {
    const char* value = i + 1 < argc ? argv[i + 1] : NULL;
    if (strcmp(argv[i], "--resolution") == 0 && value) {
      o->Dpi = (uint16_t)atoi(value);
      ++i;
    } else if (strcmp(argv[i], "--source") == 0 && value) {
      o->Source = value;
      ++i;
    } else if (strcmp(argv[i], "--expect") == 0 && value &&
               sscanf(value, "%ux%u", &o->ExpectWidth, &o->ExpectLines) == 2) {
      ++i;
    } else if (argv[i][0] != '-') {
      o->Output = argv[i];
    } else {
      fprintf(stderr, "usage: sxscan-example [--resolution DPI] [--source TEXT] [--expect WxH] [OUTPUT.png]\n");
      return 0;
    }
  }
  return o->Dpi > 0;
}

int main(int argc, char** argv) {
  Options options;
  SxDataSource chosen;
  int ok;
  if (!ParseOptions(argc, argv, &options)) return 1;
  /* WIC's codecs are COM objects. */
  if (FAILED(CoInitializeEx(NULL, COINIT_APARTMENTTHREADED))) return 1;
  ok = ListSources(options.Source, &chosen) && SelectThroughRegistry(&chosen) && ApplySettings(options.Dpi) &&
       Scan();
  SxFree();
  ok = ok && WriteAndCheck(options.Output, options.ExpectWidth, options.ExpectLines);
  if (g_page.Pixels) HeapFree(GetProcessHeap(), 0, g_page.Pixels);
  CoUninitialize();
  return ok ? 0 : 1;
}
