// The fault matrix: every fault the virtual scanner can inject, in both
// transfer modes, from the flatbed and from the feeder. For each the result
// the host sees, the pages it received whole before the fault, that a started
// scanner was stopped again, and that the next acquisition on the same loaded
// library runs normally (every fault fires once only).
#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <string>

#include "support/VscanHost.h"

namespace {

using namespace sxtest;

constexpr int32_t kLines = 300;          // lines per page: a few blocks in either mode
constexpr size_t kPageBytes = kLines * 7632;  // 2544 colour pixels at 300 dpi
constexpr int64_t kDirectAnswer = 400'000;  // 52 lines per direct block

enum Combo { kDirectFlatbed, kDirectFeeder, kBufferedFlatbed, kBufferedFeeder, kCombos };
const char* const kComboNames[kCombos] = {"direct flatbed", "direct feeder", "buffered flatbed",
                                          "buffered feeder"};
bool IsFeeder(int c) { return c == kDirectFeeder || c == kBufferedFeeder; }

// The result and the range of whole pages (a range where the read thread's
// timing against the host's decides).
struct Outcome {
  int32_t Result;
  int MinPages, MaxPages;
};
Outcome Is(int32_t result, int pages) { return {result, pages, pages}; }

struct Row {
  const char* Name;
  std::string Ini;  // vscan.ini sections with the fault
  std::array<Outcome, kCombos> Expected;
  bool FeederOnly = false;  // the fault would hit the flatbed's next run instead
};

// The same outcome in all four combinations.
std::array<Outcome, kCombos> All(int32_t result, int pages = 0) {
  return {Is(result, pages), Is(result, pages), Is(result, pages), Is(result, pages)};
}
// Flatbed and feeder differ; both modes alike.
std::array<Outcome, kCombos> BySource(Outcome flatbed, Outcome feeder) {
  return {flatbed, feeder, flatbed, feeder};
}

// Feeder runs ask for two pages of six sheets, so a faulted run and the run
// after it both find paper.
class FaultMatrix : public ::testing::Test {
 protected:
  void Open(const std::string& faultIni, int combo) {
    host_.emplace("[Feeder]\nSheets=6\n" + faultIni,
                  ColourPage(kLines, {{"SCANTYPE", IsFeeder(combo) ? "dword:00000001" : "dword:00000002"},
                                      {"XFERCOUNT", "str(2):\"2\""}}));
    host_->Load(combo >= kBufferedFlatbed ? 1 : 0);
  }
  void TearDown() override { host_.reset(); }

  int32_t Acquire() { return host_->Acquire(seen_); }
  int WholePages() const { return seen_.WholePages(kPageBytes); }
  // Every page the scanner started in the last acquisition was stopped again.
  void ExpectScannerStopped() const { EXPECT_EQ(host_->Calls("StopScan()"), host_->Calls("StartScan() -> 1")); }

  void Run(const std::vector<Row>& rows) {
    for (const Row& row : rows) {
      for (int c = 0; c < kCombos; ++c) {
        if (row.FeederOnly && !IsFeeder(c)) continue;
        SCOPED_TRACE(std::string(row.Name) + ", " + kComboNames[c]);
        Open(row.Ini, c);
        ASSERT_FALSE(HasFatalFailure());
        const Outcome& want = row.Expected[c];
        EXPECT_EQ(Acquire(), want.Result);
        EXPECT_GE(WholePages(), want.MinPages);
        EXPECT_LE(WholePages(), want.MaxPages);
        ExpectScannerStopped();
        EXPECT_EQ(Acquire(), 0) << "the acquisition after the fault";
        EXPECT_EQ(WholePages(), IsFeeder(c) ? 2 : 1) << "the acquisition after the fault";
        ExpectScannerStopped();
      }
    }
  }

