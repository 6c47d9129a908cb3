// The trace log: one line per call, appended by open, write, close, when the
// trace level allows it. With the level below the line's, a call costs one
// comparison.
#pragma once
#include <cstdint>

#include "frame/RegistryUtil.h"

namespace sx {

inline constexpr char kTraceFile[] = "scandiag.txt";
inline constexpr char kToneTraceFile[] = "orlagma.txt";

inline constexpr char kTagIn[] = "In ";
inline constexpr char kTagOut[] = "Out";
inline constexpr char kTagCallIn[] = "   In ";
inline constexpr char kTagCallOut[] = "   Out";
inline constexpr char kTagDetail[] = "   ";

inline constexpr intptr_t kTraceNoValue = -1;
inline constexpr intptr_t kTraceTimestamp = -2;

// Writes the line unconditionally (the level test has been made). `value` is
// a number (kind 0), the address of a text (kind 1), or the bit pattern of a
// single-precision number in its low 32 bits (kind 2).
void TraceLogWrite(const char* file, const char* label, const char* tag, int32_t code,
                   intptr_t value, uint32_t kind);

inline void TraceLog(const char* file, const char* label, const char* tag, int32_t code,
                     intptr_t value, uint32_t kind, uint32_t level) {
  if (gTraceLevel.load(std::memory_order_relaxed) < (level & 0xFFu)) return;
  TraceLogWrite(file, label, tag, code, value, kind & 0xFFu);
}

// Shorthands for the common forms on "scandiag.txt".
inline void TraceIn(const char* label, intptr_t value = kTraceNoValue, uint32_t level = 1) {
  TraceLog(kTraceFile, label, kTagIn, 1, value, kKindNumber, level);
}
inline void TraceOut(const char* label, int32_t code, intptr_t value = kTraceNoValue,
                     uint32_t level = 1) {
  TraceLog(kTraceFile, label, kTagOut, code, value, kKindNumber, level);
}

}  // namespace sx
