// The ring of transfer buffers that a buffered acquisition's read and
// processing threads pass blocks through. Built, grown and released here on
// the host's thread, never while an acquisition runs (the workers only use
// the nodes' fields, never the ring's shape).
#include <new>

#include "frame/RegistryUtil.h"
#include "platform/Memory.h"
#include "platform/System.h"
#include "settings/SettingsInternal.h"

namespace sx {

RingNode* gRing = nullptr;

namespace {

constexpr uint8_t kMinBuffers = 2;
constexpr uint8_t kMaxBuffers = 10;
constexpr double kMemoryShare = 0.6;

// A movable zero-filled block of `bytes`, locked for the node's lifetime;
// null when the allocator refuses (the acquisition then finds no buffer).
uint8_t* NewBuffer(int32_t bytes) {
  SxHandle block = SxSysGlobalAlloc(plat::kGhnd, static_cast<size_t>(bytes));
  if (!block) return nullptr;
  auto* data = static_cast<uint8_t*>(SxSysGlobalLock(block));
  if (!data) SxSysGlobalFree(block);
  return data;
}

// Reallocates a node's buffer to `bytes` when it is smaller, keeping the old
// block when the allocator refuses.
void GrowBuffer(RingNode& node, int32_t bytes) {
  const size_t wanted = static_cast<size_t>(bytes);
  if (!node.Data) {
    node.Data = NewBuffer(bytes);
    return;
  }
  SxHandle block = SxSysGlobalHandle(node.Data);
  if (!block || SxSysGlobalSize(block) >= wanted) return;
  while (SxSysGlobalUnlock(block)) {
  }
  SxHandle grown = SxSysGlobalReAlloc(block, wanted, plat::kGhnd);
  if (grown) block = grown;
  node.Data = static_cast<uint8_t*>(SxSysGlobalLock(block));
}

void BuildRing(uint8_t count, int32_t minBuffer) {
  RingNode* first = nullptr;
  RingNode* last = nullptr;
  uint8_t built = 0;
  for (; built < count; ++built) {
    auto* node = new (std::nothrow) RingNode{};
    if (!node) break;
    node->Data = NewBuffer(minBuffer);
    if (last) last->Next = node; else first = node;
    last = node;
  }
  // The count always describes the ring that exists, also when the heap ran
  // out part of the way.
  gSettings.BufferCount = built;
  if (last) last->Next = first;
  gRing = first;
}

}  // namespace

uint8_t ComputeBufferCount(uint64_t availableBytes, int32_t minBuffer) {
  const double share = Double(static_cast<double>(availableBytes) * kMemoryShare);
  const double count = Double(share / minBuffer);
  if (count < kMinBuffers) return kMinBuffers;
  if (count > kMaxBuffers) return kMaxBuffers;
  return static_cast<uint8_t>(count);
}

int32_t StoredMinBuffer() {
  uint32_t value = 0;
  if (ReadRegValue(kKeyScanData, "MINBUFFER", &value, kKindNumber, sizeof value) != 0)
    return kDefaultMinBuffer;
  return static_cast<int32_t>(value);
}

void BuildOrGrowBufferRing(int32_t minBuffer) {
  // Design note: a buffer size of 0 or less, or one below the mebibyte that
  // one buffered read asks of a buffer, would leave buffers the read thread
  // overruns; such a size is raised to one mebibyte.
  if (minBuffer < kDefaultMinBuffer) minBuffer = kDefaultMinBuffer;
  if (gRing) {
    RingNode* node = gRing;
    do {
      GrowBuffer(*node, minBuffer);
      node = node->Next;
    } while (node && node != gRing);
    return;
  }
  BuildRing(ComputeBufferCount(plat::AvailablePhysicalMemory(), minBuffer), minBuffer);
}

void ReleaseBufferRing() {
  // The ring is walked by its links from the current node round to it again;
  // BufferCount nodes when the ring is whole. BufferCount keeps its value.
  RingNode* const start = gRing;
  RingNode* node = start;
  while (node) {
    RingNode* next = node->Next;
    if (node->Data) plat::GlobalUnlockAndFreeAddress(node->Data);
    node->Data = nullptr;
    delete node;
    node = next == start ? nullptr : next;
  }
  gRing = nullptr;
}

}  // namespace sx
