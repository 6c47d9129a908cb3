// One acquisition's intake: the transfer buffer the library fills and the
// transfer callback, which turns the library's calls into pages of whole
// lines for the program (PageReceiver).
//
// The callback's codes: 2 announces a page (an ImageInfo; the answer in the
// byte count sizes a direct transfer's blocks), 0 carries a block of the
// page, 1 its last block, 5 the last block of a page the scanner ended
// early; any other code carries no data. A block's byte count is read by one
// rule: bits above the low 32 are ignored (no block reaches 4 GiB, and a
// buffered transfer's count is 32 bits with the block's status beside it),
// and the count is trusted only up to the size of the global block at the
// block's address (the library may enlarge and move the buffer), or the
// buffer's own size at the address handed to SxAcquire; at any other
// address nothing is read.
//
// Thread contract: the library's callback has no context pointer, so the
// intake running an acquisition is the process's current intake, from the
// start of Acquire's SxAcquire to its return. The library calls the callback
// on the thread that called SxAcquire, in both transfer modes, so Acquire
// and every PageReceiver call run on that one thread. One acquisition runs
// in a process at a time (the library's state is the process's): Acquire
// refuses while another intake is current. The cancel flag may be set from
// any thread.
#pragma once
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "documents/ImageWriter.h"
#include "kit/LibraryCalls.h"

namespace sx::host {

// The callback's answer when the program stops the acquisition for a reason
// of its own (Intake::StopReason): nonzero stops it, and this is none of the
// library's codes.
constexpr int32_t kIntakeStop = -1;

// What a program does with the pages. Each answer false stops the
// acquisition, the reason in *why.
class PageReceiver {
 public:
  virtual ~PageReceiver() = default;
  // A page begins, laid out as the library announced it.
  virtual bool BeginPage(const PageFormat& format, std::string* why) = 0;
  // `count` whole lines of the page, never more than it announced.
  virtual bool TakeLines(const uint8_t* lines, uint32_t count, std::string* why) = 0;
  // The page is over with `lines` lines: whole, or `early` when the scanner
  // ended it (or the next page began before it was said to end).
  virtual bool EndPage(uint32_t lines, bool early, std::string* why) = 0;
  // The acquisition ended inside the page: it is incomplete, not to be kept.
  virtual void DropPage() = 0;
};

struct IntakeOptions {
  size_t bufferBytes = 0;
  // Lines a direct transfer asks for at a time; 0: as many as the buffer holds.
  uint32_t linesPerBlock = 0;
  // When set (from any thread), the next callback cancels the acquisition.
  const std::atomic<bool>* cancel = nullptr;
};

// The transfer buffer: a movable global block, locked while the acquisition
// runs. Released, when the object goes, through whichever handle still
// names the block.
class TransferBuffer {
 public:
  TransferBuffer(const LibraryCalls& calls, size_t bytes);
  ~TransferBuffer();
  TransferBuffer(const TransferBuffer&) = delete;
  TransferBuffer& operator=(const TransferBuffer&) = delete;

  // Null when the memory could not be had.
  uint8_t* Address() const { return address_; }
  size_t Bytes() const { return bytes_; }
  // The address the library handed back with a block.
  void Seen(const void* current) { current_ = current; }
  // The bytes that can be read at `data`, by the rule above.
  size_t Readable(const void* data) const;

 private:
  const LibraryCalls& calls_;
  SxHandle handle_ = nullptr;
  uint8_t* address_ = nullptr;
  size_t bytes_ = 0;
  const void* current_ = nullptr;
};

class Intake {
 public:
  Intake(const LibraryCalls& calls, PageReceiver& receiver, const IntakeOptions& options);
  Intake(const Intake&) = delete;
  Intake& operator=(const Intake&) = delete;

  // Whether the transfer buffer could be allocated.
  bool Ready() const { return buffer_.Address() != nullptr; }
  // Runs one SxAcquire into the buffer; the library's result. A page still
  // open when it returns is dropped.
  int32_t Acquire();
  // One call of the transfer callback.
  int32_t Take(void* data, int64_t* byteCount, int32_t code);

  // Why the intake stopped the acquisition (kIntakeStop); empty when it did not.
  const std::string& StopReason() const { return stopReason_; }
  // The bytes of one line, when the stop was a line larger than the buffer.
  uint32_t LineTooLong() const { return lineTooLong_; }
  int PagesBegun() const { return pagesBegun_; }

 private:
  int32_t Stop(const std::string& why);
  int32_t BeginPage(const void* info, int64_t* byteCount);
  int32_t TakeBlock(const void* data, const int64_t* byteCount, int32_t code);
  size_t BlockBytes(const void* data, const int64_t* byteCount) const;
  bool Deliver(const uint8_t* data, size_t bytes);
  bool Pass(const uint8_t* lines, size_t count);
  bool EndPage(bool early);

  const LibraryCalls& calls_;
  PageReceiver& receiver_;
  const IntakeOptions options_;
  TransferBuffer buffer_;
  PageFormat format_;  // of the open page
  bool pageOpen_ = false;
  uint32_t lines_ = 0;  // delivered of the open page
  std::vector<uint8_t> carry_;  // the start of a line cut by a block's end
  int pagesBegun_ = 0;
  std::string stopReason_;
  uint32_t lineTooLong_ = 0;
};

}  // namespace sx::host
