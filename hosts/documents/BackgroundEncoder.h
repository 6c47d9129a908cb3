// Encoding beside the acquisition: the library's transfer callback copies
// each block into a queue bounded in bytes, and a thread of its own encodes
// the queue into the output document, on the machine's other core. The page
// is then encoded while the scanner delivers it, and the file is complete a
// moment after the last line, whatever the page's size.
//
// Thread contract: the producer calls (BeginPage, Append, EndPage, Failed)
// come from one thread, the host's (the library calls the transfer callback
// on it in both transfer modes). The encoder thread alone touches the
// document from Start until Finish or Drain returns, finishing it included:
// the system's codecs (COM objects on Windows) are made, used and released
// on that one thread. After that the document is the caller's again, to
// read. A failure of the document (a full disk) is kept with its message:
// every later producer call answers false at once, so the callback stops the
// scan with that message, and a producer waiting for room is woken.
#pragma once
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "documents/ImageWriter.h"

namespace sx::host {

class BackgroundEncoder {
 public:
  // One block of the default transfer size: a scanner delivers a block far
  // more slowly than the encoder takes to encode one, so the encoder has
  // emptied the queue before the next arrives; at memory speed the callback
  // simply waits for it. Every further block held here is resident memory.
  static constexpr size_t kQueueBytes = size_t{1} << 20;
  // In buffered transfers the library's own ring of buffers rides out a slow
  // encoder: the same one block is enough.
  static constexpr size_t kBufferedQueueBytes = kQueueBytes;

  explicit BackgroundEncoder(OutputDocument& document, size_t queueBytes = kQueueBytes);
  ~BackgroundEncoder();
  BackgroundEncoder(const BackgroundEncoder&) = delete;
  BackgroundEncoder& operator=(const BackgroundEncoder&) = delete;

  // Starts the thread; false with the reason when the system gives none.
  bool Start(std::string* error);

  // Producer side: false once the encoder has failed (Failed says why).
  bool BeginPage(const PageFormat& format);
  // Copies the block: the library may reuse its buffer once the callback
  // returns. Waits while the queue holds its bound.
  bool Append(const uint8_t* data, size_t bytes);
  bool EndPage();
  bool Failed(std::string* why) const;

  // Applies every queued event, finishes the document (OutputDocument::
  // Finish) and ends the thread; the document's answer.
  bool Finish();
  // Applies every queued event and ends the thread, leaving the document
  // unfinished.
  void Drain();

 private:
  enum class Kind : uint8_t { Begin, Data, End, Stop, Finish };
  struct Event {
    Kind kind;
    PageFormat format;
    std::vector<uint8_t> bytes;
  };
  bool Push(Event event);
  void Stop(Kind kind);
  void Run();
  bool Apply(Event& event);

  OutputDocument& document_;
  const size_t limit_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Event> queue_;
  std::vector<std::vector<uint8_t>> spare_;  // buffers of applied blocks, reused
  size_t queuedBytes_ = 0;
  bool failed_ = false;
  bool finished_ = false;  // the document's answer to Finish
  std::string failure_;
  std::thread thread_;
};

}  // namespace sx::host
