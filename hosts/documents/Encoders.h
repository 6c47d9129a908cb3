// What the encoders of a build share: the page bookkeeping every format does
// the same way, and the makers of the formats written without a codec
// library (PNG and PDF on zlib, ZlibEncoders.cpp).
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "documents/DocumentStream.h"

namespace sx::host {

// Bytes of a line as a file stores it: the pixels packed, without the
// padding the delivered stride may carry.
uint32_t PackedLineBytes(const PageFormat& format);

// The order of calls, the count of lines and the sink's bytes, checked and
// kept once for every format. Errors of the sink come back as "cannot
// write: <the sink's words>"; the caller names the file.
class PageEncoder : public DocumentEncoder {
 public:
  bool BeginPage(const PageFormat& format, std::string* error) final;
  bool WriteLines(const uint8_t* data, uint32_t lines, std::string* error) final;
  bool EndPage(std::string* error) final;
  bool AbandonPage(std::string* error) final;
  bool Finish(std::string* error) final;
  PageBoundary Boundary() const final { return boundary_; }
  bool KeepWholePages(std::string* error) final;

 protected:
  explicit PageEncoder(ByteSink& sink, bool onePage) : sink_(sink), onePage_(onePage) {}

  virtual bool OnBeginPage(std::string* error) = 0;
  virtual bool OnLines(const uint8_t* data, uint32_t lines, std::string* error) = 0;
  // `lines` of the announced ones arrived; the format pads or records it.
  virtual bool OnEndPage(uint32_t lines, std::string* error) = 0;
  // The default cuts the sink back to where the page began.
  virtual bool OnAbandonPage(std::string* error);
  virtual bool OnFinish(std::string* error) = 0;
  // The sink is back at the boundary: what completes the document in place.
  virtual bool OnKeep(std::string*) { return true; }

  // Appends to the sink; false with the sink's words in *error.
  bool Put(const void* data, size_t bytes, std::string* error);
  bool SinkFailed(std::string* error) const;
  // Cuts the sink back to the boundary and writes its patch back.
  bool CutBackToBoundary(std::string* error);

  ByteSink& sink_;
  PageFormat format_;
  uint64_t offset_ = 0;      // bytes given to the sink
  uint64_t pageOffset_ = 0;  // where the open page began
  int pages_ = 0;            // pages ended
  PageBoundary boundary_;    // set by a format that is whole after each page
  std::vector<uint8_t> white_;  // one white line as delivered, for padding

 private:
  const bool onePage_;
  bool pageOpen_ = false;
  bool finished_ = false;
  bool failed_ = false;
  uint32_t lines_ = 0;
};

// One delivered line of white: 0xFF samples, and for line art all ones
// (delivered line art has 0 for black, as every format written reads it).
std::vector<uint8_t> WhiteLine(const PageFormat& format);

// Reads the PNG file `png` (a page this build wrote, of `format` with packed
// lines) back into `into`'s open page, line by line. One per system.
bool CopyPngPage(const std::string& png, const PageFormat& format, DocumentEncoder& into, std::string* error);

std::unique_ptr<DocumentEncoder> MakePngEncoder(ByteSink& sink);
std::unique_ptr<DocumentEncoder> MakePdfEncoder(ByteSink& sink);

}  // namespace sx::host
