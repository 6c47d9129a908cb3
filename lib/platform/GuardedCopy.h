// The system's fault-proof copy, shared by the platform's guarded accessors.
#pragma once
#include <cstddef>

namespace sx::plat {

// Copies `size` bytes; false when any byte could not be read or written.
bool GuardedCopy(void* dst, const void* src, size_t size);
// The size of a memory page.
size_t PageSize();

}  // namespace sx::plat
