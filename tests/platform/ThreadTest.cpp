#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/System.h"
#include "platform/Thread.h"

namespace sx::plat {
namespace {

// A worker in the library's shape: one job per resume, parked in between,
// leaving when told it is being terminated.
struct Worker {
  std::atomic<int> Jobs{0};
  std::atomic<bool> Returned{false};
  static uint32_t Proc(void* arg) {
    auto* w = static_cast<Worker*>(arg);
    do {
      w->Jobs.fetch_add(1);
    } while (SuspendCurrentThread());
    w->Returned = true;
    return 0;
  }
};

bool WaitFor(const std::function<bool()>& done) {
  for (int i = 0; i < 5000 && !done(); ++i) SleepMs(1);
  return done();
}

TEST(Threads, WorkerStartsOnlyWhenResumedAndParksAfterEachJob) {
  Worker w;
  ThreadHandle t = CreateSuspendedThread(&Worker::Proc, &w);
  ASSERT_NE(t, nullptr);
  SleepMs(20);
  EXPECT_EQ(w.Jobs, 0);
  EXPECT_TRUE(IsThreadParked(t));
  for (int job = 1; job <= 200; ++job) {
    ResumeThread(t);
    ASSERT_TRUE(WaitFor([&] { return IsThreadParked(t); })) << job;
    ASSERT_EQ(w.Jobs, job);
  }
  TerminateThread(t, 0);
  EXPECT_TRUE(w.Returned);
}

TEST(Threads, ResumeWhileRunningIsNotLost) {
  std::atomic<bool> release{false};
  std::atomic<int> passes{0};
  struct Ctx {
    std::atomic<bool>* Release;
    std::atomic<int>* Passes;
  } ctx{&release, &passes};
  ThreadHandle t = CreateSuspendedThread(
      [](void* arg) -> uint32_t {
        auto* c = static_cast<Ctx*>(arg);
        while (!c->Release->load()) SleepMs(1);  // still busy when the resume comes
        while (SuspendCurrentThread()) c->Passes->fetch_add(1);
        return 0;
      },
      &ctx);
  ResumeThread(t);
  EXPECT_FALSE(IsThreadParked(t));  // counts as running from the resume on
  ResumeThread(t);  // arrives before the worker suspends itself
  release = true;
  EXPECT_TRUE(WaitFor([&] { return passes.load() == 1 && IsThreadParked(t); }));
  TerminateThread(t, 0);
  EXPECT_EQ(passes, 1);
}

TEST(Threads, TerminateReleasesUnstartedAndParkedWorkers) {
  Worker never, parked;
  ThreadHandle a = CreateSuspendedThread(&Worker::Proc, &never);
  ThreadHandle b = CreateSuspendedThread(&Worker::Proc, &parked);
  ResumeThread(b);
  ASSERT_TRUE(WaitFor([&] { return parked.Jobs == 1 && IsThreadParked(b); }));
  TerminateThread(a, 0);
  TerminateThread(b, 0);
  EXPECT_EQ(never.Jobs, 0);  // an unstarted worker never runs its procedure
  EXPECT_TRUE(parked.Returned);
  EXPECT_EQ(CreateSuspendedThread(nullptr, nullptr), nullptr);
  TerminateThread(nullptr, 0);
  EXPECT_FALSE(SuspendCurrentThread());  // not a worker: nothing to park
}

TEST(Events, AutomaticAndManualReset) {
  EventHandle automatic = CreateEvent(false, true);
  EXPECT_TRUE(WaitEvent(automatic, 0));
  EXPECT_FALSE(WaitEvent(automatic, 0));  // taken by the first wait
  SetEvent(automatic);
  ResetEvent(automatic);
  EXPECT_FALSE(WaitEvent(automatic, 0));
  const uint32_t start = TickCount();
  EXPECT_FALSE(WaitEvent(automatic, 50));
  EXPECT_GE(TickCount() - start, 45u);

  EventHandle manual = CreateEvent(true, false);
  SetEvent(manual);
  EXPECT_TRUE(WaitEvent(manual, 0));
  EXPECT_TRUE(WaitEvent(manual));  // stays set
  ResetEvent(manual);
  EXPECT_FALSE(WaitEvent(manual, 0));
  CloseEvent(automatic);
  CloseEvent(manual);
  EXPECT_FALSE(WaitEvent(nullptr, 0));
}

TEST(Events, EachSetReleasesOneWaiter) {
  EventHandle e = CreateEvent(false, false);
  std::atomic<int> released{0};
  std::thread a([&] { released += WaitEvent(e, 5000); });
  std::thread b([&] { released += WaitEvent(e, 5000); });
  SleepMs(30);  // both are waiting
  SetEvent(e);
  SetEvent(e);  // two sets, two waiters: neither set may be merged away
  a.join();
  b.join();
  EXPECT_EQ(released, 2);
  EXPECT_FALSE(WaitEvent(e, 0));
  CloseEvent(e);
}

TEST(Events, PingPongLosesNoWakeUp) {
  EventHandle ping = CreateEvent(false, false), pong = CreateEvent(false, false);
  constexpr int kRounds = 5000;
  std::atomic<int> missed{0};
  std::thread other([&] {
    for (int i = 0; i < kRounds; ++i) {
      if (!WaitEvent(ping, 5000)) ++missed;
      SetEvent(pong);
    }
  });
  for (int i = 0; i < kRounds; ++i) {
    SetEvent(ping);
    if (!WaitEvent(pong, 5000)) ++missed;
  }
  other.join();
  EXPECT_EQ(missed, 0);
  CloseEvent(ping);
  CloseEvent(pong);
}

}  // namespace
}  // namespace sx::plat
