// Small system facts on Windows: the tick count, the Shift key, the system's
// language and memory, and guarded access to host memory through the
// process-memory calls, which report an unreadable range instead of faulting.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/System.h"
#include "platform/win32/Win32.h"

namespace sx::plat {

namespace {

bool GuardedCopy(void* dst, const void* src, size_t size) {
  if (size == 0) return true;
  SIZE_T copied = 0;
  // Reading from our own process checks the source; the destination is
  // checked by the same call, since the system writes it on our behalf.
  return ::ReadProcessMemory(::GetCurrentProcess(), src, dst, size, &copied) && copied == size;
}

size_t PageSize() {
  SYSTEM_INFO info{};
  ::GetSystemInfo(&info);
  return info.dwPageSize ? info.dwPageSize : 4096;
}

}  // namespace

uint32_t TickCount() { return ::GetTickCount(); }

bool IsShiftHeld() { return (::GetAsyncKeyState(VK_SHIFT) & 0x8000) != 0; }

uint16_t SystemLanguageId() { return ::GetSystemDefaultLangID(); }

// SX_AVAILABLE_MEMORY (bytes) overrides the system's figure here as on
// Linux, so a host can see how the library behaves on a small machine.
uint64_t AvailablePhysicalMemory() {
  if (const char* v = std::getenv("SX_AVAILABLE_MEMORY"); v && *v >= '0' && *v <= '9') {
    char* end = nullptr;
    errno = 0;
    const unsigned long long n = std::strtoull(v, &end, 10);
    if (errno == 0 && *end == '\0') return n;
  }
  MEMORYSTATUSEX status{};
  status.dwLength = sizeof status;
  return ::GlobalMemoryStatusEx(&status) ? status.ullAvailPhys : 0;
}

void SleepMs(uint32_t ms) { ::Sleep(ms); }

bool SafeRead(void* dst, const void* src, size_t size) {
  if (size && (!dst || !src)) return false;
  return GuardedCopy(dst, src, size);
}

bool SafeWrite(void* dst, const void* src, size_t size) {
  if (size && (!dst || !src)) return false;
  SIZE_T copied = 0;
  return size == 0 ||
         (::WriteProcessMemory(::GetCurrentProcess(), dst, src, size, &copied) && copied == size);
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

int32_t MulDiv(int32_t a, int32_t b, int32_t c) { return ::MulDiv(a, b, c); }

}  // namespace sx::plat
