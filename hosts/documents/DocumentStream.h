// Documents encoded while they are scanned. A page's lines go to the encoder
// as the library delivers them and leave as encoded bytes at once, so the
// memory a scan needs does not grow with the page, the resolution or the
// number of pages, and the file is complete when the last line arrives.
//
// The bytes go to a ByteSink: a file (the scan command, through a partial
// file renamed when complete) or a network response (the eSCL server).
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "documents/ImageWriter.h"

namespace sx::host {

// Where encoded bytes go, in order. Thread contract: used by one thread at a
// time (the encoder's).
class ByteSink {
 public:
  virtual ~ByteSink() = default;
  // Appends `bytes` bytes; false when they cannot be taken (a full disk, a
  // client that went away); Failure() then says why.
  virtual bool Write(const void* data, size_t bytes) = 0;
  // Overwrites bytes written earlier, at `offset` from the first byte
  // written. Only a file can: a stream answers false and the encoder pads the
  // page instead (see DocumentEncoder::EndPage).
  virtual bool Rewrite(uint64_t offset, const void* data, size_t bytes) {
    (void)offset, (void)data, (void)bytes;
    return false;
  }
  virtual bool CanRewrite() const { return false; }
  // Reads bytes written earlier (a TIFF's directories link through them) and
  // cuts the output back to `size` bytes (a page left unfinished is taken
  // out). Only a file can.
  virtual bool Read(uint64_t offset, void* data, size_t bytes) {
    (void)offset, (void)data, (void)bytes;
    return false;
  }
  virtual bool Truncate(uint64_t size) {
    (void)size;
    return false;
  }
  // The system's error code of the failed write (errno values; 0 when none
  // applies) and the sink's own words.
  virtual int FailureCode() const { return 0; }
  virtual std::string Failure() const { return {}; }
};

enum class DocumentFormat : uint8_t { Png, Jpeg, Tiff, Pdf };

// One document: a PNG or a JPEG holds one page; a TIFF or a PDF any number.
// Calls come in the order BeginPage, WriteLines..., EndPage, (next page...),
// Finish. Thread contract: one thread at a time.
class DocumentEncoder {
 public:
  virtual ~DocumentEncoder() = default;
  // `format.lines` is the number of lines the page announces.
  virtual bool BeginPage(const PageFormat& format, std::string* error) = 0;
  // `lines` whole lines of `format.bytesPerLine` bytes each; lines past the
  // announced ones are refused.
  virtual bool WriteLines(const uint8_t* data, uint32_t lines, std::string* error) = 0;
  // The page ended after the lines written so far. A page shorter than
  // announced is recorded at its true length where the sink can rewrite;
  // on a stream that cannot, the missing lines are written white.
  virtual bool EndPage(std::string* error) = 0;
  // The scan stopped inside the page: it is left out of the document, which
  // may still be finished with the pages before it. Needs a sink that can
  // truncate; on a stream it fails and the document is incomplete.
  virtual bool AbandonPage(std::string* error) = 0;
  // Completes the document (a PDF's cross-reference table, a TIFF's last
  // directory). Nothing may be written after it.
  virtual bool Finish(std::string* error) = 0;
};

// A file sink over a partial file (ImageWriter.h): appends through a buffer
// of its own, and can rewrite, read back and truncate. Failure() names the
// system's error; Close() flushes and reports a write that failed late.
class FileSink : public ByteSink {
 public:
  FileSink() = default;
  ~FileSink() override;
  FileSink(const FileSink&) = delete;
  FileSink& operator=(const FileSink&) = delete;

  // Opens `name` (an existing, empty partial file) for writing.
  bool Open(const std::string& name);
  bool Close();
  bool IsOpen() const { return file_ != nullptr; }
  uint64_t Size() const { return size_; }

  bool Write(const void* data, size_t bytes) override;
  bool Rewrite(uint64_t offset, const void* data, size_t bytes) override;
  bool CanRewrite() const override { return true; }
  bool Read(uint64_t offset, void* data, size_t bytes) override;
  bool Truncate(uint64_t size) override;
  int FailureCode() const override { return code_; }
  std::string Failure() const override;

 private:
  bool Seek(uint64_t offset);
  bool Fail();

  std::string name_;
  std::FILE* file_ = nullptr;
  std::vector<char> buffer_;
  uint64_t size_ = 0;
  uint64_t writtenBack_ = 0;  // bytes the system was asked to write to disk
  uint64_t position_ = 0;  // where the next append would go when == size_
  int code_ = 0;
};

// An encoder of `format` writing to `sink`, which must outlive it. `quality`
// is the JPEG quality, 1..100.
std::unique_ptr<DocumentEncoder> MakeDocumentEncoder(DocumentFormat format, ByteSink& sink, int quality);

}  // namespace sx::host
