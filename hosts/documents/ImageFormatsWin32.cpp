// The document encoders on Windows, through the Windows Imaging Component
// (the system's own codecs): PNG pages, multi-page TIFF and JPEG pages,
// written into the byte sink through a stream of this file's own, a few
// lines per WritePixels call as they arrive. The pixel bytes go to the
// encoders as the POSIX build writes them: colour lines with
// red and blue swapped (WIC's 24-bit format is blue first), gray as it is,
// line art at 1 bit with 0 as black (WIC's BlackWhite) in PNG and TIFF, and
// spread to gray (0 black, 255 white) in JPEG. WIC has no PDF codec: PDF is
// the project's own writer on zlib, as on POSIX (ZlibEncoders.cpp).
//
// Design note: a WIC frame's size is fixed before its pixels come, so a page
// the scanner ends early is padded white to the announced height here (the
// file's header says that height). WIC cannot drop a frame it has begun: a
// TIFF page left unfinished is padded and committed, and once the document
// is complete its directory is unlinked from the chain and the file cut
// before it.
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
#include <wincodec.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "documents/Encoders.h"
#include "documents/ImageWriter.h"

namespace sx::host {
namespace {

// Lines converted and handed to the encoder per call.
constexpr uint32_t kLinesPerWrite = 16;
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
    for (uint32_t x = 0; x < f.width; ++x) out[x] = (row[x / 8] >> (7 - x % 8)) & 1 ? 255 : 0;
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
// LZW compression for every pixel kind, as the POSIX build writes them with
// libtiff. (Wine's TIFF encoder accepts the option and ignores it: under Wine
// the pages come out uncompressed.)
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

// An IStream over a byte sink: WIC's encoders write through it, and seek
// back to patch what they wrote (a TIFF's directory links), which a file
// sink can take.
class SinkStream final : public IStream {
 public:
  explicit SinkStream(ByteSink& sink, uint64_t* size) : sink_(sink), size_(*size) {}
  bool failed = false;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID id, void** out) override {
    if (IsEqualIID(id, IID_IUnknown) || IsEqualIID(id, IID_ISequentialStream) || IsEqualIID(id, IID_IStream)) {
      *out = static_cast<IStream*>(this);
      AddRef();
      return S_OK;
    }
    *out = nullptr;
    return E_NOINTERFACE;
  }
  // Owned by its encoder object, which outlives every WIC reference.
  ULONG STDMETHODCALLTYPE AddRef() override { return ++references_; }
  ULONG STDMETHODCALLTYPE Release() override { return --references_; }

