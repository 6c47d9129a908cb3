#include "ImageWriter.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <system_error>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace sx::host {
namespace {

uint32_t BitsPerPixel(PixelKind kind) {
  switch (kind) {
    case PixelKind::Lineart: return 1;
    case PixelKind::Gray: return 8;
    default: return 24;
  }
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

namespace {

// Enough for any folder a user scans into; a longer name is written all the
// same, only not removed by an interrupt that ends the program at once.
constexpr size_t kPartialNameBytes = 4096;
// Names tried before giving up: each is new with near certainty.
constexpr int kPartialAttempts = 16;

// Thread contract: written by the host's thread, read by the interrupt
// handler, which may run at any moment: the name is complete before its slot
// is marked used, and the mark is a lock-free atomic.
char g_partialNames[kPartialSlots][kPartialNameBytes];
std::atomic<bool> g_partialUsed[kPartialSlots];
static_assert(std::atomic<bool>::is_always_lock_free);

void Remember(const std::string& partial) {
  if (partial.size() >= kPartialNameBytes) return;
  for (int i = 0; i < kPartialSlots; ++i) {
    if (g_partialUsed[i].load()) continue;
    std::memcpy(g_partialNames[i], partial.c_str(), partial.size() + 1);
    g_partialUsed[i].store(true);
    return;
  }
}

void Forget(const std::string& partial) {
  for (int i = 0; i < kPartialSlots; ++i) {
    if (g_partialUsed[i].load() && partial == g_partialNames[i]) g_partialUsed[i].store(false);
  }
}

// ".<name>.<16 hex digits>.part" beside the output.
std::string PartialCandidate(const std::string& path) {
  static std::mt19937_64 random = [] {
    std::random_device device;
    // The clock and an address vary the seed where the device does not.
    const uint64_t clock = static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    std::seed_seq seed{device(), device(), static_cast<unsigned>(clock), static_cast<unsigned>(clock >> 32),
                       static_cast<unsigned>(reinterpret_cast<uintptr_t>(&device))};
    return std::mt19937_64(seed);
  }();
  // Windows also separates folders with a backslash; elsewhere it is part of a name.
  constexpr char kSeparators[] = {'/', static_cast<char>(std::filesystem::path::preferred_separator), '\0'};
  const size_t slash = path.find_last_of(kSeparators);
  const size_t name = slash == std::string::npos ? 0 : slash + 1;
  char tag[24];
  std::snprintf(tag, sizeof tag, ".%016llx", static_cast<unsigned long long>(random()));
  return path.substr(0, name) + "." + path.substr(name) + tag + ".part";
}

std::string SystemText(int code) { return std::error_code(code, std::generic_category()).message(); }

}  // namespace

std::string WriteFailure(const std::string& path, int code, const std::string& why) {
  if (code == ENOSPC) return "no space left on device while writing " + path;
  return "cannot write " + path + ": " + (why.empty() && code ? SystemText(code) : why);
}

bool CreatePartial(const std::string& path, std::string* partial, std::string* error) {
  int code = 0;
  for (int attempt = 0; attempt < kPartialAttempts; ++attempt) {
    *partial = PartialCandidate(path);
    // Recorded first, so that no moment exists where the file is there and
    // an interrupt would not remove it; a name taken already is never
    // created, and the chance of its removal meanwhile is nil.
    Remember(*partial);
    if (CreateNewFile(*partial, &code)) return true;
    Forget(*partial);
    if (code != EEXIST) break;
  }
  const std::string folder = std::filesystem::path(path).parent_path().string();
  *error = "cannot create a file in the folder " + (folder.empty() ? std::string(".") : folder) + ": " +
           SystemText(code);
  partial->clear();
  return false;
}

bool PublishPartial(const std::string& partial, const std::string& path, std::string* error) {
  // The filesystem library replaces an existing output on every system
  // (std::rename does not on Windows).
  std::error_code ec;
  std::filesystem::rename(partial, path, ec);
  Forget(partial);
  if (!ec) return true;
  *error = "cannot write " + path + ": " + ec.message();
  std::remove(partial.c_str());
  return false;
}

void DiscardPartial(const std::string& partial) {
  if (partial.empty()) return;
  std::remove(partial.c_str());
  Forget(partial);
}

const char* PartialInFlight(int slot) {
  if (slot < 0 || slot >= kPartialSlots || !g_partialUsed[slot].load()) return nullptr;
  return g_partialNames[slot];
}

bool WriteThroughPartial(const std::string& path, std::string* error,
                         const std::function<bool(std::FILE*, std::string*)>& encode) {
  std::string partial;
  if (!CreatePartial(path, &partial, error)) return false;
  std::FILE* file = std::fopen(partial.c_str(), "wb");
  if (!file) {
    *error = "cannot create " + path + ": " + SystemText(errno);
    DiscardPartial(partial);
    return false;
  }
  std::string why;
  errno = 0;
  bool ok = encode(file, &why);
  int code = ok ? 0 : errno;
  if (std::fclose(file) != 0 && ok) {
    ok = false;
    code = errno;
  }
  if (!ok) {
    *error = WriteFailure(path, code, why);
    DiscardPartial(partial);
    return false;
  }
  return PublishPartial(partial, path, error);
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
  // One file a page: the names read as a list ("a.jpg, a-2.jpg and a-3.jpg").
  if (format_ == Format::Jpeg) {
    if (pagesDone_ == 1) return path_;
    std::string between;
    if (pagesDone_ >= 3) between = ", " + JpegPath(2) + (pagesDone_ > 3 ? ", ..." : "");
    return path_ + between + " and " + JpegPath(pagesDone_);
  }
  // A PNG document holds one page; a second one turned it into a TIFF.
  return (tiffNamed_ || pagesDone_ > 1) ? tiffPath_ : path_;
}

}  // namespace sx::host
