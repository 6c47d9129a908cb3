// Driver status codes to library codes, and the two trace lines per mapping.
#include <gtest/gtest.h>

#include "driver/ErrorCodes.h"
#include "tests/lib/frame/TraceSupport.h"

namespace {

TEST(ErrorCodeMapping, BothRangesMeetInTheSameCodes) {
  const std::pair<uint32_t, int32_t> cases[] = {
      {164, -22},  {2009, -22}, {108, -22}, {2007, -22}, {131, 131},  {2003, 2003}, {130, -6},  {2004, -6},
      {1, -6},     {2005, -8},  {127, -9},  {2013, -12}, {104, -17},  {2010, -20},  {125, -23}, {2018, -23},
      {132, -27},  {2019, -27}, {250, -28}, {2002, -28}, {151, -30},
      // Everything else, including codes that are negative as signed numbers.
      {0, -4},     {2, -4},     {2011, -4}, {2012, -4},  {2015, -4},  {2016, -4},   {2017, -4},
      {131 + 256, -4}, {0x80000000u, -4}, {0x80000083u, -4}, {0xFFFFFFFFu, -4}};
  for (const auto& [status, expected] : cases)
    EXPECT_EQ(sx::ErrorCodeMapping(status), expected) << status;

  sxtest::TraceSetup t(1);
  sx::ErrorCodeMapping(2009);
  sx::ErrorCodeMapping(0x80000000u);
  EXPECT_EQ(t.Log(),
            "In   1: ErrorCodeMapping : 2009 \r\nOut  1: ErrorCodeMapping : -22 \r\n"
            "In   1: ErrorCodeMapping : -2147483648 \r\nOut  1: ErrorCodeMapping : -4 \r\n");
}

}  // namespace
