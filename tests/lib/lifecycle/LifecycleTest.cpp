// Process attach and detach, SxLoad and SxFree.
#include <gtest/gtest.h>

#include "frame/LibraryState.h"
#include "tests/lib/sources/SourceHelpers.h"

namespace sxtest {
namespace {

TEST(Lifecycle, DialogFontComesFromTheLanguageSectionOfTheLocalizeProfile) {
  const std::string profile = "[0409]\nFontSize=9\nFont=Tahoma\n[0404]\nFontSize=10\nFont=MingLiU\n";
  const std::string language = "[Software\\Quillmark\\ScanData]\n\"LANGUAGE\"=dword:0000000";
  const std::vector<std::tuple<std::string, std::string, int32_t>> cases = {
      {"", "Arial", -11},  // no profile: 8 points at 96 dpi, rounded
      {language + "1\n", "Tahoma", -12},
      {language + "2\n", "MingLiU", -13},
  };
  for (const auto& [registry, face, height] : cases) {
    TempRoot root;
    const fs::path file = root.Path() / "lang.ini";
    WriteFile(file, profile);
    root.WriteRegistry("[Software\\Quillmark]\n\"LOCALIZE\"=str(2):\"" +
                       (registry.empty() ? "" : file.string()) + "\"\n" + registry);
    sx::CreateDialogFont();
    sx::plat::FontSpec description;
    ASSERT_TRUE(sx::plat::DescribeFont(sx::gLib.DialogFont, description));
    EXPECT_EQ(description.Height, height) << registry;
    EXPECT_STREQ(description.FaceName, face.c_str()) << registry;
  }
  sx::plat::DeleteFont(sx::gLib.DialogFont);
  sx::gLib.DialogFont = nullptr;
}

TEST(Lifecycle, ListOnceBuiltIsKeptUntilFree) {
  {
    TempRoot root;
    const fs::path log = InstallLogged(root, "Corvane/A", "ModelA");
    Library lib;
    EXPECT_EQ(lib.Load(nullptr), SX_ERR_NO_SOURCE);  // nothing stored
    EXPECT_EQ(TakeCalls(log, "InitializeDriver"), 1);
    EXPECT_EQ(lib.Load(nullptr), 0);
    EXPECT_EQ(TakeCalls(log, "InitializeDriver"), 0);
    EXPECT_EQ(lib.Free(), 0);
    EXPECT_EQ(lib.Load(nullptr), SX_ERR_NO_SOURCE);
    EXPECT_EQ(TakeCalls(log, "InitializeDriver"), 1);
  }
  // An empty list is no list: each load searches again.
  TempRoot root;
  root.WriteRegistry(SourceNameLine(DisplayName("USB", "Late")));
  Library lib;
  EXPECT_EQ(lib.Load(nullptr), SX_ERR_NO_SOURCE);
  root.InstallVscan("Corvane/Late", ScannerIni("Late"));
  EXPECT_EQ(lib.Load(nullptr), 0);
}

TEST(Lifecycle, StoredNameSelectsTheSourceItBeginsWithInAnyCase) {
  const std::string name = DisplayName("USB", "QM7110");
  std::string lower = name;
  for (char& c : lower) c = static_cast<char>(std::tolower(c));
  const std::vector<std::pair<std::string, int32_t>> cases = {
      {name, 0},
      {lower + " (second scanner)", 0},
      {"USB - QM7110", SX_ERR_NO_SOURCE},
      {"", SX_ERR_NO_SOURCE},
      {name + std::string(200, 'x'), SX_ERR_NO_SOURCE},  // too long to be read
      {DisplayName("USB", "Removed"), SX_ERR_NO_SOURCE},
  };
  for (const auto& [stored, result] : cases) {
    TempRoot root;
    root.InstallVscan("Corvane/QM7110", ScannerIni("QM7110"));
    root.WriteRegistry(SourceNameLine(stored));
    Library lib;
    EXPECT_EQ(lib.Load(nullptr), result) << stored;
  }
  TempRoot root;  // the built-in source matches whatever is stored
  ScopedEnv shift("SX_SHIFT_HELD", "1");
  Library lib;
  EXPECT_EQ(lib.Load(nullptr), 0);
}

TEST(Lifecycle, ScannerLostAfterDiscoveryFailsTheLoadAndStaysBoundUntilFree) {
  TempRoot root;
  ScopedEnv count("SXTEST_FLAKY_INITS", nullptr);
  root.InstallModule(SX_TEST_FLAKY, "Corvane/Flaky", "flaky.dll", DefaultVersionText());
  root.WriteRegistry(SourceNameLine(DisplayName("USB", "Flaky")));
  Library lib;
  EXPECT_EQ(lib.Load(nullptr), SX_ERR_DRIVER);
  EXPECT_EQ(lib.Load(nullptr), 0);  // the module stays loaded: nothing is done again
  char model[33] = {};
  EXPECT_EQ(lib.GetValue(CAP_MODELNAME, TY_STR32, model), 0);
  EXPECT_STREQ(model, "Flaky");
  EXPECT_EQ(lib.Free(), 0);
}

TEST(Lifecycle, WholeLoadAndFreeTraceInOrder) {
  const Strings labels = {"SxLoad", "SxGetDS", "SxFree", "VerifyDriver", "VerifyCorvane",
                          "InitializeDriver", "InitializeScanner", "GetScannerAbilityEx",
                          "ReadNVMData", "WriteNVMData", "SetPowerSaveTime", "TerminateDriver"};
  const auto call = [](const std::string& n) { return Strings{"In |" + n + "|", "Out|" + n + "|"}; };
  const auto join = [](std::initializer_list<Strings> parts) {
    Strings out;
    for (const Strings& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
  };
  const Strings open = join({call("InitializeDriver"), call("InitializeScanner"),
                             call("GetScannerAbilityEx")});
  for (int level : {1, 2}) {
    TempRoot root;
    const fs::path driver = root.InstallVscan("Corvane/QM7110", ScannerIni("QM7110"));
    root.WriteRegistry(SourceNameLine(DisplayName("USB", "QM7110")) + "\"DEBUGLEVEL\"=dword:0000000" +
                       std::to_string(level) + "\n\"SAVEPATH\"=str(2):\"" +
                       root.Path().string() + "/\"\n");
    Library lib;
    ASSERT_EQ(lib.Load(nullptr), 0);
    ASSERT_EQ(lib.Free(), 0);
    const Strings verify =
        level == 1 ? join({open, call("TerminateDriver")})
                   : join({{"   |VerifyCorvane|Corvane Inc.", "In |VerifyDriver|" + driver.string()},
                           open, call("TerminateDriver"), {"Out|VerifyDriver|1"}});
    const Strings expected = join({{"In |SxLoad|", "In |SxGetDS|"}, verify, {"Out|SxGetDS|"},
                                   open, call("ReadNVMData"), {"Out|SxLoad|0", "In |SxFree|"},
                                   call("ReadNVMData"), call("WriteNVMData"),
                                   call("SetPowerSaveTime"), call("TerminateDriver"),
                                   {"Out|SxFree|"}});
    Strings got = ReadTrace(root, labels);
    // Driver calls show the driver's answers; here only their order counts.
    for (std::string& line : got)
      if (line.find("|SetPowerSaveTime|") != std::string::npos) line.resize(line.rfind('|') + 1);
    EXPECT_EQ(got, expected) << "level " << level;

    // A second SxFree finds nothing left to release.
    lib.Free();
    const Strings after = ReadTrace(root, labels);
    EXPECT_EQ(Strings(after.begin() + got.size(), after.end()),
              (Strings{"In |SxFree|", "Out|SxFree|"}));
  }
}

}  // namespace
}  // namespace sxtest
