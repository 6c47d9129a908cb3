// Direct-mode acquisitions against the simulated scanner: the callback protocol, block sizes,
// feeder pages and early page ends, with the exact bytes delivered and the driver calls made
// (refusals at the start and the stop of a page are the fault matrix's, in both modes); and a
// line-art page from the virtual scanner.
#include <functional>

#include "FakeScanner.h"
#include "acquire/Acquire.h"
#include "acquire/ProgressDialog.h"
#include "support/ChartPage.h"
#include "support/UiRecorder.h"
#include "support/VscanHost.h"

namespace acqtest {
namespace {

using sx::gSettings;
using CodeList = std::vector<int32_t>;

constexpr int64_t kLine = 7632;  // a colour line of 2544 pixels
constexpr size_t kGuard = 64;

// The pattern the fake serves for `lines` lines of a page.
std::vector<uint8_t> Pattern(int page, int64_t lines) {
  std::vector<uint8_t> bytes(static_cast<size_t>(lines * kLine));
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = PatternByte(page, static_cast<int64_t>(i));
  return bytes;
}

class DirectTransfer : public ScannerTest {
 protected:
  void SetUp() override {
    ScannerTest::SetUp();
    gSettings.ImageLength = 300;  // 300 lines of 7632 bytes
    host_ = sxtest::Transfer{.BufferAnswer = 1'000'000};
  }
  // Into a buffer with a guard after it.
  int32_t Acquire(size_t bufferBytes = 1'000'000) {
    buffer_.assign(bufferBytes + kGuard, 0xCD);
    host_.Buffer = buffer_.data();
    sxtest::RecordInto(host_);
    const int32_t result = ::SxAcquire(sxtest::RecordTransfer, buffer_.data());
    EXPECT_EQ(std::count(buffer_.end() - kGuard, buffer_.end(), 0xCD), static_cast<ptrdiff_t>(kGuard))
        << "written beyond the host's buffer";
    return result;
  }
  // The host's answer `answer` to every call with `code`.
  void Answer(int32_t code, int32_t answer) {
    host_.Answer = [code, answer](size_t, int32_t c) { return c == code ? answer : 0; };
  }
  sxtest::Transfer host_;
  std::vector<uint8_t> buffer_;
  sxtest::ScopedEnv noDelay_{"SX_TIME_SCALE", "0"};
};

TEST_F(DirectTransfer, BlocksFollowTheHostsBufferSize) {
  ASSERT_EQ(Acquire(), 0);
  // 1,000,000 bytes hold 131 lines; the last block is cut to what remains.
  EXPECT_EQ(host_.Codes, (CodeList{2, 0, 0, 1}));
  EXPECT_EQ(host_.Counts, (std::vector<int64_t>{46, 131 * kLine, 131 * kLine, 38 * kLine}));
  EXPECT_TRUE(host_.Pages[0] == Pattern(0, 300));
  EXPECT_EQ(Fake().Sequence(), "SetScanParameter,TuneScanLength,StartScan,ReadScan,ReadScan,ReadScan,StopScan");
  const ::SxImageInfo& i = host_.Info;
  const std::vector<int> info = {i.ResolutionX,    i.ResolutionY,     i.PixelsPerLine,    i.LinesPerPage,
                                 i.BitsPerPixel,   i.BufferSizeHint,  i.SamplesPerPixel,  i.BitsPerSample[2],
                                 i.BitsPerSample[3], i.PixelType};
  EXPECT_EQ(info, (std::vector<int>{300, 300, 2544, 300, 24, 1048575, 3, 8, 0, 2}));
}

TEST_F(DirectTransfer, HostAnswers) {
  // {what the host answers to the announcement, its buffer, returns there, result, callbacks}
  const std::tuple<const char*, int64_t, size_t, int32_t, int32_t, size_t> rows[] = {
      {"page of exactly two blocks", 150 * kLine, 150 * kLine, 0, 0, 3},
      // The answer is a true 64-bit count: its high half must not be lost.
      {"answer above 4 GiB", (int64_t{1} << 32) + kLine, 300 * kLine, 0, 0, 2},
      // Answers that cannot carry a line end it before the scanner starts.
      {"less than a line", kLine - 1, kLine, 0, -4, 1},
      {"negative", -kLine, kLine, 0, -4, 1},
      {"host stops at the announcement", kLine, kLine, 77, 77, 1},
  };
  for (const auto& [name, answer, buffer, returned, result, calls] : rows) {
    SCOPED_TRACE(name);
    SetUp();
    host_.BufferAnswer = answer;
    Answer(SX_XFER_IMAGE_INFO, returned);
    ASSERT_EQ(Acquire(buffer), result);
    EXPECT_EQ(host_.Codes.size(), calls);
    EXPECT_EQ(host_.Codes.back(), result == 0 ? 1 : 2);
    EXPECT_EQ(Fake().Count("StartScan"), result == 0 ? 1 : 0);
    EXPECT_TRUE(result != 0 || host_.Pages[0] == Pattern(0, 300));
  }
}

TEST_F(DirectTransfer, FeederPages) {
  // {ScanType, sheets, XferCount, features, pages, parameter sends, tone uploads}
  const std::tuple<uint8_t, int, int32_t, uint32_t, int, int, int> rows[] = {
      {1, 3, -1, 0, 3, 3, 9},
      {1, 3, 2, 0, 2, 3, 9},  // the scanner is set up again whenever paper is left
      {1, 2, -1, SX_FEATURE_KEEP_PARAMS_BETWEEN_PAGES, 2, 1, 6},
      {1, 2, -1, SX_FEATURE_KEEP_TONE_BETWEEN_PAGES, 2, 2, 3},
      {2, 3, -1, 0, 1, 1, 3},  // the flatbed gives one page whatever the feeder holds
  };
  for (const auto& [scanType, sheets, xferCount, features, pages, sends, uploads] : rows) {
    SCOPED_TRACE(::testing::Message() << int(scanType) << ", " << sheets << " sheets, limit " << xferCount);
    SetUp();
    gSettings.ScanType = scanType, gSettings.XferCount = xferCount;
    sx::gAbility.FeatureFlags = features;
    Fake().Sheets = sheets;
    ASSERT_EQ(Acquire(), 0);
    ASSERT_EQ(host_.Pages.size(), static_cast<size_t>(pages));
    for (int p = 0; p < pages; ++p) EXPECT_TRUE(host_.Pages[p] == Pattern(p, 300)) << p;
    EXPECT_EQ(Fake().Count("StopScan"), pages);
    EXPECT_EQ(Fake().Count("GetADFStatus"), scanType == 1 ? 1 + pages : 0);
    EXPECT_EQ(Fake().Count("SetScanParameter"), sends);
    EXPECT_EQ(Fake().GammaUploads, uploads);
    EXPECT_EQ(gSettings.PagesDelivered, pages);
  }
}

TEST_F(DirectTransfer, EarlyPageEnds) {
  const auto hostAnswers = [this](int32_t answer) { return [this, answer] { Answer(SX_XFER_DATA, answer); }; };
  // {name, set-up, result, codes, driver calls after SetScanParameter,TuneScanLength}
  const std::tuple<const char*, std::function<void()>, int32_t, CodeList, const char*> rows[] = {
      {"short pages: code 5, then the next sheet", [] { Fake().ShortAtLine = 200; }, 0, {2, 0, 5, 2, 0, 5},
       "StartScan,ReadScan,ReadScan,StopScan,GetADFStatus,SetScanParameter,StartScan,ReadScan,ReadScan,StopScan,"
       "GetADFStatus"},
      {"host ends a page: the next sheet follows", hostAnswers(9), 0, {2, 0, 2, 0},
       "StartScan,ReadScan,StopScan,GetADFStatus,SetScanParameter,StartScan,ReadScan,StopScan,GetADFStatus"},
      {"host stops", hostAnswers(-3), -3, {2, 0}, "StartScan,ReadScan,StopScan,GetADFStatus,SetScanParameter"},
      {"read fails", [] { Fake().FailAtLine = 150; }, -6, {2, 0},
       "StartScan,ReadScan,ReadScan,GetScannerStatusEx,StopScan,GetADFStatus,SetScanParameter"},
      {"feeder status fails", [] { Fake().AdfRefusals = {0, 2004}; }, -6, {2, 0, 0, 1},
       "StartScan,ReadScan,ReadScan,ReadScan,StopScan,GetADFStatus,GetScannerStatusEx"},
      {"parameters refused between pages", [] { Fake().SetParameterRefusals = {0, 2013}; }, -12, {2, 0, 0, 1},
       "StartScan,ReadScan,ReadScan,ReadScan,StopScan,GetADFStatus,SetScanParameter,GetScannerStatusEx"},
  };
  for (const auto& [name, setup, result, codes, calls] : rows) {
    SCOPED_TRACE(name);
    SetUp();
    gSettings.ScanType = 1;
    Fake().Sheets = 2;
    setup();
    EXPECT_EQ(Acquire(), result);
    EXPECT_EQ(host_.Codes, codes);
    EXPECT_EQ(Fake().Sequence(), std::string("GetADFStatus,SetScanParameter,TuneScanLength,") + calls);
    if (codes.size() == 6) {  // the short pages: each cut where the scanner stopped
      EXPECT_EQ(host_.Counts[2], 69 * kLine);
      EXPECT_TRUE(host_.Pages[1] == Pattern(1, 200));
    }
  }
}

// Cancel pressed in the progress dialog at its first bar fill: one more callback with the block
// read, then cancel and stop; the pressed dialog is closed.
TEST_F(DirectTransfer, CancelFromTheProgressDialogAndRequestsThatCannotRun) {
  sxtest::UiRecorder ui(::SxSysUiSetObserver, ::SxSysUiPress, ::SxSysUiEscape);
  ui.OnEvent = [&](const std::string& line, SxDialog dialog) {
    if (line.rfind("fill", 0) == 0 && line.find("f0f0f0") == std::string::npos) ui.Press(dialog, 2);
  };
  gSettings.Indicators = 1;
  EXPECT_EQ(Acquire(), -5);
  EXPECT_EQ(ui.Only({"open", "close", "cursor"}),
            (std::vector<std::string>{"open TRACK_1024_768 Track Dialog Box", "cursor wait", "close"}));
  EXPECT_EQ(host_.Codes, (CodeList{2, -5}));
  EXPECT_EQ(host_.Counts[1], 131 * kLine);
  EXPECT_EQ(Fake().Sequence(), "SetScanParameter,TuneScanLength,StartScan,ReadScan,DoCancel,StopScan");
  EXPECT_EQ(::SxAcquire(nullptr, buffer_.data()) + ::SxAcquire(sxtest::RecordTransfer, nullptr), -8) << "each -4";
  EXPECT_EQ(Fake().Parameters.size(), 1u) << "neither reached the driver";
}

// Direct mode complements line art on its own path (buffered mode's is the
// buffered suite's): a whole page from the virtual scanner.
TEST(VscanAcquire, BlackAndWhiteLinesArriveInverted) {
  sxtest::VscanHost host("", sxtest::ColourPage(600, {{"PIXELTYPE", "dword:00000000"}}));
  host.Load();
  sxtest::Transfer t{.BufferAnswer = 1'000'000};
  EXPECT_EQ(host.Acquire(t), 0);
  const std::vector<uint8_t> expected = sxtest::ChartPage(600, 0, true);
  ASSERT_EQ(expected.size(), 316u * 600);  // line art in multiples of 32 pixels
  ASSERT_EQ(t.Pages.size(), 1u);
  EXPECT_EQ(t.PageCodes(0), (CodeList{1}));  // the whole page in one block of the host's 1,000,000
  EXPECT_TRUE(t.Pages[0] == expected);
}

}  // namespace
}  // namespace acqtest
