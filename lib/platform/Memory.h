// Movable global memory blocks (handle-based, with lock counts). The
// functions themselves are the host platform functions of sxsys.h; the
// library calls them directly.
#pragma once
#include "sxsys.h"

namespace sx::plat {

inline constexpr uint32_t kGmemMoveable = SX_GMEM_MOVEABLE;
inline constexpr uint32_t kGmemZeroInit = SX_GMEM_ZEROINIT;
inline constexpr uint32_t kGhnd = SX_GHND;

// Unlocks a block until its lock count is zero, then frees it. Null is ignored.
void GlobalUnlockAndFree(SxHandle handle);
// Same, found from a locked address (as the library keeps its buffers).
void GlobalUnlockAndFreeAddress(const void* lockedAddress);

}  // namespace sx::plat
