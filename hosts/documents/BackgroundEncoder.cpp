#include "documents/BackgroundEncoder.h"

#include <system_error>
#include <utility>

namespace sx::host {
namespace {

// Buffers of applied blocks kept for the next ones: one, since each may be as
// large as a transfer block and the queue holds about one block.
constexpr size_t kSpareBuffers = 1;

}  // namespace

BackgroundEncoder::BackgroundEncoder(OutputDocument& document, size_t queueBytes)
    : document_(document), limit_(queueBytes) {}

BackgroundEncoder::~BackgroundEncoder() { Drain(); }

bool BackgroundEncoder::Start(std::string* error) {
  try {
    thread_ = std::thread([this] { Run(); });
    return true;
  } catch (const std::system_error& e) {
    *error = std::string("cannot start the encoder thread: ") + e.what();
    return false;
  }
}

bool BackgroundEncoder::Push(Event event) {
  std::unique_lock<std::mutex> lock(mutex_);
  const size_t bytes = event.bytes.size();
  // A block larger than the bound goes alone.
  changed_.wait(lock, [&] { return failed_ || queuedBytes_ == 0 || queuedBytes_ + bytes <= limit_; });
  if (failed_) return false;
  queuedBytes_ += bytes;
  queue_.push_back(std::move(event));
  changed_.notify_all();
  return true;
}

bool BackgroundEncoder::BeginPage(const PageFormat& format) { return Push({Kind::Begin, format, {}}); }

bool BackgroundEncoder::Append(const uint8_t* data, size_t bytes) {
  if (bytes == 0) return !Failed(nullptr);
  std::vector<uint8_t> copy;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (failed_) return false;
    if (!spare_.empty()) {
      copy = std::move(spare_.back());
      spare_.pop_back();
    }
  }
  copy.assign(data, data + bytes);
  return Push({Kind::Data, {}, std::move(copy)});
}

bool BackgroundEncoder::EndPage() { return Push({Kind::End, {}, {}}); }

bool BackgroundEncoder::Failed(std::string* why) const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (why) *why = failure_;
  return failed_;
}

void BackgroundEncoder::Stop(Kind kind) {
  if (!thread_.joinable()) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    queue_.push_back({kind, {}, {}});
    changed_.notify_all();
  }
  thread_.join();
}

void BackgroundEncoder::Drain() { Stop(Kind::Stop); }

bool BackgroundEncoder::Finish() {
  if (!thread_.joinable()) return document_.Finish();
  Stop(Kind::Finish);
  return finished_;
}

bool BackgroundEncoder::Apply(Event& event) {
  switch (event.kind) {
    case Kind::Begin:
      // A page that was never marked as ended is over once the next begins.
      return (!document_.PageOpen() || document_.EndPage()) && document_.BeginPage(event.format);
    case Kind::Data: return document_.Append(event.bytes.data(), event.bytes.size());
    case Kind::End: return document_.EndPage();
    case Kind::Stop:
    case Kind::Finish: return true;
  }
  return true;
}

void BackgroundEncoder::Run() {
  for (;;) {
    Event event;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      changed_.wait(lock, [&] { return !queue_.empty(); });
      event = std::move(queue_.front());
      queue_.pop_front();
      if (event.kind == Kind::Stop) return;
      if (event.kind == Kind::Finish) break;
      if (failed_) {  // the rest is dropped: the scan is being stopped
        queuedBytes_ -= event.bytes.size();
        changed_.notify_all();
        continue;
      }
    }
    const bool ok = Apply(event);
    std::lock_guard<std::mutex> lock(mutex_);
    queuedBytes_ -= event.bytes.size();
    if (!ok) {
      failed_ = true;
      failure_ = document_.Error();
    }
    if (event.kind == Kind::Data && spare_.size() < kSpareBuffers) spare_.push_back(std::move(event.bytes));
    changed_.notify_all();
  }
  // Read by the caller once the thread has been joined.
  finished_ = document_.Finish();
}

}  // namespace sx::host
