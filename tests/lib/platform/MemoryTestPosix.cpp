// The library's own global blocks (on Windows they are the system's, where a
// freed or foreign handle is the caller's fault): such handles are refused.
#include <gtest/gtest.h>

#include "platform/Memory.h"

namespace sx::plat {
namespace {

TEST(Memory, FreedAndForeignHandlesAreRefused) {
  SxHandle h = SxSysGlobalAlloc(kGhnd, 8);
  void* p = SxSysGlobalLock(h);
  EXPECT_EQ(SxSysGlobalFree(h), nullptr);
  int local = 0;
  for (SxHandle bad : {h, static_cast<SxHandle>(&local), reinterpret_cast<SxHandle>(0x13)}) {
    EXPECT_EQ(SxSysGlobalLock(bad), nullptr);
    EXPECT_EQ(SxSysGlobalUnlock(bad) + SxSysGlobalSize(bad) + SxSysGlobalLockCount(bad), 0u);
    EXPECT_EQ(SxSysGlobalReAlloc(bad, 16, kGhnd), nullptr);
    EXPECT_EQ(SxSysGlobalFree(bad), bad);
  }
  EXPECT_EQ(SxSysGlobalHandle(p), nullptr);
}

}  // namespace
}  // namespace sx::plat
