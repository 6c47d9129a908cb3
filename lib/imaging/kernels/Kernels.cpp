// Picks the kernel set once, when the library is loaded.
#include "imaging/kernels/Kernels.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "imaging/kernels/Processor.h"

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
#if defined(SX_HAVE_AVX512_KERNELS)
namespace avx512ymm {
extern const KernelSet kSet;
}
namespace avx512 {
extern const KernelSet kSet;
}
#endif
}  // namespace kernels

namespace {

struct Requirement {
  const KernelSet* Set;
  bool (*Runs)(const ProcessorFeatures&);
};

// Best last. Where the 256-bit and the 512-bit AVX-512 builds both run, the
// 512-bit one is the default: the kernel loops work on lines held in the
// first two cache levels and are bound by the instructions they run, which
// 512-bit vectors halve. That is yet to be measured on such a processor,
// which SX_KERNELS=avx512-ymm against SX_KERNELS=avx512 does.
const Requirement kBuilt[] = {
    {&kernels::portable::kSet, [](const ProcessorFeatures&) { return true; }},
#if defined(SX_HAVE_AVX2_KERNELS)
    {&kernels::avx2::kSet, [](const ProcessorFeatures& f) { return f.Avx2; }},
#endif
#if defined(SX_HAVE_AVX512_KERNELS)
    {&kernels::avx512ymm::kSet, [](const ProcessorFeatures& f) { return f.Avx512; }},
    {&kernels::avx512::kSet, [](const ProcessorFeatures& f) { return f.Avx512; }},
#endif
};
constexpr int32_t kBuiltCount = static_cast<int32_t>(std::size(kBuilt));

struct Available {
  bool Runs[kBuiltCount] = {};
  const KernelSet* Sets[kBuiltCount] = {};
  int32_t Count = 0;
  const KernelSet* Chosen = nullptr;
  Available() {
    const ProcessorFeatures features = DecodeFeatures(ReadCpuid());
    for (int32_t i = 0; i < kBuiltCount; ++i) {
      Runs[i] = kBuilt[i].Runs(features);
      if (Runs[i]) Sets[Count++] = kBuilt[i].Set;
    }
    Chosen = &ChooseKernelSet(Sets, Count, std::getenv("SX_KERNELS"));
  }
};

const Available& Sets() {
  static const Available available;
  return available;
}

// Null means the choice made at load. Relaxed is enough: UseKernels is only
// called while no acquisition runs, and starting one orders everything after.
std::atomic<const KernelSet*> gOverride{nullptr};

}  // namespace

const KernelSet& ChooseKernelSet(const KernelSet* const* sets, int32_t count, const char* wanted) {
  if (wanted != nullptr) {
    for (int32_t i = 0; i < count; ++i)
      if (std::strcmp(sets[i]->Name, wanted) == 0) return *sets[i];
  }
  return *sets[count - 1];
}

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
  plan.PairOffsets = new (std::nothrow) uint32_t[n];
  plan.LeftMultipliers = new (std::nothrow) uint16_t[3 * n];
  plan.RightMultipliers = new (std::nothrow) uint16_t[3 * n];
  plan.RightAlone = new (std::nothrow) uint32_t[n];
  // A shuffle pair makes sixteen samples; a pixel has three at most.
  plan.Shuffles = new (std::nothrow) ShufflePair[3 * n / 16 + 1];
  if (!plan.PairOffsets || !plan.LeftMultipliers || !plan.RightMultipliers || !plan.RightAlone || !plan.Shuffles) {
    FreePlan(plan);
    return false;
  }
  plan.Capacity = pixels;
  return true;
}

void FreePlan(HorizontalPlan& plan) {
  delete[] plan.PairOffsets;
  delete[] plan.LeftMultipliers;
  delete[] plan.RightMultipliers;
  delete[] plan.RightAlone;
  delete[] plan.Shuffles;
  plan = HorizontalPlan{};
}

const KernelSet& Kernels() {
  const KernelSet* chosen = gOverride.load(std::memory_order_relaxed);
  return chosen ? *chosen : *Sets().Chosen;
}

void UseKernels(const KernelSet* set) { gOverride.store(set, std::memory_order_relaxed); }

int32_t KernelSetCount() { return Sets().Count; }

const KernelSet& KernelSetAt(int32_t index) {
  const Available& a = Sets();
  return *a.Sets[index < 0 ? 0 : (index >= a.Count ? a.Count - 1 : index)];
}

int32_t BuiltKernelSetCount() { return kBuiltCount; }

BuiltKernelSet BuiltKernelSetAt(int32_t index) {
  const int32_t i = std::clamp(index, 0, kBuiltCount - 1);
  return {kBuilt[i].Set, Sets().Runs[i]};
}

}  // namespace sx
