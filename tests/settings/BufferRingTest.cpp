// The ring of transfer buffers: its size from the available memory, growth,
// and release.
#include <gtest/gtest.h>

#include <optional>

#include "tests/settings/SettingsTestSupport.h"

namespace {

using sx::gRing;
using sx::gSettings;

constexpr uint64_t kMiB = 1u << 20;

struct RingShape {
  size_t Nodes = 0;
  std::vector<size_t> BufferSizes;
  bool ZeroFilled = true;
};

// Walks the ring once from its current node.
RingShape Shape() {
  RingShape shape;
  const sx::RingNode* node = gRing;
  while (node && shape.Nodes < 64) {
    ++shape.Nodes;
    const size_t size = node->Data ? SxSysGlobalSize(SxSysGlobalHandle(node->Data)) : 0;
    shape.BufferSizes.push_back(size);
    for (size_t i = 0; i < size; i += 4096) shape.ZeroFilled &= node->Data[i] == 0;
    EXPECT_EQ(node->RawBytes.load(), 0);
    EXPECT_EQ(node->Status.load(), 0);
    node = node->Next;
    if (node == gRing) break;
  }
  return shape;
}

class Ring : public ::testing::Test {
 protected:
  void Available(uint64_t bytes) { memory_.emplace("SX_AVAILABLE_MEMORY", std::to_string(bytes).c_str()); }
  int32_t Buffering(uint8_t on) { return SxSetValue(CAP_BUFFERING, TY_UINT8, &on); }
  int32_t MinBuffer(int32_t bytes) { return SxSetValue(CAP_MINBUFFER, TY_INT32, &bytes); }

  sxtest::SettingsEnv env_;
  std::optional<sxtest::ScopedEnv> memory_;
};

TEST_F(Ring, CountFollowsTheAvailableMemory) {
  const std::pair<uint64_t, size_t> cases[] = {
      {1536 * kMiB, 10}, {2 * kMiB, 2}, {10 * kMiB, 6}, {0, 2}, {uint64_t{1} << 40, 10}};
  for (auto [available, count] : cases) {
    Available(available);
    ASSERT_EQ(Buffering(1), 0);
    const RingShape shape = Shape();
    EXPECT_EQ(shape.Nodes, count) << available;
    EXPECT_EQ(gSettings.BufferCount, count);
    EXPECT_EQ(shape.BufferSizes, std::vector<size_t>(count, kMiB));
    EXPECT_TRUE(shape.ZeroFilled);
    ASSERT_EQ(Buffering(0), 0);
    EXPECT_EQ(gRing, nullptr);
    EXPECT_EQ(gSettings.BufferCount, count) << "the count outlives the ring";
  }
  EXPECT_EQ(Buffering(0), 0) << "releasing no ring does nothing";
}

TEST_F(Ring, StoredBufferSizeIsUsed) {
  env_.Root.WriteRegistry("[Software\\Quillmark\\ScanData]\n\"MINBUFFER\"=dword:00300000\n");
  Available(30 * kMiB);
  Buffering(1);
  EXPECT_EQ(Shape().BufferSizes, std::vector<size_t>(6, 3 * kMiB));
}

TEST_F(Ring, MinBufferGrowsAnExistingRing) {
  Available(1536 * kMiB);
  Buffering(1);
  const sx::RingNode* head = gRing;
  ASSERT_EQ(MinBuffer(0x200000), 0);
  EXPECT_EQ(gRing, head);
  const RingShape shape = Shape();
  EXPECT_EQ(shape.BufferSizes, std::vector<size_t>(10, 2 * kMiB));
  EXPECT_TRUE(shape.ZeroFilled);
  // A second Buffering 1 grows to the stored size (1 MiB): nothing shrinks.
  Buffering(1);
  EXPECT_EQ(Shape().BufferSizes, std::vector<size_t>(10, 2 * kMiB));
}

TEST_F(Ring, MinBufferBuildsARingWhateverBufferingHolds) {
  Available(8 * kMiB);
  ASSERT_EQ(MinBuffer(0x200000), 0);
  EXPECT_EQ(gSettings.Buffering, 0);
  EXPECT_EQ(Shape().BufferSizes, std::vector<size_t>(2, 2 * kMiB));
}

TEST_F(Ring, TooSmallBufferSizesAreRaisedToAMebibyte) {
  Available(1536 * kMiB);
  for (int32_t size : std::initializer_list<int32_t>{0, -5, 4096}) {
    MinBuffer(size);
    EXPECT_EQ(Shape().BufferSizes, std::vector<size_t>(10, kMiB)) << size;
    sx::ReleaseBufferRing();
  }
  env_.Root.WriteRegistry("[Software\\Quillmark\\ScanData]\n\"MINBUFFER\"=dword:ffffffff\n");
  Buffering(1);
  EXPECT_EQ(Shape().BufferSizes, std::vector<size_t>(10, kMiB));
}

TEST_F(Ring, MinBufferThatCannotBeReadSizesNothing) {
  EXPECT_EQ(SxSetValue(CAP_MINBUFFER, TY_STR32, const_cast<char*>("2097152")), 0);
  EXPECT_EQ(gRing, nullptr);
}

}  // namespace
