// Global memory blocks on Windows are the system's own: the SxSys functions
// forward to GlobalAlloc and its family, so a host may allocate its transfer
// buffer with GlobalAlloc and free the value lists it receives with
// GlobalFree, as it would with any library of this system. The system itself
// refuses unknown and stale handles.
//
// The block count means what it means on Linux: the blocks made by
// SxSysGlobalAlloc (the host's, the library's own and the value lists it
// hands over) that are still alive. Since a host may free a list with the
// system's GlobalFree, which these functions never see, the made handles are
// kept and each is asked whether it is still a live movable block when the
// count is read. A fixed block's handle is its address, which the system
// cannot tell alive from freed; it counts until SxSysGlobalFree frees it.
// (The system may hand a freed handle to a block the host then makes with
// GlobalAlloc itself; that block counts while it lives.)
//
// Thread contract: the system's functions are safe from any thread; the kept
// handles are guarded by a slim lock, which needs no destructor, so that the
// library's detach can still free blocks whatever order the process's exit
// handlers run in. The set is made on first use and never destroyed.
#include <unordered_set>

#include "platform/Memory.h"
#include "platform/win32/Win32.h"

namespace {

using HandleSet = std::unordered_set<HGLOBAL>;
SRWLOCK g_lock = SRWLOCK_INIT;
HandleSet* g_made = nullptr;

HGLOBAL AsGlobal(SxHandle handle) { return static_cast<HGLOBAL>(handle); }

class Guard {
 public:
  Guard() { AcquireSRWLockExclusive(&g_lock); }
  ~Guard() { ReleaseSRWLockExclusive(&g_lock); }
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;
};

// Replaces `old` (null: none) by `now` (null: none) among the made handles.
// A table the heap cannot extend leaves the block uncounted.
void Track(HGLOBAL old, HGLOBAL now) {
  Guard guard;
  try {
    if (!g_made) g_made = new HandleSet;
    if (old) g_made->erase(old);
    if (now) g_made->insert(now);
  } catch (...) {
  }
}

bool LiveMovable(HGLOBAL block) { return ::GlobalFlags(block) != GMEM_INVALID_HANDLE; }

}  // namespace

SX_EXPORT SxHandle SX_API SxSysGlobalAlloc(uint32_t flags, size_t bytes) {
  HGLOBAL block = ::GlobalAlloc(flags, bytes);
  if (block) Track(nullptr, block);
  return block;
}

SX_EXPORT SxHandle SX_API SxSysGlobalReAlloc(SxHandle handle, size_t bytes, uint32_t flags) {
  if (!handle) return nullptr;
  HGLOBAL block = ::GlobalReAlloc(AsGlobal(handle), bytes, flags);
  // A fixed block that had to move has a new handle; a host's own block
  // (made by GlobalAlloc) stays uncounted.
  if (block && block != handle) {
    Guard guard;
    if (g_made && g_made->erase(AsGlobal(handle))) {
      try {
        g_made->insert(block);
      } catch (...) {
      }
    }
  }
  return block;
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
  if (!left) Track(AsGlobal(handle), nullptr);
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
  Guard guard;
  if (!g_made) return 0;
  for (auto it = g_made->begin(); it != g_made->end();) {
    if (LiveMovable(*it)) ++it;
    else it = g_made->erase(it);
  }
  return g_made->size();
}
