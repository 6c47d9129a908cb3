#include <gtest/gtest.h>

#include "platform/Profile.h"
#include "platform/text/ProfileText.h"
#include "support/TestEnv.h"

namespace sx::plat {
namespace {

const char* const kIni =
    "; comment = not a key\n"
    "[Options]\n"
    "  Name  =  spaced value  \n"
    "Quoted=\"  keep inner  \"\n"
    "Single='x'\n"
    "Mismatched=\"x'\n"
    "Empty=\n"
    "Num= -42abc\n"
    "no equals sign\n"
    "[ 0409 ]\n"
    "FontSize=10\n"
    "[options]\n"
    "Name=second section of the same name is ignored\n";

TEST(ProfileText, LookupRules) {
  const std::pair<const char*, const char*> found[] = {
      {"NAME", "spaced value"}, {"quoted", "  keep inner  "}, {"Single", "x"},
      {"Mismatched", "\"x'"},   {"Empty", ""},                {"Num", "-42abc"},
  };
  std::string v;
  for (const auto& [key, expected] : found)
    EXPECT_TRUE(ProfileLookup(kIni, " options ", key, v) && v == expected) << key << ": " << v;
  EXPECT_TRUE(ProfileLookup(kIni, "0409", "fontsize", v));
  for (const auto& [section, key] : {std::pair{"Options", "no equals sign"}, {"Options", "FontSize"},
                                     {"Missing", "Name"}, {"; comment", ""}})
    EXPECT_FALSE(ProfileLookup(kIni, section, key, v)) << section << " " << key;
  for (const auto& [text, expected] : {std::pair{"-42abc", -42}, {"+7", 7}, {"abc", 0}, {"", 99},
                                       {"4294967297", 1}, {"-", 0}, {"12 34", 12}})
    EXPECT_EQ(ProfileParseInt(text, 99), expected) << text;
}

TEST(ProfileFile, ReadsWithDefaultsAndCutsToTheBuffer) {
  sxtest::TempRoot root;
  const std::string file = (root.Path() / "test.ini").string(), missing = file + ".missing";
  sxtest::WriteFile(file, kIni);
  char out[8];
  EXPECT_EQ(ProfileGetString("Options", "Name", "d", out, sizeof out, file), 7u);
  EXPECT_STREQ(out, "spaced ");
  EXPECT_EQ(ProfileGetString("Options", "Missing", "dflt  ", out, sizeof out, file), 4u);
  EXPECT_STREQ(out, "dflt");
  EXPECT_EQ(ProfileGetString("Options", "Name", "d", out, 0, file), 0u);
  EXPECT_EQ(ProfileGetString("Options", "Name", nullptr, out, 1, missing), 0u);
  EXPECT_STREQ(out, "");
  const std::tuple<const char*, const char*, std::string, int32_t> ints[] = {
      {"0409", "FontSize", file, 10}, {"Options", "Empty", file, 8}, {"Options", "Num", missing, 8}};
  for (const auto& [section, key, path, expected] : ints)
    EXPECT_EQ(ProfileGetInt(section, key, 8, path), expected) << key;
}

TEST(ProfileFile, WritesAtomicallyAndOnlyIntoExistingFolders) {
  sxtest::TempRoot root;
  const std::string file = (root.Path() / "temp" / "scandiag.ini").string();
  EXPECT_FALSE(ProfileWriteString("Options", "SAVEPATH", "/x/", file));  // no folder yet
  std::filesystem::create_directory(root.Path() / "temp");
  ASSERT_TRUE(ProfileWriteString("Options", "SAVEPATH", "/x/", file));
  ASSERT_TRUE(ProfileWriteString("Options", "LOCALIZE", "lang.ini", file));
  ASSERT_TRUE(ProfileWriteString("options", "savepath", "/y/", file));
  char out[16];
  EXPECT_EQ(ProfileGetString("Options", "SAVEPATH", "", out, sizeof out, file), 3u);
  EXPECT_STREQ(out, "/y/");
}

}  // namespace
}  // namespace sx::plat
