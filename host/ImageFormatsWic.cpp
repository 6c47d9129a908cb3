// The file formats on Windows, through the Windows Imaging Component (the
// system's own codecs): PNG pages, multi-page TIFF and JPEG pages. The pixel
// bytes go to the encoders as the POSIX build writes them: colour lines with
// red and blue swapped (WIC's 24-bit format is blue first), gray as it is,
// line art at 1 bit with 0 as black (WIC's BlackWhite) in PNG and TIFF, and
// spread to gray with 1 as black in JPEG. PDF has no codec in WIC: a .pdf
// output is refused before the scan.
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
#include <wincodec.h>
#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "ImageWriter.h"

namespace sx::host {
namespace {

// Lines handed to an encoder per call: a few hundred kilobytes of a wide page.
constexpr uint32_t kLinesPerWrite = 64;
constexpr float kPercent = 100.0f;

// An interface pointer released when it goes out of scope.
template <class T>
class Com {
 public:
  Com() = default;
  ~Com() { Reset(); }
  Com(const Com&) = delete;
  Com& operator=(const Com&) = delete;
  T** Out() {
    Reset();
    return &p_;
  }
  T* operator->() const { return p_; }
  T* Get() const { return p_; }
  void Reset() {
    if (p_) p_->Release();
    p_ = nullptr;
  }

 private:
  T* p_ = nullptr;
};

enum class Codec { Png, Tiff, Jpeg };

const GUID& Container(Codec codec) {
  switch (codec) {
    case Codec::Png: return GUID_ContainerFormatPng;
    case Codec::Tiff: return GUID_ContainerFormatTiff;
    default: return GUID_ContainerFormatJpeg;
  }
}

const char* CodecName(Codec codec) {
  switch (codec) {
    case Codec::Png: return "PNG";
    case Codec::Tiff: return "TIFF";
    default: return "JPEG";
  }
}

std::string HresultText(HRESULT hr) {
  char text[256] = "";
  const DWORD length = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                      static_cast<DWORD>(hr), 0, text, sizeof text, nullptr);
  std::string out(text, length);
  while (!out.empty() && std::isspace(static_cast<unsigned char>(out.back()))) out.pop_back();
  char code[32];
  std::snprintf(code, sizeof code, "WIC error 0x%08lX", static_cast<unsigned long>(hr));
  return out.empty() ? code : out + " (" + code + ")";
}

std::wstring Wide(const std::string& path) { return std::filesystem::path(path).wstring(); }

// COM for the thread that writes (the host's); uninitialised when the thread
// ends. A thread already in another apartment keeps it: WIC works in both.
class ComThread {
 public:
  ComThread() : hr_(CoInitializeEx(nullptr, COINIT_MULTITHREADED)) {}
  ~ComThread() {
    if (SUCCEEDED(hr_)) CoUninitialize();
  }
  ComThread(const ComThread&) = delete;
  ComThread& operator=(const ComThread&) = delete;

