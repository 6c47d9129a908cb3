// The library's global blocks are the system's on Windows: the count
// follows what the system frees and ignores the host's own blocks.
#include <gtest/gtest.h>

#include "platform/Memory.h"
#include "platform/win32/Win32.h"

namespace sx::plat {
namespace {

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

}  // namespace
}  // namespace sx::plat
