#include "kit/Intake.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <new>

#include "kit/ScanPlan.h"

namespace sx::host {
namespace {

// Unlock calls before giving up on a block whose count never drops.
constexpr int kMaxUnlocks = 1 << 16;
constexpr int64_t kCountBits = INT64_C(0xFFFFFFFF);

std::atomic<Intake*> g_current{nullptr};

// Called by the library, so nothing may be thrown out of it.
extern "C" int32_t SX_API OnTransfer(void* data, int64_t* byteCount, int32_t code) {
  Intake* intake = g_current.load();
  if (!intake) return SX_ERR_CANCELLED;
  return intake->Take(data, byteCount, code);
}

}  // namespace

void ReleaseLockedBlock(const LibraryCalls& calls, void* address) {
  if (!address) return;
  SxHandle handle = calls.globalHandle(address);
  if (!handle) return;
  for (int i = 0; i < kMaxUnlocks && calls.globalUnlock(handle) != 0; ++i) {
  }
  calls.globalFree(handle);
}

TransferBuffer::TransferBuffer(const LibraryCalls& calls, size_t bytes) : calls_(calls) {
  handle_ = calls_.globalAlloc(SX_GHND, bytes);
  address_ = handle_ ? static_cast<uint8_t*>(calls_.globalLock(handle_)) : nullptr;
  bytes_ = address_ ? bytes : 0;
}

TransferBuffer::~TransferBuffer() {
  // A moved block is named by the address the library last handed back;
  // an address that names no block any more is never freed through.
  if (current_ && current_ != address_ && calls_.globalHandle(current_)) {
    ReleaseLockedBlock(calls_, const_cast<void*>(current_));
  } else if (address_) {
    ReleaseLockedBlock(calls_, address_);
  } else if (handle_) {
    calls_.globalFree(handle_);
  }
}

size_t TransferBuffer::Readable(const void* data) const {
  if (SxHandle handle = data ? calls_.globalHandle(data) : nullptr) return calls_.globalSize(handle);
  return data && data == address_ ? bytes_ : 0;
}

Intake::Intake(const LibraryCalls& calls, PageReceiver& receiver, const IntakeOptions& options)
    : calls_(calls), receiver_(receiver), options_(options), buffer_(calls, options.bufferBytes) {}

int32_t Intake::Acquire() {
  if (!Ready()) return SX_ERR_NO_MEMORY;
  Intake* none = nullptr;
  if (!g_current.compare_exchange_strong(none, this)) return Stop("another acquisition runs in this process");
  const int32_t result = calls_.acquire(OnTransfer, buffer_.Address());
  g_current.store(nullptr);
  if (pageOpen_) {
    pageOpen_ = false;
    receiver_.DropPage();
  }
  return result;
}

int32_t Intake::Take(void* data, int64_t* byteCount, int32_t code) {
  const bool block = code == SX_XFER_DATA || code == SX_XFER_PAGE_END || code == SX_XFER_SHORT_PAGE;
  if (block && data) buffer_.Seen(data);
  if (options_.cancel && options_.cancel->load()) return SX_ERR_CANCELLED;
  if (!stopReason_.empty()) return kIntakeStop;
  try {
    if (code == SX_XFER_IMAGE_INFO) return BeginPage(data, byteCount);
    // Cancelled and failed blocks carry no data.
    return block ? TakeBlock(data, byteCount, code) : SX_OK;
  } catch (const std::bad_alloc&) {
    return Stop("out of memory for the page");
  } catch (const std::exception& e) {
    return Stop(e.what());
  }
}

int32_t Intake::Stop(const std::string& why) {
  if (stopReason_.empty()) stopReason_ = why.empty() ? "the page could not be taken" : why;
  return kIntakeStop;
}

int32_t Intake::BeginPage(const void* info, int64_t* byteCount) {
  if (!info) return Stop("the library announced a page without its description");
  SxImageInfo image;
  std::memcpy(&image, info, sizeof image);
  PageFormat format;
  std::string why;
  if (!PageFormatFromInfo(image, &format, &why)) return Stop(why);
  // Direct transfers come a whole number of lines at a time: a buffer
  // smaller than one line could never take the page.
  if (format.bytesPerLine > buffer_.Bytes()) {
    lineTooLong_ = format.bytesPerLine;
    return Stop("the transfer buffer of " + std::to_string(buffer_.Bytes()) +
                " bytes is smaller than one line of this page (" + std::to_string(format.bytesPerLine) + " bytes)");
  }
  // A page never said to end is over once the next one begins.
  if (pageOpen_ && !EndPage(lines_ < format_.lines)) return kIntakeStop;
  if (!receiver_.BeginPage(format, &why)) return Stop(why);
  format_ = format;
  pageOpen_ = true;
  lines_ = 0;
  carry_.clear();
  ++pagesBegun_;
  // Direct transfers size their blocks from this answer.
  if (byteCount) {
    const size_t asked = options_.linesPerBlock ? size_t{options_.linesPerBlock} * format.bytesPerLine
                                                : buffer_.Bytes();
    *byteCount = static_cast<int64_t>(std::min(asked, buffer_.Bytes()));
  }
  return SX_OK;
}

size_t Intake::BlockBytes(const void* data, const int64_t* byteCount) const {
  int64_t count = byteCount ? *byteCount : 0;
  if (count > kCountBits) count &= kCountBits;
  if (count <= 0) return 0;
  return static_cast<size_t>(std::min<uint64_t>(static_cast<uint64_t>(count), buffer_.Readable(data)));
}

int32_t Intake::TakeBlock(const void* data, const int64_t* byteCount, int32_t code) {
  if (!pageOpen_) return SX_OK;
  if (!Deliver(static_cast<const uint8_t*>(data), BlockBytes(data, byteCount))) return kIntakeStop;
  if (code != SX_XFER_DATA && !EndPage(code == SX_XFER_SHORT_PAGE)) return kIntakeStop;
  return SX_OK;
}

bool Intake::Deliver(const uint8_t* data, size_t bytes) {
  const size_t stride = format_.bytesPerLine;
  if (!carry_.empty()) {
    const size_t take = std::min(bytes, stride - carry_.size());
    carry_.insert(carry_.end(), data, data + take);
    data += take;
    bytes -= take;
    if (carry_.size() < stride) return true;
    if (!Pass(carry_.data(), 1)) return false;
    carry_.clear();
  }
  const size_t whole = bytes / stride;
  if (whole && !Pass(data, whole)) return false;
  if (bytes > whole * stride) carry_.assign(data + whole * stride, data + bytes);
  return true;
}

// Lines past the ones the page announced are dropped.
bool Intake::Pass(const uint8_t* lines, size_t count) {
  const uint32_t n = static_cast<uint32_t>(std::min<size_t>(count, format_.lines - lines_));
  if (n == 0) return true;
  lines_ += n;
  std::string why;
  if (receiver_.TakeLines(lines, n, &why)) return true;
  Stop(why);
  return false;
}

bool Intake::EndPage(bool early) {
  pageOpen_ = false;
  carry_.clear();
  std::string why;
  if (receiver_.EndPage(lines_, early, &why)) return true;
  Stop(why);
  return false;
}

}  // namespace sx::host
