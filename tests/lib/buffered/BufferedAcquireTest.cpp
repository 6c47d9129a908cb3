// Buffered acquisitions through the exported functions, as a host runs them:
// the read and processing threads fill and process the ring while SxAcquire
// hands the blocks over. Every delivered byte is compared with the test chart
// rendered here, independently of the module under test.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <optional>
#include <thread>

#include "support/ChartPage.h"
#include "support/TestEnv.h"

namespace {

using namespace sxtest;
using Codes = std::vector<int32_t>;
using Counts = std::vector<int64_t>;

constexpr size_t kHostBuffer = 1 << 20;  // what a host provides in buffered mode
constexpr unsigned kHungSeconds = 60;    // an acquisition that hangs ends the run

// The host: keeps what it receives; may be slow, and may answer `StopAnswer`
// at call `StopAt` (0 is the first call).
struct Host {
  Codes CallCodes;
  Counts CallCounts;
  std::vector<std::vector<uint8_t>> Pages;
  std::chrono::milliseconds Delay{0};
  size_t StopAt = SIZE_MAX;
  int32_t StopAnswer = 0;
} gHost;

int32_t SX_API Callback(void* data, int64_t* count, int32_t code) {
  Host& h = gHost;
  const size_t index = h.CallCodes.size();
  h.CallCodes.push_back(code);
  h.CallCounts.push_back(*count);
  if (code == SX_XFER_IMAGE_INFO) {
    h.Pages.emplace_back();
  } else if (!h.Pages.empty()) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    h.Pages.back().insert(h.Pages.back().end(), bytes, bytes + *count);
    std::this_thread::sleep_for(h.Delay);
  }
  return index == h.StopAt ? h.StopAnswer : 0;
}

class BufferedAcquire : public ::testing::Test {
 protected:
  // Stored defaults over those of a 600-line colour flatbed page at trace
  // level 1; `twoNodes` makes the ring two buffers long.
  void Open(std::map<std::string, std::string> scanData, const std::string& ini = "",
            bool twoNodes = false) {
    Close();
    gHost = Host{};
    root_.emplace();
    memory_.reset();
    if (twoNodes) memory_.emplace("SX_AVAILABLE_MEMORY", "1048576");
    log_ = root_->Twain() / "Corvane" / "QM7110" / "calls.log";
    root_->InstallVscan("Corvane/QM7110", kQm7110Ini + ini + "[Log]\nFile=" + log_.string() + "\n");
    scanData.insert({{"PIXELTYPE", "dword:00000002"},
                     {"SCANTYPE", "dword:00000002"},
                     {"IMAGELENGTH", "str(2):\"600\""},
                     {"GAMMA", "str(2):\"1.0\""}});
    std::string values;
    for (const auto& [value, data] : scanData) values += "\"" + value + "\"=" + data + "\n";
    root_->WriteRegistry(Qm7110Registry(values, "\"DEBUGLEVEL\"=dword:00000001\n\"SAVEPATH\"=str(2):\"" +
                                                    root_->Path().string() + "/\"\n"));
    lib_ = std::make_unique<Library>();
    ASSERT_EQ(lib_->Load(nullptr), 0);
    Buffering();
    AllocateBuffer(kHostBuffer);
  }
  void Buffering() {
    uint8_t on = 1;
    ASSERT_EQ(lib_->SetValue(CAP_BUFFERING, TY_UINT8, &on), 0);
  }
  void AllocateBuffer(size_t bytes) {
    buffer_.emplace(*lib_, bytes);
  }
  void Close() {
    if (!lib_) return;
    buffer_.reset();
    lib_->Free();
    lib_.reset();
  }
  void TearDown() override { Close(); }

  int32_t Acquire() {
    gHost.CallCodes.clear();
    gHost.CallCounts.clear();
    gHost.Pages.clear();
    logged_ = ReadLines(log_).size();
    return lib_->WatchedAcquire(Callback, buffer_->Data(), kHungSeconds);
  }

