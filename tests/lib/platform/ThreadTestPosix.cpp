// A worker parked when it is terminated leaves its procedure (on Windows the
// system stops it where it is parked, as a DLL's unload needs).
#include <gtest/gtest.h>

#include <atomic>

#include "platform/System.h"
#include "platform/Thread.h"

namespace sx::plat {
namespace {

std::atomic<bool> gReturned{false};

uint32_t ParkUntilTerminated(void*) {
  while (SuspendCurrentThread()) continue;
  gReturned = true;
  return 0;
}

TEST(Threads, ATerminatedWorkerLeavesItsProcedure) {
  ThreadHandle t = CreateSuspendedThread(&ParkUntilTerminated, nullptr);
  ResumeThread(t);
  for (int i = 0; i < 5000 && !IsThreadParked(t); ++i) SleepMs(1);
  ASSERT_TRUE(IsThreadParked(t));
  TerminateThread(t, 0);
  EXPECT_TRUE(gReturned);
}

}  // namespace
}  // namespace sx::plat
