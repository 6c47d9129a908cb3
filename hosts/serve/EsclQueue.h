// The bytes of encoded pages on their way from the scanning thread to the
// HTTP responses that carry them, bounded so that a slow or absent client
// holds the scanner back instead of filling the memory.
#pragma once
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>

#include "documents/DocumentStream.h"

namespace sx::host::escl {

// Documents in order, each a run of byte chunks closed by an end mark.
// Thread contract: one producer (the job's scanning thread) calls Write,
// EndDocument and Finish; one consumer at a time (the response being
// streamed) calls the reading side; Close may come from any thread. Every
// member is guarded by lock_, except the listener, set before the producer
// starts.
class DocumentQueue {
 public:
  using Clock = std::chrono::steady_clock;
  explicit DocumentQueue(size_t capacityBytes) : capacity_(capacityBytes) {}

  // Called, outside the lock, after each change a reader may wait for (bytes,
  // a document's end, the producer's end, Close): a reader that never
  // blocks learns when to look again.
  void OnChange(std::function<void()> listener) { listener_ = std::move(listener); }

  // Appends bytes of the current document, waiting while the queue is full.
  // False when the queue was closed, or when no reader took anything for
  // `stall` (the client went away without saying so).
  bool Write(const void* data, size_t bytes, Clock::duration stall);
  void EndDocument();
  // No more documents will come.
  void Finish();
  // Wakes every waiter; later writes fail and reads find nothing.
  void Close();

  enum class Wait { Ready, NoMore, TimedOut };
  // Waits until the next document's first bytes are queued (Ready), or the
  // producer finished with no further document (NoMore).
  Wait WaitForDocument(Clock::duration timeout);
  enum class Read { Bytes, DocumentEnd, Empty, Failed };
  // The next chunk of the document being read; DocumentEnd once its end
  // mark is reached; Empty when nothing came within `timeout` (zero: do not
  // wait); Failed when the queue was closed or the producer finished inside
  // the document.
  Read Next(std::string* chunk, Clock::duration timeout);

  size_t QueuedBytes() const;
  size_t HighWater() const;
  bool Closed() const;

 private:
  struct Item {
    std::string bytes;
    bool end = false;
  };
  void Changed() const;

  std::function<void()> listener_;
  mutable std::mutex lock_;
  std::condition_variable changed_;
  std::deque<Item> items_;
  size_t capacity_;
  size_t queued_ = 0;
  size_t highWater_ = 0;
  bool finished_ = false;
  bool closed_ = false;
};

// The sink a page's encoder writes to: the job's queue. A stream cannot be
// rewritten, so the encoder pads a page that ends short.
class QueueSink : public ByteSink {
 public:
  QueueSink(DocumentQueue& queue, DocumentQueue::Clock::duration stall) : queue_(queue), stall_(stall) {}
  bool Write(const void* data, size_t bytes) override;
  std::string Failure() const override { return "the client stopped reading the page"; }

 private:
  DocumentQueue& queue_;
  DocumentQueue::Clock::duration stall_;
};

}  // namespace sx::host::escl
