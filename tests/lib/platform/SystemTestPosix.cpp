// What the library does in place of Windows' own services: MulDiv, the
// language setting, the system's folders.
#include <gtest/gtest.h>

#include "platform/Paths.h"
#include "platform/System.h"
#include "support/TestEnv.h"

namespace sx::plat {
namespace {

using sxtest::ScopedEnv;

// The most negative result is a result (the system's MulDiv counts it as an
// overflow).
TEST(System, MulDivGivesTheMostNegativeResult) { EXPECT_EQ(MulDiv(-0x7FFFFFFF - 1, 1, 1), -0x7FFFFFFF - 1); }

TEST(System, LanguageFromTheLocaleVariables) {
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
}

TEST(Paths, RootFolders) {
  ScopedEnv root("SX_ROOT", "/srv/sx//");
  EXPECT_EQ(SystemDirectory(), "/srv/sx/windows/system32");
  EXPECT_EQ(RegistryStorePath(), "/srv/sx/user.reg");
  ScopedEnv none("SX_ROOT", nullptr), home("HOME", "/home/u"), xdg("XDG_DATA_HOME", "/data");
  EXPECT_EQ(TempDirectory(), "/data/sxscan/temp");
  ScopedEnv relative("XDG_DATA_HOME", "relative");
  EXPECT_EQ(WindowsDirectory(), "/home/u/.local/share/sxscan/windows");
}

}  // namespace
}  // namespace sx::plat
