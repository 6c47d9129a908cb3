// The per-byte work of the block chain: the descreen and sharpening filters on
// one line, the blend of two lines for vertical scaling, horizontal scaling of
// a block, inversion and tone mapping. The block chain keeps the state (row
// rings, line tables); a kernel set only computes.
//
// Every kernel set delivers the same bytes for the same input: each is the
// same source compiled for another instruction set. The library runs the
// fastest set the processor supports, chosen once when the library is
// loaded: on x86-64 an AVX-512 build (512-bit vectors, or 256-bit ones with
// the AVX-512 instructions) or an AVX2 build where the processor and the
// system allow it, otherwise the portable build the compiler vectorises for
// the baseline instruction set (i386 has only that one). The environment
// variable SX_KERNELS, naming a set, picks that set instead where this
// processor can run it, so that sets can be compared on one machine.
#pragma once
#include <cstddef>
#include <cstdint>

namespace sx {

// The fixed-point unit of resolution scaling: weights are millionths.
constexpr int32_t kScaleUnit = 1000000;

// The geometry of one block of lines under horizontal scaling. `Sample` is 1
// for gray and 3 for colour lines.
struct HorizontalGeometry {
  int32_t ScanPixels = 0;
  int32_t OutputPixels = 0;
  int32_t ScanBytesPerLine = 0;
  int32_t OutputBytesPerLine = 0;
  int32_t Sample = 1;
};

// Sixteen output samples made by byte shuffles, as two groups of eight: each
// group's inputs lie in the window of bytes from its base (its left samples)
// and in the window from base + sample (its right ones). `Left` and `Right`
// give each output sample's place in the first sixteen bytes of the window
// as a 16-bit lane (the place, then a byte the shuffle makes zero), the first
// group in the low half; `LeftFar` and `RightFar` the places in the next
// sixteen, where a window is that wide. A place elsewhere is one the
// shuffle makes zero.
struct ShufflePair {
  uint32_t Base[2];
  uint8_t Left[32];
  uint8_t Right[32];
  uint8_t LeftFar[32];
  uint8_t RightFar[32];
};

// Where each output pixel after the first of a horizontally scaled line comes
// from: the byte offset of its left input pixel (the right one follows it),
// and for each of its samples the exact multipliers of the left and the right
// pixel's weight. Where the left pixel weighs nothing the output is the right
// pixel alone (its weight, the whole unit, has no 16-bit multiplier): those
// output pixels are listed apart. A kernel set fills the plan when the
// geometry changes and runs without it (more slowly) where it is missing or
// too small.
struct HorizontalPlan {
  uint32_t* PairOffsets = nullptr;
  uint16_t* LeftMultipliers = nullptr;   // three per pixel
  uint16_t* RightMultipliers = nullptr;  // three per pixel
  uint32_t* RightAlone = nullptr;        // output pixels, ascending
  int32_t RightAloneCount = 0;
  // The leading output pixels (after the first) that shuffles make: whole
  // runs of sixteen pixels, the first ones whose groups all fit their bytes
  // and stay within the line. A kernel set without byte shuffles ignores them.
  ShufflePair* Shuffles = nullptr;
  int32_t ShuffledPixels = 0;
  int32_t ShuffleWindow = 0;  // bytes: 16, or 32 for a stronger reduction
  int32_t Capacity = 0;                  // output pixels the tables hold
  // The geometry the entries were made for, and how many there are.
  HorizontalGeometry For{};
  int32_t Count = -1;
};

// Storage for the plan of up to `pixels` output pixels; false (and an empty
// plan) where the memory is not there.
bool AllocatePlan(HorizontalPlan& plan, int32_t pixels);
void FreePlan(HorizontalPlan& plan);

// The fixed-point form of the scaling weights: with M = ExactMultiplier(w),
// (t * M) >> kMultiplierShift equals t * w / kScaleUnit, rounded down, for
// every sample difference t from 0 to 255 and every weight w from 0 to the
// unit. M reaches 2^16 only for the whole unit.
constexpr int32_t kMultiplierShift = 16;
uint32_t ExactMultiplier(uint32_t weight);

struct KernelSet {
  const char* Name;
  // One filtered line from four padded rows, oldest first; row byte k holds
  // line byte k - sample. `weighted` picks the 28-weight kernel over the
  // 16-weight box. `scratch` holds 2 * (lineBytes + 3 * sample) entries.
  void (*Descreen)(uint8_t* out, const uint8_t* const* rows, int32_t lineBytes, int32_t sample,
                   bool weighted, uint16_t* scratch);
  // One sharpened line: the middle of three padded rows (one pad pixel each
  // side), at `level` 1 to 4. `scratch` holds lineBytes + 2 * sample entries.
  void (*Sharpen)(uint8_t* out, const uint8_t* const* rows, int32_t lineBytes, int32_t sample,
                  int32_t level, uint16_t* scratch);
  // out = (current * (unit - weight) + previous * weight) / unit, per byte.
  void (*Blend)(uint8_t* out, const uint8_t* current, const uint8_t* previous, size_t bytes,
                int64_t weight);
  // `lines` lines of ScanBytesPerLine bytes at `in` become lines of
  // OutputBytesPerLine bytes at `out`; `out` may be `in`.
  void (*ScaleHorizontal)(uint8_t* out, const uint8_t* in, int32_t lines,
                          const HorizontalGeometry& geometry, HorizontalPlan* plan);
  void (*Invert)(uint8_t* bytes, size_t count);
  // out[i] = table[in[i]] for gray (`channels` 1); for colour each sample goes
  // through the table of its channel, `tables` holding 256 entries for each.
  void (*ToneMap)(uint8_t* out, const uint8_t* in, size_t pixels, int32_t channels,
                  const uint8_t* tables);
};

// The set the block chain runs. Thread contract: chosen before any
// acquisition; UseKernels is for tests and benchmarks, called while no
// acquisition runs.
const KernelSet& Kernels();
void UseKernels(const KernelSet* set);  // nullptr: back to the choice made at load

// Every set built into this library that this processor can run, best last.
int32_t KernelSetCount();
const KernelSet& KernelSetAt(int32_t index);

// Every set built into this library, best last, whether this processor can
// run it or not: tests say which ones they could not check.
struct BuiltKernelSet {
  const KernelSet* Set;
  bool Runs;
};
int32_t BuiltKernelSetCount();
BuiltKernelSet BuiltKernelSetAt(int32_t index);

// The choice made at load: the runnable set named `wanted` (SX_KERNELS), or
// the best of the `count` runnable `sets` where none has that name.
const KernelSet& ChooseKernelSet(const KernelSet* const* sets, int32_t count, const char* wanted);

}  // namespace sx
