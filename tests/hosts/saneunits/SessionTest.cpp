// The SANE backend's acquisitions over a scripted SxAcquire: which status
// ends a page and what a frontend reads before it.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "Session.h"

namespace {
using namespace sxsane;

// Global memory as the library hands it out: the one transfer buffer, whose
// handle is its address.
constexpr size_t kBufferBytes = 1u << 20;
void* SX_API Alloc(uint32_t, size_t bytes) { return std::calloc(1, bytes); }
void* SX_API Lock(void* h) { return h; }
int32_t SX_API Unlock(void*) { return 0; }
void* SX_API Handle(const void* p) { return const_cast<void*>(p); }
size_t SX_API Size(void*) { return kBufferBytes; }
void* SX_API Free(void* h) {
  std::free(h);
  return nullptr;
}

// One page of 10 lines of 4 pixels; the script says how it ends and what the
// acquisition returns.
constexpr int kLines = 10, kPixels = 4;
struct Script {
  int bits = 8;
  int linesSent = kLines;
  int32_t endCode = SX_XFER_PAGE_END;  // with the last lines; SX_XFER_DATA: no end mark
  int32_t result = SX_OK;
  int pages = 1;
};
Script g_script;
// After the first lines, empty blocks until the stall ends or the host stops.
std::atomic<bool> g_stall{false}, g_stalling{false};

int32_t SX_API Acquire(SxTransferCallback callback, void* buffer) {
  const Script& s = g_script;
  SxImageInfo info{};
  info.PixelsPerLine = kPixels;
  info.LinesPerPage = kLines;
  info.BitsPerPixel = s.bits;
  info.SamplesPerPixel = 1;
  const int64_t lineBytes = (kPixels * s.bits + 7) / 8;
  for (int page = 0; page < s.pages; ++page) {
    int64_t count = sizeof info;
    if (callback(&info, &count, SX_XFER_IMAGE_INFO) != 0) return SX_ERR_CANCELLED;
    std::memset(buffer, 0x11, static_cast<size_t>(lineBytes * kLines));
    int64_t first = lineBytes * (s.linesSent - 1);
    if (callback(buffer, &first, SX_XFER_DATA) != 0) return SX_ERR_CANCELLED;
    while (g_stall) {
      g_stalling = true;
      int64_t none = 0;
      if (callback(buffer, &none, SX_XFER_DATA) != 0) return SX_ERR_CANCELLED;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    int64_t last = lineBytes;
    if (callback(buffer, &last, s.endCode) != 0) return SX_ERR_CANCELLED;
  }
  return s.result;
}

class SessionTest : public ::testing::Test {
 protected:
  SessionTest() { api_ = AcquireApi{Acquire, Handle, Size, Alloc, Lock, Unlock, Free}; }
  ~SessionTest() override { EndAcquisition(session_); }
  SANE_Status Start(bool feeder = false) {
    return StartPage(session_, api_, feeder, [] { return SANE_STATUS_GOOD; });
  }
  // Reads until the page's status; the bytes read.
  std::vector<SANE_Byte> ReadAll(SANE_Status* status) {
    std::vector<SANE_Byte> page;
    SANE_Byte chunk[7];
    SANE_Int n = 0;
    while ((*status = ReadPage(session_, chunk, sizeof chunk, &n)) == SANE_STATUS_GOOD)
      page.insert(page.end(), chunk, chunk + n);
    return page;
  }
  AcquireApi api_;
  Session session_;
};

// A whole page ends with EOF, and so does one the scanner ended early: its
// missing lines come white (1 is black in line art), so that the frame holds
// the lines announced.
TEST_F(SessionTest, WholeAndScannerEndedPagesEndWithEofAtTheirAnnouncedLength) {
  struct Case {
    int bits, linesSent;
    int32_t endCode;
    SANE_Byte sent, white;
  } cases[] = {{8, kLines, SX_XFER_PAGE_END, 0x11, 0}, {8, 6, SX_XFER_SHORT_PAGE, 0x11, 0xFF},
               {1, 6, SX_XFER_SHORT_PAGE, 0xEE, 0x00}};
  for (const auto& c : cases) {
    g_script = Script{};
    g_script.bits = c.bits;
    g_script.linesSent = c.linesSent;
    g_script.endCode = c.endCode;
    ASSERT_EQ(Start(), SANE_STATUS_GOOD);
    SANE_Status status;
    const std::vector<SANE_Byte> page = ReadAll(&status);
    const size_t lineBytes = (kPixels * c.bits + 7) / 8;
    EXPECT_EQ(status, SANE_STATUS_EOF);
    ASSERT_EQ(page.size(), lineBytes * kLines) << c.bits;
    const size_t sent = lineBytes * static_cast<size_t>(c.linesSent);
    for (size_t i = 0; i < page.size(); ++i) ASSERT_EQ(page[i], i < sent ? c.sent : c.white) << c.bits << " " << i;
    EndAcquisition(session_);
  }
}

// A page the acquisition ends inside reads the library's reason; so does a
// feeder's next page once the acquisition has ended.
TEST_F(SessionTest, EarlyEndsReadTheLibrarysReason) {
  struct Case {
    int32_t result;
    SANE_Status status;
  } cases[] = {{-27, SANE_STATUS_JAMMED}, {-6, SANE_STATUS_IO_ERROR}, {SX_ERR_CANCELLED, SANE_STATUS_CANCELLED},
               {SX_OK, SANE_STATUS_IO_ERROR}};  // ended without the page's end
  for (const auto& c : cases) {
    g_script = Script{};
    g_script.endCode = SX_XFER_DATA;
    g_script.result = c.result;
    ASSERT_EQ(Start(), SANE_STATUS_GOOD);
    SANE_Status status;
    ReadAll(&status);
    EXPECT_EQ(status, c.status) << c.result;
  }
  const Case feederEnds[] = {{SX_OK, SANE_STATUS_NO_DOCS}, {-20, SANE_STATUS_NO_DOCS}, {-27, SANE_STATUS_JAMMED}};
  for (const auto& c : feederEnds) {
    g_script = Script{};
    g_script.pages = 2;
    g_script.result = c.result;
    ASSERT_EQ(Start(true), SANE_STATUS_GOOD);
    SANE_Status status;
    for (int page = 0; page < 2; ++page) {
      ReadAll(&status);
      EXPECT_EQ(status, SANE_STATUS_EOF);
      EXPECT_EQ(Start(true), page == 0 ? SANE_STATUS_GOOD : c.status) << c.result;
    }
  }
}

// sane_cancel from a signal handler that interrupted a waiting sane_read:
// the read ends cancelled, never as the page's end, and so does every read
// after it; the next sane_start begins a new acquisition.
Session* g_interrupted = nullptr;
void OnInterrupt(int) { Cancel(*g_interrupted); }

TEST_F(SessionTest, ACancelDuringAReadEndsItCancelled) {
  g_script = Script{};
  g_stall = true;
  g_stalling = false;
  g_interrupted = &session_;
  struct sigaction action {}, old {};
  action.sa_handler = OnInterrupt;
  sigaction(SIGUSR1, &action, &old);
  ASSERT_EQ(Start(true), SANE_STATUS_GOOD);
  const pthread_t reader = pthread_self();
  std::thread interrupter([reader] {
    while (!g_stalling) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    pthread_kill(reader, SIGUSR1);
  });
  SANE_Status status;
  const std::vector<SANE_Byte> page = ReadAll(&status);
  interrupter.join();
  sigaction(SIGUSR1, &old, nullptr);
  EXPECT_EQ(status, SANE_STATUS_CANCELLED);
  EXPECT_LT(page.size(), size_t{kPixels} * kLines);
  SANE_Int n = 0;
  SANE_Byte byte;
  EXPECT_EQ(ReadPage(session_, &byte, 1, &n), SANE_STATUS_CANCELLED);

  g_stall = false;
  ASSERT_EQ(Start(true), SANE_STATUS_GOOD);
  EXPECT_EQ(ReadAll(&status).size(), size_t{kPixels} * kLines);
  EXPECT_EQ(status, SANE_STATUS_EOF);
}

}  // namespace
