// Movable global memory blocks. A movable block is known by a handle that
// stays the same when the block moves; a fixed block's handle is its address.
// Every live block is in a table, so an unknown, stale or foreign handle is
// refused instead of being followed.
#include "platform/Memory.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <type_traits>
#include <unordered_map>

namespace {

constexpr uint32_t kGmemModify = 0x0080;  // change attributes only, never moves

struct Block {
  uintptr_t Handle = 0;
  unsigned char* Data = nullptr;
  size_t Size = 0;
  uint32_t Locks = 0;
  bool Movable = false;
};

using BlockMap = std::unordered_map<uintptr_t, Block*>;

// Thread contract: the library's worker threads and the host allocate, lock
// and free blocks concurrently; every field is guarded by Lock. The record is
// trivially destructible so that blocks can still be freed by the library's
// detach code whatever order the process's exit handlers run in; the tables
// themselves are released by a late destructor once no block is left.
struct BlockTable {
  std::mutex Lock;
  BlockMap* ByHandle = nullptr;
  BlockMap* ByAddress = nullptr;
  // Movable handles are odd numbers, so they never equal a block address.
  uintptr_t NextHandle = 0x10001;
};
static_assert(std::is_trivially_destructible_v<BlockTable>);
constinit BlockTable g_blocks;

__attribute__((destructor(101))) void ReleaseBlockTables() {
  std::lock_guard<std::mutex> guard(g_blocks.Lock);
  if (g_blocks.ByHandle && g_blocks.ByHandle->empty()) {
    delete g_blocks.ByHandle;
    delete g_blocks.ByAddress;
    g_blocks.ByHandle = g_blocks.ByAddress = nullptr;
  }
}

uintptr_t Key(const void* p) { return reinterpret_cast<uintptr_t>(p); }

Block* FindLocked(SxHandle handle) {
  if (!handle || !g_blocks.ByHandle) return nullptr;
  auto it = g_blocks.ByHandle->find(Key(handle));
  return it == g_blocks.ByHandle->end() ? nullptr : it->second;
}

unsigned char* AllocateBytes(size_t bytes, bool zero) {
  // A zero-byte block still gets an address of its own.
  size_t n = bytes ? bytes : 1;
  return static_cast<unsigned char*>(zero ? std::calloc(n, 1) : std::malloc(n));
}

uintptr_t NewMovableHandle() {
  uintptr_t h;
  do {
    h = g_blocks.NextHandle;
    g_blocks.NextHandle += 2;
    if (g_blocks.NextHandle < 0x10001) g_blocks.NextHandle = 0x10001;
  } while (g_blocks.ByHandle->count(h));
  return h;
}

// Gives a block new storage of `bytes`, keeping the content.
bool Move(Block* b, size_t bytes, bool zeroGrowth) {
  unsigned char* data = AllocateBytes(bytes, false);
  if (!data) return false;
  size_t keep = b->Size < bytes ? b->Size : bytes;
  std::memcpy(data, b->Data, keep);
  if (bytes > keep && zeroGrowth) std::memset(data + keep, 0, bytes - keep);
  g_blocks.ByAddress->emplace(Key(data), b);  // may throw: nothing changed yet
  g_blocks.ByAddress->erase(Key(b->Data));
  std::free(b->Data);
  b->Data = data;
  b->Size = bytes;
  return true;
}

}  // namespace

SX_EXPORT SxHandle SX_API SxSysGlobalAlloc(uint32_t flags, size_t bytes) {
  std::lock_guard<std::mutex> guard(g_blocks.Lock);
  Block* b = nullptr;
  try {
    if (!g_blocks.ByHandle) g_blocks.ByHandle = new BlockMap;
    if (!g_blocks.ByAddress) g_blocks.ByAddress = new BlockMap;
    b = new Block;
    b->Data = AllocateBytes(bytes, (flags & SX_GMEM_ZEROINIT) != 0);
    if (!b->Data) {
      delete b;
      return nullptr;
    }
    b->Size = bytes;
    b->Movable = (flags & SX_GMEM_MOVEABLE) != 0;
    b->Handle = b->Movable ? NewMovableHandle() : Key(b->Data);
    g_blocks.ByAddress->emplace(Key(b->Data), b);
    g_blocks.ByHandle->emplace(b->Handle, b);
    return reinterpret_cast<SxHandle>(b->Handle);
  } catch (...) {
    if (b) {
      if (g_blocks.ByAddress) g_blocks.ByAddress->erase(Key(b->Data));
      std::free(b->Data);
      delete b;
    }
    return nullptr;
  }
}

