// Delayed jobs on POSIX: one thread per job, sleeping on a condition until
// its time or until the module is unloaded.
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "modules/aspisim/AspiLater.h"

namespace sx::aspisim {

struct Later::State {
  std::mutex Lock;
  std::condition_variable Wake;
  bool Stopping = false;
  std::vector<std::thread> Threads;
};

Later::Later() : state_(std::make_unique<State>()) {}

Later::~Later() {
  {
    std::lock_guard<std::mutex> guard(state_->Lock);
    state_->Stopping = true;
  }
  state_->Wake.notify_all();
  for (std::thread& t : state_->Threads) t.join();
}

bool Later::After(std::chrono::duration<double, std::milli> delay, std::function<void()> job) {
  const auto due = std::chrono::steady_clock::now() +
                   std::chrono::duration_cast<std::chrono::steady_clock::duration>(delay);
  State* s = state_.get();
  std::lock_guard<std::mutex> guard(s->Lock);
  s->Threads.emplace_back([s, due, job = std::move(job)] {
    {
      std::unique_lock<std::mutex> wait(s->Lock);
      s->Wake.wait_until(wait, due, [s] { return s->Stopping; });
      if (s->Stopping) return;
    }
    job();
  });
  return true;
}

}  // namespace sx::aspisim
