// Releasing a block whatever its lock count: the library's own buffers are
// kept locked while in use, and the same on every system.
#include "platform/Memory.h"

namespace sx::plat {

void GlobalUnlockAndFree(SxHandle handle) {
  if (!handle) return;
  while (SxSysGlobalUnlock(handle)) {
  }
  SxSysGlobalFree(handle);
}

void GlobalUnlockAndFreeAddress(const void* lockedAddress) {
  GlobalUnlockAndFree(SxSysGlobalHandle(lockedAddress));
}

}  // namespace sx::plat
