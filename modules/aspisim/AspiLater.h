// Jobs run after a delay on threads of the module, for requests that
// complete later. Each system has its own way (AspiLaterPosix.cpp,
// AspiLaterWin32.cpp): a module may not wait for its own threads to end while
// it is being unloaded on Windows, since a thread's end waits for the loader
// that is unloading it.
#pragma once
#include <chrono>
#include <functional>
#include <memory>

namespace sx::aspisim {

class Later {
 public:
  Later();
  // Drops the jobs not yet started and waits for the running ones: after it
  // no job touches anything.
  ~Later();
  Later(const Later&) = delete;
  Later& operator=(const Later&) = delete;

  // False when the system gives no way to run it (the job never runs).
  bool After(std::chrono::duration<double, std::milli> delay, std::function<void()> job);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace sx::aspisim
