// Whole acquisitions through the exported functions, as a host runs them,
// from the virtual scanner. Every delivered byte is compared with the test
// chart rendered independently here from the geometry the scan asked for.
#include <gtest/gtest.h>

#include <array>
#include <map>

#include "imaging/ToneTable.h"
#include "modules/vscan/TestChart.h"
#include "support/TestEnv.h"

// The chart generator is compiled into this test so that the expected raster
// does not come from the module under test.
#include "modules/vscan/TestChart.cpp"

namespace {

using namespace sxtest;

constexpr int64_t kHostBuffer = 1'000'000;

struct Page {
  std::vector<uint8_t> Bytes;
  std::vector<int32_t> Codes;
};

struct Host {
  std::vector<Page> Pages;
};
Host* gHost = nullptr;

int32_t SX_API Callback(void* data, int64_t* count, int32_t code) {
  Host& h = *gHost;
  if (code == SX_XFER_IMAGE_INFO) {
    h.Pages.emplace_back();
    *count = kHostBuffer;
    return 0;
  }
  Page& page = h.Pages.back();
  page.Codes.push_back(code);
  const auto* bytes = static_cast<const uint8_t*>(data);
  page.Bytes.insert(page.Bytes.end(), bytes, bytes + *count);
  return 0;
}

// One installed virtual scanner with a call log, the library loaded on it.
class VscanAcquire : public ::testing::Test {
 protected:
  // `scanData`: stored defaults as name=registry data, over those of a 600-line
  // colour flatbed scan at 300 dpi with neutral tone.
  void Open(std::map<std::string, std::string> scanData, const std::string& iniExtra = "") {
    log_ = root_.Twain() / "Corvane" / "QM7110" / "calls.log";
    root_.InstallVscan("Corvane/QM7110",
                       "[Scanner]\nModel=QM7110V\nFirmware=1.00\nPort=USB\n" + iniExtra +
                           "[Log]\nFile=" + log_.string() + "\n");
    const std::string model = "QM7110V";
    const std::string name = "USB - " + model + std::string(20 - model.size(), ' ') + "1.00";
    scanData.insert({{"PIXELTYPE", "dword:00000002"},
                     {"SCANTYPE", "dword:00000002"},
                     {"IMAGELENGTH", "str(2):\"600\""},
                     {"GAMMA", "str(2):\"1.0\""}});
    std::string reg = "[Software\\Quillmark]\n\"SOURCENAME\"=str(2):\"" + name +
                      "\"\n[Software\\Quillmark\\ScanData]\n";
    for (const auto& [value, data] : scanData) reg += "\"" + value + "\"=" + data + "\n";
    root_.WriteRegistry(reg);
    lib_ = std::make_unique<Library>();
    ASSERT_EQ(lib_->Load(nullptr), 0);
    handle_ = lib_->GlobalAlloc(SX_GHND, kHostBuffer);
    buffer_ = lib_->GlobalLock(handle_);
    // The module keeps its log open: calls of the acquisition follow these.
    loggedAtOpen_ = ReadLines(log_).size();
  }
  void TearDown() override {
    if (!lib_) return;
    lib_->GlobalUnlock(handle_);
    lib_->GlobalFree(handle_);
    lib_->Free();
    lib_.reset();
    gHost = nullptr;
  }

  int32_t Acquire() {
    gHost = &host_;
    return lib_->Acquire(Callback, buffer_);
  }

  // Entry points the scanner received since Open, in order, with the reads
  // and tone uploads folded into one name each.
  std::vector<std::string> Calls() const {
    std::vector<std::string> names;
    const std::vector<std::string> lines = ReadLines(log_);
    for (size_t i = loggedAtOpen_; i < lines.size(); ++i) {
      const std::string& line = lines[i];
      const size_t paren = line.find('(');
      if (line.empty() || line[0] == '#' || paren == std::string::npos) continue;
      std::string name = line.substr(0, paren);
      if (name == "ReadScanEx") name = "ReadScan";
      const bool repeated = !names.empty() && names.back() == name;
      if (repeated && (name == "ReadScan" || name == "SetGammaTable")) continue;
      names.push_back(name);
    }
    return names;
  }

  // The chart as the scanner renders `lines` lines of sheet `sheet`.
  static std::vector<uint8_t> Chart(sx::vscan::ChartGeometry g, int32_t lines) {
    std::vector<uint8_t> bytes(static_cast<size_t>(sx::vscan::ChartBytesPerLine(g)) * lines);
    for (int32_t y = 0; y < lines; ++y) {
      sx::vscan::RenderChartLine(g, y, bytes.data() + y * sx::vscan::ChartBytesPerLine(g));
    }
    return bytes;
  }
  static sx::vscan::ChartGeometry Colour300(uint32_t sheet = 0) {
    sx::vscan::ChartGeometry g;
    g.XRes = g.YRes = 300;
    g.PixelNum = 2544;
    g.LineNum = 600;
    g.ScanMode = sx::vscan::kModeColor;
    g.ColorFilter = 2;
    g.Page = sheet;
    return g;
  }

