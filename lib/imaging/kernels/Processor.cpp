// Reads and decodes the processor's identification for the kernel choice.
#include "imaging/kernels/Processor.h"

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

namespace sx {
namespace {

constexpr uint32_t Bit(int n) { return uint32_t{1} << n; }

// CPUID leaf 1, ECX.
constexpr uint32_t kSse3 = Bit(0), kSsse3 = Bit(9), kSse41 = Bit(19), kSse42 = Bit(20);
constexpr uint32_t kPopcnt = Bit(23), kXsave = Bit(26), kOsXsave = Bit(27), kAvx = Bit(28);
// CPUID leaf 7, EBX.
constexpr uint32_t kAvx2 = Bit(5), kAvx512F = Bit(16), kAvx512Bw = Bit(30), kAvx512Vl = Bit(31);
// XCR0: the register states the operating system saves.
constexpr uint64_t kSseState = 1u << 1, kYmmState = 1u << 2;
constexpr uint64_t kOpmaskState = 1u << 5, kZmmHi256State = 1u << 6, kHi16ZmmState = 1u << 7;

constexpr uint32_t kLeaf7 = 7;

bool All(uint64_t word, uint64_t bits) { return (word & bits) == bits; }

}  // namespace

// -mavx2 lets the compiler use everything from SSE3 to AVX2 and POPCNT;
// -mavx512f -mavx512bw -mavx512vl adds the three AVX-512 parts on top.
ProcessorFeatures DecodeFeatures(const CpuidWords& w) {
  ProcessorFeatures f;
  const bool osSaves = All(w.Leaf1Ecx, kXsave | kOsXsave);
  const uint64_t state = osSaves ? w.Xcr0 : 0;
  const uint32_t leaf7 = w.MaxLeaf >= kLeaf7 ? w.Leaf7Ebx : 0;
  f.Avx2 = All(w.Leaf1Ecx, kSse3 | kSsse3 | kSse41 | kSse42 | kPopcnt | kAvx) && All(leaf7, kAvx2) &&
           All(state, kSseState | kYmmState);
  f.Avx512 = f.Avx2 && All(leaf7, kAvx512F | kAvx512Bw | kAvx512Vl) &&
             All(state, kOpmaskState | kZmmHi256State | kHi16ZmmState);
  return f;
}

#if defined(__x86_64__) || defined(__i386__)
CpuidWords ReadCpuid() {
  CpuidWords w;
  unsigned a = 0, b = 0, c = 0, d = 0;
  if (!__get_cpuid(0, &a, &b, &c, &d)) return w;
  w.MaxLeaf = a;
  if (__get_cpuid(1, &a, &b, &c, &d)) w.Leaf1Ecx = c;
  if (w.MaxLeaf >= kLeaf7) {
    __cpuid_count(kLeaf7, 0, a, b, c, d);
    w.Leaf7Ebx = b;
  }
  // XGETBV exists only where the system has turned XSAVE on.
  if (All(w.Leaf1Ecx, kOsXsave)) {
    uint32_t low = 0, high = 0;
    __asm__ volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
    w.Xcr0 = uint64_t{high} << 32 | low;
  }
  return w;
}
#else
CpuidWords ReadCpuid() { return {}; }
#endif

}  // namespace sx
