// Direct-mode acquisitions against the simulated scanner: the callback
// protocol, block sizes, feeder pages and every failure path, with the exact
// bytes delivered and the driver calls made.
#include <functional>

#include "FakeScanner.h"
#include "acquire/Acquire.h"
#include "acquire/CheckParameter.h"
#include "acquire/ProgressDialog.h"
#include "frame/TraceSupport.h"

namespace acqtest {
namespace {

using sx::gSettings;
using CodeList = std::vector<int32_t>;

constexpr int64_t kLine = 7632;  // a colour line of 2544 pixels
constexpr size_t kGuard = 64;

// The host side: answers each page announcement with its buffer size, keeps
// what it receives and may stop at a chosen call.
struct Host {
  int64_t BufferAnswer = 1'000'000;
  std::function<int32_t(int32_t code)> Answer = [](int32_t) { return 0; };
  CodeList Codes;
  std::vector<int64_t> Counts;
  std::vector<std::vector<uint8_t>> Pages;
  ::SxImageInfo Info{};
  std::vector<uint8_t> Buffer;  // the transfer buffer, with a guard after it
};
Host* gHost = nullptr;

int32_t SX_API Callback(void* data, int64_t* count, int32_t code) {
  Host& h = *gHost;
  h.Codes.push_back(code);
  h.Counts.push_back(*count);
  if (code == SX_XFER_IMAGE_INFO) {
    h.Info = *static_cast<::SxImageInfo*>(data);
    h.Pages.emplace_back();
    *count = h.BufferAnswer;
  } else if (code >= 0) {
    EXPECT_EQ(data, h.Buffer.data());
    h.Pages.back().insert(h.Pages.back().end(), h.Buffer.data(), h.Buffer.data() + *count);
  }
  return h.Answer(code);
}

class DirectTransfer : public ScannerTest {
 protected:
  void SetUp() override {
    ScannerTest::SetUp();
    gSettings.ImageLength = 300;  // 300 lines of 7632 bytes
    host_ = Host{};
    gHost = &host_;
  }

  int32_t Acquire(size_t bufferBytes = 1'000'000) {
    host_.Buffer.assign(bufferBytes + kGuard, 0xCD);
    const int32_t result = ::SxAcquire(Callback, host_.Buffer.data());
    const auto guard = host_.Buffer.begin() + static_cast<ptrdiff_t>(bufferBytes);
    EXPECT_EQ(std::count(guard, host_.Buffer.end(), 0xCD), static_cast<ptrdiff_t>(kGuard))
        << "written beyond the host's buffer";
    return result;
  }

  static std::vector<uint8_t> Pattern(int page, int64_t lines, bool inverted = false) {
    std::vector<uint8_t> bytes(static_cast<size_t>(lines * kLine));
    for (size_t i = 0; i < bytes.size(); ++i) {
      const uint8_t b = PatternByte(page, static_cast<int64_t>(i));
      bytes[i] = inverted ? static_cast<uint8_t>(~b) : b;
    }
    return bytes;
  }

