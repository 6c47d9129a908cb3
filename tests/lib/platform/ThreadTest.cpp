#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#include "platform/System.h"
#include "platform/Thread.h"

namespace sx::plat {
namespace {

// A worker in the library's shape: one job per resume, parked in between,
// leaving when told it is being terminated. While `Hold` is set a job runs on.
struct Worker {
  std::atomic<int> Jobs{0};
  std::atomic<bool> Hold{false};
  static uint32_t Proc(void* arg) {
    auto* w = static_cast<Worker*>(arg);
    do {
      while (w->Hold) SleepMs(1);
      w->Jobs.fetch_add(1);
    } while (SuspendCurrentThread());
    return 0;
  }
};

bool WaitFor(const std::function<bool()>& done) {
  for (int i = 0; i < 5000 && !done(); ++i) SleepMs(1);
  return done();
}

TEST(Threads, WorkerRunsOnlyWhenResumedParksAfterEachJobAndLeavesOnTerminate) {
  Worker w, never;
  ThreadHandle t = CreateSuspendedThread(&Worker::Proc, &w);
  ThreadHandle unstarted = CreateSuspendedThread(&Worker::Proc, &never);
  SleepMs(20);
  EXPECT_TRUE(w.Jobs == 0 && IsThreadParked(t));
  for (int job = 1; job <= 200; ++job) {
    ResumeThread(t);
    ASSERT_TRUE(WaitFor([&] { return IsThreadParked(t); })) << job;
    ASSERT_EQ(w.Jobs, job);
  }
  TerminateThread(t, 0);
  TerminateThread(unstarted, 0);
  EXPECT_EQ(never.Jobs, 0) << "an unstarted worker never runs its procedure";
  EXPECT_FALSE(SuspendCurrentThread()) << "not a worker: nothing to park";
}

TEST(Threads, ResumeWhileRunningIsNotLost) {
  Worker w;
  w.Hold = true;
  ThreadHandle t = CreateSuspendedThread(&Worker::Proc, &w);
  ResumeThread(t);
  EXPECT_FALSE(IsThreadParked(t));  // counts as running from the resume on
  ResumeThread(t);                  // arrives before the worker suspends itself
  w.Hold = false;
  EXPECT_TRUE(WaitFor([&] { return w.Jobs == 2 && IsThreadParked(t); }));
  TerminateThread(t, 0);
  EXPECT_EQ(w.Jobs, 2);
}

// The library's events reset themselves; none loses a wake-up.
TEST(Events, AutomaticResetAndNoLostWakeUps) {
  EventHandle e = CreateEvent(false, true);
  EXPECT_TRUE(WaitEvent(e, 0));
  EXPECT_FALSE(WaitEvent(e, 0));  // taken by the first wait
  SetEvent(e);
  ResetEvent(e);
  EXPECT_FALSE(WaitEvent(e, 20));

  std::atomic<int> released{0};
  std::thread a([&] { released += WaitEvent(e, 5000); }), b([&] { released += WaitEvent(e, 5000); });
  SleepMs(30);  // both are waiting
  SetEvent(e);
  SetEvent(e);  // two sets, two waiters: neither set may be merged away
  a.join();
  b.join();
  EXPECT_EQ(released, 2);
  EXPECT_FALSE(WaitEvent(e, 0));

  // Ping-pong: every set meets a wait that may come before or after it.
  EventHandle pong = CreateEvent(false, false);
  std::atomic<int> missed{0};
  std::thread other([&] {
    for (int i = 0; i < 5000; ++i) missed += !WaitEvent(e, 5000), SetEvent(pong);
  });
  for (int i = 0; i < 5000; ++i) SetEvent(e), missed += !WaitEvent(pong, 5000);
  other.join();
  EXPECT_EQ(missed, 0);
  CloseEvent(e);
  CloseEvent(pong);
}

}  // namespace
}  // namespace sx::plat
