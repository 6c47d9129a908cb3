// The library's functions an acquisition needs, as a table: the programs
// linked against the library pass LinkedLibrary(); a program that loads the
// library at run time passes the addresses it looked up; tests pass their own
// memory functions and a scripted acquisition.
#pragma once
#include <cstddef>
#include <cstdint>

#include "sxscan.h"
#include "sxsys.h"

namespace sx::host {

struct LibraryCalls {
  int32_t(SX_API* acquire)(SxTransferCallback callback, void* transferBuffer);
  SxHandle(SX_API* globalAlloc)(uint32_t flags, size_t bytes);
  void*(SX_API* globalLock)(SxHandle handle);
  int32_t(SX_API* globalUnlock)(SxHandle handle);
  SxHandle(SX_API* globalFree)(SxHandle handle);
  size_t(SX_API* globalSize)(SxHandle handle);
  SxHandle(SX_API* globalHandle)(const void* lockedAddress);
};

// The functions of the library the program is linked against (Session.cpp).
const LibraryCalls& LinkedLibrary();

// Unlocks the global block locked at `address` until its lock count is zero,
// and frees it; nothing when no block is locked there.
void ReleaseLockedBlock(const LibraryCalls& calls, void* address);

}  // namespace sx::host