  TempRoot root_;
  fs::path log_;
  size_t loggedAtOpen_ = 0;
  std::unique_ptr<Library> lib_;
  SxHandle handle_ = nullptr;
  void* buffer_ = nullptr;
  Host host_;
};

using Names = std::vector<std::string>;
using CodeList = std::vector<int32_t>;

TEST_F(VscanAcquire, FlatbedColourPage) {
  Open({});
  ASSERT_EQ(Acquire(), 0);
  ASSERT_EQ(host_.Pages.size(), 1u);
  // 131 lines of 7632 bytes per block of the host's 1,000,000.
  EXPECT_EQ(host_.Pages[0].Codes, (CodeList{0, 0, 0, 0, 1}));
  EXPECT_TRUE(host_.Pages[0].Bytes == Chart(Colour300(), 600));
  EXPECT_EQ(Calls(), (Names{"SetScanParameter", "TuneScanLength", "SetGammaTable", "StartScan",
                            "ReadScan", "StopScan"}));
}

// The default master gamma of 2.2 reaches the image through the tables the
// scanner applies.
TEST_F(VscanAcquire, ToneTablesShapeTheDeliveredImage) {
  Open({{"GAMMA", "str(2):\"2.2\""}, {"BRIGHTNESS_R", "str(2):\"200\""}});
  ASSERT_EQ(Acquire(), 0);
  std::array<uint8_t, 256> master{}, red{}, identity{};
  sx::BuildToneTable(master.data(), 0, 0, 255, 0, 220);
  sx::BuildToneTable(red.data(), 200, 0, 255, 0, 100);
  sx::BuildToneTable(identity.data(), 0, 0, 255, 0, 100);
  std::array<uint8_t, 256> masterRed{}, masterOnly{};
  for (int i = 0; i < 256; ++i) {
    masterRed[i] = master[red[i]];
    masterOnly[i] = master[identity[i]];
  }
  sx::vscan::ChartGeometry g = Colour300();
  g.Tone[0] = masterRed.data();
  g.Tone[1] = masterOnly.data();
  g.Tone[2] = masterOnly.data();
  ASSERT_EQ(host_.Pages.size(), 1u);
  EXPECT_TRUE(host_.Pages[0].Bytes == Chart(g, 600));
}

TEST_F(VscanAcquire, FeederPagesUpToTheLimit) {
  struct Row {
    const char* XferCount;
    size_t Pages;
  };
  for (const Row& r : {Row{"-1", 3}, Row{"2", 2}}) {
    SCOPED_TRACE(r.XferCount);
    TearDown();
    host_ = Host{};
    Open({{"SCANTYPE", "dword:00000001"},
          {"XFERCOUNT", "str(2):\"" + std::string(r.XferCount) + "\""}},
         "[Feeder]\nSheets=3\n");
    ASSERT_EQ(Acquire(), 0);
    ASSERT_EQ(host_.Pages.size(), r.Pages);
    for (size_t p = 0; p < r.Pages; ++p) {
      EXPECT_EQ(host_.Pages[p].Codes.back(), 1);
      EXPECT_TRUE(host_.Pages[p].Bytes == Chart(Colour300(static_cast<uint32_t>(p + 1)), 600))
          << "sheet " << p + 1;
    }
    const Names calls = Calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "StartScan"), static_cast<long>(r.Pages));
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "StopScan"), static_cast<long>(r.Pages));
  }
}

TEST_F(VscanAcquire, ShortPagesEndEachSheetEarly) {
  Open({{"SCANTYPE", "dword:00000001"}}, "[Feeder]\nSheets=2\n[Faults]\nShortReadAtLine=200\n");
  ASSERT_EQ(Acquire(), 0);
  ASSERT_EQ(host_.Pages.size(), 2u);
  for (uint32_t p = 0; p < 2; ++p) {
    EXPECT_EQ(host_.Pages[p].Codes, (CodeList{0, 5}));
    EXPECT_TRUE(host_.Pages[p].Bytes == Chart(Colour300(p + 1), 200));
  }
}

TEST_F(VscanAcquire, BlackAndWhiteLinesArriveInverted) {
  Open({{"PIXELTYPE", "dword:00000000"}});
  ASSERT_EQ(Acquire(), 0);
  sx::vscan::ChartGeometry g = Colour300();
  g.ScanMode = sx::vscan::kModeLineArt;
  g.PixelNum = 2528;  // the scanner's line-art multiple is 32
  std::vector<uint8_t> expected = Chart(g, 600);
  ASSERT_EQ(expected.size(), 316u * 600);
  for (uint8_t& b : expected) b = static_cast<uint8_t>(~b);
  ASSERT_EQ(host_.Pages.size(), 1u);
  EXPECT_TRUE(host_.Pages[0].Bytes == expected);
}

}  // namespace
