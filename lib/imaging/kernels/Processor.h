// What the processor lets the kernel sets use. A wider kernel set is run only
// where the processor has every instruction its build may use and the
// operating system saves the registers it uses across thread switches: a
// processor with AVX-512 under a system that leaves the ZMM state off faults
// on the first 512-bit instruction.
#pragma once
#include <cstdint>

namespace sx {

// The words of the processor's identification the choice rests on.
struct CpuidWords {
  uint32_t MaxLeaf = 0;   // CPUID leaf 0, EAX
  uint32_t Leaf1Ecx = 0;  // CPUID leaf 1, ECX
  uint32_t Leaf7Ebx = 0;  // CPUID leaf 7 subleaf 0, EBX (meaningful only when MaxLeaf >= 7)
  uint64_t Xcr0 = 0;      // XGETBV 0 (meaningful only when Leaf1Ecx has OSXSAVE)
};

// One flag per instruction set a kernel set is built for (see
// lib/CMakeLists.txt): true when everything that build may use is there.
struct ProcessorFeatures {
  bool Avx2 = false;    // -mavx2
  bool Avx512 = false;  // -mavx512f -mavx512bw -mavx512vl
};

ProcessorFeatures DecodeFeatures(const CpuidWords& words);

// This processor's words (all zero where there is no CPUID).
CpuidWords ReadCpuid();

}  // namespace sx
