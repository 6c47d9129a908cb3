// Whole acquisitions with Indicators set, through the exported functions, as
// a host that shows the library's progress dialog sees them: every dialog
// notification in order, on the thread the dialog belongs to, and Cancel
// pressed at chosen moments in both transfer modes.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "support/ChartPage.h"
#include "support/VscanHost.h"
#include "support/UiRecorder.h"

namespace {

using namespace sxtest;
using Lines = std::vector<std::string>;
using Codes = std::vector<int32_t>;

constexpr int64_t kDirectBuffer = 1'000'000;  // 131 colour lines of 7632 bytes
constexpr int32_t kBars[3] = {1303, 1304, 1305};

// What the progress dialog shows, built from the dialog's prescribed
// behaviour: bars cleared and "0" at each page, then per block three bars
// filled to the lines read so far and the truncated percentage.
struct Expected {
  int32_t BarWidth = 0;  // the dialog font's: the first fill (a whole bar) tells
  Lines Events;
  std::string Percent = "0";
  std::string Caption;

  void Text(const std::string& percent) {
    if (percent != Percent) Events.push_back("text 1306 " + percent);
    Percent = percent;
  }
  void Fill(int bar, int32_t filled, const char* color) {
    char line[64];
    std::snprintf(line, sizeof line, "fill %d %d/%d %s", kBars[bar], filled, BarWidth, color);
    Events.push_back(line);
  }
  // A freshly loaded library paints the new window with the counts it holds:
  // none, so the bars are cleared over their full width at "100".
  void Open(const std::string& title) {
    Caption = "Page1    " + title;
    Events = {"open TRACK_1024_768 Track Dialog Box", "caption " + Caption, "text 2 Abbrechen"};
    for (int bar = 0; bar < 3; ++bar) Fill(bar, BarWidth, "f0f0f0"), Text("100");
    Events.insert(Events.end(), {"text 1302 Modus:", "text 1301 Gepuffert"});
  }
  void Page(int page, int32_t lines, const std::vector<int32_t>& blocks, const std::string& title) {
    for (int bar = 0; bar < 3; ++bar) Fill(bar, BarWidth, "f0f0f0"), Text("100");
    Text("0");
    const std::string caption = "Page" + std::to_string(page) + "    " + title;
    if (caption != Caption) Events.push_back("caption " + caption);
    Caption = caption;
    int32_t done = 0;
    static const char* const kRgb[3] = {"0000ff", "00ff00", "ff0000"};
    for (int32_t block : blocks) {
      done += block;
      for (int bar = 0; bar < 3; ++bar) {
        Fill(bar, (done * BarWidth + lines / 2) / lines, kRgb[bar]);
        Text(std::to_string(static_cast<int>(static_cast<double>(done) / lines * 100.0)));
      }
    }
  }
};

class DialogAcquire : public ::testing::Test {
 protected:
  // Colour pages of 600 lines, from the flatbed or from that many sheets in the feeder.
  void Open(bool direct, int sheets, const std::string& indicators = "dword:00000001",
            const std::string& faults = "") {
    TearDown();
    const bool feeder = sheets > 0;
    host_.emplace((feeder ? "[Feeder]\nSheets=" + std::to_string(sheets) + "\n" : "") + faults);
    const fs::path texts = host_->Root.Path() / "texts.ini";
    WriteFile(texts, "[0409]\nTRACKBARTITLE=Lesen\nCancel=Abbrechen\nTRANSFERMODETEXT=Modus:\n"
                     "TRANSFERMODE1=Gepuffert\n");
    host_->Store(ColourPage(600, {{"LANGUAGE", "dword:00000001"}, {"TRANSFERMODE", "dword:00000001"},
                                  {"INDICATORS", indicators},
                                  {"SCANTYPE", feeder ? "dword:00000001" : "dword:00000002"}}),
                 "\"LOCALIZE\"=str(2):\"" + texts.string() + "\"\n");
    host_->Load(direct ? 0 : 1);
    const Library& lib = *host_->Lib;
    ui_.emplace(reinterpret_cast<UiRecorder::SetObserverFn>(lib.Symbol("SxSysUiSetObserver")),
                reinterpret_cast<UiRecorder::PressFn>(lib.Symbol("SxSysUiPress")),
                reinterpret_cast<UiRecorder::EscapeFn>(lib.Symbol("SxSysUiEscape")));
    seen_ = Transfer{.BufferAnswer = direct ? kDirectBuffer : 0};
  }
  void TearDown() override {
    ui_.reset();
    host_.reset();
  }
  int32_t Acquire() {
    ui_->Clear();
    return host_->Acquire(seen_);
  }
  // Presses Cancel at the n-th notification (from 1) that starts with `prefix`.
  void CancelAt(const std::string& prefix, int n) {
    auto seen = std::make_shared<int>(0);
    ui_->OnEvent = [this, prefix, n, seen](const std::string& line, SxDialog dialog) {
      if (line.rfind(prefix, 0) == 0 && ++*seen == n) {
        EXPECT_EQ(ui_->Press(dialog, 2), 1);
      }
    };
  }

