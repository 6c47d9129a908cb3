// One acquisition of the library run on a backend thread, handing the blocks
// its transfer callback receives to sane_read through a bounded queue.
#pragma once
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "sxscan.h"

namespace sxsane {

using AcquireFn = int32_t(SX_API*)(SxTransferCallback, void*);
using HandleFn = void*(SX_API*)(const void*);
using SizeFn = size_t(SX_API*)(void*);

struct AcquireApi {
  AcquireFn acquire = nullptr;
  HandleFn globalHandle = nullptr;
  SizeFn globalSize = nullptr;
  void* (SX_API* globalAlloc)(uint32_t, size_t) = nullptr;
  void* (SX_API* globalLock)(void*) = nullptr;
  int32_t (SX_API* globalUnlock)(void*) = nullptr;
  void* (SX_API* globalFree)(void*) = nullptr;
};

// Thread contract: the acquisition thread runs SxAcquire and the callback;
// the frontend's thread calls everything else. Queue, done flag, result and
// high-water mark are guarded by mutex_; cancel_ is atomic so that Cancel may
// be called from a signal handler (it takes no lock then).
//
// Memory: the queue holds at most kQueueBound bytes of image data, whatever
// the page size or the number of pages. The callback waits (on the
// acquisition thread, so the library stops reading the scanner) until the
// frontend has read enough for its block to fit. A single block larger than
// the bound is queued alone, so the queue never holds more than the larger
// of the bound and one block.
class Transfer {
 public:
  static constexpr size_t kQueueBound = size_t{4} << 20;
  enum class Wait { Page, Ended };
  // How a page ended: not yet; with its last lines (code 1); by the scanner
  // before its last lines (code 5); or cut, by a cancel or the acquisition
  // ending inside it.
  enum class PageEnd { None, Whole, EndedByScanner, Cut };
  struct Chunk {
    size_t bytes = 0;
    PageEnd end = PageEnd::None;
  };
  explicit Transfer(const AcquireApi& api) : api_(api) {}
  ~Transfer();

  bool Start(size_t bufferBytes);
  // Blocks until the next page is announced or the acquisition ends.
  Wait NextPage(SxImageInfo* info, int32_t* result);
  // Copies up to max bytes of the current page, or tells how it ended. No
  // bytes and no end only when nonblocking (or max is 0).
  Chunk Read(uint8_t* out, size_t max, bool block);
  bool Finished();
  int32_t Result();
  void RequestCancel() { cancel_.store(true); }
  bool CancelRequested() const { return cancel_.load(); }
  void Join();
  int SelectFd() const { return pipe_[0]; }
  // The most image bytes the queue has held at once.
  size_t HighWater();

 private:
  struct Item {
    bool page = false;
    SxImageInfo info{};
    std::vector<uint8_t> bytes;
    bool last = false, endedByScanner = false;
    size_t used = 0;
  };
  static int32_t SX_API Callback(void* data, int64_t* count, int32_t code);
  int32_t OnCallback(void* data, int64_t* count, int32_t code);
  void Push(Item item);
  void Signal();
  void Drain();
  void Run();

  AcquireApi api_;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable cv_;
  std::deque<Item> queue_;
  size_t queuedBytes_ = 0;
  size_t highWater_ = 0;
  bool done_ = false;
  int32_t result_ = 0;
  std::atomic<bool> cancel_{false};
  void* buffer_ = nullptr;
  size_t bufferBytes_ = 0;
  const void* lastData_ = nullptr;
  int pipe_[2] = {-1, -1};
};

}  // namespace sxsane
