// Picks the kernel set once, when the library is loaded.
#include "imaging/kernels/Kernels.h"

#include <atomic>

namespace sx {
namespace kernels {
namespace portable {
extern const KernelSet kSet;
}
#if defined(SX_HAVE_AVX2_KERNELS)
namespace avx2 {
extern const KernelSet kSet;
}
#endif
}  // namespace kernels

namespace {

bool ProcessorHasAvx2() {
#if defined(SX_HAVE_AVX2_KERNELS)
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2");
#else
  return false;
#endif
}

struct Available {
  const KernelSet* Sets[2] = {};
  int32_t Count = 0;
  Available() {
    Sets[Count++] = &kernels::portable::kSet;
#if defined(SX_HAVE_AVX2_KERNELS)
    if (ProcessorHasAvx2()) Sets[Count++] = &kernels::avx2::kSet;
#endif
  }
};

const Available& Sets() {
  static const Available available;
  return available;
}

// Null means the processor's best. Relaxed is enough: UseKernels is only
// called while no acquisition runs, and starting one orders everything after.
std::atomic<const KernelSet*> gOverride{nullptr};

}  // namespace

const KernelSet& Kernels() {
  const KernelSet* chosen = gOverride.load(std::memory_order_relaxed);
  return chosen ? *chosen : *Sets().Sets[Sets().Count - 1];
}

void UseKernels(const KernelSet* set) { gOverride.store(set, std::memory_order_relaxed); }

int32_t KernelSetCount() { return Sets().Count; }

const KernelSet& KernelSetAt(int32_t index) {
  const Available& a = Sets();
  return *a.Sets[index < 0 ? 0 : (index >= a.Count ? a.Count - 1 : index)];
}

}  // namespace sx
