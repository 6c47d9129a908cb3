// Hosts that break the rules of the eight functions: calls out of order,
// transfer buffers that are not global blocks or are too small, callbacks with
// odd answers, and calls from a second thread (or from inside the callback)
// while an acquisition runs. Each gets a result code, never a crash, and the
// library stays usable afterwards.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/TestEnv.h"

namespace {

using namespace sxtest;

constexpr int32_t kLines = 120;
constexpr int64_t kBytesPerLine = 7632;  // 2544 colour pixels at 300 dpi
constexpr int64_t kPageBytes = kLines * kBytesPerLine;
constexpr size_t kHostBuffer = 1 << 20;
constexpr unsigned kHungSeconds = 60;

// The callback's behaviour, chosen per test.
struct Script {
  int64_t BufferAnswer = kHostBuffer;            // written back with code 2
  int32_t InfoAnswer = 0;                        // returned with code 2
  int32_t DataAnswer = 0;                        // returned with code 0 or 1
  std::function<void()> DuringFirstBlock;        // runs inside the first data call
  int64_t Delivered = 0;
  int Pages = 0;
  int DataCalls = 0;
} gScript;

int32_t SX_API Callback(void*, int64_t* count, int32_t code) {
  Script& s = gScript;
  if (code == SX_XFER_IMAGE_INFO) {
    *count = s.BufferAnswer;
    return s.InfoAnswer;
  }
  if (code < 0) return 0;
  if (s.DataCalls++ == 0 && s.DuringFirstBlock) s.DuringFirstBlock();
  s.Delivered += *count;
  if (code == SX_XFER_PAGE_END) ++s.Pages;
  return s.DataAnswer;
}

class HostAbuse : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.InstallVscan("Corvane/QM7110", "[Scanner]\nModel=QM7110V\nFirmware=1.00\nPort=USB\n"
                                         "[Feeder]\nSheets=4\n");
    Registry("");
  }
  void Registry(const std::string& extra) {
    root_.WriteRegistry("[Software\\Quillmark]\n\"SOURCENAME\"=str(2):\"USB - QM7110V" +
                        std::string(13, ' ') +
                        "1.00\"\n[Software\\Quillmark\\ScanData]\n\"PIXELTYPE\"=dword:00000002\n"
                        "\"SCANTYPE\"=dword:00000002\n\"IMAGELENGTH\"=str(2):\"" +
                        std::to_string(kLines) + "\"\n\"GAMMA\"=str(2):\"1.0\"\n" + extra);
  }
  // The worker threads of buffered mode come with the mapping of the
  // library and go with SxFree, so every load gets a freshly mapped library.
  void Load(uint8_t buffering = 0) {
    Unload();
    lib_ = std::make_unique<Library>();
    ASSERT_EQ(lib_->Load(nullptr), 0);
    ASSERT_EQ(lib_->SetValue(CAP_BUFFERING, TY_UINT8, &buffering), 0);
  }
  void Unload() {
    if (!lib_) return;
    if (handle_) {
      lib_->GlobalUnlock(handle_);
      lib_->GlobalFree(handle_);
      handle_ = nullptr;
    }
    lib_->Free();
    lib_.reset();
  }
  int32_t Acquire(void* buffer, Script script = {}) {
    gScript = std::move(script);
    sxtest::HangWatchdog(kHungSeconds);
    const int32_t result = lib_->Acquire(Callback, buffer);
    sxtest::HangWatchdog(0);
    return result;
  }
  // A host buffer that is a locked global block, as the library expects.
  void* GlobalBuffer() {
    handle_ = lib_->GlobalAlloc(SX_GHND, kHostBuffer);
    return lib_->GlobalLock(handle_);
  }
  void TearDown() override { Unload(); }
  // A normal acquisition still delivers one whole page.
  void ExpectUsable(void* buffer) {
    EXPECT_EQ(Acquire(buffer), 0);
    EXPECT_EQ(gScript.Pages, 1);
    EXPECT_EQ(gScript.Delivered, kPageBytes);
  }

  TempRoot root_;
  std::unique_ptr<Library> lib_;
  SxHandle handle_ = nullptr;
};

TEST_F(HostAbuse, CallsOutOfOrder) {
  std::vector<uint8_t> buffer(kHostBuffer);
  lib_ = std::make_unique<Library>();
  // Nothing is bound before SxLoad, and nothing after SxFree: no raster to
  // deliver. Settings need no driver.
  for (const char* when : {"before SxLoad", "after SxFree"}) {
    SCOPED_TRACE(when);
    EXPECT_EQ(Acquire(buffer.data()), SX_ERR_DRIVER);
    EXPECT_EQ(gScript.DataCalls, 0);
    uint8_t direct = 0;
    EXPECT_EQ(lib_->SetValue(CAP_BUFFERING, TY_UINT8, &direct), 0);
    if (when[0] == 'b') {
      EXPECT_EQ(lib_->Load(nullptr), 0);
      EXPECT_EQ(lib_->Free(), 0);
      EXPECT_EQ(lib_->Free(), 0) << "a second SxFree";
    }
  }
  // A load after SxFree binds the driver again; direct transfers work.
  ASSERT_EQ(lib_->Load(nullptr), 0);
  ExpectUsable(GlobalBuffer());
}

