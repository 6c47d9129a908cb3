// Buffered acquisitions through the exported functions, as a host runs them:
// the read and processing threads fill and process the ring while SxAcquire
// hands the blocks over. Every delivered byte is compared with the test chart
// rendered here, independently of the module under test.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <optional>

#include "support/ChartPage.h"
#include "support/VscanHost.h"

namespace {

using namespace sxtest;
using Codes = std::vector<int32_t>;
using Counts = std::vector<int64_t>;

class BufferedAcquire : public ::testing::Test {
 protected:
  // Stored defaults over those of a 600-line colour flatbed page at trace
  // level 1; `twoNodes` makes the ring two buffers long.
  void Open(const std::map<std::string, std::string>& scanData, const std::string& ini = "",
            bool twoNodes = false) {
    host_.reset();
    memory_.reset();
    host_.emplace(ini);
    host_->Store(ColourPage(600, scanData), "\"DEBUGLEVEL\"=dword:00000001\n\"SAVEPATH\"=str(2):\"" +
                                                host_->Root.Path().string() + "/\"\n");
    if (twoNodes) memory_.emplace("SX_AVAILABLE_MEMORY", "1048576");  // after the root, which clears it
    host_->Load(1);
    seen_ = Transfer{};
  }
  int32_t Acquire() { return host_->Acquire(seen_); }
  // Calls of an entry point (ReadScan: either form) the scanner received
  // during the last acquisition.
  size_t Count(const std::string& name) const { return host_->Calls(name + (name == "ReadScan" ? "" : "(")); }

