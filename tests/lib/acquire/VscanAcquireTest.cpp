// Whole acquisitions through the exported functions, as a host runs them, from the virtual
// scanner. Every delivered byte is compared with the test chart rendered independently here
// from the geometry the scan asked for.
#include <gtest/gtest.h>

#include <algorithm>

#include "support/ChartPage.h"
#include "support/VscanHost.h"

namespace {

using namespace sxtest;
using CodeList = std::vector<int32_t>;

// A 600-line colour flatbed page at 300 dpi with neutral tone, over `scanData`, into the
// host's buffer of 1,000,000 bytes.
Transfer Acquire(const std::map<std::string, std::string>& scanData = {}) {
  VscanHost host("", ColourPage(600, scanData));
  host.Load();
  Transfer t;
  t.BufferAnswer = 1'000'000;
  EXPECT_EQ(host.Acquire(t), 0);
  std::vector<std::string> calls = host.EntryPoints();
  calls.erase(std::unique(calls.begin(), calls.end()), calls.end());  // repeated reads and uploads as one
  EXPECT_EQ(calls, (std::vector<std::string>{"SetScanParameter", "TuneScanLength", "SetGammaTable", "StartScan",
                                             "ReadScanEx", "StopScan"}));
  return t;
}

TEST(VscanAcquire, FlatbedColourPage) {
  const Transfer t = Acquire();
  ASSERT_EQ(t.Pages.size(), 1u);
  // 131 lines of 7632 bytes per block of the host's 1,000,000.
  EXPECT_EQ(t.PageCodes(0), (CodeList{0, 0, 0, 0, 1}));
  EXPECT_TRUE(t.Pages[0] == ChartPage(600));
}

TEST(VscanAcquire, BlackAndWhiteLinesArriveInverted) {
  const Transfer t = Acquire({{"PIXELTYPE", "dword:00000000"}});
  const std::vector<uint8_t> expected = ChartPage(600, 0, true);
  ASSERT_EQ(expected.size(), 316u * 600);  // line art in multiples of 32 pixels
  ASSERT_EQ(t.Pages.size(), 1u);
  EXPECT_TRUE(t.Pages[0] == expected);
}

}  // namespace
