// Persistent values: registry types and sizes, the fall-back profile file
// while the store refuses writes, and the language section code.
#include <gtest/gtest.h>

#include <cstring>

#include "frame/RegistryUtil.h"
#include "frame/TraceSupport.h"
#include "platform/Profile.h"
#include "platform/Registry.h"

namespace {

using namespace sxtest;
using sx::kKeyOptions;
using sx::kKeyScanData;

class Registry : public ::testing::Test {
 protected:
  void SetUp() override { sx::ResetRegistryState(); }
  void TearDown() override { sx::ResetRegistryState(); }
  // A directory where the store should be: reads find nothing, writes fail.
  void RefuseWrites() const {
    fs::remove(root_.Path() / "user.reg");
    fs::create_directories(root_.Path() / "user.reg");
  }

  TempRoot root_;
};

TEST_F(Registry, WritesKeepTheCallersSizeAndReadsZeroFill) {
  const uint32_t level = 0x258;
  EXPECT_EQ(sx::WriteRegValue(kKeyOptions, "DEBUGLEVEL", &level, sx::kKindNumber, 4), 1);
  EXPECT_EQ(sx::WriteRegValue(kKeyOptions, "TargetTest", "Ok", 0x101, 2), 1);  // text kind
  EXPECT_EQ(sx::gTraceLevel.load(), 0x258u) << "every write re-reads the level";
  uint32_t type = 0, size = 16;
  char data[16] = {};
  ASSERT_EQ(sx::plat::RegistryQuery(kKeyOptions, "TargetTest", &type, data, &size), 0);
  EXPECT_EQ(type, sx::plat::kRegExpandSz);
  EXPECT_EQ(std::string(data, size), "Ok");

  uint32_t number[2] = {7, 7};
  EXPECT_EQ(sx::ReadRegValue(kKeyOptions, "debuglevel", number, sx::kKindNumber, 4), 0);
  EXPECT_EQ(number[0], 0x258u);
  EXPECT_EQ(sx::ReadRegValue(kKeyOptions, "MISSING", number, sx::kKindNumber, 4), 2);
  EXPECT_EQ(number[0], 0u);
  EXPECT_EQ(number[1], 7u) << "only `size` bytes are cleared";
  EXPECT_EQ(sx::ReadRegValue(kKeyOptions, "TargetTest", data, sx::kKindText, 1), 234);
}

TEST_F(Registry, RefusedWritesGoToTheFallbackFileUntilTheStoreRecovers) {
  RefuseWrites();
  EXPECT_EQ(sx::WriteRegValue(kKeyOptions, "SOURCENAME", "QM7110 ID#3\0junk", sx::kKindText, 16),
            0);
  const uint32_t two = 2;
  EXPECT_EQ(sx::WriteRegValue(kKeyOptions, "DEBUGLEVEL", &two, sx::kKindNumber, 4), 0);
  ASSERT_TRUE(sx::RegistryFallbackActive());
  EXPECT_EQ(std::string(sx::RegistryFallbackPath()), (root_.Path() / "temp/scandiag.ini").string());
  EXPECT_EQ(sx::gTraceLevel.load(), 2u) << "the level comes from the file too";

  // Reads take the file's value (cut to the caller's buffer) but still report
  // the store's status; missing values read as empty text and 0.
  struct Case {
    const char* name;
    uint32_t size;
    const char* expected;
  };
  for (const Case c : {Case{"SOURCENAME", 64, "QM7110 ID#3"}, Case{"SOURCENAME", 5, "QM71"},
                       Case{"MISSING", 64, ""}}) {
    char buffer[80];
    std::memset(buffer, 'x', sizeof buffer);
    EXPECT_NE(sx::ReadRegValue(kKeyOptions, c.name, buffer, sx::kKindText, c.size), 0);
    EXPECT_STREQ(buffer, c.expected);
    EXPECT_EQ(buffer[c.size], 'x');
  }
  uint32_t number = 99;
  sx::ReadRegValue(kKeyScanData, "XRESOLUTION", &number, sx::kKindNumber, 4);
  EXPECT_EQ(number, 0u);

  fs::remove_all(root_.Path() / "user.reg");
  EXPECT_EQ(sx::WriteRegValue(kKeyOptions, "TargetTest", "Ok", sx::kKindText, 2), 1);
  EXPECT_FALSE(sx::RegistryFallbackActive());
  char buffer[64];
  EXPECT_EQ(sx::ReadRegValue(kKeyOptions, "SOURCENAME", buffer, sx::kKindText, 64), 2);
  EXPECT_STREQ(buffer, "");
}

// The fall-back name lives in a 60-byte field: a root too long for it makes
// the file unusable, never an overrun.
TEST_F(Registry, FallbackPathThatDoesNotFitIsNotUsed) {
  const fs::path longRoot = root_.Path() / std::string(60, 'r');
  fs::create_directories(longRoot / "user.reg");
  ScopedEnv env("SX_ROOT", longRoot.c_str());
  EXPECT_EQ(sx::WriteRegValue(kKeyOptions, "SOURCENAME", "Name", sx::kKindText, 5), 0);
  EXPECT_STREQ(sx::RegistryFallbackPath(), "");
  char buffer[16] = "x";
  sx::ReadRegValue(kKeyOptions, "SOURCENAME", buffer, sx::kKindText, sizeof buffer);
  EXPECT_STREQ(buffer, "");
}

TEST_F(Registry, LanguageCodeMapsTheStoredChoice) {
  ScopedEnv lang("LC_ALL", "de_DE.UTF-8");  // system default 0x0407
  const std::pair<const char*, const char*> cases[] = {
      {nullptr, "0407"},    {"00000000", "0407"}, {"00000001", "0409"},    {"00000002", "0404"},
      {"00000003", "0804"}, {"00000411", "0411"}, {"12345678", "12345678"}};
  for (const auto& [stored, expected] : cases) {
    std::string reg = "[Software\\Quillmark\\ScanData]\n";
    if (stored) reg += std::string("\"LANGUAGE\"=dword:") + stored + "\n";
    root_.WriteRegistry(reg);
    char out[16];
    std::memset(out, 'x', sizeof out);
    sx::GetLanguageCode(out);
    EXPECT_STREQ(out, expected);
    EXPECT_EQ(out[9], 'x') << "nine bytes at most";
  }
  // A choice only the fall-back file knows does not count.
  RefuseWrites();
  const uint32_t english = 1;
  sx::WriteRegValue(kKeyScanData, "LANGUAGE", &english, sx::kKindNumber, 4);
  char out[16];
  sx::GetLanguageCode(out);
  EXPECT_STREQ(out, "0407");
}

}  // namespace
