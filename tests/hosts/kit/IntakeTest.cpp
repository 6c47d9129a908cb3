// The acquisition intake against a scripted library: how many bytes a block
// is trusted for, lines split between blocks, how pages end, stops and
// cancels; every block it is given or makes is freed and unlocked after.
#include <gtest/gtest.h>

#ifdef SX_KIT_BUILT
#include <functional>
#include <list>
#include <vector>

#include "kit/Intake.h"

namespace sx::host {
namespace {

constexpr uint32_t kStride = 8;  // an 8-pixel grey line

// The library's global memory, named by exact locked addresses as the
// library names them, and an SxAcquire that runs a test's script.
struct Block {
  std::vector<uint8_t> bytes;
  int locks = 0;
  bool freed = false;
};
std::list<Block> g_blocks;
std::function<int32_t(SxTransferCallback, uint8_t*)> g_script;

Block* Named(const void* address) {
  for (Block& b : g_blocks)
    if (!b.freed && b.bytes.data() == address) return &b;
  return nullptr;
}
// The library moves the buffer at `old` to a larger block, locked.
uint8_t* Move(uint8_t* old, size_t bytes) {
  *Named(old) = {{}, 0, true};
  g_blocks.push_back({std::vector<uint8_t>(bytes), 1});
  return g_blocks.back().bytes.data();
}

int32_t SX_API Acquire(SxTransferCallback cb, void* buffer) { return g_script(cb, static_cast<uint8_t*>(buffer)); }
SxHandle SX_API Alloc(uint32_t, size_t bytes) { return &g_blocks.emplace_back(Block{std::vector<uint8_t>(bytes)}); }
void* SX_API Lock(SxHandle h) { return ++static_cast<Block*>(h)->locks, static_cast<Block*>(h)->bytes.data(); }
int32_t SX_API Unlock(SxHandle h) {
  Block* b = static_cast<Block*>(h);
  return b->locks = std::max(b->locks - 1, 0);
}
SxHandle SX_API Free(SxHandle h) { return static_cast<Block*>(h)->freed = true, nullptr; }
size_t SX_API Size(SxHandle h) { return static_cast<Block*>(h)->bytes.size(); }
SxHandle SX_API Handle(const void* address) { return Named(address); }
const LibraryCalls kFake = {Acquire, Alloc, Lock, Unlock, Free, Size, Handle};

// What the program was handed: a log of the pages and the lines' bytes.
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

int32_t Announce(SxTransferCallback cb, uint32_t lines, int64_t* answer = nullptr) {
  SxImageInfo info{};
  info.ResolutionX = info.ResolutionY = 300;
  info.PixelsPerLine = kStride;
  info.LinesPerPage = static_cast<int32_t>(lines);
  info.PixelType = 1;
  int64_t count = sizeof info;
  const int32_t result = cb(&info, &count, SX_XFER_IMAGE_INFO);
  if (answer) *answer = count;
  return result;
}

int32_t Send(SxTransferCallback cb, void* data, int64_t count, int32_t code = SX_XFER_DATA) {
  return cb(data, &count, code);
}

struct Outcome {
  int32_t result;
  std::string stopReason;
  uint32_t lineTooLong;
};

// One acquisition of `script`, the buffer of `options` 64 bytes unless said.
Outcome Acquired(Recorder& recorder, std::function<int32_t(SxTransferCallback, uint8_t*)> script,
            IntakeOptions options = {}) {
  g_script = std::move(script);
  if (!options.bufferBytes) options.bufferBytes = 64;
  Intake intake(kFake, recorder, options);
  const int32_t result = intake.Acquire();
  return {result, intake.StopReason(), intake.LineTooLong()};
}

class Intakes : public ::testing::Test {
 protected:
  void TearDown() override {
    for (const Block& b : g_blocks) EXPECT_TRUE(b.freed && b.locks == 0);
    g_blocks.clear();
  }
  Recorder recorder;
};

// A count is read in its low 32 bits, and never past the block at the
// address it comes with: the buffer, the larger block the library moved it
// to, or nothing at an address that is no block's.
TEST_F(Intakes, ByteCountTrustedOnlyWithinTheBlockAtItsAddress) {
  enum Where { kBuffer, kMoved, kStray, kInside };
  uint8_t stray[64] = {};
  struct Case {
    const char* what;
    Where where;
    int64_t count;
    size_t taken;
  } cases[] = {
      {"within the buffer", kBuffer, 32, 32},
      {"past the buffer", kBuffer, 1000, 64},
      {"a status in the high bits", kBuffer, (int64_t{1} << 32) | 16, 16},
      {"negative", kBuffer, -16, 0},
      {"past the moved block", kMoved, 1000, 96},
      {"no block there", kStray, 16, 0},
      {"not a block's start", kInside, 64, 0},
  };
  for (const Case& c : cases) {
    recorder = Recorder();
    Acquired(recorder, [&](SxTransferCallback cb, uint8_t* buffer) {
      Announce(cb, 100);
      uint8_t* data = c.where == kBuffer  ? buffer
                      : c.where == kMoved ? Move(buffer, 96)
                      : c.where == kStray ? stray
                                          : buffer + 8;
      return Send(cb, data, c.count, SX_XFER_PAGE_END);
    });
    EXPECT_EQ(recorder.bytes.size(), c.taken) << c.what;
  }
}

// Lines cut by a block's end are joined to their rest; lines past the
// announced ones are dropped; a page never said to end is over, early, when
// the next begins; a line cut by a page's end never starts the next page;
// a page still open when the acquisition ends is dropped. The answer to a
// page's announcement sizes the blocks.
TEST_F(Intakes, WholeLinesAndHowPagesEnd) {
  int64_t answer = 0;
  Acquired(
      recorder,
      [&](SxTransferCallback cb, uint8_t* buffer) {
        for (uint8_t i = 0; i < 64; ++i) buffer[i] = i;
        Announce(cb, 3, &answer);
        Send(cb, buffer, 12);                        // a line and a half
        Send(cb, buffer, 20, SX_XFER_PAGE_END);      // the half's rest, two lines: one too many
        Announce(cb, 3);
        Send(cb, buffer, 20, SX_XFER_SHORT_PAGE);    // two lines and a half
        Announce(cb, 4);
        Send(cb, buffer, 8);
        Announce(cb, 2);                             // the page before never ended
        return Send(cb, buffer, 8);
      },
      {.linesPerBlock = 2});
  EXPECT_EQ(answer, 2 * kStride);
  EXPECT_EQ(recorder.log, (std::vector<std::string>{"begin 3", "end 3", "begin 3", "end 2 early", "begin 4",
                                                    "end 1 early", "begin 2", "drop"}));
  std::vector<uint8_t> expected;
  for (uint8_t n : {12, 12, 16, 8, 8})
    for (uint8_t i = 0; i < n; ++i) expected.push_back(i);
  EXPECT_EQ(recorder.bytes, expected);
  // Without a block size, the whole buffer.
  Acquired(recorder, [&](SxTransferCallback cb, uint8_t*) { return Announce(cb, 3, &answer); }, {.bufferBytes = 40});
  EXPECT_EQ(answer, 40);
}

// The program's refusal, a line larger than the buffer, a person's cancel
// and a second acquisition in the process stop the acquisition.
TEST_F(Intakes, StopsAndCancels) {
  recorder.refuseLines = true;
  std::vector<int32_t> answers;
  const Outcome refused = Acquired(recorder, [&](SxTransferCallback cb, uint8_t* buffer) {
    answers = {Announce(cb, 4), Send(cb, buffer, 8), Send(cb, buffer, 8)};  // told again when it calls again
    return answers.back();
  });
  EXPECT_EQ(answers, (std::vector<int32_t>{SX_OK, kIntakeStop, kIntakeStop}));
  EXPECT_EQ(refused.result, kIntakeStop);
  EXPECT_EQ(refused.stopReason, "disk full");

  recorder = Recorder();
  const Outcome narrow = Acquired(recorder, [&](SxTransferCallback cb, uint8_t*) { return Announce(cb, 4); },
                             {.bufferBytes = kStride - 1});
  EXPECT_EQ(narrow.lineTooLong, kStride);
  EXPECT_TRUE(recorder.log.empty());

  std::atomic<bool> cancel{false};
  const Outcome cancelled = Acquired(
      recorder,
      [&](SxTransferCallback cb, uint8_t*) {
        cancel.store(true);
        return Announce(cb, 4);
      },
      {.cancel = &cancel});
  EXPECT_EQ(cancelled.result, SX_ERR_CANCELLED);
  EXPECT_TRUE(recorder.log.empty());

  Recorder other;
  int32_t nested = SX_OK;
  Acquired(recorder, [&](SxTransferCallback, uint8_t*) {
    Intake second(kFake, other, {.bufferBytes = 16});
    return nested = second.Acquire();
  });
  EXPECT_EQ(nested, kIntakeStop);
}

}  // namespace
}  // namespace sx::host

#endif
