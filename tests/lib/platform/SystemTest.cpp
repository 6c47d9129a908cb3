#include <gtest/gtest.h>

#include <cstring>

#include "platform/Paths.h"
#include "platform/System.h"
#include "support/TestEnv.h"

namespace sx::plat {
namespace {

using sxtest::ScopedEnv;

TEST(System, MulDivRoundsHalvesAwayFromZero) {
  const int32_t cases[][4] = {{96, 8, 72, 11}, {96, 9, 72, 12}, {-5, 1, 2, -3},
                              {5, 1, -2, -3},  {1, 1, 0, -1},   {0x7FFFFFFF, 4, 2, -1}};
  for (const auto& c : cases) EXPECT_EQ(MulDiv(c[0], c[1], c[2]), c[3]) << c[0] << "*" << c[1] << "/" << c[2];
}

TEST(System, EnvironmentStandIns) {
  ScopedEnv junk("SX_AVAILABLE_MEMORY", "lots"), shift("SX_SHIFT_HELD", "yes");
  EXPECT_GT(AvailablePhysicalMemory(), 1u << 20) << "not a number: the real figure";
  EXPECT_FALSE(IsShiftHeld()) << "only 1 means held";
}

TEST(System, GuardedAccessFailsOnUnmappedMemory) {
  const sxtest::FaultingPage page;
  auto* tail = reinterpret_cast<char*>(page.LastBytes(6));
  std::memcpy(tail, "hello", 6);
  char buf[64];
  EXPECT_TRUE(SafeRead(buf, tail, 6));
  EXPECT_FALSE(SafeRead(buf, tail, 7));
  EXPECT_FALSE(SafeRead(buf, page.Bad(), 1));
  EXPECT_TRUE(SafeWrite(tail, "HELLO", 5));
  EXPECT_FALSE(SafeWrite(page.Bad(), "x", 1));
  // A text that ends just before the unmapped page is still read whole.
  EXPECT_EQ(SafeReadText(buf, tail, sizeof buf), 5);
  EXPECT_STREQ(buf, "HELLO");
  tail[5] = 'X';  // no terminator before the end of the mapping
  EXPECT_EQ(SafeReadText(buf, tail, sizeof buf), 6);
  EXPECT_EQ(SafeReadText(buf, page.Bad(), sizeof buf), -1);
  EXPECT_STREQ(buf, "");
}

TEST(Paths, Patterns) {
  const std::tuple<const char*, const char*, bool> patterns[] = {
      {"VSCAN.DLL", "*.dll", true}, {"vscan.dll.bak", "*.dll", false}, {"noext", "*.*", true},
      {"ab.b", "?.?", false}};
  for (const auto& [name, pattern, match] : patterns)
    EXPECT_EQ(MatchesPattern(name, pattern), match) << name << " " << pattern;
}

}  // namespace
}  // namespace sx::plat
