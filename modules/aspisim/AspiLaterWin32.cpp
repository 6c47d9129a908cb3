// Delayed jobs on Windows: thread-pool timers. Unloading cancels the timers
// not yet fired and waits for running callbacks; the pool's threads do not
// end, so nothing waits for the loader the unloading thread holds. At process
// exit the other threads are gone already and nothing is waited for.
#include <windows.h>

#include <mutex>
#include <utility>
#include <vector>

#include "modules/aspisim/AspiLater.h"

namespace {

bool gProcessEnding = false;

constexpr int64_t kTicksPerMillisecond = 10000;  // FILETIME counts 100 ns

VOID CALLBACK Fire(PTP_CALLBACK_INSTANCE, PVOID context, PTP_TIMER) {
  (*static_cast<std::function<void()>*>(context))();
}

}  // namespace

// Runs before the module's static objects are destroyed.
extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved) {
  if (reason == DLL_PROCESS_DETACH && reserved) gProcessEnding = true;
  return TRUE;
}

namespace sx::aspisim {

struct Later::State {
  std::mutex Lock;
  std::vector<std::pair<PTP_TIMER, std::unique_ptr<std::function<void()>>>> Timers;
};

Later::Later() : state_(std::make_unique<State>()) {}

Later::~Later() {
  if (gProcessEnding) {
    (void)state_.release();  // the pool may be in any state; the process is going
    return;
  }
  for (auto& [timer, job] : state_->Timers) {
    SetThreadpoolTimer(timer, nullptr, 0, 0);
    WaitForThreadpoolTimerCallbacks(timer, TRUE);
    CloseThreadpoolTimer(timer);
  }
}

bool Later::After(std::chrono::duration<double, std::milli> delay, std::function<void()> job) {
  auto owned = std::make_unique<std::function<void()>>(std::move(job));
  PTP_TIMER timer = CreateThreadpoolTimer(Fire, owned.get(), nullptr);
  if (!timer) return false;
  // A negative due time is relative to now.
  const auto ticks = static_cast<int64_t>(delay.count() * kTicksPerMillisecond);
  ULARGE_INTEGER due;
  due.QuadPart = static_cast<ULONGLONG>(-(ticks > 0 ? ticks : 1));
  FILETIME when{due.LowPart, due.HighPart};
  std::lock_guard<std::mutex> guard(state_->Lock);
  state_->Timers.emplace_back(timer, std::move(owned));
  SetThreadpoolTimer(timer, &when, 0, 0);
  return true;
}

}  // namespace sx::aspisim