TEST_F(HostAbuse, TransferBuffers) {
  std::vector<uint8_t> plain(kHostBuffer);
  for (uint8_t buffering : {0, 1}) {
    SCOPED_TRACE(buffering ? "buffered" : "direct");
    Load(buffering);
    // The library only learns a direct buffer's size from the host's answer,
    // so an ordinary block works wherever it is not moved.
    ExpectUsable(plain.data());
    if (buffering == 0) {
      for (int64_t answer : {int64_t{0}, int64_t{-1}, kBytesPerLine - 1}) {
        Script tooSmall;
        tooSmall.BufferAnswer = answer;
        EXPECT_EQ(Acquire(plain.data(), tooSmall), SX_ERR_DRIVER) << "answer " << answer;
        EXPECT_EQ(gScript.DataCalls, 0);
      }
      Script oneLine;
      oneLine.BufferAnswer = kBytesPerLine;
      EXPECT_EQ(Acquire(plain.data(), oneLine), 0);
      EXPECT_EQ(gScript.DataCalls, kLines);
    }
  }
  // Descreening must enlarge a direct buffer, which only a global block allows.
  Registry("\"DESCREEN\"=dword:00000001\n");
  Load(0);
  EXPECT_EQ(Acquire(plain.data()), SX_ERR_NO_MEMORY);
  EXPECT_EQ(gScript.DataCalls, 0);
  void* global = GlobalBuffer();
  EXPECT_EQ(Acquire(global), 0);
  EXPECT_EQ(gScript.Pages, 1);
}

TEST_F(HostAbuse, OddCallbackAnswers) {
  for (uint8_t buffering : {0, 1}) {
    SCOPED_TRACE(buffering ? "buffered" : "direct");
    Load(buffering);
    void* buffer = GlobalBuffer();
    for (int32_t answer : {7, -3, INT32_MIN}) {
      Script refuse;
      refuse.InfoAnswer = answer;
      EXPECT_EQ(Acquire(buffer, refuse), answer) << "page announcement answered " << answer;
      // Buffered mode still hands over the blocks already on their way, as
      // they are; never more than the page.
      EXPECT_LE(gScript.Delivered, buffering ? kPageBytes : 0);
    }
    // A negative answer to data ends the acquisition with it.
    Script stop;
    stop.DataAnswer = -77;
    EXPECT_EQ(Acquire(buffer, stop), -77);
    // A positive one ends the page in direct mode, the acquisition in
    // buffered mode.
    Script endPage;
    endPage.DataAnswer = 3;
    EXPECT_EQ(Acquire(buffer, endPage), buffering ? 3 : 0);
    ExpectUsable(buffer);
  }
}

// While an acquisition runs, every other call into the library is refused,
// whether it comes from another thread or from inside the callback.
TEST_F(HostAbuse, CallsWhileAnAcquisitionRuns) {
  for (uint8_t buffering : {0, 1}) {
    SCOPED_TRACE(buffering ? "buffered" : "direct");
    Load(buffering);
    void* buffer = GlobalBuffer();
    std::vector<int32_t> answers;
    auto intrude = [&] {
      uint8_t other = buffering ? 0 : 1;
      int32_t dpi = 0;
      SxValueList* list = nullptr;
      SxDataSource source{};
      answers.push_back(lib_->SetValue(CAP_BUFFERING, TY_UINT8, &other));
      answers.push_back(lib_->GetValue(CAP_XRESOLUTION, TY_INT32, &dpi));
      // The query's result is always 0; refused, it lists nothing.
      EXPECT_EQ(lib_->QueryData(CAP_XRESOLUTION, TY_INT32, &list), 0);
      ASSERT_NE(list, nullptr);
      EXPECT_EQ(list->Count, 0);
      lib_->GlobalUnlock(lib_->GlobalHandle(list->Items));
      lib_->GlobalFree(lib_->GlobalHandle(list->Items));
      lib_->GlobalUnlock(lib_->GlobalHandle(list));
      lib_->GlobalFree(lib_->GlobalHandle(list));
      answers.push_back(lib_->GetDS(SX_DS_FIRST, &source));
      answers.push_back(lib_->SetDriverById(&source, 0));
      answers.push_back(lib_->Acquire(Callback, buffer));
      answers.push_back(lib_->Load(nullptr));
      answers.push_back(lib_->Free());
    };
    Script fromThread;
    fromThread.DuringFirstBlock = [&] { std::thread(intrude).join(); };
    EXPECT_EQ(Acquire(buffer, fromThread), 0);
    EXPECT_EQ(gScript.Delivered, kPageBytes);
    Script fromCallback;
    fromCallback.DuringFirstBlock = intrude;
    EXPECT_EQ(Acquire(buffer, fromCallback), 0);
    EXPECT_EQ(gScript.Delivered, kPageBytes);
    EXPECT_EQ(answers, std::vector<int32_t>(14, SX_ERR_DRIVER));
    ExpectUsable(buffer);
  }
}

}  // namespace