  std::optional<ScopedEnv> memory_;
  std::optional<VscanHost> host_;
  Transfer seen_;
};

// Blocks carry at most one mebibyte of raw lines (137 colour lines of 7632
// bytes); the page's last block, shortened or full, carries code 1. Line art
// arrives complemented, every byte of it.
TEST_F(BufferedAcquire, PageArrivesInMebibyteBlocks) {
  // {line art (else colour), lines, lines per block, a ring of two buffers}
  const std::tuple<bool, int32_t, Counts, bool> rows[] = {
      {false, 600, {137, 137, 137, 137, 52}, false},
      {false, 548, {137, 137, 137, 137}, true},  // exactly four blocks
      {false, 100, {100}, true},
      {true, 600, {600}, false},  // 316-byte lines
  };
  for (const auto& [lineArt, lines, blocks, twoNodes] : rows) {
    SCOPED_TRACE(lines);
    Open({{"PIXELTYPE", lineArt ? "dword:00000000" : "dword:00000002"},
          {"IMAGELENGTH", "str(2):\"" + std::to_string(lines) + "\""}},
         "", twoNodes);
    ASSERT_EQ(Acquire(), 0);
    const std::vector<uint8_t> chart = ChartPage(lines, 0, lineArt);
    Codes codes{SX_XFER_IMAGE_INFO};
    Counts counts{46};
    for (int64_t block : blocks) {
      codes.push_back(SX_XFER_DATA);
      counts.push_back(block * static_cast<int64_t>(chart.size()) / lines);
    }
    codes.back() = SX_XFER_PAGE_END;
    EXPECT_EQ(seen_.Codes, codes);
    EXPECT_EQ(seen_.Counts, counts);
    EXPECT_TRUE(seen_.Pages.at(0) == chart);
    EXPECT_EQ((std::pair{Count("ReadScan"), Count("StopScan")}), (std::pair{blocks.size(), size_t{1}}));
  }
}

// Two buffers and a slow host: the read thread must wait for each node to be
// freed, never overwriting a block not yet handed over. A second acquisition
// starts again at the ring's first node; each thread traces its start once.
TEST_F(BufferedAcquire, SlowHostOnTwoBuffersTwice) {
  Open({{"IMAGELENGTH", "str(2):\"1200\""}}, "", true);
  seen_.Delay = std::chrono::milliseconds(4);
  for (int run = 0; run < 2; ++run) {
    ASSERT_EQ(Acquire(), 0);
    EXPECT_EQ(seen_.Codes.size(), 10u);  // the page and 8 x 137 + 104 lines
    EXPECT_TRUE(seen_.Pages.at(0) == ChartPage(1200));
  }
  const std::vector<std::string> trace = ReadLines(host_->Root.Path() / "scandiag.txt");
  EXPECT_EQ(std::count(trace.begin(), trace.end(), "In   1: ReadThread : "), 1);
  EXPECT_EQ(std::count(trace.begin(), trace.end(), "In   1: IPThread : "), 1);
}

// Pages up to the page limit. The next acquisition goes on with the next
// sheet: the ring was left free, without a stale end mark.
TEST_F(BufferedAcquire, PagesUpToTheLimit) {
  // {ScanType, XferCount, sheets delivered by the first and the second acquisition (0: flatbed)}
  const std::tuple<const char*, const char*, std::vector<uint32_t>, std::vector<uint32_t>> rows[] = {
      {"dword:00000001", "1", {1}, {2}},       {"dword:00000001", "2", {1, 2}, {3}},
      {"dword:00000001", "-1", {1, 2, 3}, {}}, {"dword:00000002", "1", {0}, {0}},
      // No limit a host means: one whole page, as direct mode gives.
      {"dword:00000001", "0", {1}, {2}},       {"dword:00000001", "-1221288373", {1}, {2}},
  };
  for (const auto& [scanType, xferCount, first, second] : rows) {
    SCOPED_TRACE(std::string(scanType) + " " + xferCount);
    Open({{"SCANTYPE", scanType}, {"XFERCOUNT", "str(2):\"" + std::string(xferCount) + "\""}},
         "[Feeder]\nSheets=3\n", true);
    for (const auto* sheets : {&first, &second}) {
      ASSERT_EQ(Acquire(), sheets->empty() ? SX_ERR_NO_PAPER : 0);
      Codes codes;
      for (size_t p = 0; p < sheets->size(); ++p) codes.insert(codes.end(), {2, 0, 0, 0, 0, 1});
      EXPECT_EQ(seen_.Codes, codes);
      for (size_t p = 0; p < std::min(sheets->size(), seen_.Pages.size()); ++p)
        EXPECT_TRUE(seen_.Pages[p] == ChartPage(600, (*sheets)[p])) << "page " << p;
      EXPECT_EQ(Count("StopScan"), sheets->size());
    }
  }
}

// Failures on the read thread end the acquisition with the mapped code; a
// failed block reaches the host as code -1 without data, and a started
// scanner is stopped.
TEST_F(BufferedAcquire, DriverFailures) {
  // {faults, result, codes the host sees}
  const std::tuple<const char*, int32_t, Codes> rows[] = {
      {"StartScan=2004\n", -6, {}},
      {"FailReadAtLine=300\n", -6, {2, 0, 0, -1}},  // the third block fails
      {"FailReadAtLine=300\nFaultPage=2\n", -6, {2, 0, 0, 0, 0, 1, 2, 0, 0, -1}},
      {"ShortReadAtLine=200\n", -4, {2, 0, -1}},  // a short page is a failure here
  };
  for (const auto& [faults, result, expected] : rows) {
    SCOPED_TRACE(faults);
    Open({{"SCANTYPE", "dword:00000001"}}, std::string("[Feeder]\nSheets=3\n[Faults]\n") + faults, true);
    EXPECT_EQ(Acquire(), result);
    EXPECT_EQ(seen_.Codes, expected);
    EXPECT_TRUE(seen_.Counts.empty() || seen_.Counts.back() == 0);
    EXPECT_EQ(Count("StopScan"), expected.empty() ? 0u : Count("StartScan"));
  }
}

// The host's nonzero answer, to the page or to data, positive or negative, is
// the result and stops the reading; the next acquisition runs normally on
// the freed ring.
TEST_F(BufferedAcquire, HostStops) {
  for (const auto& [stopAt, answer] : {std::pair<size_t, int32_t>{0, -3}, {2, 7}, {9, -2}}) {
    SCOPED_TRACE(stopAt);
    Open({{"IMAGELENGTH", "str(2):\"1200\""}}, "", true);
    seen_.Answer = [stopAt, answer](size_t index, int32_t) { return index == stopAt ? answer : 0; };
    EXPECT_EQ(Acquire(), answer);
    EXPECT_EQ(Count("StopScan"), 1u);
    EXPECT_LE(Count("ReadScan"), stopAt + 2);  // the block in hand and one more

    seen_.Answer = nullptr;
    ASSERT_EQ(Acquire(), 0);
    EXPECT_TRUE(seen_.Pages.at(0) == ChartPage(1200));
  }
}

// Refused before the scanner starts: a host buffer known to be too small for
// a block, and any buffered acquisition once SxFree has stopped the workers.
TEST_F(BufferedAcquire, RequestsThatCannotRun) {
  Open({});
  host_->Buffer.emplace(*host_->Lib, 1'000'000);  // less than 137 lines of 7632 bytes
  EXPECT_EQ(Acquire(), SX_ERR_DRIVER);
  EXPECT_EQ(Count("StartScan"), 0u);

  host_->Buffer.emplace(*host_->Lib, kHostBufferBytes);
  ASSERT_EQ(Acquire(), 0);
  host_->Lib->Free();
  ASSERT_EQ(host_->Lib->Load(nullptr), 0);
  uint8_t on = 1;
  ASSERT_EQ(host_->Lib->SetValue(CAP_BUFFERING, TY_UINT8, &on), 0);
  EXPECT_EQ(Acquire(), SX_ERR_DRIVER);
  EXPECT_TRUE(seen_.Codes.empty());
}

}  // namespace