  std::optional<VscanHost> host_;
  std::optional<UiRecorder> ui_;
  Transfer seen_;
};

// Two feeder pages in each mode: the whole dialog, in order, on the thread
// that reads the raster (the host's in direct mode, one library thread in
// buffered mode); each page's bars reach 100 %.
TEST_F(DialogAcquire, FeederPagesShowTheirProgress) {
  for (const bool direct : {true, false}) {
    SCOPED_TRACE(direct ? "direct" : "buffered");
    Open(direct, 2);
    ASSERT_EQ(Acquire(), 0);
    const std::vector<int32_t> blocks =
        direct ? std::vector<int32_t>{131, 131, 131, 131, 76} : std::vector<int32_t>{137, 137, 137, 137, 52};
    Expected expected;
    const Lines fills = ui_->Only({"fill 1303 "});
    ASSERT_FALSE(fills.empty());
    ASSERT_EQ(std::sscanf(fills[0].c_str(), "fill 1303 %*d/%d", &expected.BarWidth), 1);
    expected.Open("Lesen");
    expected.Page(1, 600, blocks, "Lesen");
    expected.Page(2, 600, blocks, "Lesen");
    expected.Events.push_back("close");
    EXPECT_EQ(ui_->Lines(), expected.Events);
    const std::set<std::thread::id> threads = ui_->Threads();
    ASSERT_EQ(threads.size(), 1u);
    EXPECT_EQ(*threads.begin() == std::this_thread::get_id(), direct);
    ASSERT_EQ(seen_.Pages.size(), 2u);
    EXPECT_TRUE(seen_.Pages[1] == ChartPage(600, 2));
  }
}

// Cancel at the first block, in mid-page and between the feeder's pages, in
// both modes: -5, the pages completed before it kept whole, the dialog closed,
// and the library ready for the next acquisition.
TEST_F(DialogAcquire, CancelEndsWithMinusFiveKeepingCompletedPages) {
  // {name, the press comes at the n-th notification with this prefix, n, pages read whole before it}
  const std::tuple<const char*, const char*, int, size_t> rows[] = {
      {"first block", "fill 1303 ", 2, 0},  // the first fill only clears the bars
      {"mid-page", "fill 1303 ", 4, 0},
      {"between pages", "caption Page2", 1, 1},
  };
  for (const bool direct : {true, false}) {
    for (const auto& [name, prefix, n, wholePages] : rows) {
      SCOPED_TRACE(std::string(direct ? "direct, " : "buffered, ") + name);
      Open(direct, 3);
      CancelAt(prefix, n);
      EXPECT_EQ(Acquire(), SX_ERR_CANCELLED);
      EXPECT_EQ(ui_->Only({"open", "close"}), (Lines{"open TRACK_1024_768 Track Dialog Box", "close"}));
      // Every page the host saw end is whole in direct mode: those are the
      // pages read before the press. In buffered mode the ring may still hold
      // the end of a page read before the press; after a Cancel the consumer
      // hands such blocks over unprocessed, empty, with their status, so a
      // page may end short, but what arrived is the page's own raster.
      size_t whole = 0;
      for (size_t p = 0; p < seen_.Pages.size(); ++p) {
        const Codes codes = seen_.PageCodes(p);
        if (codes.empty() || codes.back() != SX_XFER_PAGE_END) continue;
        const std::vector<uint8_t> chart = ChartPage(600, static_cast<uint32_t>(p + 1));
        const std::vector<uint8_t>& got = seen_.Pages[p];
        whole += got.size() == chart.size();
        ASSERT_LE(got.size(), chart.size());
        EXPECT_TRUE(std::equal(got.begin(), got.end(), chart.begin())) << "page " << p + 1;
      }
      if (direct) {
        EXPECT_EQ(whole, wholePages);
        ASSERT_EQ(seen_.Pages.size(), wholePages + 1);
        EXPECT_EQ(seen_.Codes.back(), SX_XFER_CANCELLED);
      } else {
        EXPECT_LE(whole, wholePages);
      }
      ui_->OnEvent = nullptr;
      EXPECT_EQ(Acquire(), 0) << "the next acquisition takes the sheets left";
      EXPECT_EQ(seen_.Pages.size(), 3u - (wholePages + 1));
    }
  }
}

// A cold lamp refusing the first page's start: the warm-up wait runs over
// the open progress dialog, on the same thread, then the pages go on.
TEST_F(DialogAcquire, WarmUpWaitAtPageStart) {
  ScopedEnv fast("SX_TIME_SCALE", "0.001");
  for (const bool direct : {true, false}) {
    SCOPED_TRACE(direct ? "direct" : "buffered");
    Open(direct, 2, "dword:00000001", "[Faults]\nStartScan=164\nStartScanTimes=1\n");
    ASSERT_EQ(Acquire(), 0);
    Lines expected = {"open TRACK_1024_768 Track Dialog Box", "caption Page1    Lesen",
                      "open WAITDIALOG Scanner warm up...", "show 2 0", "cursor wait"};
    for (int n = 29; n >= 1; --n) expected.push_back("text 1003 " + std::to_string(n));
    expected.insert(expected.end(), {"cursor arrow", "close", "caption Page2    Lesen", "close"});
    EXPECT_EQ(ui_->Only({"open", "caption", "show", "cursor", "text 1003", "close"}), expected);
    EXPECT_EQ(ui_->Threads().size(), 1u);
    ASSERT_EQ(seen_.Pages.size(), 2u);
    EXPECT_TRUE(seen_.Pages[1] == ChartPage(600, 2));
  }
}

// The screen chooses the template; a dense small screen is refused with a
// message box and the scan goes on without a dialog, as it does where the
// chosen template does not exist; Indicators 0 shows nothing at all.
TEST_F(DialogAcquire, ScreenAndIndicatorsDecideWhatIsShown) {
  // {width, dots per inch, Indicators, notifications other than fills and texts}
  const std::tuple<int32_t, int32_t, const char*, Lines> rows[] = {
      {800, 96, "dword:00000001", {"open TRACK_800_600 Track Dialog Box", "caption Page1    Lesen", "close"}},
      {800, 144, "dword:00000001", {"box Error: Please change the screen setting to 800*600!"}},
      {800, 110, "dword:00000001", {}},  // large system font: a template no resource has
      {1920, 96, "dword:00000000", {}},
  };
  for (const auto& [width, dpi, indicators, shown] : rows) {
    SCOPED_TRACE(std::to_string(width) + " " + std::to_string(dpi) + " " + indicators);
    Open(true, 0, indicators);
    reinterpret_cast<decltype(&::SxSysUiSetScreen)>(host_->Lib->Symbol("SxSysUiSetScreen"))(width, 0, dpi);
    EXPECT_EQ(Acquire(), 0);
    EXPECT_EQ(ui_->Only({"open", "caption", "close", "box", "cursor"}), shown);
    EXPECT_EQ(shown.empty() ? ui_->Lines() : Lines{}, Lines{}) << "nothing at all";
  }
}

}  // namespace
