// Whole acquisitions through the exported functions, as a host runs them, from the virtual
// scanner. Every delivered byte is compared with the test chart rendered independently here
// from the geometry the scan asked for.
#include <gtest/gtest.h>

#include "support/ChartPage.h"
#include "support/VscanHost.h"

namespace {

using namespace sxtest;

// Direct mode complements line art on its own path (buffered mode's is the buffered suite's).
TEST(VscanAcquire, BlackAndWhiteLinesArriveInverted) {
  VscanHost host("", ColourPage(600, {{"PIXELTYPE", "dword:00000000"}}));
  host.Load();
  Transfer t{.BufferAnswer = 1'000'000};
  EXPECT_EQ(host.Acquire(t), 0);
  const std::vector<uint8_t> expected = ChartPage(600, 0, true);
  ASSERT_EQ(expected.size(), 316u * 600);  // line art in multiples of 32 pixels
  ASSERT_EQ(t.Pages.size(), 1u);
  EXPECT_EQ(t.PageCodes(0), (std::vector<int32_t>{1}));  // the whole page in one block of the host's 1,000,000
  EXPECT_TRUE(t.Pages[0] == expected);
}

}  // namespace