  // Calls of an entry point the scanner received during the last acquisition.
  size_t Count(const std::string& name) const {
    const std::vector<std::string> lines = ReadLines(log_);
    return std::count_if(lines.begin() + logged_, lines.end(), [&](const std::string& line) {
      const std::string called = line.substr(0, line.find('('));
      return called == name || (name == "ReadScan" && called == "ReadScanEx");
    });
  }

  std::optional<TempRoot> root_;
  std::optional<ScopedEnv> memory_;
  fs::path log_;
  size_t logged_ = 0;
  std::unique_ptr<Library> lib_;
  std::optional<HostBuffer> buffer_;
};

// Blocks carry at most one mebibyte of raw lines (137 colour lines of 7632
// bytes); the page's last block, shortened or full, carries code 1. Line art
// arrives complemented, every byte of it.
TEST_F(BufferedAcquire, PageArrivesInMebibyteBlocks) {
  struct Row {
    bool LineArt;  // else colour
    int32_t Lines;
    Counts Blocks;  // lines per block
    bool TwoNodes;
  };
  const Row rows[] = {
      {false, 600, {137, 137, 137, 137, 52}, false},
      {false, 548, {137, 137, 137, 137}, true},  // exactly four blocks
      {false, 100, {100}, true},
      {true, 600, {600}, false},  // 316-byte lines
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.Lines);
    Open({{"PIXELTYPE", r.LineArt ? "dword:00000000" : "dword:00000002"},
          {"IMAGELENGTH", "str(2):\"" + std::to_string(r.Lines) + "\""}},
         "", r.TwoNodes);
    ASSERT_EQ(Acquire(), 0);
    const std::vector<uint8_t> chart = ChartPage(r.Lines, 0, r.LineArt);
    Codes codes{SX_XFER_IMAGE_INFO};
    Counts counts{46};
    for (int64_t lines : r.Blocks) {
      codes.push_back(SX_XFER_DATA);
      counts.push_back(lines * static_cast<int64_t>(chart.size()) / r.Lines);
    }
    codes.back() = SX_XFER_PAGE_END;
    EXPECT_EQ(gHost.CallCodes, codes);
    EXPECT_EQ(gHost.CallCounts, counts);
    EXPECT_TRUE(gHost.Pages.at(0) == chart);
    EXPECT_EQ(Count("ReadScan"), r.Blocks.size());
    EXPECT_EQ(Count("StopScan"), 1u);
  }
}

// Two buffers and a slow host: the read thread must wait for each node to be
// freed, never overwriting a block not yet handed over. A second acquisition
// starts again at the ring's first node; each thread traces its start once.
TEST_F(BufferedAcquire, SlowHostOnTwoBuffersTwice) {
  Open({{"IMAGELENGTH", "str(2):\"1200\""}}, "", true);
  gHost.Delay = std::chrono::milliseconds(4);
  for (int run = 0; run < 2; ++run) {
    ASSERT_EQ(Acquire(), 0);
    EXPECT_EQ(gHost.CallCodes.size(), 10u);  // the page and 8 x 137 + 104 lines
    EXPECT_TRUE(gHost.Pages.at(0) == ChartPage(1200));
  }
  const std::vector<std::string> trace = ReadLines(root_->Path() / "scandiag.txt");
  EXPECT_EQ(std::count(trace.begin(), trace.end(), "In   1: ReadThread : "), 1);
  EXPECT_EQ(std::count(trace.begin(), trace.end(), "In   1: IPThread : "), 1);
}

