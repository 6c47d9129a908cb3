// Whole acquisitions through the exported functions, as a host runs them, from the virtual
// scanner. Every delivered byte is compared with the test chart rendered independently here
// from the geometry the scan asked for.
#include <gtest/gtest.h>

#include <map>
#include <optional>

#include "support/ChartPage.h"
#include "support/TestEnv.h"

namespace {

using namespace sxtest;
using Names = std::vector<std::string>;
using CodeList = std::vector<int32_t>;

constexpr int64_t kHostBuffer = 1'000'000;

struct Page {
  std::vector<uint8_t> Bytes;
  CodeList Codes;
};
std::vector<Page>* gPages = nullptr;

int32_t SX_API Callback(void* data, int64_t* count, int32_t code) {
  if (code == SX_XFER_IMAGE_INFO) {
    gPages->emplace_back();
    *count = kHostBuffer;
    return 0;
  }
  gPages->back().Codes.push_back(code);
  const auto* bytes = static_cast<const uint8_t*>(data);
  gPages->back().Bytes.insert(gPages->back().Bytes.end(), bytes, bytes + *count);
  return 0;
}

// One installed virtual scanner with a call log, the library loaded on it.
class VscanAcquire : public ::testing::Test {
 protected:
  // `scanData`: stored defaults as name=registry data, over those of a 600-line colour flatbed
  // scan at 300 dpi with neutral tone. Runs one acquisition.
  void Acquire(std::map<std::string, std::string> scanData) {
    TempRoot root;
    log_ = root.Twain() / "Corvane" / "QM7110" / "calls.log";
    root.InstallVscan("Corvane/QM7110", kQm7110Ini + ("[Log]\nFile=" + log_.string() + "\n"));
    scanData.insert({{"PIXELTYPE", "dword:00000002"}, {"SCANTYPE", "dword:00000002"},
                     {"IMAGELENGTH", "str(2):\"600\""}, {"GAMMA", "str(2):\"1.0\""}});
    std::string values;
    for (const auto& [value, data] : scanData) values += "\"" + value + "\"=" + data + "\n";
    root.WriteRegistry(Qm7110Registry(values));
    Library lib;
    ASSERT_EQ(lib.Load(nullptr), 0);
    std::optional<HostBuffer> buffer(std::in_place, lib, kHostBuffer);
    const size_t loggedAtOpen = ReadLines(log_).size();
    pages_.clear();
    gPages = &pages_;
    EXPECT_EQ(lib.Acquire(Callback, buffer->Data()), 0);
    const std::vector<std::string> lines = ReadLines(log_);  // the calls of the acquisition
    calls_.clear();
    for (size_t i = loggedAtOpen; i < lines.size(); ++i) calls_.push_back(lines[i].substr(0, lines[i].find('(')));
    buffer.reset();
    lib.Free();
  }
  long Count(const std::string& name) const { return std::count(calls_.begin(), calls_.end(), name); }

  fs::path log_;
  std::vector<Page> pages_;
  Names calls_;
};

TEST_F(VscanAcquire, FlatbedColourPage) {
  Acquire({});
  ASSERT_EQ(pages_.size(), 1u);
  // 131 lines of 7632 bytes per block of the host's 1,000,000.
  EXPECT_EQ(pages_[0].Codes, (CodeList{0, 0, 0, 0, 1}));
  EXPECT_TRUE(pages_[0].Bytes == ChartPage(600));
  calls_.erase(std::unique(calls_.begin(), calls_.end()), calls_.end());  // repeated reads and uploads as one
  EXPECT_EQ(calls_, (Names{"SetScanParameter", "TuneScanLength", "SetGammaTable", "StartScan", "ReadScanEx",
                           "StopScan"}));
}

TEST_F(VscanAcquire, BlackAndWhiteLinesArriveInverted) {
  Acquire({{"PIXELTYPE", "dword:00000000"}});
  const std::vector<uint8_t> expected = ChartPage(600, 0, true);
  ASSERT_EQ(expected.size(), 316u * 600);  // line art in multiples of 32 pixels
  ASSERT_EQ(pages_.size(), 1u);
  EXPECT_TRUE(pages_[0].Bytes == expected);
}

}  // namespace
