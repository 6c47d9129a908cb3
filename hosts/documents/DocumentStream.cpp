// The file sink: a partial file written through the C library's buffered
// streams, the same on every system.
#include "documents/DocumentStream.h"

#include <algorithm>
#include "documents/Encoders.h"

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace sx::host {
namespace {

// Writes go out in blocks of this size: a few hundred system calls for a page
// of many megabytes, which cost nothing measurable, and little resident
// memory beside the transfer block.
constexpr size_t kFileBufferBytes = 64 * 1024;
// The system is asked to start writing the file to disk after each run of
// this many bytes, so that little is left to write when it is closed and
// renamed (a file system may write a renamed file's data out first).
constexpr uint64_t kWriteBackBytes = 8ull << 20;

}  // namespace

FileSink::~FileSink() { Close(); }

bool FileSink::Open(const std::string& name) {
  Close();
  name_ = name;
  // Read and write: a TIFF's later directories read back the earlier ones.
  // The partial file is new and empty: opened without truncating it, which
  // a file system may answer by writing the whole file out when it closes.
  file_ = std::fopen(name.c_str(), "r+b");
  size_ = position_ = writtenBack_ = 0;
  code_ = 0;
  if (!file_) return Fail();
  buffer_.resize(kFileBufferBytes);
  std::setvbuf(file_, buffer_.data(), _IOFBF, buffer_.size());
  return true;
}

bool FileSink::Close() {
  if (!file_) return code_ == 0;
  const bool ok = std::fclose(file_) == 0;
  file_ = nullptr;
  if (!ok && code_ == 0) code_ = errno ? errno : EIO;
  return ok && code_ == 0;
}

bool FileSink::Fail() {
  if (code_ == 0) code_ = errno ? errno : EIO;
  return false;
}

bool FileSink::Seek(uint64_t offset) {
  if (position_ == offset) return true;
  if (SeekFile(file_, offset) != 0) return Fail();
  position_ = offset;
  return true;
}

bool FileSink::Write(const void* data, size_t bytes) {
  if (!file_ || code_) return false;
  if (!Seek(size_)) return false;
  errno = 0;
  if (std::fwrite(data, 1, bytes, file_) != bytes) return Fail();
  size_ += bytes;
  position_ = size_;
  if (size_ - writtenBack_ >= kWriteBackBytes) {
    if (std::fflush(file_) != 0) return Fail();
    StartWriteBack(file_, writtenBack_, size_ - writtenBack_);
    writtenBack_ = size_;
  }
  return true;
}

bool FileSink::Rewrite(uint64_t offset, const void* data, size_t bytes) {
  if (!file_ || code_ || offset + bytes > size_) return false;
  if (!Seek(offset)) return false;
  errno = 0;
  if (std::fwrite(data, 1, bytes, file_) != bytes) return Fail();
  position_ = offset + bytes;
  return true;
}

bool FileSink::Read(uint64_t offset, void* data, size_t bytes) {
  if (!file_ || code_ || offset + bytes > size_) return false;
  // A stream switching from writing to reading must be flushed or seeked.
  if (std::fflush(file_) != 0) return Fail();
  if (SeekFile(file_, offset) != 0) return Fail();
  position_ = offset;
  if (std::fread(data, 1, bytes, file_) != bytes) return Fail();
  position_ = offset + bytes;
  // And back again before the next write.
  return SeekFile(file_, position_) == 0 || Fail();
}

bool FileSink::Truncate(uint64_t size) {
  if (!file_ || code_ || size > size_) return false;
  if (std::fflush(file_) != 0) return Fail();
  std::error_code ec;
  std::filesystem::resize_file(name_, size, ec);
  if (ec) {
    code_ = ec.value();
    return false;
  }
  size_ = size;
  position_ = size + 1;  // unknown: the next write seeks
  return true;
}

std::string FileSink::Failure() const {
  return code_ ? std::error_code(code_, std::generic_category()).message() : std::string();
}

uint32_t PackedLineBytes(const PageFormat& f) {
  const uint64_t bits = uint64_t{f.width} * (f.kind == PixelKind::Rgb ? 24 : f.kind == PixelKind::Gray ? 8 : 1);
  return static_cast<uint32_t>((bits + 7) / 8);
}

std::vector<uint8_t> WhiteLine(const PageFormat& f) {
  // Delivered line art has 1 for white, like the gray scale's high values.
  return std::vector<uint8_t>(f.bytesPerLine, 0xFF);
}

bool PageEncoder::BeginPage(const PageFormat& format, std::string* error) {
  if (failed_ || finished_ || pageOpen_ || (onePage_ && pages_ > 0)) {
    *error = failed_ ? "the document failed already"
             : pageOpen_ ? "a page is open already"
                         : "the document takes no further page";
    return false;
  }
  if (!CheckPageFormat(format, error)) return false;
  format_ = format;
  lines_ = 0;
  pageOffset_ = offset_;
  pageOpen_ = true;
  if (OnBeginPage(error)) return true;
  failed_ = true;
  return false;
}

bool PageEncoder::WriteLines(const uint8_t* data, uint32_t lines, std::string* error) {
  if (!pageOpen_ || failed_) {
    *error = "no page is open";
    return false;
  }
  if (lines > format_.lines - lines_) {
    *error = "more lines than the page announced";
    return false;
  }
  if (lines == 0) return true;
  lines_ += lines;
  if (OnLines(data, lines, error)) return true;
  failed_ = true;
  return false;
}

bool PageEncoder::EndPage(std::string* error) {
  if (!pageOpen_ || failed_) {
    *error = "no page is open";
    return false;
  }
  if (lines_ == 0) {
    *error = "the page has no line";
    return false;
  }
  pageOpen_ = false;
  if (OnEndPage(lines_, error)) {
    ++pages_;
    return true;
  }
  failed_ = true;
  return false;
}

bool PageEncoder::AbandonPage(std::string* error) {
  if (!pageOpen_) return true;
  pageOpen_ = false;
  if (failed_) return true;
  if (OnAbandonPage(error)) return true;
  failed_ = true;
  return false;
}

bool PageEncoder::OnAbandonPage(std::string* error) {
  if (sink_.Truncate(pageOffset_)) {
    offset_ = pageOffset_;
    return true;
  }
  *error = "a page left unfinished cannot be taken out of this output";
  return false;
}

bool PageEncoder::Finish(std::string* error) {
  if (finished_) return !failed_;
  if (pageOpen_ && !AbandonPage(error)) return false;
  finished_ = true;
  if (failed_) {
    *error = "the document failed already";
    return false;
  }
  if (pages_ == 0) {
    *error = "the document has no page";
    return false;
  }
  if (OnFinish(error)) return true;
  failed_ = true;
  return false;
}

bool PageEncoder::Put(const void* data, size_t bytes, std::string* error) {
  if (sink_.Write(data, bytes)) {
    offset_ += bytes;
    return true;
  }
  return SinkFailed(error);
}

bool PageEncoder::SinkFailed(std::string* error) const {
  const std::string why = sink_.Failure();
  *error = why.empty() ? "the output took no more bytes" : why;
  return false;
}

}  // namespace sx::host
