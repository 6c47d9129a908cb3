// The scanner behind the eSCL server: the library (one per process) and the
// jobs that use it, one at a time.
//
// Thread contract: the library is called by one thread at a time. Before the
// server starts, ReadScannerFacts on the main thread; afterwards a job's own
// thread, from its start to its end, holding library_ throughout (a job
// starts only once the previous job's thread has ended), or a status request
// refreshing the feeder's state while no job runs, holding library_ too (and
// never waiting for it). Otherwise HTTP handler threads read the cached
// facts, the job table and the jobs' queues, each guarded by its own lock.
#pragma once
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "serve/EsclBatch.h"
#include "serve/EsclModel.h"
#include "serve/EsclQueue.h"

namespace sx::host::escl {

// Opens the data source the server serves: `sourceName` (a display name, or
// a unique part of it) or, when empty, the chosen one. Says why not on stderr.
bool OpenServedSource(const std::string& sourceName);

// What the open source offers, in the eSCL document's terms. Opens the source
// and frees the library again.
bool ReadScannerFacts(const std::string& sourceName, const std::string& displayName, ScannerFacts* facts);

// One ScanSettings document's scan. A feeder job is one acquisition of all
// the pages, as the library scans a feeder: the pages wait in order in the
// job's bounded queue, each taken by its own NextDocument request, and the
// scanner waits while the queue is full. (Restarting the scanner for each
// page would feed and warm it up again every time.)
// One response streams a job's pages at a time. The request that takes the
// slot may give it back from another thread (the response's end), which a
// mutex does not allow; hence a flag under a lock, waited for.
class ReaderSlot {
 public:
  template <typename Duration>
  bool TakeWithin(Duration wait) {
    std::unique_lock<std::mutex> guard(lock_);
    if (!free_.wait_for(guard, wait, [this] { return !taken_; })) return false;
    taken_ = true;
    return true;
  }
  void Give() {
    {
      std::lock_guard<std::mutex> guard(lock_);
      taken_ = false;
    }
    free_.notify_one();
  }

 private:
  std::mutex lock_;
  std::condition_variable free_;
  bool taken_ = false;
};

struct Job {
  using Clock = std::chrono::steady_clock;
  Job(std::string id, const ScanRequest& scan);

  const std::string uuid;
  const ScanRequest request;
  const Clock::time_point created = Clock::now();
  DocumentQueue queue;
  const std::unique_ptr<BatchPdf> batch;  // null unless the request asked for one PDF
  std::atomic<bool> cancel{false};
  ReaderSlot reader;

  enum class Start { Waiting, Accepted, Refused };
  // Set by the job's thread, read by handlers; guarded by lock.
  mutable std::mutex lock;
  std::condition_variable startChanged;
  Start start = Start::Waiting;
  Clock::time_point accepted;  // when start became Accepted
  std::string refusal;
  bool running = true;  // the job's thread has not ended yet
  JobState state = JobState::Processing;
  int32_t result = 0;   // the library's answer to SxAcquire
  std::string failure;  // why the server stopped the scan itself; empty if it did not
  bool noPaper = false;
  uint32_t pagesScanned = 0;
  uint32_t pagesSent = 0;
  Clock::time_point lastRead = Clock::now();
  bool fetched = false;    // a client asked for its pages
  bool unfetched = false;  // aborted because none did in time

  JobSummary Summary() const;
  // Whether the job still holds the scanner: its thread runs, or pages wait
  // for a client that read recently.
  bool Holds() const;
  void Cancel();
  // A client asked for the job's pages (whether or not one is ready).
  void MarkFetched();
  // Aborts the job when no client asked for its pages within
  // kUnfetchedTimeout of the scanner taking its settings; true when it did.
  bool AbortIfUnfetched();
};

// How long a job waits for a client to ask for its first page before it is
// aborted and the scanner is free again: clients ask as soon as the job is
// made (the request then waits for the page), so a job nobody asks for was
// left by a client that went away.
constexpr std::chrono::seconds kUnfetchedTimeout{5};

class Scanner {
 public:
  Scanner(std::string sourceName, ScannerFacts facts);
  ~Scanner();  // cancels the running job and waits for its thread
  Scanner(const Scanner&) = delete;
  Scanner& operator=(const Scanner&) = delete;

  ScannerFacts Facts() const;
  bool Busy() const;
  // Reads whether the feeder holds paper again, at most every few seconds,
  // while no job runs: a person loads the feeder between jobs, and clients
  // offer it only when the status says it is loaded.
  void RefreshWhenIdle();

  enum class Start { Started, Busy, Refused };
  // Starts a job and waits until the scanner took its settings (Started, with
  // the job) or refused them (Refused, with the reason).
  Start StartJob(const ScanRequest& request, std::shared_ptr<Job>* job, std::string* error);
  std::shared_ptr<Job> Find(const std::string& uuid) const;
  std::vector<JobSummary> Summaries() const;
  // Called from any thread whenever a job's pages change (bytes, a page's
  // end, the job's end): set before the first job starts.
  void OnJobChange(std::function<void()> listener) { onJobChange_ = std::move(listener); }
  // Aborts the active job if no client came for it in time (see
  // Job::AbortIfUnfetched); called now and then.
  void AbortUnfetched();

 private:
  void RunJob(const std::shared_ptr<Job>& job);
  bool Prepare(Job& job, std::string* refusal);

  const std::string sourceName_;
  std::function<void()> onJobChange_;
  mutable std::mutex lock_;  // guards facts_, jobs_, active_ and thread_
  ScannerFacts facts_;
  std::vector<std::shared_ptr<Job>> jobs_;  // newest last, a few kept for status
  std::shared_ptr<Job> active_;
  std::thread thread_;  // the active job's
  std::mutex library_;  // held by whichever thread uses the library
  std::chrono::steady_clock::time_point refreshed_ = std::chrono::steady_clock::now();  // under lock_
};

}  // namespace sx::host::escl
