#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "platform/Memory.h"

namespace sx::plat {
namespace {

TEST(Memory, MovableBlocksCountLocksReallocateAndAreFoundByAddress) {
  const size_t blocks = SxSysGlobalBlockCount();
  SxHandle h = SxSysGlobalAlloc(kGhnd, 100);
  EXPECT_EQ(SxSysGlobalBlockCount(), blocks + 1);
  auto* p = static_cast<unsigned char*>(SxSysGlobalLock(h));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(std::vector<unsigned char>(p, p + 100), std::vector<unsigned char>(100, 0));
  EXPECT_EQ(SxSysGlobalLock(h), p);
  EXPECT_EQ(SxSysGlobalHandle(p), h);
  EXPECT_EQ(SxSysGlobalHandle(p + 1), nullptr);  // only the block's start
  EXPECT_NE(SxSysGlobalUnlock(h), 0);
  EXPECT_EQ(SxSysGlobalUnlock(h), 0);
  EXPECT_EQ(SxSysGlobalUnlock(h), 0);  // not locked: stays at zero

  // Grown while locked: it may move, its handle and lock count stay.
  std::memcpy(SxSysGlobalLock(h), "abcd", 4);
  ASSERT_EQ(SxSysGlobalReAlloc(h, 4096, kGhnd), h);
  EXPECT_TRUE(SxSysGlobalSize(h) == 4096u && SxSysGlobalLockCount(h) == 1u);
  auto* q = static_cast<unsigned char*>(SxSysGlobalLock(h));
  EXPECT_EQ(std::string(q, q + 4096), "abcd" + std::string(4092, '\0'));
  EXPECT_TRUE(q == p || SxSysGlobalHandle(p) == nullptr) << "the old address is no block's";
  EXPECT_EQ(SxSysGlobalHandle(q), h);
  GlobalUnlockAndFree(h);
  EXPECT_EQ(SxSysGlobalSize(h), 0u);
  EXPECT_EQ(SxSysGlobalBlockCount(), blocks);
}

TEST(Memory, FixedBlocksGrowOnlyByMovingAndLockedBlocksAreFreed) {
  SxHandle fixed = SxSysGlobalAlloc(SX_GMEM_FIXED, 16);
  EXPECT_EQ(SxSysGlobalLock(fixed), fixed);
  EXPECT_EQ(SxSysGlobalReAlloc(fixed, 64, 0), nullptr);
  std::memcpy(fixed, "12345678", 8);
  SxHandle moved = SxSysGlobalReAlloc(fixed, 64, kGmemMoveable);
  ASSERT_NE(moved, nullptr);
  EXPECT_EQ(std::memcmp(moved, "12345678", 8), 0);
  EXPECT_EQ(SxSysGlobalFree(moved), nullptr);

  SxHandle h = SxSysGlobalAlloc(kGhnd, 8);
  SxSysGlobalLock(h);
  EXPECT_EQ(SxSysGlobalFree(h), nullptr);  // a locked block is still freed
  int local = 0;
  GlobalUnlockAndFree(nullptr);
  GlobalUnlockAndFreeAddress(&local);
}

}  // namespace
}  // namespace sx::plat
