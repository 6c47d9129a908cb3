/* sxsys — the few platform functions a host of sxscan needs.
 *
 * Movable global memory blocks with Win32 semantics: a host allocates its
 * transfer buffer with them and unlocks and frees the SxValueList blocks that
 * SxQueryData hands over. An unknown or already freed handle is refused,
 * never a crash. */
#ifndef SXSYS_H
#define SXSYS_H

#include "sxscan.h"

#define SX_GMEM_FIXED 0x0000
#define SX_GMEM_MOVEABLE 0x0002
#define SX_GMEM_ZEROINIT 0x0040
#define SX_GHND (SX_GMEM_MOVEABLE | SX_GMEM_ZEROINIT)

typedef void* SxHandle;

/* Null on failure. */
SX_EXPORT SxHandle SX_API SxSysGlobalAlloc(uint32_t flags, size_t bytes);
/* May move a movable block that is not locked; keeps the content and
 * zero-fills growth when SX_GMEM_ZEROINIT is given. Null on failure. */
SX_EXPORT SxHandle SX_API SxSysGlobalReAlloc(SxHandle handle, size_t bytes, uint32_t flags);
/* Lock count + 1; the block's address, or null. */
SX_EXPORT void* SX_API SxSysGlobalLock(SxHandle handle);
/* Lock count - 1; nonzero while the block is still locked. */
SX_EXPORT int32_t SX_API SxSysGlobalUnlock(SxHandle handle);
/* Null on success, the handle itself on failure. */
SX_EXPORT SxHandle SX_API SxSysGlobalFree(SxHandle handle);
/* 0 for an unknown handle. */
SX_EXPORT size_t SX_API SxSysGlobalSize(SxHandle handle);
/* The handle of the block whose locked address this is; null otherwise. */
SX_EXPORT SxHandle SX_API SxSysGlobalHandle(const void* lockedAddress);
/* Current lock count of a block (0 for an unknown handle). */
SX_EXPORT uint32_t SX_API SxSysGlobalLockCount(SxHandle handle);
/* Number of blocks allocated and not yet freed, the host's and the library's
 * together: what a leak check compares before and after. */
SX_EXPORT size_t SX_API SxSysGlobalBlockCount(void);

#endif /* SXSYS_H */
