// The acquisition intake against a scripted library: how many bytes a block
// is trusted for, lines split between blocks, how pages end, stops and
// cancels, and the transfer buffer freed whichever block names it.
#include <gtest/gtest.h>

#ifdef SX_KIT_BUILT
#include <cstring>
#include <functional>
#include <list>
#include <vector>

#include "kit/Intake.h"

namespace sx::host {
namespace {

constexpr uint32_t kStride = 8;  // an 8-pixel grey line

// The library's global memory and SxAcquire, faked: blocks are named by
// their exact locked address, as the library names them.
struct FakeLibrary {
  struct Block {
    std::vector<uint8_t> bytes;
    int locks = 0;
    bool freed = false;
  };
  std::list<Block> blocks;
  std::function<int32_t(SxTransferCallback, uint8_t*)> script;

  Block* Named(const void* address) {
    for (Block& b : blocks)
      if (!b.freed && b.bytes.data() == address) return &b;
    return nullptr;
  }
  uint8_t* Locked(size_t bytes) {
    blocks.push_back({std::vector<uint8_t>(bytes), 1});
    return blocks.back().bytes.data();
  }
  int Live() const {
    int n = 0;
    for (const Block& b : blocks) n += !b.freed;
    return n;
  }
};
FakeLibrary* g_library = nullptr;

using FakeBlock = FakeLibrary::Block;
int32_t SX_API FakeAcquire(SxTransferCallback callback, void* buffer) {
  return g_library->script(callback, static_cast<uint8_t*>(buffer));
}
SxHandle SX_API FakeAlloc(uint32_t, size_t bytes) {
  g_library->blocks.push_back({std::vector<uint8_t>(bytes)});
  return &g_library->blocks.back();
}
void* SX_API FakeLock(SxHandle h) {
  ++static_cast<FakeBlock*>(h)->locks;
  return static_cast<FakeBlock*>(h)->bytes.data();
}
int32_t SX_API FakeUnlock(SxHandle h) {
  auto* b = static_cast<FakeBlock*>(h);
  return b->locks = std::max(b->locks - 1, 0);
}
SxHandle SX_API FakeFree(SxHandle h) {
  static_cast<FakeBlock*>(h)->freed = true;
  return nullptr;
}
size_t SX_API FakeSize(SxHandle h) { return static_cast<FakeBlock*>(h)->bytes.size(); }
SxHandle SX_API FakeHandle(const void* address) { return g_library->Named(address); }

const LibraryCalls kFakeCalls = {FakeAcquire, FakeAlloc, FakeLock, FakeUnlock, FakeFree, FakeSize, FakeHandle};

// What the program was handed, as a log and the lines' bytes.
struct Recorder final : PageReceiver {
  std::vector<std::string> log;
  std::vector<uint8_t> bytes;
  bool refuseLines = false;

  bool BeginPage(const PageFormat& f, std::string*) override {
    log.push_back("begin " + std::to_string(f.lines));
    return true;
  }
  bool TakeLines(const uint8_t* lines, uint32_t count, std::string* why) override {
    *why = "disk full";
    bytes.insert(bytes.end(), lines, lines + count * kStride);
    return !refuseLines;
  }
  bool EndPage(uint32_t lines, bool early, std::string*) override {
    log.push_back("end " + std::to_string(lines) + (early ? " early" : ""));
    return true;
  }
  void DropPage() override { log.push_back("drop"); }
};

class Intakes : public ::testing::Test {
 protected:
  void SetUp() override { g_library = &library; }
  // Every block the intake made or was handed back is freed and unlocked.
  void TearDown() override {
    EXPECT_EQ(library.Live(), 0);
    g_library = nullptr;
  }

