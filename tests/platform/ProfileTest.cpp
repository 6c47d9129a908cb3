#include <gtest/gtest.h>

#include "platform/Profile.h"
#include "platform/ProfileText.h"
#include "support/TestEnv.h"

namespace sx::plat {
namespace {

using sxtest::TempRoot;

const char* const kIni =
    "; comment = not a key\n"
    "[Options]\n"
    "  Name  =  spaced value  \n"
    "Quoted=\"  keep inner  \"\n"
    "Single='x'\n"
    "Mismatched=\"x'\n"
    "Empty=\n"
    "Num= -42abc\n"
    "Big=4294967297\n"
    "Plus=+7\n"
    "Word=abc\n"
    "no equals sign\n"
    "[ 0409 ]\n"
    "FontSize=10\n"
    "[options]\n"
    "Name=second section of the same name is ignored\n";

TEST(ProfileText, LookupRules) {
  const std::pair<const char*, const char*> found[] = {
      {"NAME", "spaced value"},   {"quoted", "  keep inner  "}, {"Single", "x"},
      {"Mismatched", "\"x'"},     {"Empty", ""},                {"Num", "-42abc"},
  };
  for (const auto& [key, expected] : found) {
    std::string v;
    ASSERT_TRUE(ProfileLookup(kIni, " options ", key, v)) << key;
    EXPECT_EQ(v, expected) << key;
  }
  std::string v;
  EXPECT_TRUE(ProfileLookup(kIni, "0409", "fontsize", v));
  EXPECT_FALSE(ProfileLookup(kIni, "Options", "no equals sign", v));
  EXPECT_FALSE(ProfileLookup(kIni, "Options", "FontSize", v));  // other section's key
  EXPECT_FALSE(ProfileLookup(kIni, "Missing", "Name", v));
  EXPECT_FALSE(ProfileLookup(kIni, "; comment", "", v));
}

TEST(ProfileText, IntegersAreSignAndLeadingDigits) {
  const std::pair<const char*, int32_t> cases[] = {
      {"-42abc", -42}, {"+7", 7}, {"abc", 0}, {"", 99}, {"4294967297", 1}, {"-", 0}, {"12 34", 12},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(ProfileParseInt(text, 99), expected) << text;
}

TEST(ProfileText, UpdateAddsReplacesAndDeletes) {
  const std::string base = "[A]\nk=1\n\n[B]\nj=2";
  EXPECT_EQ(ProfileUpdate(base, "a", "K", "9"), "[A]\nK=9\n\n[B]\nj=2");
  EXPECT_EQ(ProfileUpdate(base, "A", "new", "3"), "[A]\nk=1\nnew=3\n\n[B]\nj=2");
  EXPECT_EQ(ProfileUpdate(base, "B", "new", "3"), "[A]\nk=1\n\n[B]\nj=2\nnew=3\n");
  EXPECT_EQ(ProfileUpdate(base, "C", "x", "4"), "[A]\nk=1\n\n[B]\nj=2\n[C]\nx=4\n");
  EXPECT_EQ(ProfileUpdate(base, "A", "k", std::nullopt), "[A]\n\n[B]\nj=2");
  EXPECT_EQ(ProfileUpdate(base, "A", std::nullopt, std::nullopt), "[B]\nj=2");
  EXPECT_EQ(ProfileUpdate("", "S", "k", "v"), "[S]\nk=v\n");
  EXPECT_EQ(ProfileUpdate("[S]\r\nk=1\r\n", "S", "m", "2"), "[S]\r\nk=1\r\nm=2\r\n");
}

TEST(ProfileFile, ReadsWithDefaultsAndCutsToTheBuffer) {
  TempRoot root;
  const std::string file = (root.Path() / "test.ini").string();
  sxtest::WriteFile(file, kIni);
  char out[8];
  EXPECT_EQ(ProfileGetString("Options", "Name", "d", out, sizeof out, file), 7u);
  EXPECT_STREQ(out, "spaced ");
  EXPECT_EQ(ProfileGetString("Options", "Missing", "dflt  ", out, sizeof out, file), 4u);
  EXPECT_STREQ(out, "dflt");
  EXPECT_EQ(ProfileGetString("Options", "Name", "d", out, 0, file), 0u);
  EXPECT_EQ(ProfileGetString("Options", "Name", "dd", out, sizeof out, file + ".missing"), 2u);
  EXPECT_EQ(ProfileGetString("Options", "Name", nullptr, out, 1, file + ".missing"), 0u);
  EXPECT_STREQ(out, "");

  EXPECT_EQ(ProfileGetInt("0409", "FontSize", 8, file), 10);
  EXPECT_EQ(ProfileGetInt("0409", "Missing", 8, file), 8);
  EXPECT_EQ(ProfileGetInt("Options", "Empty", 8, file), 8);
  EXPECT_EQ(ProfileGetInt("Options", "Word", 8, file), 0);
  EXPECT_EQ(ProfileGetInt("Options", "Num", 8, file + ".missing"), 8);

  // Enumeration forms: NUL-separated names, a final extra NUL.
  char list[64];
  uint32_t n = ProfileGetString(nullptr, nullptr, "", list, sizeof list, file);
  EXPECT_EQ(std::string(list, n + 1), std::string("Options\0" "0409\0" "options\0", 22));
  n = ProfileGetString("0409", nullptr, "", list, 6, file);
  EXPECT_EQ(n, 4u);
  EXPECT_EQ(std::string(list, 6), std::string("Font\0\0", 6));
}

TEST(ProfileFile, WritesAtomicallyAndOnlyIntoExistingFolders) {
  TempRoot root;
  const std::string file = (root.Path() / "temp" / "scandiag.ini").string();
  EXPECT_FALSE(ProfileWriteString("Options", "SAVEPATH", "/x/", file));  // no folder yet
  std::filesystem::create_directory(root.Path() / "temp");
  ASSERT_TRUE(ProfileWriteString("Options", "SAVEPATH", "/x/", file));
  ASSERT_TRUE(ProfileWriteString("Options", "LOCALIZE", "lang.ini", file));
  ASSERT_TRUE(ProfileWriteString("options", "savepath", "/y/", file));
  EXPECT_EQ(sxtest::ReadFile(file), "[Options]\nsavepath=/y/\nLOCALIZE=lang.ini\n");
  EXPECT_FALSE(ProfileWriteString("Options", "K", "two\nlines", file));
  int entries = 0;
  for (const auto& e : std::filesystem::directory_iterator(root.Path() / "temp")) {
    (void)e;
    ++entries;
  }
  EXPECT_EQ(entries, 1);  // no temporary or lock file left beside it
}

}  // namespace
}  // namespace sx::plat
