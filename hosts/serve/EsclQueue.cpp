#include "serve/EsclQueue.h"

#include <algorithm>

namespace sx::host::escl {
namespace {
// Small writes are gathered into chunks of up to this size, so that an
// encoder writing a few bytes at a time does not make one HTTP chunk of each.
constexpr size_t kChunkBytes = 64 * 1024;
}  // namespace

void DocumentQueue::Changed() const {
  if (listener_) listener_();
}

bool DocumentQueue::Write(const void* data, size_t bytes, Clock::duration stall) {
  const char* p = static_cast<const char*>(data);
  std::unique_lock<std::mutex> guard(lock_);
  while (bytes > 0) {
    // A reader that takes nothing for `stall` is gone; waiting longer would
    // hold the scanner for nobody.
    if (!changed_.wait_for(guard, stall, [&] { return closed_ || queued_ < capacity_; })) return false;
    if (closed_) return false;
    const bool wasEmpty = items_.empty();
    size_t room = capacity_ - queued_;
    if (items_.empty() || items_.back().end || items_.back().bytes.size() >= kChunkBytes) items_.push_back({});
    std::string& tail = items_.back().bytes;
    const size_t n = std::min({bytes, room, kChunkBytes - tail.size()});
    tail.append(p, n);
    p += n;
    bytes -= n;
    queued_ += n;
    highWater_ = std::max(highWater_, queued_);
    changed_.notify_all();
    // A reader waits only on an empty queue: telling it of bytes added to
    // bytes it has not taken yet would wake it for nothing.
    if (wasEmpty) {
      guard.unlock();
      Changed();
      guard.lock();
    }
  }
  return true;
}

void DocumentQueue::EndDocument() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    items_.push_back({{}, true});
    changed_.notify_all();
  }
  Changed();
}

void DocumentQueue::Finish() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    finished_ = true;
    changed_.notify_all();
  }
  Changed();
}

void DocumentQueue::Close() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    closed_ = true;
    items_.clear();
    queued_ = 0;
    changed_.notify_all();
  }
  Changed();
}

DocumentQueue::Wait DocumentQueue::WaitForDocument(Clock::duration timeout) {
  std::unique_lock<std::mutex> guard(lock_);
  if (!changed_.wait_for(guard, timeout, [&] { return closed_ || finished_ || !items_.empty(); }))
    return Wait::TimedOut;
  return items_.empty() ? Wait::NoMore : Wait::Ready;
}

DocumentQueue::Read DocumentQueue::Next(std::string* chunk, Clock::duration timeout) {
  std::unique_lock<std::mutex> guard(lock_);
  if (!changed_.wait_for(guard, timeout, [&] { return closed_ || finished_ || !items_.empty(); }))
    return Read::Empty;
  if (items_.empty()) return Read::Failed;  // closed, or finished inside the document
  Item item = std::move(items_.front());
  items_.pop_front();
  queued_ -= item.bytes.size();
  changed_.notify_all();
  if (item.end) return Read::DocumentEnd;
  *chunk = std::move(item.bytes);
  return Read::Bytes;
}

size_t DocumentQueue::QueuedBytes() const {
  std::lock_guard<std::mutex> guard(lock_);
  return queued_;
}

size_t DocumentQueue::HighWater() const {
  std::lock_guard<std::mutex> guard(lock_);
  return highWater_;
}

bool DocumentQueue::Closed() const {
  std::lock_guard<std::mutex> guard(lock_);
  return closed_;
}

bool QueueSink::Write(const void* data, size_t bytes) { return queue_.Write(data, bytes, stall_); }

}  // namespace sx::host::escl