  HRESULT STDMETHODCALLTYPE Read(void* data, ULONG bytes, ULONG* done) override {
    const uint64_t n = std::min<uint64_t>(bytes, position_ < size_ ? size_ - position_ : 0);
    if (n && !sink_.Read(position_, data, static_cast<size_t>(n))) return Fail();
    position_ += n;
    if (done) *done = static_cast<ULONG>(n);
    return n == bytes ? S_OK : S_FALSE;
  }
  HRESULT STDMETHODCALLTYPE Write(const void* data, ULONG bytes, ULONG* done) override {
    const auto* p = static_cast<const uint8_t*>(data);
    const uint8_t zero = 0;
    while (position_ > size_) {  // a gap past the end reads as zeros
      if (!sink_.Write(&zero, 1)) return Fail();
      ++size_;
    }
    const uint64_t over = std::min<uint64_t>(bytes, size_ - position_);
    if (over && !sink_.Rewrite(position_, p, static_cast<size_t>(over))) return Fail();
    if (bytes > over && !sink_.Write(p + over, bytes - static_cast<size_t>(over))) return Fail();
    size_ = std::max(size_, position_ + bytes);
    position_ += bytes;
    if (done) *done = bytes;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* at) override {
    const int64_t base = origin == STREAM_SEEK_SET ? 0 : origin == STREAM_SEEK_CUR ? static_cast<int64_t>(position_)
                                                                                  : static_cast<int64_t>(size_);
    const int64_t to = base + move.QuadPart;
    if (to < 0) return STG_E_INVALIDFUNCTION;
    position_ = static_cast<uint64_t>(to);
    if (at) at->QuadPart = position_;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER size) override {
    if (size.QuadPart >= size_) return S_OK;
    if (!sink_.Truncate(size.QuadPart)) return Fail();
    size_ = size.QuadPart;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Stat(STATSTG* stat, DWORD) override {
    *stat = {};
    stat->type = STGTY_STREAM;
    stat->cbSize.QuadPart = size_;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Commit(DWORD) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE Revert() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Clone(IStream**) override { return E_NOTIMPL; }

 private:
  HRESULT Fail() {
    failed = true;
    return STG_E_MEDIUMFULL;
  }
  ByteSink& sink_;
  uint64_t& size_;  // the encoder's count of the sink's bytes
  uint64_t position_ = 0;
  ULONG references_ = 1;
};

uint32_t TiffNumber(const uint8_t* p, bool big, int bytes) {
  uint32_t v = 0;
  for (int i = 0; i < bytes; ++i) v |= uint32_t{p[big ? bytes - 1 - i : i]} << (8 * i);
  return v;
}

// The first strip's offset of the directory at `at` (a page's bytes begin
// there); 0 when it cannot be read.
uint64_t FirstStrip(ByteSink& sink, uint64_t at, bool big) {
  constexpr uint16_t kStripOffsets = 273, kShort = 3;
  constexpr uint32_t kEntryBytes = 12;
  uint8_t count[2];
  if (!sink.Read(at, count, sizeof count)) return 0;
  for (uint32_t i = 0; i < TiffNumber(count, big, 2); ++i) {
    uint8_t entry[kEntryBytes];
    if (!sink.Read(at + 2 + uint64_t{i} * kEntryBytes, entry, sizeof entry)) return 0;
    if (TiffNumber(entry, big, 2) != kStripOffsets) continue;
    const int bytes = TiffNumber(entry + 2, big, 2) == kShort ? 2 : 4;
    const uint32_t n = TiffNumber(entry + 4, big, 4);
    if (n * bytes <= 4) return TiffNumber(entry + 8, big, bytes);
    uint8_t first[4];
    return sink.Read(TiffNumber(entry + 8, big, 4), first, bytes) ? TiffNumber(first, big, bytes) : 0;
  }
  return 0;
}

// Takes the last page out of the complete TIFF in the sink: the link to its
// directory becomes the end of the chain, and the file is cut where the page
// began when nothing of the pages before lies past it. `size` is the sink's.
// Design note: the directory is found by walking the chain, not from where
// the page began, since an encoder may write a frame's bytes only when the
// next frame or the document is committed.
bool DropLastTiffPage(ByteSink& sink, uint64_t* size) {
  uint8_t header[8];
  if (!sink.Read(0, header, sizeof header)) return false;
  const bool big = header[0] == 'M';
  constexpr uint32_t kEntryBytes = 12;
  uint64_t link = 4, previous = 0, end = sizeof header, endBefore = end;
  uint64_t last = 0;
  for (;;) {
    uint8_t word[4];
    if (!sink.Read(link, word, sizeof word)) return false;
    const uint32_t at = TiffNumber(word, big, 4);
    if (at == 0) break;
    uint8_t count[2];
    if (!sink.Read(at, count, sizeof count)) return false;
    previous = link, last = at, endBefore = end;
    link = at + 2 + uint64_t{kEntryBytes} * TiffNumber(count, big, 2);
    end = std::max(end, link + 4);
  }
  if (last == 0) return true;
  const uint8_t none[4] = {0, 0, 0, 0};
  if (!sink.Rewrite(previous, none, sizeof none)) return false;
  const uint64_t strip = FirstStrip(sink, last, big);
  const uint64_t cut = strip ? std::min<uint64_t>(strip, last) : last;
  if (endBefore <= cut && cut < *size) {
    if (!sink.Truncate(cut)) return false;
    *size = cut;
  }
  return true;
}

class WicEncoder final : public PageEncoder {
 public:
  WicEncoder(ByteSink& sink, Codec codec, int quality)
      : PageEncoder(sink, codec != Codec::Tiff), codec_(codec), quality_(quality), stream_(sink, &offset_) {}
  ~WicEncoder() override {
    frame_.Reset();
    encoder_.Reset();
  }

 private:
  bool Failure(const char* what, HRESULT hr, std::string* error) {
    if (stream_.failed) return SinkFailed(error);
    *error = std::string(what) + " " + CodecName(codec_) + (codec_ == Codec::Tiff ? " page: " : " file: ") + HresultText(hr);
    return false;
  }

  bool OnBeginPage(std::string* error) override {
    HRESULT hr = S_OK;
    if (abandoned_) {
      *error = "no page may follow one left unfinished";
      return false;
    }
    if (!encoder_.Get()) {
      if (codec_ == Codec::Tiff && !sink_.CanRewrite()) {
        *error = "a TIFF document needs a file";
        return false;
      }
      hr = CreateFactory(factory_);
      if (SUCCEEDED(hr)) hr = factory_->CreateEncoder(Container(codec_), nullptr, encoder_.Out());
      if (SUCCEEDED(hr)) hr = encoder_->Initialize(&stream_, WICBitmapEncoderNoCache);
      if (FAILED(hr)) return Failure("the system's encoder cannot start a", hr, error);
    }
    const PageFormat& f = format_;
    Com<IPropertyBag2> options;
    hr = encoder_->CreateNewFrame(frame_.Out(), options.Out());
    if (SUCCEEDED(hr) && options.Get()) hr = SetOptions(codec_, quality_, options.Get());
    if (SUCCEEDED(hr)) hr = frame_->Initialize(options.Get());
    if (SUCCEEDED(hr)) hr = frame_->SetSize(f.width, f.lines);
    if (SUCCEEDED(hr) && f.xdpi && f.ydpi) hr = frame_->SetResolution(f.xdpi, f.ydpi);
    WICPixelFormatGUID pixels = FileFormat(codec_, f.kind);
    if (SUCCEEDED(hr)) hr = frame_->SetPixelFormat(&pixels);
    if (FAILED(hr)) return Failure("cannot start a", hr, error);
    if (!IsEqualGUID(pixels, FileFormat(codec_, f.kind))) {
      *error = std::string("the system's ") + CodecName(codec_) + " encoder does not take these pixels";
      return false;
    }
    stride_ = FileStride(codec_, f);
    written_ = 0;
    chunk_.resize(size_t{stride_} * kLinesPerWrite);
    white_ = WhiteLine(f);
    return true;
  }

  bool OnLines(const uint8_t* data, uint32_t lines, std::string* error) override {
    for (uint32_t y = 0; y < lines;) {
      const uint32_t n = std::min(kLinesPerWrite, lines - y);
      for (uint32_t i = 0; i < n; ++i)
        FileLine(codec_, format_, data + size_t{y + i} * format_.bytesPerLine, chunk_.data() + size_t{i} * stride_);
      const HRESULT hr = frame_->WritePixels(n, stride_, stride_ * n, chunk_.data());
      if (FAILED(hr)) return Failure("cannot write a", hr, error);
      y += n;
      written_ += n;
    }
    return true;
  }

  // The frame's height was set before its lines came: a short page is
  // padded white to it.
  bool OnEndPage(uint32_t lines, std::string* error) override {
    for (uint32_t y = lines; y < format_.lines; ++y) {
      if (!OnLines(white_.data(), 1, error)) return false;
    }
    const HRESULT hr = frame_->Commit();
    frame_.Reset();
    if (FAILED(hr)) return Failure("cannot finish a", hr, error);
    return true;
  }

  bool OnAbandonPage(std::string* error) override {
    // Completed white and committed; taken out when the document is done.
    if (codec_ != Codec::Tiff || !sink_.CanRewrite()) {
      *error = "a page left unfinished cannot be taken out of this output";
      return false;
    }
    abandoned_ = true;
    return OnEndPage(written_, error);
  }

  bool OnFinish(std::string* error) override {
    const HRESULT hr = encoder_->Commit();
    encoder_.Reset();
    if (FAILED(hr)) return Failure("cannot finish the", hr, error);
    if (abandoned_ && !DropLastTiffPage(sink_, &offset_)) return SinkFailed(error);
    return true;
  }

  Codec codec_;
  int quality_;
  SinkStream stream_;
  Com<IWICImagingFactory> factory_;
  Com<IWICBitmapEncoder> encoder_;
  Com<IWICBitmapFrameEncode> frame_;
  std::vector<uint8_t> chunk_;
  uint32_t stride_ = 0;
  uint32_t written_ = 0;  // lines of the open page given to the frame
  bool abandoned_ = false;
};

}  // namespace

std::unique_ptr<DocumentEncoder> MakeDocumentEncoder(DocumentFormat format, ByteSink& sink, int quality) {
  switch (format) {
    case DocumentFormat::Png: return std::make_unique<WicEncoder>(sink, Codec::Png, quality);
    case DocumentFormat::Jpeg: return std::make_unique<WicEncoder>(sink, Codec::Jpeg, quality);
    case DocumentFormat::Tiff: return std::make_unique<WicEncoder>(sink, Codec::Tiff, quality);
    case DocumentFormat::Pdf: return MakePdfEncoder(sink);
  }
  return nullptr;
}

// The PNG's lines come back in the delivered layout: colour red first.
bool CopyPngPage(const std::string& png, const PageFormat& format, DocumentEncoder& into, std::string* error) {
  Com<IWICImagingFactory> factory;
  Com<IWICBitmapDecoder> decoder;
  Com<IWICBitmapFrameDecode> frame;
  HRESULT hr = CreateFactory(factory);
  if (SUCCEEDED(hr))
    hr = factory->CreateDecoderFromFilename(Wide(png).c_str(), nullptr, GENERIC_READ, WICDecodeMetadataCacheOnDemand,
                                            decoder.Out());
  if (SUCCEEDED(hr)) hr = decoder->GetFrame(0, frame.Out());
  std::vector<uint8_t> row(format.bytesPerLine);
  for (uint32_t y = 0; SUCCEEDED(hr) && y < format.lines; ++y) {
    const WICRect line{0, static_cast<INT>(y), static_cast<INT>(format.width), 1};
    hr = frame->CopyPixels(&line, format.bytesPerLine, format.bytesPerLine, row.data());
    if (FAILED(hr)) break;
    if (format.kind == PixelKind::Rgb) {
      for (uint32_t x = 0; x < format.width; ++x) std::swap(row[3 * x], row[3 * x + 2]);
    }
    if (!into.WriteLines(row.data(), 1, error)) return false;
  }
  if (SUCCEEDED(hr)) return true;
  *error = "cannot read back " + png + ": " + HresultText(hr);
  return false;
}

}  // namespace sx::host