  static int32_t Announce(SxTransferCallback callback, uint32_t lines, int64_t* answer = nullptr) {
    SxImageInfo info{};
    info.ResolutionX = info.ResolutionY = 300;
    info.PixelsPerLine = kStride;
    info.LinesPerPage = static_cast<int32_t>(lines);
    info.PixelType = 1;
    int64_t count = sizeof info;
    const int32_t result = callback(&info, &count, SX_XFER_IMAGE_INFO);
    if (answer) *answer = count;
    return result;
  }
  static int32_t Block(SxTransferCallback callback, void* data, int64_t count, int32_t code = SX_XFER_DATA) {
    return callback(data, &count, code);
  }

  // Runs one acquisition of `script` with a buffer of `bufferBytes`.
  int32_t Run(std::function<int32_t(SxTransferCallback, uint8_t*)> script, size_t bufferBytes = 64,
              IntakeOptions options = {}) {
    library.script = std::move(script);
    options.bufferBytes = bufferBytes;
    Intake intake(kFakeCalls, recorder, options);
    const int32_t result = intake.Acquire();
    stopReason = intake.StopReason();
    lineTooLong = intake.LineTooLong();
    return result;
  }

  FakeLibrary library;
  Recorder recorder;
  std::string stopReason;
  uint32_t lineTooLong = 0;
};

// A count is read in its low 32 bits, and never past the block at the
// address it comes with: the buffer, the larger block the library moved it
// to, or nothing at an address that is no block's.
TEST_F(Intakes, ByteCountTrustedOnlyWithinTheBlockAtItsAddress) {
  constexpr int64_t kStatusBeside = int64_t{1} << 32;
  uint8_t stray[64] = {};
  struct Case {
    const char* what;
    int where;  // 0 the buffer, 1 a block of 96 bytes the library moved it to, 2 stray memory, 3 inside the buffer
    int64_t count;
    size_t taken;
  } cases[] = {
      {"within the buffer", 0, 32, 32},
      {"past the buffer", 0, 1000, 64},
      {"a status in the high bits", 0, kStatusBeside | 16, 16},
      {"negative", 0, -16, 0},
      {"past the moved block", 1, 1000, 96},
      {"no block there", 2, 16, 0},
      {"not a block's start", 3, 64, 0},
  };
  for (const Case& c : cases) {
    recorder = {};
    Run([&](SxTransferCallback cb, uint8_t* buffer) {
      Announce(cb, 100);
      if (c.where == 1) library.Named(buffer)->freed = true;  // moved: the old address names nothing now
      uint8_t* data = c.where == 0 ? buffer : c.where == 1 ? library.Locked(96) : c.where == 2 ? stray : buffer + 8;
      return Block(cb, data, c.count, SX_XFER_PAGE_END);
    });
    EXPECT_EQ(recorder.bytes.size(), c.taken) << c.what;
  }
}

// Lines cut by a block's end are joined to their rest; lines past the
// announced ones are dropped; a line cut by the page's end never reaches the
// next page. The answer to a page's announcement sizes the blocks.
TEST_F(Intakes, WholeLinesAcrossBlocksAndPages) {
  int64_t answers[2] = {};
  EXPECT_EQ(Run(
                [&](SxTransferCallback cb, uint8_t* buffer) {
                  for (uint8_t i = 0; i < 64; ++i) buffer[i] = i;
                  Announce(cb, 3, &answers[0]);
                  Block(cb, buffer, 12);                         // a line and a half
                  Block(cb, buffer, 0);                          // nothing
                  Block(cb, buffer, 20, SX_XFER_PAGE_END);       // the half's rest, two lines, a half too many
                  Announce(cb, 3, &answers[1]);
                  Block(cb, buffer, 20, SX_XFER_SHORT_PAGE);     // two lines and a half line
                  Announce(cb, 3);
                  return Block(cb, buffer, 8);                   // the half line is not this page's start
                },
                64, {.linesPerBlock = 2}),
            SX_OK);
  EXPECT_EQ(answers[0], 16) << "two lines a block";
  EXPECT_EQ(recorder.log, (std::vector<std::string>{"begin 3", "end 3", "begin 3", "end 2 early", "begin 3", "drop"}));
  std::vector<uint8_t> expected;
  for (uint8_t n : {12, 12, 16, 8})  // page 1: 12 bytes, then the half's rest and one line; page 2, page 3
    for (uint8_t i = 0; i < n; ++i) expected.push_back(i);
  EXPECT_EQ(recorder.bytes, expected);
  // Without a block size, the whole buffer.
  recorder = {};
  Run([&](SxTransferCallback cb, uint8_t*) { return Announce(cb, 3, &answers[1]); }, 40);
  EXPECT_EQ(answers[1], 40);
}

// A page never said to end is over, early, once the next one begins.
TEST_F(Intakes, PageThatNeverEndedIsEndedByTheNext) {
  Run([&](SxTransferCallback cb, uint8_t* buffer) {
    Announce(cb, 4);
    Block(cb, buffer, 16);
    Announce(cb, 1);
    return Block(cb, buffer, 8, SX_XFER_PAGE_END);
  });
  EXPECT_EQ(recorder.log, (std::vector<std::string>{"begin 4", "end 2 early", "begin 1", "end 1"}));
}

// The program's refusal and a person's cancel stop the acquisition; a line
// larger than the buffer stops it before the page begins.
TEST_F(Intakes, StopsAndCancels) {
  recorder.refuseLines = true;
  std::vector<int32_t> answers;
  EXPECT_EQ(Run([&](SxTransferCallback cb, uint8_t* buffer) {
              answers.push_back(Announce(cb, 4));
              answers.push_back(Block(cb, buffer, 8));
              answers.push_back(Block(cb, buffer, 8));  // a library that calls again is told again
              return kIntakeStop;
            }),
            kIntakeStop);
  EXPECT_EQ(answers, (std::vector<int32_t>{SX_OK, kIntakeStop, kIntakeStop}));
  EXPECT_EQ(stopReason, "disk full");
  EXPECT_EQ(recorder.log.back(), "drop");

  recorder = {};
  Run([&](SxTransferCallback cb, uint8_t*) { return Announce(cb, 4); }, kStride - 1);
  EXPECT_EQ(lineTooLong, kStride);
  EXPECT_NE(stopReason.find("smaller than one line"), std::string::npos) << stopReason;
  EXPECT_TRUE(recorder.log.empty());

  std::atomic<bool> cancel{false};
  recorder = {};
  Run(
      [&](SxTransferCallback cb, uint8_t* buffer) {
        Announce(cb, 4);
        cancel.store(true);
        return Block(cb, buffer, 8);
      },
      64, {.cancel = &cancel});
  EXPECT_TRUE(recorder.bytes.empty());
  EXPECT_EQ(Run([&](SxTransferCallback cb, uint8_t*) { return Announce(cb, 4); }, 64, {.cancel = &cancel}),
            SX_ERR_CANCELLED);
}

// One acquisition at a time in a process: the callback has no context.
TEST_F(Intakes, SecondAcquisitionWhileOneRunsIsRefused) {
  Recorder other;
  int32_t nested = SX_OK;
  Run([&](SxTransferCallback, uint8_t*) {
    Intake second(kFakeCalls, other, {.bufferBytes = 16});
    nested = second.Acquire();
    return SX_OK;
  });
  EXPECT_EQ(nested, kIntakeStop);
}

// The library may move the buffer: the block it names last is the one freed.
TEST_F(Intakes, MovedBufferIsFreedThroughItsCurrentAddress) {
  FakeBlock* moved = nullptr;
  Run([&](SxTransferCallback cb, uint8_t* buffer) {
    library.Named(buffer)->freed = true;  // moved: the old address names nothing now
    uint8_t* current = library.Locked(128);
    moved = library.Named(current);
    Announce(cb, 1);
    return Block(cb, current, 8, SX_XFER_PAGE_END);
  });
  EXPECT_EQ(recorder.bytes.size(), kStride);
  EXPECT_TRUE(moved->freed && moved->locks == 0);
}

}  // namespace
}  // namespace sx::host

#endif