 private:
  HRESULT hr_;
};

HRESULT CreateFactory(Com<IWICImagingFactory>& factory) {
  thread_local ComThread com;
  return CoCreateInstance(CLSID_WICImagingFactory, nullptr, CLSCTX_INPROC_SERVER, IID_IWICImagingFactory,
                          reinterpret_cast<void**>(factory.Out()));
}

// The encoder's pixel format for a page of this kind.
const GUID& FileFormat(Codec codec, PixelKind kind) {
  if (kind == PixelKind::Rgb) return GUID_WICPixelFormat24bppBGR;
  if (kind == PixelKind::Lineart && codec != Codec::Jpeg) return GUID_WICPixelFormatBlackWhite;
  return GUID_WICPixelFormat8bppGray;
}

uint32_t FileStride(Codec codec, const PageFormat& f) {
  if (f.kind == PixelKind::Rgb) return f.width * 3;
  if (f.kind == PixelKind::Lineart && codec != Codec::Jpeg) return f.bytesPerLine;
  return f.width;
}

// One delivered line in the encoder's pixel format.
void FileLine(Codec codec, const PageFormat& f, const uint8_t* row, uint8_t* out) {
  if (f.kind == PixelKind::Rgb) {
    for (uint32_t x = 0; x < f.width; ++x, row += 3, out += 3) {
      out[0] = row[2];
      out[1] = row[1];
      out[2] = row[0];
    }
  } else if (f.kind == PixelKind::Lineart && codec == Codec::Jpeg) {
    for (uint32_t x = 0; x < f.width; ++x) out[x] = (row[x / 8] >> (7 - x % 8)) & 1 ? 0 : 255;
  } else {
    std::copy(row, row + FileStride(codec, f), out);
  }
}

HRESULT WriteOption(IPropertyBag2* bag, const wchar_t* name, VARIANT& value) {
  PROPBAG2 option{};
  option.pstrName = const_cast<LPOLESTR>(name);
  return bag->Write(1, &option, &value);
}

// The encoder options this program sets: JPEG quality and TIFF's lossless
// LZW compression, as the POSIX build writes them.
HRESULT SetOptions(Codec codec, int quality, IPropertyBag2* bag) {
  VARIANT value;
  VariantInit(&value);
  if (codec == Codec::Jpeg) {
    value.vt = VT_R4;
    value.fltVal = static_cast<float>(std::clamp(quality, 1, 100)) / kPercent;
    return WriteOption(bag, L"ImageQuality", value);
  }
  if (codec == Codec::Tiff) {
    value.vt = VT_UI1;
    value.bVal = WICTiffCompressionLZW;
    return WriteOption(bag, L"TiffCompressionMethod", value);
  }
  return S_OK;
}

HRESULT WritePixels(IWICBitmapFrameEncode* frame, Codec codec, const PageImage& page) {
  const PageFormat& f = page.format;
  const uint32_t stride = FileStride(codec, f);
  std::vector<uint8_t> chunk(size_t{stride} * kLinesPerWrite);
  for (uint32_t y = 0; y < page.Lines();) {
    const uint32_t lines = std::min(kLinesPerWrite, page.Lines() - y);
    for (uint32_t i = 0; i < lines; ++i)
      FileLine(codec, f, page.raster.data() + size_t{y + i} * f.bytesPerLine, chunk.data() + size_t{i} * stride);
    const HRESULT hr = frame->WritePixels(lines, stride, stride * lines, chunk.data());
    if (FAILED(hr)) return hr;
    y += lines;
  }
  return S_OK;
}

// One page as a frame of the encoder; `why` says which step failed.
bool AddFrame(IWICBitmapEncoder* encoder, Codec codec, const PageImage& page, int quality, std::string* why) {
  const PageFormat& f = page.format;
  Com<IWICBitmapFrameEncode> frame;
  Com<IPropertyBag2> options;
  HRESULT hr = encoder->CreateNewFrame(frame.Out(), options.Out());
  if (SUCCEEDED(hr) && options.Get()) hr = SetOptions(codec, quality, options.Get());
  if (SUCCEEDED(hr)) hr = frame->Initialize(options.Get());
  if (SUCCEEDED(hr)) hr = frame->SetSize(f.width, page.Lines());
  if (SUCCEEDED(hr) && f.xdpi && f.ydpi) hr = frame->SetResolution(f.xdpi, f.ydpi);
  if (FAILED(hr)) {
    *why = std::string("cannot start a ") + CodecName(codec) + " page: " + HresultText(hr);
    return false;
  }
  WICPixelFormatGUID format = FileFormat(codec, f.kind);
  hr = frame->SetPixelFormat(&format);
  if (SUCCEEDED(hr) && !IsEqualGUID(format, FileFormat(codec, f.kind))) {
    *why = std::string("the system's ") + CodecName(codec) + " encoder does not take these pixels";
    return false;
  }
  if (SUCCEEDED(hr)) hr = WritePixels(frame.Get(), codec, page);
  if (SUCCEEDED(hr)) hr = frame->Commit();
  if (FAILED(hr)) *why = std::string("cannot write a ") + CodecName(codec) + " page: " + HresultText(hr);
  return SUCCEEDED(hr);
}

// The whole file in memory, handed to WriteThroughPartial afterwards, so
// that the partial-file rules hold for WIC output as for the others.
bool EncodeToMemory(Codec codec, const PageImage& page, int quality, std::vector<uint8_t>& bytes,
                    std::string* why) {
  Com<IWICImagingFactory> factory;
  Com<IStream> stream;
  Com<IWICBitmapEncoder> encoder;
  HRESULT hr = CreateFactory(factory);
  if (SUCCEEDED(hr)) hr = CreateStreamOnHGlobal(nullptr, TRUE, stream.Out());
  if (SUCCEEDED(hr)) hr = factory->CreateEncoder(Container(codec), nullptr, encoder.Out());
  if (SUCCEEDED(hr)) hr = encoder->Initialize(stream.Get(), WICBitmapEncoderNoCache);
  if (FAILED(hr)) {
    *why = std::string("the system's ") + CodecName(codec) + " encoder is not available: " + HresultText(hr);
    return false;
  }
  if (!AddFrame(encoder.Get(), codec, page, quality, why)) return false;
  hr = encoder->Commit();
  HGLOBAL block = nullptr;
  STATSTG stat{};
  if (SUCCEEDED(hr)) hr = stream->Stat(&stat, STATFLAG_NONAME);
  if (SUCCEEDED(hr)) hr = GetHGlobalFromStream(stream.Get(), &block);
  const void* data = SUCCEEDED(hr) ? GlobalLock(block) : nullptr;
  if (!data) {
    *why = std::string("cannot finish the ") + CodecName(codec) + " file: " + HresultText(FAILED(hr) ? hr : E_OUTOFMEMORY);
    return false;
  }
  const auto* begin = static_cast<const uint8_t*>(data);
  bytes.assign(begin, begin + stat.cbSize.QuadPart);
  GlobalUnlock(block);
  return true;
}

bool WriteOnePage(Codec codec, const std::string& path, const PageImage& page, int quality, std::string* error) {
  if (!CheckPageFormat(page.format, error)) return false;
  if (page.Lines() == 0) {
    *error = "the page has no complete line";
    return false;
  }
  std::vector<uint8_t> bytes;
  std::string why;
  if (!EncodeToMemory(codec, page, quality, bytes, &why)) {
    *error = "cannot write " + path + ": " + why;
    return false;
  }
  return WriteThroughPartial(path, error, [&](std::FILE* file, std::string* failure) {
    if (std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size()) return true;
    *failure = "the file could not be written whole";
    return false;
  });
}

// An open multi-page TIFF: the encoder writes frames into the partial file.
struct TiffFile {
  Com<IWICImagingFactory> Factory;
  Com<IWICStream> Stream;
  Com<IWICBitmapEncoder> Encoder;
};

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

}  // namespace

