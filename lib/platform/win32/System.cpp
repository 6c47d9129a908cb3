// Small system facts on Windows: the tick count, the Shift key, the system's
// language and memory, and guarded access to host memory through the
// process-memory calls, which report an unreadable range instead of faulting.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/GuardedCopy.h"
#include "platform/System.h"
#include "platform/win32/Win32.h"

namespace sx::plat {

namespace {

constexpr DWORD kReadable = PAGE_READONLY | PAGE_READWRITE | PAGE_WRITECOPY | PAGE_EXECUTE_READ |
                            PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
constexpr DWORD kWritable =
    PAGE_READWRITE | PAGE_WRITECOPY | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;

// Whether every page of the range is committed with one of `access`'s
// protections. The process-memory calls alone are not enough: they write a
// read-only page by changing its protection, and some systems let them read
// a page that is reserved but no longer committed.
bool Accessible(const void* start, size_t size, DWORD access) {
  auto at = reinterpret_cast<uintptr_t>(start);
  const uintptr_t end = at + size;
  if (end < at) return false;
  while (at < end) {
    MEMORY_BASIC_INFORMATION region{};
    if (!::VirtualQuery(reinterpret_cast<const void*>(at), &region, sizeof region)) return false;
    if (region.State != MEM_COMMIT || !(region.Protect & access) || (region.Protect & PAGE_GUARD))
      return false;
    at = reinterpret_cast<uintptr_t>(region.BaseAddress) + region.RegionSize;
  }
  return true;
}

}  // namespace

bool GuardedCopy(void* dst, const void* src, size_t size) {
  if (size == 0) return true;
  if (!Accessible(src, size, kReadable) || !Accessible(dst, size, kWritable)) return false;
  SIZE_T copied = 0;
  // The copy itself still goes through the system, which reports a range
  // released meanwhile instead of faulting.
  return ::ReadProcessMemory(::GetCurrentProcess(), src, dst, size, &copied) && copied == size;
}

size_t PageSize() {
  SYSTEM_INFO info{};
  ::GetSystemInfo(&info);
  return info.dwPageSize ? info.dwPageSize : 4096;
}

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

int32_t MulDiv(int32_t a, int32_t b, int32_t c) { return ::MulDiv(a, b, c); }

}  // namespace sx::plat
