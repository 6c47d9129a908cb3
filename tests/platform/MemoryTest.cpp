#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "platform/Memory.h"

namespace sx::plat {
namespace {

TEST(Memory, MovableBlocksCountLocksAndAreFoundByAddress) {
  SxHandle h = SxSysGlobalAlloc(kGhnd, 100);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(SxSysGlobalSize(h), 100u);
  auto* p = static_cast<unsigned char*>(SxSysGlobalLock(h));
  ASSERT_NE(p, nullptr);
  for (int i = 0; i < 100; ++i) ASSERT_EQ(p[i], 0) << i;
  EXPECT_EQ(SxSysGlobalLock(h), p);
  EXPECT_EQ(SxSysGlobalLockCount(h), 2u);
  EXPECT_EQ(SxSysGlobalHandle(p), h);
  EXPECT_EQ(SxSysGlobalHandle(p + 1), nullptr);  // only the block's start
  EXPECT_NE(SxSysGlobalUnlock(h), 0);
  EXPECT_EQ(SxSysGlobalUnlock(h), 0);
  EXPECT_EQ(SxSysGlobalUnlock(h), 0);  // not locked: stays at zero
  EXPECT_EQ(SxSysGlobalLockCount(h), 0u);
  EXPECT_EQ(SxSysGlobalFree(h), nullptr);
}

TEST(Memory, ReAllocKeepsContentZeroFillsGrowthAndKeepsTheHandle) {
  SxHandle h = SxSysGlobalAlloc(kGmemMoveable, 4);
  auto* p = static_cast<unsigned char*>(SxSysGlobalLock(h));
  std::memcpy(p, "abcd", 4);
  // Grown while locked: it may move, its handle and lock count stay.
  ASSERT_EQ(SxSysGlobalReAlloc(h, 4096, kGhnd), h);
  EXPECT_EQ(SxSysGlobalSize(h), 4096u);
  EXPECT_EQ(SxSysGlobalLockCount(h), 1u);
  auto* q = static_cast<unsigned char*>(SxSysGlobalLock(h));
  EXPECT_EQ(std::memcmp(q, "abcd", 4), 0);
  for (int i = 4; i < 4096; ++i) ASSERT_EQ(q[i], 0) << i;
  if (q != p) {
    EXPECT_EQ(SxSysGlobalHandle(p), nullptr);  // the old address is no block's
  }
  EXPECT_EQ(SxSysGlobalHandle(q), h);
  ASSERT_EQ(SxSysGlobalReAlloc(h, 2, kGmemMoveable), h);
  EXPECT_EQ(std::memcmp(SxSysGlobalLock(h), "ab", 2), 0);
  GlobalUnlockAndFree(h);
  EXPECT_EQ(SxSysGlobalSize(h), 0u);
}

TEST(Memory, FixedBlocksAreTheirOwnHandle) {
  SxHandle h = SxSysGlobalAlloc(SX_GMEM_FIXED, 16);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(SxSysGlobalLock(h), h);
  EXPECT_EQ(SxSysGlobalLockCount(h), 0u);
  EXPECT_EQ(SxSysGlobalReAlloc(h, 8, 0), h);        // shrinks in place
  EXPECT_EQ(SxSysGlobalReAlloc(h, 64, 0), nullptr);  // cannot grow without moving
  std::memcpy(h, "12345678", 8);
  SxHandle moved = SxSysGlobalReAlloc(h, 64, kGmemMoveable);
  ASSERT_NE(moved, nullptr);
  EXPECT_EQ(std::memcmp(moved, "12345678", 8), 0);
  if (moved != h) {
    EXPECT_EQ(SxSysGlobalSize(h), 0u);
  }
  EXPECT_EQ(SxSysGlobalFree(moved), nullptr);
}

TEST(Memory, UnknownFreedAndForeignHandlesAreRefused) {
  SxHandle h = SxSysGlobalAlloc(kGhnd, 8);
  void* p = SxSysGlobalLock(h);
  EXPECT_EQ(SxSysGlobalFree(h), nullptr);  // a locked block is still freed
  int local = 0;
  for (SxHandle bad : {h, static_cast<SxHandle>(&local), reinterpret_cast<SxHandle>(0x13)}) {
    EXPECT_EQ(SxSysGlobalLock(bad), nullptr);
    EXPECT_EQ(SxSysGlobalUnlock(bad), 0);
    EXPECT_EQ(SxSysGlobalSize(bad), 0u);
    EXPECT_EQ(SxSysGlobalLockCount(bad), 0u);
    EXPECT_EQ(SxSysGlobalReAlloc(bad, 16, kGhnd), nullptr);
    EXPECT_EQ(SxSysGlobalFree(bad), bad);
  }
  EXPECT_EQ(SxSysGlobalHandle(p), nullptr);
  EXPECT_EQ(SxSysGlobalHandle(nullptr), nullptr);
  EXPECT_EQ(SxSysGlobalFree(nullptr), nullptr);
  GlobalUnlockAndFree(nullptr);
  GlobalUnlockAndFreeAddress(&local);
  EXPECT_EQ(local, 0);
}

TEST(Memory, ThreadsAllocateAndFreeConcurrently) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 500; ++i) {
        SxHandle h = SxSysGlobalAlloc(kGhnd, 32 + i);
        auto* p = static_cast<unsigned char*>(SxSysGlobalLock(h));
        p[0] = static_cast<unsigned char>(t);
        SxSysGlobalReAlloc(h, 64 + i, kGhnd);
        p = static_cast<unsigned char*>(SxSysGlobalLock(h));
        EXPECT_EQ(p[0], t);
        GlobalUnlockAndFreeAddress(p);
        ASSERT_EQ(SxSysGlobalSize(h), 0u);
      }
    });
  }
  for (auto& t : threads) t.join();
}

}  // namespace
}  // namespace sx::plat