// Pages up to the page limit. The next acquisition goes on with the next
// sheet: the ring was left free, without a stale end mark.
TEST_F(BufferedAcquire, PagesUpToTheLimit) {
  struct Row {
    const char* ScanType;
    const char* XferCount;
    std::vector<uint32_t> First, Second;  // sheets delivered (0: flatbed)
  };
  const Row rows[] = {
      {"dword:00000001", "1", {1}, {2}},       {"dword:00000001", "2", {1, 2}, {3}},
      {"dword:00000001", "-1", {1, 2, 3}, {}}, {"dword:00000002", "1", {0}, {0}},
      // No limit a host means: one whole page, as direct mode gives.
      {"dword:00000001", "0", {1}, {2}},       {"dword:00000001", "-1221288373", {1}, {2}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.ScanType) + " " + r.XferCount);
    Open({{"SCANTYPE", r.ScanType}, {"XFERCOUNT", "str(2):\"" + std::string(r.XferCount) + "\""}},
         "[Feeder]\nSheets=3\n", true);
    for (const auto* sheets : {&r.First, &r.Second}) {
      ASSERT_EQ(Acquire(), sheets->empty() ? SX_ERR_NO_PAPER : 0);
      Codes codes;
      for (size_t p = 0; p < sheets->size(); ++p) codes.insert(codes.end(), {2, 0, 0, 0, 0, 1});
      EXPECT_EQ(gHost.CallCodes, codes);
      for (size_t p = 0; p < std::min(sheets->size(), gHost.Pages.size()); ++p) {
        EXPECT_TRUE(gHost.Pages[p] == ChartPage(600, (*sheets)[p])) << "page " << p;
      }
      EXPECT_EQ(Count("StopScan"), sheets->size());
    }
  }
}

// Failures on the read thread end the acquisition with the mapped code; a
// failed block reaches the host as code -1 without data, and a started
// scanner is stopped.
TEST_F(BufferedAcquire, DriverFailures) {
  struct Row {
    const char* Faults;
    int32_t Result;
    Codes Expected;
  };
  const Row rows[] = {
      {"StartScan=2004\n", -6, {}},
      {"FailReadAtLine=300\n", -6, {2, 0, 0, -1}},  // the third block fails
      {"FailReadAtLine=300\nFaultPage=2\n", -6, {2, 0, 0, 0, 0, 1, 2, 0, 0, -1}},
      {"ShortReadAtLine=200\n", -4, {2, 0, -1}},  // a short page is a failure here
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.Faults);
    Open({{"SCANTYPE", "dword:00000001"}}, std::string("[Feeder]\nSheets=3\n[Faults]\n") + r.Faults,
         true);
    EXPECT_EQ(Acquire(), r.Result);
    EXPECT_EQ(gHost.CallCodes, r.Expected);
    EXPECT_TRUE(gHost.CallCounts.empty() || gHost.CallCounts.back() == 0);
    EXPECT_EQ(Count("StopScan"), r.Expected.empty() ? 0u : Count("StartScan"));
  }
}

// The host's nonzero answer, to the page or to data, positive or negative, is
// the result and stops the reading; the next acquisition runs normally on
// the freed ring.
TEST_F(BufferedAcquire, HostStops) {
  for (const auto& [stopAt, answer] : {std::pair<size_t, int32_t>{0, -3}, {2, 7}, {9, -2}}) {
    SCOPED_TRACE(stopAt);
    Open({{"IMAGELENGTH", "str(2):\"1200\""}}, "", true);
    gHost.StopAt = stopAt;
    gHost.StopAnswer = answer;
    EXPECT_EQ(Acquire(), answer);
    EXPECT_EQ(Count("StopScan"), 1u);
    EXPECT_LE(Count("ReadScan"), stopAt + 2);  // the block in hand and one more

    gHost.StopAt = SIZE_MAX;
    ASSERT_EQ(Acquire(), 0);
    EXPECT_TRUE(gHost.Pages.at(0) == ChartPage(1200));
  }
}

// Refused before the scanner starts: a host buffer known to be too small for
// a block, and any buffered acquisition once SxFree has stopped the workers.
TEST_F(BufferedAcquire, RequestsThatCannotRun) {
  Open({});
  AllocateBuffer(1'000'000);  // less than 137 lines of 7632 bytes
  EXPECT_EQ(Acquire(), SX_ERR_DRIVER);
  EXPECT_EQ(Count("StartScan"), 0u);

  AllocateBuffer(kHostBuffer);
  ASSERT_EQ(Acquire(), 0);
  lib_->Free();
  ASSERT_EQ(lib_->Load(nullptr), 0);
  Buffering();
  EXPECT_EQ(Acquire(), SX_ERR_DRIVER);
  EXPECT_TRUE(gHost.CallCodes.empty());
}

}  // namespace
