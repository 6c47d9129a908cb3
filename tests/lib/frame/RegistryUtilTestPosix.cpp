// The registry store on disk: the caller's exact bytes, and the fall-back
// file while the store refuses writes.
#include <gtest/gtest.h>

#include <cstring>

#include "platform/System.h"
#include "tests/lib/frame/TraceSupport.h"

namespace {

using namespace sxtest;
using namespace sx;

using RegistryStoreFile = RegistryFixture;

TEST_F(RegistryStoreFile, TextsKeepTheCallersSize) {
  EXPECT_EQ(sx::WriteRegValue(kKeyOptions, "TargetTest", "Ok", 0x101, 2), 1);
  EXPECT_NE(root_.ReadRegistry().find("\"TargetTest\"=hex(2):4f,6b\n"), std::string::npos) << root_.ReadRegistry();
}

// The store is made to refuse writes by putting a folder in its file's place.
TEST_F(RegistryStoreFile, RefusedWritesGoToTheFallbackFileUntilTheStoreRecovers) {
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

}  // namespace
