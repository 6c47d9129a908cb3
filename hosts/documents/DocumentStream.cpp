// The file sink: a partial file written through its descriptor and a buffer
// of the sink's own, the same on every system: the sink alone decides when a
// byte reaches the file, so a page's end can be made whole on disk
// (PartialFiles.h).
#include "documents/DocumentStream.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "documents/Encoders.h"
#include "documents/PartialFiles.h"

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
  size_ = writtenBack_ = 0;
  code_ = 0;
  buffer_.clear();
  buffer_.reserve(kFileBufferBytes);
  descriptor_ = OpenPartialFile(name, &code_);
  if (descriptor_ < 0) return false;
  PartialDescriptor(name_, descriptor_);
  return true;
}

bool FileSink::Close() {
  if (descriptor_ < 0) return code_ == 0;
  const bool flushed = Flush();
  WriteTurn turn;
  PartialDescriptor(name_, -1);
  int code = 0;
  const bool closed = ClosePartialFile(descriptor_, &code);
  descriptor_ = -1;
  if (!closed && code_ == 0) code_ = code;
  return flushed && closed && code_ == 0;
}

bool FileSink::Flush() {
  if (descriptor_ < 0 || code_) return false;
  if (buffer_.empty()) return true;
  const uint64_t at = size_ - buffer_.size();
  {
    WriteTurn turn;
    if (!WritePartialAt(descriptor_, at, buffer_.data(), buffer_.size(), &code_)) return false;
  }
  buffer_.clear();
  if (size_ - writtenBack_ >= kWriteBackBytes) {
    StartWriteBack(descriptor_, writtenBack_, size_ - writtenBack_);
    writtenBack_ = size_;
  }
  return true;
}

bool FileSink::Write(const void* data, size_t bytes) {
  if (descriptor_ < 0 || code_) return false;
  const auto* p = static_cast<const uint8_t*>(data);
  while (bytes > 0) {
    if (buffer_.size() == kFileBufferBytes && !Flush()) return false;
    const size_t n = std::min(bytes, kFileBufferBytes - buffer_.size());
    buffer_.insert(buffer_.end(), p, p + n);
    size_ += n, p += n, bytes -= n;
  }
  return true;
}

bool FileSink::Rewrite(uint64_t offset, const void* data, size_t bytes) {
  if (descriptor_ < 0 || code_ || offset + bytes > size_ || !Flush()) return false;
  WriteTurn turn;
  return WritePartialAt(descriptor_, offset, data, bytes, &code_);
}

bool FileSink::Read(uint64_t offset, void* data, size_t bytes) {
  if (descriptor_ < 0 || code_ || offset + bytes > size_ || !Flush()) return false;
  return ReadPartialAt(descriptor_, offset, data, bytes, &code_);
}

bool FileSink::Truncate(uint64_t size) {
  if (descriptor_ < 0 || size > size_) return false;
  // After a failed write the buffer's bytes never reach the file; the cut
  // ends within what did.
  if (code_) {
    size_ -= buffer_.size();
    buffer_.clear();
    if (size > size_) return false;
  } else if (!Flush()) {
    return false;
  }
  WriteTurn turn;
  int code = 0;
  if (!ResizePartial(descriptor_, size, &code)) {
    if (code_ == 0) code_ = code;
    return false;
  }
  code_ = 0;
  size_ = size;
  writtenBack_ = std::min(writtenBack_, size);
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
  if (!sink_.CanRewrite()) {
    *error = "a page left unfinished cannot be taken out of this output";
    return false;
  }
  if (boundary_.length) return CutBackToBoundary(error);
  if (!sink_.Truncate(pageOffset_)) return SinkFailed(error);
  offset_ = pageOffset_;
  return true;
}

bool PageEncoder::CutBackToBoundary(std::string* error) {
  if (!sink_.Truncate(boundary_.length) ||
      (boundary_.patchBytes && !sink_.Rewrite(boundary_.patchAt, boundary_.patch, boundary_.patchBytes)))
    return SinkFailed(error);
  offset_ = boundary_.length;
  return true;
}

bool PageEncoder::KeepWholePages(std::string* error) {
  pageOpen_ = false;
  finished_ = failed_ = true;  // nothing more is written, whatever comes
  if (boundary_.length == 0) {
    *error = "no page is complete";
    return false;
  }
  return CutBackToBoundary(error) && OnKeep(error);
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
