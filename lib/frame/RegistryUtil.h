// The library's persistent values: the registry of the current user, with a
// profile file as fall-back while the registry refuses writes.
#pragma once
#include <atomic>
#include <cstdint>

namespace sx {

inline constexpr char kKeyOptions[] = "Software\\Quillmark";
inline constexpr char kKeyScanData[] = "Software\\Quillmark\\ScanData";

// Value kinds (low 8 bits of a kind argument).
inline constexpr uint32_t kKindNumber = 0;
inline constexpr uint32_t kKindText = 1;
inline constexpr uint32_t kKindReal = 2;

// 0 when the registry held the value, else the registry's error code. The
// buffer is zero-filled first; while the fall-back flag is set the profile
// file's section "Options" supplies the value whatever the registry said.
int32_t ReadRegValue(const char* keyPath, const char* valueName, void* buffer, uint32_t kind,
                     uint32_t size);

// 1 when the value went to the registry, 0 when it went to the fall-back file.
// Re-reads the trace level afterwards.
int32_t WriteRegValue(const char* keyPath, const char* valueName, const void* data, uint32_t kind,
                      uint32_t size);

// Writes the four-hex-digit language section name ("0409") into `out` (at
// least 9 bytes).
void GetLanguageCode(char* out);

// Library-wide registry state. Written only by WriteRegValue on the host's
// thread; the trace level is read by every thread (relaxed: a stale level
// only delays a change of tracing by a line).
extern std::atomic<uint32_t> gTraceLevel;
bool RegistryFallbackActive();
// The fall-back profile path ("<root>/temp/scandiag.ini" once set).
const char* RegistryFallbackPath();
// Forgets the fall-back state and the trace level (process attach, tests).
void ResetRegistryState();

}  // namespace sx
