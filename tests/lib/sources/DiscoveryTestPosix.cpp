// Filling Directory exactly needs a root of chosen depth; the Windows
// directory is where the system put it.
#include <gtest/gtest.h>

#include "tests/lib/sources/SourceHelpers.h"

namespace sxtest {
namespace {

TEST(Discovery, NamesThatDoNotFitTheirFieldsAreSkippedNeverCut) {
  TempRoot root;
  // A deeper root sized so that <root>/windows/twain_32/ + a 30-character maker folder
  // + a 29-character model folder fills Directory's 124 characters exactly.
  const size_t pad = 124 - (root.Path().string().size() + 1 + 18 + 31 + 30);
  const fs::path deep = root.Path() / std::string(pad, 'r');
  const std::string twain = "../../" + deep.filename().string() + "/windows/twain_32/", maker(30, 'm');
  root.InstallVscan(twain + maker + "/" + std::string(29, 'a'), ScannerIni("Fits"));
  root.InstallVscan(twain + maker + "/" + std::string(30, 'b'), ScannerIni("TooDeep"));
  root.InstallVscan(twain + std::string(31, 'c') + "/m", ScannerIni("LongFolder"));
  root.InstallVscan(twain + "f", ScannerIni("LongFile"), DefaultVersionText(), std::string(29, 'f') + ".dll");
  root.InstallVscan(twain + "g", ScannerIni("MaxFile"), DefaultVersionText(), std::string(28, 'g') + ".dll");
  ScopedEnv deepRoot("SX_ROOT", deep.c_str());
  Library lib;
  const auto list = Enumerate(lib);
  EXPECT_EQ(SortedNames(list), (Strings{DisplayName("USB", "Fits"), DisplayName("USB", "MaxFile")}));
  EXPECT_EQ(Text(Find(list, DisplayName("USB", "Fits")).Directory).size(), 124u);
  EXPECT_EQ(Text(Find(list, DisplayName("USB", "MaxFile")).FileName).size(), 32u);
}

}  // namespace
}  // namespace sxtest
