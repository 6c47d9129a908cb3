#include <gtest/gtest.h>

#include <cstring>

#include "platform/Paths.h"
#include "platform/System.h"
#include "support/TestEnv.h"

namespace sx::plat {
namespace {

using sxtest::ScopedEnv;

// The system's MulDiv counts the most negative result as an overflow too.
#ifdef _WIN32
constexpr int32_t kMostNegativeResult = -1;
#else
constexpr int32_t kMostNegativeResult = -0x7FFFFFFF - 1;
#endif

TEST(System, MulDivRoundsHalvesAwayFromZero) {
  const int32_t cases[][4] = {{96, 8, 72, 11}, {96, 9, 72, 12},       {-5, 1, 2, -3}, {5, 1, -2, -3},
                              {1, 1, 0, -1},   {0x7FFFFFFF, 4, 2, -1}, {-0x7FFFFFFF - 1, 1, 1, kMostNegativeResult}};
  for (const auto& c : cases) EXPECT_EQ(MulDiv(c[0], c[1], c[2]), c[3]) << c[0] << "*" << c[1] << "/" << c[2];
}

TEST(System, LanguageAndEnvironmentStandIns) {
#ifndef _WIN32  // Windows has its own language setting
  // {LC_ALL, LC_MESSAGES, LANG, language}
  const std::tuple<const char*, const char*, const char*, uint16_t> languages[] = {
      {{}, {}, "en_US.UTF-8", 0x0409}, {{}, {}, "zh_TW.Big5", 0x0404}, {{}, {}, "zh_CN", 0x0804},
      {{}, {}, "de_AT.UTF-8", 0x0407}, {{}, {}, "zh_HK", 0x0409},      {{}, {}, "dex_DE", 0x0409},
      {{}, {}, {}, 0x0409},            {{}, {}, "fr", 0x040C},         {"ja_JP", "de_DE", "fr_FR", 0x0411},
      {"", "de_DE", "fr_FR", 0x0407}};
  for (const auto& [all, messages, lang, id] : languages) {
    ScopedEnv a("LC_ALL", all), m("LC_MESSAGES", messages), l("LANG", lang);
    EXPECT_EQ(SystemLanguageId(), id) << (lang ? lang : "(none)");
  }
#endif
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

TEST(Paths, RootFoldersAndPatterns) {
#ifndef _WIN32  // Windows has its own folders
  {
    ScopedEnv root("SX_ROOT", "/srv/sx//");
    EXPECT_EQ(SystemDirectory(), "/srv/sx/windows/system32");
    EXPECT_EQ(RegistryStorePath(), "/srv/sx/user.reg");
    ScopedEnv none("SX_ROOT", nullptr), home("HOME", "/home/u"), xdg("XDG_DATA_HOME", "/data");
    EXPECT_EQ(TempDirectory(), "/data/sxscan/temp");
    ScopedEnv relative("XDG_DATA_HOME", "relative");
    EXPECT_EQ(WindowsDirectory(), "/home/u/.local/share/sxscan/windows");
  }
#endif
  const std::tuple<const char*, const char*, bool> patterns[] = {
      {"VSCAN.DLL", "*.dll", true}, {"vscan.dll.bak", "*.dll", false}, {"noext", "*.*", true},
      {"ab.b", "?.?", false}};
  for (const auto& [name, pattern, match] : patterns)
    EXPECT_EQ(MatchesPattern(name, pattern), match) << name << " " << pattern;
}

}  // namespace
}  // namespace sx::plat
