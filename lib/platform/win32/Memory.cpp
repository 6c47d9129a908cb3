// Global memory blocks on Windows are the system's own: the SxSys functions
// forward to GlobalAlloc and its family, so a host may allocate its transfer
// buffer with GlobalAlloc and free the value lists it receives with
// GlobalFree, as it would with any library of this system. The system itself
// refuses unknown and stale handles.
//
// Thread contract: the system's functions are safe from any thread; the block
// count is an atomic counter of the blocks allocated and freed through these
// functions (what a leak check compares).
#include <atomic>

#include "platform/Memory.h"
#include "platform/win32/Win32.h"

namespace {

std::atomic<size_t> g_liveBlocks{0};

HGLOBAL AsGlobal(SxHandle handle) { return static_cast<HGLOBAL>(handle); }

}  // namespace

SX_EXPORT SxHandle SX_API SxSysGlobalAlloc(uint32_t flags, size_t bytes) {
  HGLOBAL block = ::GlobalAlloc(flags, bytes);
  if (block) g_liveBlocks.fetch_add(1, std::memory_order_relaxed);
  return block;
}

SX_EXPORT SxHandle SX_API SxSysGlobalReAlloc(SxHandle handle, size_t bytes, uint32_t flags) {
  if (!handle) return nullptr;
  return ::GlobalReAlloc(AsGlobal(handle), bytes, flags);
}

SX_EXPORT void* SX_API SxSysGlobalLock(SxHandle handle) {
  return handle ? ::GlobalLock(AsGlobal(handle)) : nullptr;
}

SX_EXPORT int32_t SX_API SxSysGlobalUnlock(SxHandle handle) {
  return handle && ::GlobalUnlock(AsGlobal(handle)) ? 1 : 0;
}

SX_EXPORT SxHandle SX_API SxSysGlobalFree(SxHandle handle) {
  if (!handle) return nullptr;
  // A block the system does not know is refused before it is handed over.
  if (::GlobalFlags(AsGlobal(handle)) == GMEM_INVALID_HANDLE) return handle;
  HGLOBAL left = ::GlobalFree(AsGlobal(handle));
  if (!left) {
    size_t live = g_liveBlocks.load(std::memory_order_relaxed);
    while (live > 0 && !g_liveBlocks.compare_exchange_weak(live, live - 1)) {
    }
  }
  return left;
}

SX_EXPORT size_t SX_API SxSysGlobalSize(SxHandle handle) {
  return handle ? ::GlobalSize(AsGlobal(handle)) : 0;
}

SX_EXPORT SxHandle SX_API SxSysGlobalHandle(const void* lockedAddress) {
  return lockedAddress ? ::GlobalHandle(lockedAddress) : nullptr;
}

SX_EXPORT uint32_t SX_API SxSysGlobalLockCount(SxHandle handle) {
  if (!handle) return 0;
  const UINT flags = ::GlobalFlags(AsGlobal(handle));
  return flags == GMEM_INVALID_HANDLE ? 0 : (flags & GMEM_LOCKCOUNT);
}

SX_EXPORT size_t SX_API SxSysGlobalBlockCount(void) {
  return g_liveBlocks.load(std::memory_order_relaxed);
}