  std::optional<VscanHost> host_;
  Transfer seen_{.BufferAnswer = kDirectAnswer};
};

// Refusals, once, of each entry point an acquisition calls before and after
// the raster, with the statuses they give. The read thread does not examine
// its own StopScan.
TEST_F(FaultMatrix, RefusedEntryPoints) {
  Run({
      {"parameters refused", "[Faults]\nSetScanParameter=2013\nSetScanParameterTimes=1\n", All(-12)},
      {"start refused", "[Faults]\nStartScan=2004\nStartScanTimes=1\n", All(-6)},
      // The results of the length tuning and of the tone-table upload are not examined.
      {"length tuning refused", "[Faults]\nTuneScanLength=2013\nTuneScanLengthTimes=1\n",
       BySource(Is(0, 1), Is(0, 2))},
      {"tone tables refused", "[Faults]\nSetGammaTable=2013\nSetGammaTableTimes=1\n",
       BySource(Is(0, 1), Is(0, 2))},
      // The page was read whole before the stop failed.
      {"stop refused", "[Faults]\nStopScan=2008\nStopScanTimes=1\n",
       {Is(-27, 1), Is(-27, 1), Is(0, 1), Is(0, 2)}},
      {"lamp cold", "[Page]\nWarmUpRefusals=1\n", All(-22)},
      // Driver statuses reach the host mapped: a mapped code, one passed
      // through unchanged and one outside the table (the table itself is the
      // driver suite's).
      {"status 2005", "[Faults]\nStartScan=2005\nStartScanTimes=1\n", All(-8)},
      {"status 131", "[Faults]\nStartScan=131\nStartScanTimes=1\n", All(131)},
      {"status 0x80000000", "[Faults]\nStartScan=2147483648\nStartScanTimes=1\n", All(-4)},
  });
}

// Read failures and short pages, on the first page or on the second.
TEST_F(FaultMatrix, ReadFaults) {
  Run({
      {"read fails on page 1", "[Faults]\nFailReadAtLine=120\nFaultPage=1\n", All(-6)},
      {"first read fails", "[Faults]\nFailReadAtLine=1\nFaultPage=1\nReadStatus=2018\n", All(-23)},
      // Page 1 may still be on its way when the read thread fails on page 2.
      {"read fails on page 2", "[Faults]\nFailReadAtLine=120\nFaultPage=2\n",
       {Is(0, 1), Is(-6, 1), Is(0, 1), {-6, 0, 1}}, true},
      // A short page ends the page in direct mode and the run goes on; the
      // buffered pipeline treats it as a failure.
      {"short page 1", "[Faults]\nShortReadAtLine=100\nFaultPage=1\n",
       {Is(0, 0), Is(0, 1), Is(-4, 0), Is(-4, 0)}},
  });
}

// Faults between two feeder pages. In direct mode the first page is always
// kept. The read thread meets them while the first page's last blocks may
// still be on their way, and an error stops the processing of what is left,
// so there the first page arrives whole or not at all.
TEST_F(FaultMatrix, JamsBetweenFeederPages) {
  Run({
      // The read thread does not examine the feeder status: no paper, no page 2.
      {"feeder status fails", "[Faults]\nGetADFStatus=2008\nGetADFStatusAfter=1\nGetADFStatusTimes=1\n",
       {Is(0, 1), Is(-27, 1), Is(0, 1), Is(0, 1)}},
      {"parameters refused for page 2",
       "[Faults]\nSetScanParameter=2013\nSetScanParameterAfter=1\nSetScanParameterTimes=1\n",
       {Is(0, 1), Is(-12, 1), Is(0, 1), {-12, 0, 1}}, true},
      {"stop after page 2 refused", "[Faults]\nStopScan=2008\nStopScanAfter=1\nStopScanTimes=1\n",
       {Is(0, 1), Is(-27, 2), Is(0, 1), Is(0, 2)}, true},
      {"start of page 2 refused", "[Faults]\nStartScan=2007\nStartScanAfter=1\nStartScanTimes=1\n",
       {Is(0, 1), Is(-22, 1), Is(0, 1), {-22, 0, 1}}, true},
  });
}

// A feeder that reports paper with a flag other than 1: only 1 means paper,
// so both modes end after the first sheet instead of waiting for a second
// page that never starts.
TEST_F(FaultMatrix, FeederPaperFlagOtherThanOneEndsTheRun) {
  for (int combo : {kDirectFeeder, kBufferedFeeder}) {
    SCOPED_TRACE(kComboNames[combo]);
    Open("PaperFlag=2\n", combo);  // continues the [Feeder] section
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ(Acquire(), 0);
    EXPECT_EQ(WholePages(), 1);
    ExpectScannerStopped();
  }
}

}  // namespace
