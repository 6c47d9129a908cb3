// Hosts that break the rules of the eight functions: calls out of order,
// transfer buffers that are not global blocks or hold a single line, and
// calls from a second thread (or from inside the callback) while an
// acquisition runs. Each gets a result code, never a crash, and the library
// stays usable afterwards. (Odd callback answers are the transfer suites'.)
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
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
  std::function<void()> DuringFirstBlock;        // runs inside the first data call
  int64_t Delivered = 0;
  int Pages = 0;
  int DataCalls = 0;
} gScript;

int32_t SX_API Callback(void*, int64_t* count, int32_t code) {
  Script& s = gScript;
  if (code == SX_XFER_IMAGE_INFO) {
    *count = s.BufferAnswer;
    return 0;
  }
  if (code < 0) return 0;
  if (s.DataCalls++ == 0 && s.DuringFirstBlock) s.DuringFirstBlock();
  s.Delivered += *count;
  if (code == SX_XFER_PAGE_END) ++s.Pages;
  return 0;
}

class HostAbuse : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.InstallVscan("Corvane/QM7110", std::string(kQm7110Ini) + "[Feeder]\nSheets=4\n");
    Registry("");
  }
  void Registry(const std::string& extra) {
    root_.WriteRegistry(Qm7110Registry("\"PIXELTYPE\"=dword:00000002\n\"SCANTYPE\"=dword:00000002\n"
                                       "\"IMAGELENGTH\"=str(2):\"" + std::to_string(kLines) +
                                       "\"\n\"GAMMA\"=str(2):\"1.0\"\n" + extra));
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
    buffer_.reset();
    lib_->Free();
    lib_.reset();
  }
  int32_t Acquire(void* buffer, Script script = {}) {
    gScript = std::move(script);
    return lib_->WatchedAcquire(Callback, buffer, kHungSeconds);
  }
  // A host buffer that is a locked global block, as the library expects.
  void* GlobalBuffer() { return buffer_.emplace(*lib_, kHostBuffer).Data(); }
  void TearDown() override { Unload(); }
  // A normal acquisition still delivers one whole page.
  void ExpectUsable(void* buffer) {
    EXPECT_EQ(Acquire(buffer), 0);
    EXPECT_EQ(gScript.Pages, 1);
    EXPECT_EQ(gScript.Delivered, kPageBytes);
  }

  TempRoot root_;
  std::unique_ptr<Library> lib_;
  std::optional<HostBuffer> buffer_;
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
      lib_->FreeList(list);
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
