// The registry of the current user, kept in <root>/user.reg.
//
// Reads parse the store (a missing store reads as empty, malformed lines are
// skipped); a write re-reads the store under an exclusive lock, changes one
// value, writes a temporary file beside it and renames it over the store, so a
// crash never leaves a torn store and lines it does not understand are kept.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

namespace sx::plat {

inline constexpr int32_t kRegOk = 0;
inline constexpr int32_t kRegErrorNotFound = 2;     // ERROR_FILE_NOT_FOUND
inline constexpr int32_t kRegErrorAccess = 5;       // ERROR_ACCESS_DENIED
inline constexpr int32_t kRegErrorWrite = 29;       // ERROR_WRITE_FAULT
inline constexpr int32_t kRegErrorMoreData = 234;   // ERROR_MORE_DATA

inline constexpr uint32_t kRegSz = 1;
inline constexpr uint32_t kRegExpandSz = 2;
inline constexpr uint32_t kRegBinary = 3;
inline constexpr uint32_t kRegDword = 4;

// Queries value `name` of key `key` (under HKEY_CURRENT_USER, '\'-separated;
// names match without regard to case). On entry *size is the room at `data`;
// on success the stored bytes are copied, *type and *size set, and 0 returned.
// Missing key or value: 2. Room too small: 234, *size set to the stored size,
// nothing copied. `data` may be null to ask only for type and size.
int32_t RegistryQuery(std::string_view key, std::string_view name, uint32_t* type, void* data,
                      uint32_t* size);

// Stores `size` bytes as value `name` of type `type`, creating the key when
// missing. 0 on success; an error code when the store cannot be written.
int32_t RegistrySet(std::string_view key, std::string_view name, uint32_t type, const void* data,
                    uint32_t size);

// Creates an empty key when it is missing. 0 on success.
int32_t RegistryCreateKey(std::string_view key);

// Lines of the store that are neither keys, values, comments nor blank: what
// a damaged or half-written store leaves. Reading skips them and goes on, so
// every intact value still counts.
uint32_t RegistryIgnoredLines();

}  // namespace sx::plat
