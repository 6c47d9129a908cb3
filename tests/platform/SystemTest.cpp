#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "platform/Paths.h"
#include "platform/System.h"
#include "platform/Ui.h"
#include "support/TestEnv.h"

namespace sx::plat {
namespace {

using sxtest::ScopedEnv;
using sxtest::TempRoot;

TEST(System, MulDivRoundsHalvesAwayFromZero) {
  const struct {
    int32_t A, B, C, Expected;
  } cases[] = {
      {96, 8, 72, 11},   {96, 9, 72, 12},      {5, 1, 2, 3},          {-5, 1, 2, -3},
      {5, -1, 2, -3},    {-5, -1, 2, 3},       {5, 1, -2, -3},        {7, 1, 3, 2},
      {1, 1, 0, -1},     {0x7FFFFFFF, 2, 2, 0x7FFFFFFF},              {0x7FFFFFFF, 4, 2, -1},
      {-0x7FFFFFFF - 1, 1, 1, -0x7FFFFFFF - 1}, {300, 50, 100, 150},
  };
  for (const auto& c : cases)
    EXPECT_EQ(MulDiv(c.A, c.B, c.C), c.Expected) << c.A << "*" << c.B << "/" << c.C;
}

TEST(System, LanguageComesFromTheLocaleVariablesInOrder) {
  const struct {
    const char *All, *Messages, *Lang;
    uint16_t Id;
  } cases[] = {
      {nullptr, nullptr, "en_US.UTF-8", 0x0409}, {nullptr, nullptr, "zh_TW.Big5", 0x0404},
      {nullptr, nullptr, "zh_CN", 0x0804},       {nullptr, nullptr, "de_AT.UTF-8", 0x0407},
      {nullptr, nullptr, "fr", 0x040C},          {nullptr, nullptr, "ja_JP.eucJP", 0x0411},
      {nullptr, nullptr, "zh_HK", 0x0409},       {nullptr, nullptr, "dex_DE", 0x0409},
      {nullptr, nullptr, "C", 0x0409},           {nullptr, nullptr, nullptr, 0x0409},
      {"ja_JP", "de_DE", "fr_FR", 0x0411},       {"", "de_DE", "fr_FR", 0x0407},
      {nullptr, nullptr, "zh_tw", 0x0404},
  };
  for (const auto& c : cases) {
    ScopedEnv all("LC_ALL", c.All), messages("LC_MESSAGES", c.Messages), lang("LANG", c.Lang);
    EXPECT_EQ(SystemLanguageId(), c.Id) << (c.Lang ? c.Lang : "(none)");
  }
}

TEST(System, EnvironmentStandIns) {
  {
    ScopedEnv mem("SX_AVAILABLE_MEMORY", "123456789");
    EXPECT_EQ(AvailablePhysicalMemory(), 123456789u);
  }
  {
    ScopedEnv mem("SX_AVAILABLE_MEMORY", "lots");  // not a number: the real figure
    EXPECT_GT(AvailablePhysicalMemory(), 1u << 20);
  }
  {
    ScopedEnv shift("SX_SHIFT_HELD", "1");
    EXPECT_TRUE(IsShiftHeld());
  }
  ScopedEnv shift("SX_SHIFT_HELD", "yes");
  EXPECT_FALSE(IsShiftHeld());
}

TEST(System, GuardedAccessFailsOnUnmappedMemory) {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  auto* map = static_cast<char*>(
      mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(map, MAP_FAILED);
  ASSERT_EQ(munmap(map + page, page), 0);  // the second page is gone
  char* tail = map + page - 6;
  std::memcpy(tail, "hello", 6);

  char buf[64];
  EXPECT_TRUE(SafeRead(buf, tail, 6));
  EXPECT_FALSE(SafeRead(buf, tail, 7));
  EXPECT_FALSE(SafeRead(buf, map + page, 1));
  EXPECT_TRUE(SafeWrite(tail, "HELLO", 5));
  EXPECT_FALSE(SafeWrite(map + page, "x", 1));
  // A text that ends just before the unmapped page is still read whole.
  EXPECT_EQ(SafeReadText(buf, tail, sizeof buf), 5);
  EXPECT_STREQ(buf, "HELLO");
  EXPECT_EQ(SafeReadText(buf, tail, 3), 2);
  EXPECT_STREQ(buf, "HE");
  tail[5] = 'X';  // no terminator before the end of the mapping
  EXPECT_EQ(SafeReadText(buf, tail, sizeof buf), 6);
  EXPECT_EQ(SafeReadText(buf, map + page, sizeof buf), -1);
  EXPECT_STREQ(buf, "");
  munmap(map, page);
}

TEST(Paths, RootAndItsFolders) {
  {
    ScopedEnv root("SX_ROOT", "/srv/sx//");
    EXPECT_EQ(RootDirectory(), "/srv/sx");
    EXPECT_EQ(SystemDirectory(), "/srv/sx/windows/system32");
    EXPECT_EQ(RegistryStorePath(), "/srv/sx/user.reg");
  }
  ScopedEnv root("SX_ROOT", nullptr), home("HOME", "/home/u");
  {
    ScopedEnv xdg("XDG_DATA_HOME", "/data");
    EXPECT_EQ(TempDirectory(), "/data/sxscan/temp");
  }
  ScopedEnv xdg("XDG_DATA_HOME", "relative");
  EXPECT_EQ(WindowsDirectory(), "/home/u/.local/share/sxscan/windows");
  EXPECT_TRUE(IsDirectory(LibraryDirectory()));
}

TEST(Paths, PatternsAndFolderListing) {
  const struct {
    const char *Name, *Pattern;
    bool Match;
  } cases[] = {
      {"vscan.dll", "*.dll", true},  {"VSCAN.DLL", "*.dll", true}, {"vscan.dll.bak", "*.dll", false},
      {"noext", "*.*", true},        {".", "*.*", true},           {"a.b", "?.?", true},
      {"ab.b", "?.?", false},        {"twdsm.dll", "tw*", true},   {"x", "", false},
  };
  for (const auto& c : cases) EXPECT_EQ(MatchesPattern(c.Name, c.Pattern), c.Match) << c.Name << " " << c.Pattern;

  TempRoot root;
  const auto dir = root.Path() / "list";
  for (const char* n : {"a.dll", "B.DLL", "c.txt"}) sxtest::WriteFile(dir / n, "");
  auto dlls = FindFiles(dir.string(), "*.dll");
  std::sort(dlls.begin(), dlls.end());
  EXPECT_EQ(dlls, (std::vector<std::string>{"B.DLL", "a.dll"}));
  EXPECT_EQ(FindFiles(dir.string(), "*.*").size(), 5u);  // with "." and ".."
  EXPECT_TRUE(FindFiles((dir / "missing").string(), "*.*").empty());

  const std::string log = (dir / "log.txt").string();
  EXPECT_TRUE(AppendToFile(log, "ab", 2));
  EXPECT_TRUE(AppendToFile(log, "cd", 2));
  EXPECT_EQ(sxtest::ReadFile(log), "abcd");
  EXPECT_FALSE(AppendToFile((dir / "missing" / "log.txt").string(), "x", 1));
  EXPECT_TRUE(MakeDirectory((dir / "sub").string()));
  EXPECT_TRUE(MakeDirectory((dir / "sub").string()));
  EXPECT_FALSE(MakeDirectory(log));
}

TEST(Ui, FontsAreLiveRecords) {
  FontSpec description;
  description.Height = -MulDiv(LogPixelsY(nullptr), 8, 72);
  std::memset(description.FaceName, 'A', sizeof description.FaceName);  // unterminated
  FontHandle f = CreateFont(description);
  FontSpec out;
  ASSERT_TRUE(DescribeFont(f, out));
  EXPECT_EQ(out.Height, -11);
  EXPECT_EQ(std::strlen(out.FaceName), sizeof out.FaceName - 1);
  DeleteFont(f);
  EXPECT_FALSE(DescribeFont(f, out));
  DeleteFont(f);  // twice: refused, not a double free
  EXPECT_FALSE(DescribeFont(nullptr, out));
}

}  // namespace
}  // namespace sx::plat
