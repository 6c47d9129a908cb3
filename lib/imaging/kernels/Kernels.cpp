// Picks the kernel set once, when the library is loaded.
#include "imaging/kernels/Kernels.h"

#include <algorithm>
#include <atomic>
#include <new>

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

#if defined(SX_HAVE_AVX2_KERNELS)
bool ProcessorHasAvx2() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2");
}
#endif

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

// Every t from 1 to 255 brackets w / unit between floor(t w / unit) / t and
// the next step up; the multipliers that give the floor for all t at once
// are those in the narrowest bracket [L, R): L is the largest fraction with a
// denominator up to 255 not above w / unit, R the smallest above it. Such
// neighbours are at least 1/(255 * 255) apart, wider than the 2^-16 between
// multipliers, so L rounded up to a multiplier lands inside. L and R are
// found by walking the tree of mediants, many steps at a time.
uint32_t ExactMultiplier(uint32_t weight) {
  constexpr int64_t kUnit = kScaleUnit, kLargestDenominator = 255;
  const int64_t w = weight;
  int64_t a = 0, b = 1, c = 1, d = 0;  // L = a / b <= w / unit < c / d = R
  for (bool moved = true; moved;) {
    moved = false;
    int64_t k = (w * b - a * kUnit) / (c * kUnit - w * d);
    if (d > 0) k = std::min(k, (kLargestDenominator - b) / d);
    if (k > 0) a += k * c, b += k * d, moved = true;
    k = (kLargestDenominator - d) / b;
    if (const int64_t above = w * b - a * kUnit; above > 0)
      k = std::min(k, (c * kUnit - w * d - 1) / above);
    if (k > 0) c += k * a, d += k * b, moved = true;
  }
  return static_cast<uint32_t>(((a << kMultiplierShift) + b - 1) / b);
}

bool AllocatePlan(HorizontalPlan& plan, int32_t pixels) {
  FreePlan(plan);
  if (pixels <= 0) return false;
  const size_t n = static_cast<size_t>(pixels);
  plan.LeftOffsets = new (std::nothrow) uint32_t[n];
  plan.RightOffsets = new (std::nothrow) uint32_t[n];
  plan.LeftMultipliers = new (std::nothrow) uint16_t[3 * n];
  plan.RightMultipliers = new (std::nothrow) uint16_t[3 * n];
  if (!plan.LeftOffsets || !plan.RightOffsets || !plan.LeftMultipliers || !plan.RightMultipliers) {
    FreePlan(plan);
    return false;
  }
  plan.Capacity = pixels;
  return true;
}

void FreePlan(HorizontalPlan& plan) {
  delete[] plan.LeftOffsets;
  delete[] plan.RightOffsets;
  delete[] plan.LeftMultipliers;
  delete[] plan.RightMultipliers;
  plan = HorizontalPlan{};
}

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
