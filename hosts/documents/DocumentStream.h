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
  // Makes every byte given so far part of the output (a file's buffer
  // written out), as a document whole at this point needs.
  virtual bool Flush() { return true; }
  // Reads bytes written earlier (a TIFF's directories link through them) and
  // cuts the output back to `size` bytes (a page left unfinished is taken
  // out), after a failed write too: the failure is forgotten with the bytes
  // cut off. Only a file can.
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
  // Completes the document (a TIFF's page count). Nothing may be written
  // after it.
  virtual bool Finish(std::string* error) = 0;
  // Where the sink holds a whole, valid document of the pages ended so far:
  // a TIFF or a PDF after each page; none before the first, on a stream, or
  // in a format that is whole only once finished.
  virtual PageBoundary Boundary() const = 0;
  // The document cannot go on (the sink failed, the program is ending): the
  // sink is cut back to the last boundary and the document completed there,
  // in place, without a byte added. False when there is no boundary or the
  // sink refuses; nothing may be written after it either.
  virtual bool KeepWholePages(std::string* error) = 0;
};

// A file sink over a partial file (PartialFiles.h): appends through a buffer
// of its own, and can rewrite, read back and truncate; every write to the
// file is made in a WriteTurn. Failure() names the system's error; Close()
// writes what the buffer holds and reports a write that failed late.
class FileSink : public ByteSink {
 public:
  FileSink() = default;
  ~FileSink() override;
  FileSink(const FileSink&) = delete;
  FileSink& operator=(const FileSink&) = delete;

  // Opens `name` (an existing, empty partial file) for writing.
  bool Open(const std::string& name);
  bool Close();
  bool IsOpen() const { return descriptor_ >= 0; }
  uint64_t Size() const { return size_; }
  bool Flush() override;

  bool Write(const void* data, size_t bytes) override;
  bool Rewrite(uint64_t offset, const void* data, size_t bytes) override;
  bool CanRewrite() const override { return true; }
  bool Read(uint64_t offset, void* data, size_t bytes) override;
  bool Truncate(uint64_t size) override;
  int FailureCode() const override { return code_; }
  std::string Failure() const override;

 private:
  std::string name_;
  int descriptor_ = -1;
  std::vector<uint8_t> buffer_;  // the last bytes given, not yet written
  uint64_t size_ = 0;            // bytes given, the buffer's included
  uint64_t writtenBack_ = 0;     // bytes the system was asked to write to disk
  int code_ = 0;
};

// An encoder of `format` writing to `sink`, which must outlive it. `quality`
// is the JPEG quality, 1..100.
std::unique_ptr<DocumentEncoder> MakeDocumentEncoder(DocumentFormat format, ByteSink& sink, int quality);

}  // namespace sx::host
