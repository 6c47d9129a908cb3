#include "platform/text/Text.h"
#include "platform/GuardedCopy.h"
#include "platform/System.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace sx::plat {

namespace {

bool StartsNoCase(const char* s, const char* prefix) {
  for (; *prefix; ++s, ++prefix)
    if (AsciiLower(*s) != AsciiLower(*prefix)) return false;
  return true;
}

struct LanguageEntry {
  const char* Prefix;  // language, or language_territory
  uint16_t Id;
};

// Most specific first: the territory decides between the two Chinese forms.
constexpr LanguageEntry kLanguages[] = {
    {"zh_TW", 0x0404}, {"zh_CN", 0x0804}, {"en_US", 0x0409},
    {"de", 0x0407},    {"fr", 0x040C},    {"ja", 0x0411},
};
constexpr uint16_t kDefaultLanguage = 0x0409;

// A locale prefix matches when the locale name continues with a separator:
// "de" matches "de_AT.UTF-8" and "de", not "dex".
bool LocaleMatches(const char* locale, const char* prefix) {
  if (!StartsNoCase(locale, prefix)) return false;
  char next = locale[std::strlen(prefix)];
  return next == '\0' || next == '_' || next == '.' || next == '@';
}

// Guarded copies go through the kernel, which reports an unreadable or
// unwritable range as EFAULT instead of faulting. Where the cross-memory calls
// are not permitted, a pipe does the same job.
std::atomic<int> g_useVmCalls{1};

bool CopyThroughPipe(void* dst, const void* src, size_t size) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return false;
  bool ok = true;
  auto* out = static_cast<char*>(dst);
  auto* in = static_cast<const char*>(src);
  while (ok && size > 0) {
    size_t chunk = size < 4096 ? size : 4096;  // below the pipe's capacity
    ssize_t w = ::write(fds[1], in, chunk);
    if (w <= 0) {
      ok = false;
      break;
    }
    size_t got = 0;
    while (got < static_cast<size_t>(w)) {
      ssize_t r = ::read(fds[0], out + got, static_cast<size_t>(w) - got);
      if (r <= 0) {
        ok = false;
        break;
      }
      got += static_cast<size_t>(r);
    }
    in += w;
    out += w;
    size -= static_cast<size_t>(w);
  }
  ::close(fds[0]);
  ::close(fds[1]);
  return ok;
}

}  // namespace

bool GuardedCopy(void* dst, const void* src, size_t size) {
  if (size == 0) return true;
  if (g_useVmCalls.load(std::memory_order_relaxed)) {
    struct iovec local {dst, size};
    struct iovec remote {const_cast<void*>(src), size};
    ssize_t n = ::process_vm_readv(::getpid(), &local, 1, &remote, 1, 0);
    if (n >= 0) return static_cast<size_t>(n) == size;
    if (errno == EFAULT) return false;
    if (errno != ENOSYS && errno != EPERM) return false;
    g_useVmCalls.store(0, std::memory_order_relaxed);
  }
  return CopyThroughPipe(dst, src, size);
}

size_t PageSize() {
  const long page = ::sysconf(_SC_PAGESIZE);
  return page > 0 ? static_cast<size_t>(page) : 4096;
}

uint32_t TickCount() {
  struct timespec ts {};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  uint64_t ms = static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
  return static_cast<uint32_t>(ms);
}

bool IsShiftHeld() {
  const char* v = std::getenv("SX_SHIFT_HELD");
  return v && std::strcmp(v, "1") == 0;
}

uint16_t SystemLanguageId() {
  const char* locale = nullptr;
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* v = std::getenv(name);
    if (v && *v) {
      locale = v;
      break;
    }
  }
  if (!locale) return kDefaultLanguage;
  for (const LanguageEntry& e : kLanguages)
    if (LocaleMatches(locale, e.Prefix)) return e.Id;
  return kDefaultLanguage;
}

uint64_t AvailablePhysicalMemory() {
  if (const char* v = std::getenv("SX_AVAILABLE_MEMORY"); v && *v >= '0' && *v <= '9') {
    char* end = nullptr;
    errno = 0;
    unsigned long long n = std::strtoull(v, &end, 10);
    if (errno == 0 && *end == '\0') return n;
  }
  if (FILE* f = std::fopen("/proc/meminfo", "re")) {
    char line[256];
    unsigned long long kb = 0;
    bool found = false;
    while (!found && std::fgets(line, sizeof line, f))
      found = std::sscanf(line, "MemAvailable: %llu kB", &kb) == 1;
    std::fclose(f);
    if (found) return static_cast<uint64_t>(kb) * 1024u;
  }
  long pages = ::sysconf(_SC_AVPHYS_PAGES);
  long pageSize = ::sysconf(_SC_PAGESIZE);
  return pages > 0 && pageSize > 0 ? static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageSize) : 0;
}

void SleepMs(uint32_t ms) {
  struct timespec ts {};
  ts.tv_sec = static_cast<time_t>(ms / 1000);
  ts.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
  while (::nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

int32_t MulDiv(int32_t a, int32_t b, int32_t c) {
  if (c == 0) return -1;
  int64_t product = static_cast<int64_t>(a) * b;
  int64_t q = product / c;
  int64_t r = product % c;
  // Halves round away from zero.
  int64_t absR = r < 0 ? -r : r;
  int64_t absC = c < 0 ? -static_cast<int64_t>(c) : c;
  if (2 * absR >= absC) q += ((product < 0) != (c < 0)) ? -1 : 1;
  if (q > INT32_MAX || q < INT32_MIN) return -1;
  return static_cast<int32_t>(q);
}

}  // namespace sx::plat
