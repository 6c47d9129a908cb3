// Persistent values: registry types and sizes, the fall-back file, the language code.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

#include "tests/lib/frame/TraceSupport.h"
#include "platform/System.h"

namespace {

using namespace sxtest;
using namespace sx;

struct Registry : ::testing::Test {
  Registry() { sx::ResetRegistryState(); }
  ~Registry() override { sx::ResetRegistryState(); }
  TempRoot root_;
};

TEST_F(Registry, WritesKeepTheCallersSizeAndReadsZeroFill) {
  const uint32_t level = 0x258;
  EXPECT_EQ(sx::WriteRegValue(kKeyOptions, "DEBUGLEVEL", &level, sx::kKindNumber, 4), 1);
  EXPECT_EQ(sx::WriteRegValue(kKeyOptions, "TargetTest", "Ok", 0x101, 2), 1);  // text kind
  EXPECT_EQ(sx::gTraceLevel.load(), 0x258u) << "every write re-reads the level";
  const std::string stored = root_.ReadRegistry();
#ifdef _WIN32
  // The system's registry keeps a text written through the ANSI calls with a terminator.
  EXPECT_NE(stored.find("\"TargetTest\"=str(2):\"Ok\"\n"), std::string::npos) << stored;
#else
  EXPECT_NE(stored.find("\"TargetTest\"=hex(2):4f,6b\n"), std::string::npos) << stored;
#endif

  uint32_t number[2] = {7, 7};
  EXPECT_EQ(sx::ReadRegValue(kKeyOptions, "MISSING", number, sx::kKindNumber, 4), 2);
  EXPECT_EQ(number[0] + number[1], 7u) << "exactly `size` bytes are cleared";
  EXPECT_EQ(sx::ReadRegValue(kKeyOptions, "TargetTest", number, sx::kKindText, 1), 234);
}

// The store is made to refuse writes by putting a folder in its file's place.
#ifndef _WIN32
TEST_F(Registry, RefusedWritesGoToTheFallbackFileUntilTheStoreRecovers) {
  fs::create_directories(root_.Path() / "user.reg");  // refuses writes
  EXPECT_EQ(sx::WriteRegValue(kKeyOptions, "SOURCENAME", "QM7110 ID#3\0junk", sx::kKindText, 16), 0);
  const uint32_t two = 2;
  EXPECT_EQ(sx::WriteRegValue(kKeyOptions, "DEBUGLEVEL", &two, sx::kKindNumber, 4), 0);
  EXPECT_EQ(std::string(sx::RegistryFallbackPath()), (root_.Path() / "temp/scandiag.ini").string());
  EXPECT_EQ(sx::gTraceLevel.load(), 2u) << "the level comes from the file too";
  // The file's value, cut to the caller's buffer, with the store's status.
  const std::tuple<const char*, uint32_t, const char*> cases[] = {
      {"SOURCENAME", 64, "QM7110 ID#3"}, {"SOURCENAME", 5, "QM71"}, {"MISSING", 64, ""}};
  for (const auto& [name, size, expected] : cases) {
    char buffer[80];
    std::memset(buffer, 'x', sizeof buffer);
    EXPECT_NE(sx::ReadRegValue(kKeyOptions, name, buffer, sx::kKindText, size), 0);
    EXPECT_STREQ(buffer, expected);
    EXPECT_EQ(buffer[size], 'x');
  }

  ScopedEnv lang("LC_ALL", "de_DE.UTF-8");
  EXPECT_EQ(sx::WriteRegValue(kKeyScanData, "LANGUAGE", &two, sx::kKindNumber, 4), 0);
  char buffer[64];
  sx::GetLanguageCode(buffer);
  EXPECT_STREQ(buffer, "0407") << "a language choice only the file knows does not count";

  fs::remove_all(root_.Path() / "user.reg");
  EXPECT_EQ(sx::WriteRegValue(kKeyOptions, "TargetTest", "Ok", sx::kKindText, 2), 1);
  EXPECT_EQ(sx::ReadRegValue(kKeyOptions, "SOURCENAME", buffer, sx::kKindText, 64), 2);
  EXPECT_STREQ(buffer, "") << "the file no longer counts";

  // The fall-back name lives in a 60-byte field: a root too long for it
  // makes the file unusable, never an overrun.
  const fs::path longRoot = root_.Path() / std::string(60, 'r');
  fs::create_directories(longRoot / "user.reg");
  ScopedEnv env("SX_ROOT", longRoot.c_str());
  EXPECT_EQ(sx::WriteRegValue(kKeyOptions, "SOURCENAME", "Name", sx::kKindText, 5), 0);
  sx::ReadRegValue(kKeyOptions, "SOURCENAME", buffer, sx::kKindText, sizeof buffer);
  EXPECT_STREQ(buffer, "");
}
#endif  // _WIN32

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
