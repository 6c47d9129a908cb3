// Small system facts: clock, key state, language, memory, and guarded access
// to host memory.
#pragma once
#include <cstddef>
#include <cstdint>

namespace sx::plat {

// Milliseconds of a monotonic clock (wraps like a 32-bit tick count).
uint32_t TickCount();
// The factor SX_TIME_SCALE sets for the dialogs' timers and pauses: a
// non-negative number, default 1.
double TimeScale();
// The Shift key stand-in: SX_SHIFT_HELD is "1" at the moment of the query.
bool IsShiftHeld();
// The system default language identifier from LC_ALL / LC_MESSAGES / LANG.
uint16_t SystemLanguageId();
// Available physical memory in bytes (SX_AVAILABLE_MEMORY overrides).
uint64_t AvailablePhysicalMemory();
// Sleeps the calling thread.
void SleepMs(uint32_t ms);

// Copies bytes from an address that may be invalid without faulting.
// False (nothing or part copied) when the source cannot be read.
bool SafeRead(void* dst, const void* src, size_t size);
// Copies bytes to an address that may be invalid without faulting.
bool SafeWrite(void* dst, const void* src, size_t size);
// Reads a NUL-terminated text of at most `max` bytes (terminator included)
// from an address that may be invalid. Returns the characters read before the
// NUL (out is always terminated), or -1 when the first byte cannot be read.
int32_t SafeReadText(char* out, const void* src, size_t max);

// Windows MulDiv: a * b / c rounded to the nearest integer; -1 when c is 0.
int32_t MulDiv(int32_t a, int32_t b, int32_t c);

}  // namespace sx::plat
