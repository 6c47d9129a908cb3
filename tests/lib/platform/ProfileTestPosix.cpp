// The profile file as the library writes it (on Windows the system does).
#include <gtest/gtest.h>

#include "platform/Profile.h"
#include "support/TestEnv.h"

namespace sx::plat {
namespace {

TEST(ProfileFile, WritesKeepTheFirstSpellingOfAKeyAndLeaveNoOtherFile) {
  sxtest::TempRoot root;
  std::filesystem::create_directory(root.Path() / "temp");
  const std::string file = (root.Path() / "temp" / "scandiag.ini").string();
  ASSERT_TRUE(ProfileWriteString("Options", "SAVEPATH", "/x/", file));
  ASSERT_TRUE(ProfileWriteString("Options", "LOCALIZE", "lang.ini", file));
  ASSERT_TRUE(ProfileWriteString("options", "savepath", "/y/", file));
  EXPECT_FALSE(ProfileWriteString("Options", "K", "two\nlines", file));
  EXPECT_EQ(sxtest::ReadFile(file), "[Options]\nsavepath=/y/\nLOCALIZE=lang.ini\n");
  const auto entries = std::filesystem::directory_iterator(root.Path() / "temp");
  EXPECT_EQ(std::distance(begin(entries), end(entries)), 1) << "no temporary or lock file left";
}

}  // namespace
}  // namespace sx::plat
