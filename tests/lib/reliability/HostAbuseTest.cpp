// Hosts that break the rules of the eight functions: calls out of order,
// transfer buffers that are not global blocks or hold a single line, and
// calls from a second thread (or from inside the callback) while an
// acquisition runs. Each gets a result code, never a crash, and the library
// stays usable afterwards. (Odd callback answers are the transfer suites'.)
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/VscanHost.h"

namespace {

using namespace sxtest;

constexpr int32_t kLines = 120;
constexpr int64_t kBytesPerLine = 7632;  // 2544 colour pixels at 300 dpi

// A host that answers each page with its whole buffer; `during` runs inside
// the first data call.
Transfer Script(std::function<void()> during = nullptr, int64_t bufferAnswer = kHostBufferBytes) {
  Transfer t;
  t.BufferAnswer = bufferAnswer;
  t.Answer = [during](size_t index, int32_t) {
    if (index == 1 && during) during();
    return 0;
  };
  return t;
}

int DataCalls(const Transfer& t) { return static_cast<int>(t.Codes.size()) - static_cast<int>(t.Pages.size()); }

class HostAbuse : public ::testing::Test {
 protected:
  HostAbuse() : host_("[Feeder]\nSheets=4\n", ColourPage(kLines)) {}
  void Load(uint8_t buffering = 0) { host_.Load(buffering); }
  int32_t Acquire(void* buffer, Transfer script = Script()) {
    seen_ = std::move(script);
    return host_.Acquire(seen_, buffer);
  }
  // A host buffer that is a locked global block, as the library expects.
  void* GlobalBuffer() { return host_.Buffer.emplace(*host_.Lib, kHostBufferBytes).Data(); }
  // A normal acquisition still delivers one whole page.
  void ExpectUsable(void* buffer) {
    EXPECT_EQ(Acquire(buffer), 0);
    EXPECT_EQ(seen_.WholePages(kLines * kBytesPerLine), 1);
  }

  VscanHost host_;
  Transfer seen_;
};

TEST_F(HostAbuse, CallsOutOfOrder) {
  std::vector<uint8_t> buffer(kHostBufferBytes);
  host_.Lib = std::make_unique<Library>();
  // Nothing is bound before SxLoad, and nothing after SxFree: no raster to
  // deliver. Settings need no driver.
  for (const char* when : {"before SxLoad", "after SxFree"}) {
    SCOPED_TRACE(when);
    EXPECT_EQ(Acquire(buffer.data()), SX_ERR_DRIVER);
    EXPECT_EQ(DataCalls(seen_), 0);
    uint8_t direct = 0;
    EXPECT_EQ(host_.Lib->SetValue(CAP_BUFFERING, TY_UINT8, &direct), 0);
    if (when[0] == 'b') {
      EXPECT_EQ(host_.Lib->Load(nullptr), 0);
      EXPECT_EQ(host_.Lib->Free(), 0);
      EXPECT_EQ(host_.Lib->Free(), 0) << "a second SxFree";
    }
  }
  // A load after SxFree binds the driver again; direct transfers work.
  ASSERT_EQ(host_.Lib->Load(nullptr), 0);
  ExpectUsable(GlobalBuffer());
}

TEST_F(HostAbuse, TransferBuffers) {
  std::vector<uint8_t> plain(kHostBufferBytes);
  for (uint8_t buffering : {0, 1}) {
    SCOPED_TRACE(buffering ? "buffered" : "direct");
    Load(buffering);
    // The library only learns a direct buffer's size from the host's answer,
    // so an ordinary block works wherever it is not moved.
    ExpectUsable(plain.data());
    if (buffering == 0) {
      EXPECT_EQ(Acquire(plain.data(), Script(nullptr, kBytesPerLine)), 0);
      EXPECT_EQ(DataCalls(seen_), kLines);
    }
  }
  // Descreening must enlarge a direct buffer, which only a global block allows.
  host_.Store(ColourPage(kLines, {{"DESCREEN", "dword:00000001"}}));
  Load(0);
  EXPECT_EQ(Acquire(plain.data()), SX_ERR_NO_MEMORY);
  EXPECT_EQ(DataCalls(seen_), 0);
  void* global = GlobalBuffer();
  EXPECT_EQ(Acquire(global), 0);
  EXPECT_EQ(seen_.WholePages(kLines * kBytesPerLine), 1);
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
      answers.push_back(host_.Lib->SetValue(CAP_BUFFERING, TY_UINT8, &other));
      answers.push_back(host_.Lib->GetValue(CAP_XRESOLUTION, TY_INT32, &dpi));
      // The query's result is always 0; refused, it lists nothing.
      EXPECT_EQ(host_.Lib->QueryData(CAP_XRESOLUTION, TY_INT32, &list), 0);
      ASSERT_NE(list, nullptr);
      EXPECT_EQ(list->Count, 0);
      host_.Lib->FreeList(list);
      answers.push_back(host_.Lib->GetDS(SX_DS_FIRST, &source));
      answers.push_back(host_.Lib->SetDriverById(&source, 0));
      answers.push_back(host_.Lib->Acquire(RecordTransfer, buffer));
      answers.push_back(host_.Lib->Load(nullptr));
      answers.push_back(host_.Lib->Free());
    };
    EXPECT_EQ(Acquire(buffer, Script([&] { std::thread(intrude).join(); })), 0);
    EXPECT_EQ(seen_.Delivered(), kLines * kBytesPerLine);
    EXPECT_EQ(Acquire(buffer, Script(intrude)), 0);
    EXPECT_EQ(seen_.Delivered(), kLines * kBytesPerLine);
    EXPECT_EQ(answers, std::vector<int32_t>(14, SX_ERR_DRIVER));
    ExpectUsable(buffer);
  }
}

}  // namespace
