// Persistent values: registry types and sizes, the fall-back file, the language code.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

#include "platform/Registry.h"
#include "platform/System.h"
#include "tests/lib/frame/TraceSupport.h"

namespace {

using namespace sxtest;
using namespace sx;

using Registry = RegistryFixture;

TEST_F(Registry, WritesKeepTheCallersSizeAndReadsZeroFill) {
  const uint32_t level = 0x258;
  EXPECT_EQ(sx::WriteRegValue(kKeyOptions, "DEBUGLEVEL", &level, sx::kKindNumber, 4), 1);
  EXPECT_EQ(sx::WriteRegValue(kKeyOptions, "TargetTest", "Ok", 0x101, 2), 1);  // text kind
  EXPECT_EQ(sx::gTraceLevel.load(), 0x258u) << "every write re-reads the level";
  // A text kind (the system's registry of Windows adds a terminator).
  char text[8] = {};
  uint32_t type = 0, size = sizeof text;
  ASSERT_EQ(sx::plat::RegistryQuery(kKeyOptions, "TargetTest", &type, text, &size), sx::plat::kRegOk);
  EXPECT_TRUE(type == sx::plat::kRegExpandSz && std::string(text) == "Ok");

  uint32_t number[2] = {7, 7};
  EXPECT_EQ(sx::ReadRegValue(kKeyOptions, "MISSING", number, sx::kKindNumber, 4), 2);
  EXPECT_EQ(number[0] + number[1], 7u) << "exactly `size` bytes are cleared";
  EXPECT_EQ(sx::ReadRegValue(kKeyOptions, "TargetTest", number, sx::kKindText, 1), 234);
}

TEST_F(Registry, LanguageCodeMapsTheStoredChoice) {
  ScopedEnv lang("LC_ALL", "de_DE.UTF-8");  // the system default on Linux: 0x0407
  char system[16];
  std::snprintf(system, sizeof system, "%04X", sx::plat::SystemLanguageId());
  const std::pair<const char*, const char*> cases[] = {
      {"", system},         {"00000000", system}, {"00000001", "0409"},    {"00000002", "0404"},
      {"00000003", "0804"}, {"00000411", "0411"}, {"12345678", "12345678"}};
  char out[16];
  for (const auto& [stored, expected] : cases) {
    root_.WriteRegistry(std::string("[Software\\Quillmark\\ScanData]\n\"LANGUAGE\"=dword:") + stored);
    sx::GetLanguageCode(out);
    EXPECT_STREQ(out, expected);
  }
}

}  // namespace