bool OutputFormatAvailable(const std::string& path, std::string* error) {
  if (Lower(std::filesystem::path(path).extension().string()) != ".pdf") return true;
  *error = "PDF output is not available on Windows (the system has no PDF encoder); write .png, .tif or .jpg";
  return false;
}

bool WritePng(const std::string& path, const PageImage& page, std::string* error) {
  return WriteOnePage(Codec::Png, path, page, 0, error);
}

bool WriteJpeg(const std::string& path, const PageImage& page, int quality, std::string* error) {
  return WriteOnePage(Codec::Jpeg, path, page, quality, error);
}

PdfWriter::~PdfWriter() = default;

bool PdfWriter::AppendPage(const PageImage&, std::string* error) {
  return OutputFormatAvailable(".pdf", error);
}

bool PdfWriter::Close(const std::string&, std::string*) { return true; }

TiffWriter::~TiffWriter() {
  std::string ignored;
  Close(&ignored);
}

bool TiffWriter::Open(const std::string& path, std::string* error) {
  if (!Close(error)) return false;
  if (!CreatePartial(path, &partial_, error)) return false;
  auto file = std::make_unique<TiffFile>();
  HRESULT hr = CreateFactory(file->Factory);
  if (SUCCEEDED(hr)) hr = file->Factory->CreateStream(file->Stream.Out());
  if (SUCCEEDED(hr)) hr = file->Stream->InitializeFromFilename(Wide(partial_).c_str(), GENERIC_WRITE);
  if (SUCCEEDED(hr)) hr = file->Factory->CreateEncoder(GUID_ContainerFormatTiff, nullptr, file->Encoder.Out());
  if (SUCCEEDED(hr)) hr = file->Encoder->Initialize(file->Stream.Get(), WICBitmapEncoderNoCache);
  if (FAILED(hr)) {
    *error = "cannot create " + path + ": " + HresultText(hr);
    file.reset();
    DiscardPartial(partial_);
    return false;
  }
  path_ = path;
  file_ = file.release();
  pages_ = 0;
  return true;
}

bool TiffWriter::AppendPage(const PageImage& page, std::string* error) {
  if (!file_) {
    *error = "no TIFF file is open";
    return false;
  }
  if (!CheckPageFormat(page.format, error)) return false;
  std::string why;
  if (!AddFrame(static_cast<TiffFile*>(file_)->Encoder.Get(), Codec::Tiff, page, 0, &why)) {
    *error = why;
    return false;
  }
  ++pages_;
  return true;
}

bool TiffWriter::Close(std::string* error) {
  if (!file_) return true;
  std::unique_ptr<TiffFile> file(static_cast<TiffFile*>(file_));
  file_ = nullptr;
  // An encoder without frames cannot be committed; such a file is dropped.
  const HRESULT hr = pages_ > 0 ? file->Encoder->Commit() : S_OK;
  file.reset();  // closes the stream
  if (FAILED(hr)) {
    *error = hr == HRESULT_FROM_WIN32(ERROR_DISK_FULL) ? WriteFailure(path_, ENOSPC, "")
                                                       : "cannot finish the TIFF file: " + HresultText(hr);
    DiscardPartial(partial_);
    return false;
  }
  if (pages_ == 0) {
    DiscardPartial(partial_);
    return true;
  }
  return PublishPartial(partial_, path_, error);
}

// Exclusive creation, as the C library of the system offers it.
bool CreateNewFile(const std::string& name, int* code) {
  const int fd = _open(name.c_str(), _O_WRONLY | _O_CREAT | _O_EXCL | _O_BINARY, _S_IREAD | _S_IWRITE);
  if (fd < 0) {
    *code = errno;
    return false;
  }
  _close(fd);
  return true;
}

}  // namespace sx::host
