// Profile (INI) files with the Windows profile functions' semantics: section
// and key names match without regard to case, blanks around names and values
// are trimmed, a value in matching quotes loses them, a missing file, section
// or key gives the default. Writes are atomic like the registry's.
#pragma once
#include <cstdint>
#include <string>

namespace sx::plat {

// Copies the value (or `def`) into `out`, cut to size - 1 characters and a
// NUL; returns the number of characters copied. size 0 copies nothing.
uint32_t ProfileGetString(const char* section, const char* key, const char* def, char* out,
                          uint32_t size, const std::string& file);

// Optional sign and leading decimal digits of the value; `def` when missing.
int32_t ProfileGetInt(const char* section, const char* key, int32_t def, const std::string& file);

// Writes one value, creating file and section as needed. False on failure.
bool ProfileWriteString(const char* section, const char* key, const char* value,
                        const std::string& file);

}  // namespace sx::plat
