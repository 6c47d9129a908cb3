// Reading and writing a host's memory at an address that may be invalid,
// through the system's guarded copy; texts page by page.
#include <cstring>

#include "platform/GuardedCopy.h"
#include "platform/System.h"

namespace sx::plat {

bool SafeRead(void* dst, const void* src, size_t size) {
  if (size && (!dst || !src)) return false;
  return GuardedCopy(dst, src, size);
}

bool SafeWrite(void* dst, const void* src, size_t size) {
  // The same copy: the system checks both ends of it.
  if (size && (!dst || !src)) return false;
  return GuardedCopy(dst, src, size);
}

int32_t SafeReadText(char* out, const void* src, size_t max) {
  if (!out || max == 0) return -1;
  out[0] = '\0';
  if (max == 1) return 0;
  if (!src) return -1;
  const size_t page = PageSize();
  const size_t limit = max - 1;
  const auto addr = reinterpret_cast<uintptr_t>(src);
  size_t got = 0;
  while (got < limit) {
    // Never ask past the end of the text's page: the next one may be
    // unmapped although the text ends before it.
    const size_t toPageEnd = page - ((addr + got) % page);
    const size_t chunk = limit - got < toPageEnd ? limit - got : toPageEnd;
    if (!GuardedCopy(out + got, reinterpret_cast<const void*>(addr + got), chunk)) {
      out[got] = '\0';
      return got == 0 ? -1 : static_cast<int32_t>(got);
    }
    if (const void* nul = std::memchr(out + got, '\0', chunk))
      return static_cast<int32_t>(static_cast<const char*>(nul) - out);
    got += chunk;
  }
  out[limit] = '\0';
  return static_cast<int32_t>(limit);
}

}  // namespace sx::plat