// Design note: a movable block may move even while locked (the library then
// locks it again and takes the new address); its handle and lock count stay.
// A fixed block shrinks in place, and grows only when the caller allows a
// move, which gives it a new handle (its new address).
SX_EXPORT SxHandle SX_API SxSysGlobalReAlloc(SxHandle handle, size_t bytes, uint32_t flags) {
  std::lock_guard<std::mutex> guard(g_blocks.Lock);
  Block* b = FindLocked(handle);
  if (!b) return nullptr;
  if (flags & kGmemModify) return handle;
  const bool zero = (flags & SX_GMEM_ZEROINIT) != 0;
  try {
    if (b->Movable) {
      if (bytes != b->Size && !Move(b, bytes, zero)) return nullptr;
      return handle;
    }
    if (bytes <= b->Size) {
      b->Size = bytes;
      return handle;
    }
    if (!(flags & SX_GMEM_MOVEABLE)) return nullptr;
    if (!Move(b, bytes, zero)) return nullptr;
    g_blocks.ByHandle->erase(b->Handle);
    b->Handle = Key(b->Data);
    g_blocks.ByHandle->emplace(b->Handle, b);
    return reinterpret_cast<SxHandle>(b->Handle);
  } catch (...) {
    return nullptr;
  }
}

SX_EXPORT void* SX_API SxSysGlobalLock(SxHandle handle) {
  std::lock_guard<std::mutex> guard(g_blocks.Lock);
  Block* b = FindLocked(handle);
  if (!b) return nullptr;
  if (b->Movable && b->Locks != UINT32_MAX) ++b->Locks;
  return b->Data;
}

SX_EXPORT int32_t SX_API SxSysGlobalUnlock(SxHandle handle) {
  std::lock_guard<std::mutex> guard(g_blocks.Lock);
  Block* b = FindLocked(handle);
  if (!b || !b->Movable || b->Locks == 0) return 0;
  --b->Locks;
  return b->Locks != 0;
}

// A locked block is freed as well: the caller owns it either way.
SX_EXPORT SxHandle SX_API SxSysGlobalFree(SxHandle handle) {
  if (!handle) return nullptr;
  std::lock_guard<std::mutex> guard(g_blocks.Lock);
  Block* b = FindLocked(handle);
  if (!b) return handle;
  g_blocks.ByHandle->erase(b->Handle);
  g_blocks.ByAddress->erase(Key(b->Data));
  std::free(b->Data);
  delete b;
  return nullptr;
}

SX_EXPORT size_t SX_API SxSysGlobalSize(SxHandle handle) {
  std::lock_guard<std::mutex> guard(g_blocks.Lock);
  Block* b = FindLocked(handle);
  return b ? b->Size : 0;
}

SX_EXPORT SxHandle SX_API SxSysGlobalHandle(const void* lockedAddress) {
  std::lock_guard<std::mutex> guard(g_blocks.Lock);
  if (!lockedAddress || !g_blocks.ByAddress) return nullptr;
  auto it = g_blocks.ByAddress->find(Key(lockedAddress));
  return it == g_blocks.ByAddress->end() ? nullptr : reinterpret_cast<SxHandle>(it->second->Handle);
}

SX_EXPORT uint32_t SX_API SxSysGlobalLockCount(SxHandle handle) {
  std::lock_guard<std::mutex> guard(g_blocks.Lock);
  Block* b = FindLocked(handle);
  return b ? b->Locks : 0;
}

SX_EXPORT size_t SX_API SxSysGlobalBlockCount(void) {
  std::lock_guard<std::mutex> guard(g_blocks.Lock);
  return g_blocks.ByHandle ? g_blocks.ByHandle->size() : 0;
}
