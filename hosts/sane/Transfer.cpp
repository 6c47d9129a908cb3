#include "Transfer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>

namespace sxsane {
namespace {
// Waits poll the cancel flag this often, since Cancel takes no lock.
constexpr auto kPoll = std::chrono::milliseconds(20);
constexpr int kMaxUnlocks = 1 << 16;
// Only one acquisition runs per process: the library is process-wide.
std::atomic<Transfer*> g_active{nullptr};
}  // namespace

Transfer::~Transfer() {
  RequestCancel();
  Join();
  for (int fd : pipe_)
    if (fd >= 0) close(fd);
}

bool Transfer::Start(size_t bufferBytes) {
  if (pipe_[0] < 0) {
    if (pipe(pipe_) != 0) return false;
    for (int fd : pipe_) fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  }
  buffer_ = api_.globalAlloc(0x0042 /* movable, zero-filled */, bufferBytes);
  void* address = buffer_ ? api_.globalLock(buffer_) : nullptr;
  if (!address) return false;
  bufferBytes_ = bufferBytes;
  lastData_ = address;
  g_active.store(this);
  thread_ = std::thread([this, address] {
    int32_t result = api_.acquire(&Transfer::Callback, address);
    std::lock_guard<std::mutex> lock(mutex_);
    result_ = result;
    done_ = true;
    Signal();
    cv_.notify_all();
  });
  return true;
}

void Transfer::Join() {
  if (thread_.joinable()) thread_.join();
  if (g_active.load() == this) g_active.store(nullptr);
  if (!buffer_) return;
  // The library may have moved the buffer; free whichever block names it now.
  void* handle = lastData_ ? api_.globalHandle(lastData_) : nullptr;
  if (!handle) handle = buffer_;
  for (int i = 0; i < kMaxUnlocks && api_.globalUnlock(handle) != 0; ++i) {
  }
  api_.globalFree(handle);
  buffer_ = nullptr;
}

int32_t SX_API Transfer::Callback(void* data, int64_t* count, int32_t code) {
  Transfer* t = g_active.load();
  if (!t) return SX_ERR_CANCELLED;
  try {
    return t->OnCallback(data, count, code);
  } catch (...) {
    return SX_ERR_CANCELLED;
  }
}

int32_t Transfer::OnCallback(void* data, int64_t* count, int32_t code) {
  if (cancel_.load()) return SX_ERR_CANCELLED;
  Item item;
  if (code == SX_XFER_IMAGE_INFO) {
    if (!data) return SX_ERR_CANCELLED;
    item.page = true;
    std::memcpy(&item.info, data, sizeof item.info);
    // Direct transfers size their blocks from this answer.
    if (count) *count = static_cast<int64_t>(bufferBytes_);
  } else if (code == SX_XFER_DATA || code == SX_XFER_PAGE_END || code == SX_XFER_SHORT_PAGE) {
    if (data) {
      lastData_ = data;
      int64_t n = count ? (*count & INT64_C(0xFFFFFFFF)) : 0;
      void* handle = api_.globalHandle(data);
      size_t readable = handle ? api_.globalSize(handle) : bufferBytes_;
      size_t bytes = std::min<uint64_t>(static_cast<uint64_t>(std::max<int64_t>(n, 0)), readable);
      const auto* p = static_cast<const uint8_t*>(data);
      item.bytes.assign(p, p + bytes);
    }
    item.last = code != SX_XFER_DATA;
    item.endedByScanner = code == SX_XFER_SHORT_PAGE;
  } else {
    return SX_OK;
  }
  std::unique_lock<std::mutex> lock(mutex_);
  while (queuedBytes_ > 0 && queuedBytes_ + item.bytes.size() > kQueueBound && !cancel_.load())
    cv_.wait_for(lock, kPoll);
  if (cancel_.load()) return SX_ERR_CANCELLED;
  queuedBytes_ += item.bytes.size();
  highWater_ = std::max(highWater_, queuedBytes_);
  queue_.push_back(std::move(item));
  Signal();
  cv_.notify_all();
  return SX_OK;
}

// The select descriptor is readable while the frontend has something to
// take: a queued item or the acquisition's end. Called with mutex_ held.
void Transfer::Signal() {
  uint8_t byte = 1;
  if (write(pipe_[1], &byte, 1) < 0) {
    // Full pipe: it is readable already.
  }
}

void Transfer::Drain() {
  if (!queue_.empty() || done_) return;
  uint8_t sink[64];
  while (read(pipe_[0], sink, sizeof sink) > 0) {
  }
}

Transfer::Wait Transfer::NextPage(SxImageInfo* info, int32_t* result) {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    // Whatever remains of an earlier page is dropped.
    while (!queue_.empty() && !queue_.front().page) {
      queuedBytes_ -= queue_.front().bytes.size();
      queue_.pop_front();
      cv_.notify_all();
    }
    if (!queue_.empty()) {
      *info = queue_.front().info;
      queue_.pop_front();
      Drain();
      return Wait::Page;
    }
    if (done_ || cancel_.load()) {
      *result = done_ ? result_ : SX_ERR_CANCELLED;
      return Wait::Ended;
    }
    cv_.wait_for(lock, kPoll);
  }
}

Transfer::Chunk Transfer::Read(uint8_t* out, size_t max, bool block) {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    if (cancel_.load()) return {0, PageEnd::Cut};
    if (!queue_.empty()) {
      Item& front = queue_.front();
      // A page announced before this one's end: it never ended.
      if (front.page) return {0, PageEnd::Cut};
      if (front.last && front.used == front.bytes.size()) {
        // The page's end: this read reports it.
        const PageEnd end = front.endedByScanner ? PageEnd::EndedByScanner : PageEnd::Whole;
        queuedBytes_ -= front.bytes.size();
        queue_.pop_front();
        cv_.notify_all();
        Drain();
        return {0, end};
      }
      size_t n = std::min(max, front.bytes.size() - front.used);
      // An empty item (a page that ended before any data) has no storage to copy from.
      if (n > 0) std::memcpy(out, front.bytes.data() + front.used, n);
      front.used += n;
      if (front.used == front.bytes.size() && !front.last) {
        queuedBytes_ -= front.bytes.size();
        queue_.pop_front();
        cv_.notify_all();
        Drain();
      }
      if (n > 0 || max == 0) return {n, PageEnd::None};
      continue;
    }
    if (done_) return {0, PageEnd::Cut};
    if (!block) return {};
    cv_.wait_for(lock, kPoll);
  }
}

bool Transfer::Finished() {
  std::lock_guard<std::mutex> lock(mutex_);
  return done_ && queue_.empty();
}

size_t Transfer::HighWater() {
  std::lock_guard<std::mutex> lock(mutex_);
  return highWater_;
}

int32_t Transfer::Result() {
  std::lock_guard<std::mutex> lock(mutex_);
  return result_;
}

}  // namespace sxsane
