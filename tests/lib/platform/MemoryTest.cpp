#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "platform/Memory.h"

#ifdef _WIN32
#include "platform/win32/Win32.h"
#endif

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

#ifdef _WIN32
// The count is the blocks made by SxSysGlobalAlloc that are alive, also when
// a host frees one with the system's GlobalFree (as it may a value list),
// and never the blocks a host makes with GlobalAlloc itself.
TEST(Memory, CountFollowsBlocksTheSystemFreesAndIgnoresTheHostsOwn) {
  const size_t blocks = SxSysGlobalBlockCount();
  SxHandle list = SxSysGlobalAlloc(kGhnd, 16);
  HGLOBAL own = ::GlobalAlloc(GHND, 16);
  EXPECT_EQ(SxSysGlobalBlockCount(), blocks + 1);
  ::GlobalLock(static_cast<HGLOBAL>(list));
  ::GlobalUnlock(static_cast<HGLOBAL>(list));
  EXPECT_EQ(::GlobalFree(static_cast<HGLOBAL>(list)), nullptr);
  EXPECT_EQ(SxSysGlobalBlockCount(), blocks);
  EXPECT_EQ(SxSysGlobalFree(own), nullptr);
  EXPECT_EQ(SxSysGlobalBlockCount(), blocks);
}
#endif

}  // namespace
}  // namespace sx::plat