  Host host_;
  sxtest::ScopedEnv noDelay_{"SX_TIME_SCALE", "0"};
};

TEST_F(DirectTransfer, BlocksFollowTheHostsBufferSize) {
  ASSERT_EQ(Acquire(), 0);
  // 1,000,000 bytes hold 131 lines; the last block is cut to what remains.
  EXPECT_EQ(host_.Codes, (CodeList{2, 0, 0, 1}));
  EXPECT_EQ(host_.Counts, (std::vector<int64_t>{46, 131 * kLine, 131 * kLine, 38 * kLine}));
  EXPECT_TRUE(host_.Pages[0] == Pattern(0, 300));
  EXPECT_EQ(Fake().Sequence(),
            "SetScanParameter,TuneScanLength,StartScan,ReadScan,ReadScan,ReadScan,StopScan");
  const ::SxImageInfo& i = host_.Info;
  EXPECT_EQ((std::vector<int>{i.ResolutionX, i.ResolutionY, i.PixelsPerLine, i.LinesPerPage,
                              i.BitsPerPixel, i.BufferSizeHint, i.SamplesPerPixel,
                              i.BitsPerSample[2], i.BitsPerSample[3], i.PixelType}),
            (std::vector<int>{300, 300, 2544, 300, 24, 1048575, 3, 8, 0, 2}));
}

TEST_F(DirectTransfer, HostAnswers) {
  struct Row {
    const char* Name;
    int64_t Answer;
    size_t Buffer;
    int32_t Returned, Result;
    size_t Calls;
  };
  const Row rows[] = {
      {"page of exactly two blocks", 150 * kLine, 150 * kLine, 0, 0, 3},
      {"one line per block", kLine, kLine, 0, 0, 301},
      // The answer is a true 64-bit count: its high half must not be lost.
      {"answer above 4 GiB", (int64_t{1} << 32) + kLine, 300 * kLine, 0, 0, 2},
      // Answers that cannot carry a line end it before the scanner starts.
      {"less than a line", kLine - 1, kLine, 0, -4, 1},
      {"negative", -kLine, kLine, 0, -4, 1},
      {"host stops at the announcement", kLine, kLine, 77, 77, 1},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.Name);
    SetUp();
    host_.BufferAnswer = r.Answer;
    host_.Answer = [&](int32_t code) { return code == 2 ? r.Returned : 0; };
    ASSERT_EQ(Acquire(r.Buffer), r.Result);
    EXPECT_EQ(host_.Codes.size(), r.Calls);
    EXPECT_EQ(host_.Codes.back(), r.Result == 0 ? 1 : 2);
    if (r.Result == 0) {
      EXPECT_TRUE(host_.Pages[0] == Pattern(0, 300));
    } else {
      EXPECT_EQ(Fake().Count("StartScan"), 0);
    }
  }
}

TEST_F(DirectTransfer, FeederPages) {
  struct Row {
    uint8_t ScanType;
    int Sheets;
    int32_t XferCount;
    uint32_t Features;
    int Pages, Sends, Uploads;
  };
  const Row rows[] = {
      {1, 3, -1, 0, 3, 3, 9},
      {1, 3, 2, 0, 2, 3, 9},  // the scanner is set up again whenever paper is left
      {1, 2, -1, SX_FEATURE_KEEP_PARAMS_BETWEEN_PAGES, 2, 1, 6},
      {1, 2, -1, SX_FEATURE_KEEP_TONE_BETWEEN_PAGES, 2, 2, 3},
      {2, 3, -1, 0, 1, 1, 3},  // the flatbed gives one page whatever the feeder holds
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(::testing::Message() << int(r.ScanType) << ", " << r.Sheets << " sheets, limit "
                                      << r.XferCount);
    SetUp();
    gSettings.ScanType = r.ScanType;
    gSettings.XferCount = r.XferCount;
    sx::gAbility.FeatureFlags = r.Features;
    Fake().Sheets = r.Sheets;
    ASSERT_EQ(Acquire(), 0);
    ASSERT_EQ(host_.Pages.size(), static_cast<size_t>(r.Pages));
    for (int p = 0; p < r.Pages; ++p) EXPECT_TRUE(host_.Pages[p] == Pattern(p, 300)) << p;
    EXPECT_EQ(Fake().Count("StopScan"), r.Pages);
    EXPECT_EQ(Fake().Count("GetADFStatus"), r.ScanType == 1 ? 1 + r.Pages : 0);
    EXPECT_EQ(Fake().Count("SetScanParameter"), r.Sends);
    EXPECT_EQ(Fake().GammaUploads, r.Uploads);
    EXPECT_EQ(gSettings.PagesDelivered, r.Pages);
  }
}

TEST_F(DirectTransfer, EarlyPageEnds) {
  struct Row {
    const char* Name;
    std::function<void()> Setup;
    int32_t Result;
    CodeList Codes;
    const char* Calls;  // after SetScanParameter,TuneScanLength
  };
  const Row rows[] = {
      {"short pages: code 5, then the next sheet", [] { Fake().ShortAtLine = 200; }, 0,
       {2, 0, 5, 2, 0, 5}, "StartScan,ReadScan,ReadScan,StopScan,GetADFStatus,SetScanParameter,"
       "StartScan,ReadScan,ReadScan,StopScan,GetADFStatus"},
      {"host ends a page: the next sheet follows",
       [] { gHost->Answer = [](int32_t code) { return code == 0 ? 9 : 0; }; }, 0, {2, 0, 2, 0},
       "StartScan,ReadScan,StopScan,GetADFStatus,SetScanParameter,StartScan,ReadScan,StopScan,"
       "GetADFStatus"},
      {"host stops", [] { gHost->Answer = [](int32_t code) { return code == 0 ? -3 : 0; }; }, -3,
       {2, 0}, "StartScan,ReadScan,StopScan,GetADFStatus,SetScanParameter"},
      {"read fails", [] { Fake().FailAtLine = 150; }, -6, {2, 0},
       "StartScan,ReadScan,ReadScan,GetScannerStatusEx,StopScan,GetADFStatus,SetScanParameter"},
      {"start refused", [] { Fake().StartRefusals = {2004}; }, -6, {2},
       "StartScan,GetScannerStatusEx"},
      {"stop fails", [] { Fake().FailStop = true; }, -6, {2, 0, 0, 1},
       "StartScan,ReadScan,ReadScan,ReadScan,StopScan,GetScannerStatusEx"},
      {"feeder status fails", [] { Fake().AdfRefusals = {0, 2004}; }, -6, {2, 0, 0, 1},
       "StartScan,ReadScan,ReadScan,ReadScan,StopScan,GetADFStatus,GetScannerStatusEx"},
      {"parameters refused between pages", [] { Fake().SetParameterRefusals = {0, 2013}; }, -12,
       {2, 0, 0, 1},
       "StartScan,ReadScan,ReadScan,ReadScan,StopScan,GetADFStatus,SetScanParameter,"
       "GetScannerStatusEx"},
      {"lamp warm at the second start",
       [] { gSettings.Indicators = 1, gSettings.XferCount = 1, Fake().StartRefusals = {164}; }, 0,
       {2, 0, 0, 1},
       "StartScan,GetScannerStatusEx,StartScan,ReadScan,ReadScan,ReadScan,StopScan,GetADFStatus,"
       "SetScanParameter"},
      {"lamp still cold",
       [] { gSettings.Indicators = 1, Fake().StartRefusals = {2009, 2004}; }, -22, {2},
       "StartScan,GetScannerStatusEx,StartScan"},
      {"cold lamp without indicators", [] { Fake().StartRefusals = {164}; }, -22, {2},
       "StartScan,GetScannerStatusEx"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.Name);
    SetUp();
    gSettings.ScanType = 1;
    Fake().Sheets = 2;
    r.Setup();
    EXPECT_EQ(Acquire(), r.Result);
    EXPECT_EQ(host_.Codes, r.Codes);
    EXPECT_EQ(Fake().Sequence(),
              std::string("GetADFStatus,SetScanParameter,TuneScanLength,") + r.Calls);
  }
  SetUp();
  gSettings.ScanType = 1;
  Fake().Sheets = 2;
  Fake().ShortAtLine = 200;
  ASSERT_EQ(Acquire(), 0);
  EXPECT_EQ(host_.Counts[2], 69 * kLine);
  EXPECT_TRUE(host_.Pages[1] == Pattern(1, 200));
}

TEST_F(DirectTransfer, InvertComplementsEveryDeliveredByte) {
  gSettings.Invert = 1;
  ASSERT_EQ(Acquire(), 0);
  EXPECT_TRUE(host_.Pages[0] == Pattern(0, 300, true));
}

// Cancel in the progress dialog: one more callback with the block being read,
// then the driver is cancelled and stopped.
TEST_F(DirectTransfer, CancelFromTheProgressDialog) {
  sx::gTrack.Open = true;
  sx::gTrack.Cancel = true;
  EXPECT_EQ(Acquire(), -5);
  EXPECT_EQ(host_.Codes, (CodeList{2, -5}));
  EXPECT_EQ(host_.Counts[1], 131 * kLine);
  EXPECT_EQ(Fake().Sequence(),
            "SetScanParameter,TuneScanLength,StartScan,ReadScan,DoCancel,StopScan");
}

TEST_F(DirectTransfer, RequestsThatCannotRun) {
  host_.Buffer.assign(16, 0);
  EXPECT_EQ(::SxAcquire(nullptr, host_.Buffer.data()), -4);
  EXPECT_EQ(::SxAcquire(Callback, nullptr), -4);
  EXPECT_TRUE(Fake().Parameters.empty());
  gSettings.Buffering = 1;
  EXPECT_EQ(Acquire(), sx::kBufferedNotAvailable);
  EXPECT_EQ(Fake().Count("StartScan"), 0);
}

TEST_F(DirectTransfer, TraceLines) {
  sxtest::TraceSetup trace(1);
  ASSERT_EQ(Acquire(), 0);
  gSettings.PixelType = 7;
  EXPECT_EQ(Acquire(), sx::kRefusedSettings);  // no "Out" line when the check fails
  std::vector<std::string> own;
  for (const std::string& line : trace.Lines()) {
    if (line.find(": SxAcquire") != std::string::npos ||
        line.find(": SxImageInfo") != std::string::npos) {
      own.push_back(line);
    }
  }
  EXPECT_EQ(own, (std::vector<std::string>{"In   1: SxAcquire : 0 ", "In   1: SxImageInfo : 0 ",
                                           "Out  1: SxImageInfo : 0 ", "Out  1: SxAcquire : 0 ",
                                           "In   1: SxAcquire : 0 "}));
}

}  // namespace
}  // namespace acqtest
