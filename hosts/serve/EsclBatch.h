// The pages of one job gathered into one PDF, for a client that asked for
// it (ScanRequest::batchPdf): a feeder batch as one file, while each page
// still reaches the client as a document of its own as it is scanned. The
// PDF grows in a temporary file (a batch may hold many large pages), which
// the system removes once it is closed.
//
// Thread contract: the job's thread writes (BeginPage to Finish); once
// Finish has made it Ready, any thread reads. State() from any thread.
#pragma once
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include "documents/DocumentStream.h"

namespace sx::host::escl {

class BatchPdf {
 public:
  // Not copyable: it owns its temporary file and its lock.
  BatchPdf();
  ~BatchPdf();

  // Whether the temporary file could be made.
  bool Opened() const { return file_ != nullptr; }

  bool BeginPage(const PageFormat& format, std::string* why);
  bool WriteLines(const uint8_t* lines, uint32_t count, std::string* why);
  bool EndPage(std::string* why);
  // A page cut short: the document is given up (a temporary file is kept
  // simple, appended only, so the page cannot be taken out again).
  void DropPage();
  // The job is over: `whole` when every page it was to give came (the PDF
  // is then completed and Ready), else the PDF is Failed.
  void Finish(bool whole);

  enum class State { Writing, Ready, Failed };
  State Current() const;
  uint64_t Size() const;
  // Up to `max` bytes from `offset` of a Ready PDF into *out; 0 at its end
  // or on a read error (then *failed is set).
  size_t Read(uint64_t offset, char* out, size_t max, bool* failed) const;

 private:
  class Sink;
  struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  // Declared first so that it is closed last, after the encoder and the
  // sink that write to it.
  std::unique_ptr<std::FILE, FileCloser> file_;
  std::unique_ptr<Sink> sink_;
  std::unique_ptr<DocumentEncoder> encoder_;
  uint32_t pages_ = 0;
  mutable std::mutex lock_;  // guards state_, size_ and the file's position
  State state_ = State::Writing;
  uint64_t size_ = 0;
};

}  // namespace sx::host::escl
