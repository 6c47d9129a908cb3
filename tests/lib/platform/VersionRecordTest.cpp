#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "platform/Module.h"
#include "platform/text/VersionRecord.h"
#include "support/TestEnv.h"

namespace sx::plat {
namespace {

namespace fs = std::filesystem;

TEST(VersionRecord, ReadsTheRecordOfABuiltModuleWithoutLoadingIt) {
  sxtest::TempRoot root;
  const auto withRecord = root.InstallVscan("a"), without = root.InstallVscan("b", "", "");
  const uint32_t size = FileVersionInfoSize(withRecord.string());
  ASSERT_GT(size, 0u);
  std::vector<char> block(size);
  ASSERT_TRUE(FileVersionInfo(withRecord.string(), size, block.data()));
  const void* v = nullptr;
  uint32_t len = 0;
  ASSERT_TRUE(VersionQueryValue(block.data(), "\\StringFileInfo\\040904B0\\FileVersion", &v, &len));
  EXPECT_STREQ(static_cast<const char*>(v), "1, 0, 1, 0");
  for (const auto& none : {without, root.Path() / "nothing.dll", root.Path()})
    EXPECT_EQ(FileVersionInfoSize(none.string()), 0u) << none;  // the last is a folder
}

// A module cut short by a failed copy (its headers kept, its sections gone),
// or a file that only has a module's name: no record, and no load.
TEST(VersionRecord, DamagedModuleFilesHaveNoRecordAndDoNotLoad) {
  constexpr size_t kHeadersOnly = 4096;
  sxtest::TempRoot root;
  const std::string module = sxtest::ReadFile(root.InstallVscan("a"));
  const fs::path cut = root.Path() / "cut.dll", text = root.Path() / "text.dll";
  sxtest::WriteFile(cut, module.substr(0, kHeadersOnly));
  sxtest::WriteFile(text, "MZ not really a module\n");
  for (const fs::path& bad : {text, cut}) {
    EXPECT_EQ(FileVersionInfoSize(bad.string()), 0u) << bad;
    ModuleHandle handle = LoadModule(bad.string());
    EXPECT_EQ(handle, nullptr) << bad;
    FreeModule(handle);
  }
}

}  // namespace
}  // namespace sx::plat
