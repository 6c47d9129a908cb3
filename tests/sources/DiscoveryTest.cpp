// Discovery under twain_32 as a host sees it through SxGetDS.
#include <gtest/gtest.h>

#include "platform/Paths.h"
#include "sources/SourceHelpers.h"

namespace sxtest {
namespace {

const SxDataSource& Find(const std::vector<SxDataSource>& list, const std::string& name) {
  static const SxDataSource kNone{};
  for (const SxDataSource& ds : list) {
    if (Text(ds.DisplayName) == name) return ds;
  }
  ADD_FAILURE() << "not listed: " << name;
  return kNone;
}

TEST(Discovery, EntriesDescribeTheDriverAtEachFolderLevel) {
  TempRoot root;
  const std::string twain = root.Twain().string() + "/";
  root.InstallVscan("Corvane/QM7110", ScannerIni("QM7110"), DefaultVersionText("1, 0, 8, 107"));
  root.InstallVscan("Corvane", ScannerIni("InMaker"), DefaultVersionText(), "maker.dll");
  root.InstallVscan("", ScannerIni("AtTop"), DefaultVersionText(), "top.DLL");
  Library lib;
  const auto list = Enumerate(lib);
  ASSERT_EQ(list.size(), 3u);
  const SxDataSource& qm = Find(list, DisplayName("USB", "QM7110"));
  EXPECT_EQ(Text(qm.Directory), twain + "Corvane/QM7110/");
  EXPECT_EQ(Text(qm.FileName), "vscan.dll");
  EXPECT_EQ(Text(qm.FileVersion), "1,0,8,107");
  EXPECT_EQ(Text(qm.Vendor), "CORVANE");
  EXPECT_EQ(Text(qm.PortName), "USB");
  EXPECT_EQ(Text(Find(list, DisplayName("USB", "InMaker")).Directory), twain + "Corvane/");
  EXPECT_EQ(Text(Find(list, DisplayName("USB", "AtTop")).Directory), twain);

  // The end stays the end; message 2 starts over; any other message repeats
  // the entry at the cursor.
  SxDataSource ds{}, again{};
  EXPECT_EQ(lib.GetDS(SX_DS_NEXT, &ds), SX_ERR_NO_SOURCE);
  EXPECT_EQ(lib.GetDS(SX_DS_NEXT, &ds), SX_ERR_NO_SOURCE);
  ASSERT_EQ(lib.GetDS(SX_DS_FIRST, &ds), 0);
  ASSERT_EQ(lib.GetDS(0x10007, &again), 0);
  EXPECT_EQ(Text(again.DisplayName), Text(ds.DisplayName));
  ASSERT_EQ(lib.GetDS(SX_DS_NEXT, &again), 0);
  EXPECT_NE(Text(again.DisplayName), Text(ds.DisplayName));
}

TEST(Discovery, DisplayNameAndDeviceNumberFollowTheAbilities) {
  struct Case {
    std::string Port, Model, Firmware, DeviceId, Name;
    uint8_t Device;
  };
  const std::vector<Case> cases = {
      {"scsi-2", "QM2000", "2.10", "3", "ID#3 - QM2000              2.10", 3},
      {"PARALLEL1", "PortCut", "1.00", "7", DisplayName("PARALLEL", "PortCut"), 7},
      {"USB", "Blank", "1.0 b", "x", DisplayName("USB", "Blank", "1.0"), 0},
      {"USB", "FwCut", "12345", "51", DisplayName("USB", "FwCut", "1234"), 3},
      {"USB", "ABCDEFGHIJKLMNOPQRST", "1.00", "12", DisplayName("USB", "ABCDEFGHIJKLMNOPQRST"),
       uint8_t(12 - 48)},
  };
  TempRoot root;
  for (size_t i = 0; i < cases.size(); ++i) {
    const Case& c = cases[i];
    root.InstallVscan("C/" + std::to_string(i), ScannerIni(c.Model, c.Port, c.Firmware, c.DeviceId));
  }
  Library lib;
  const auto list = Enumerate(lib);
  EXPECT_EQ(list.size(), cases.size());
  for (const Case& c : cases) EXPECT_EQ(Find(list, c.Name).DeviceNumber, c.Device) << c.Name;
}

TEST(Discovery, OnlyVerifiedDriversOfTheMakerAreListed) {
  const std::string record = "\\VarFileInfo\\Translation=hex:";
  const std::string strings = "\\CompanyName=Corvane\n\\StringFileInfo\\040904B0\\FileVersion=1\n";
  const auto ini = [](const std::string& model, const std::string& faults = "") {
    return ScannerIni(model, "USB", "1.00", "0", "[Faults]\n" + faults + "\n");
  };
  struct Case {
    std::string Dir, File, Ini, Version;
    bool Listed;
  };
  const std::vector<Case> cases = {
      {"Company", "vscan.dll", ini("Company"), DefaultVersionText(), true},
      {"Product", "vscan.dll", ini("Product"), DefaultVersionText("1", "Other", "CORVANE x"), true},
      {"Foreign", "vscan.dll", ini("Foreign"), DefaultVersionText("1", "Other", "Other"), false},
      {"Short", "vscan.dll", ini("Short"), DefaultVersionText("1", "Corv", "Corv"), false},
      {"German", "vscan.dll", ini("German"),
       record + "07 04 e4 04\n\\StringFileInfo\\040704E4\\CompanyName=corvane\n"
                "\\StringFileInfo\\040704E4\\FileVersion=1\n", true},
      {"TwoLang", "vscan.dll", ini("TwoLang"),
       record + "09 04 b0 04 07 04 e4 04\n\\StringFileInfo\\040904B0" + strings, false},
      {"NoRecord", "vscan.dll", ini("NoRecord"), "", false},
      {"NoVersion", "vscan.dll", ini("NoVersion"),
       record + "09 04 b0 04\n\\StringFileInfo\\040904B0\\CompanyName=Corvane\n", false},
      {"Manager", "TWDSM32.dll", ini("Manager"), DefaultVersionText(), false},
      {"NoModel", "vscan.dll", ini(""), DefaultVersionText(), false},
      {"Scanner", "vscan.dll", ini("Scanner", "FailInitializeScanner=1"), DefaultVersionText(),
       false},
      {"Driver", "vscan.dll", ini("Driver", "FailInitializeDriver=1"), DefaultVersionText(), false},
      {"", "vscan.dll.old", ini("Renamed"), DefaultVersionText(), false},
  };
  TempRoot root;
  Strings expected;
  for (const Case& c : cases) {
    root.InstallVscan(c.Dir.empty() ? "" : "A/" + c.Dir, c.Ini, c.Version, c.File);
    if (c.Listed) expected.push_back(DisplayName("USB", c.Dir));
  }
  std::sort(expected.begin(), expected.end());
  Library lib;
  EXPECT_EQ(SortedNames(Enumerate(lib)), expected);
}

TEST(Discovery, CopiesOfOneScannerMakeOneEntryWithTheGreatestVersionText) {
  struct Case {
    std::string First, Second;  // versions in the folders the walk meets first and second
    int Winner;
  };
  const std::vector<Case> cases = {
      {"1, 0, 0, 5", "1, 0, 1, 0", 1},
      {"1, 0, 1, 0", "1, 0, 0, 5", 0},
      {"1, 0, 10, 0", "1, 0, 9, 0", 1},  // compared as text
      {"1, 0, 1, 0", "1, 0, 1, 0", 0},
  };
  for (const Case& c : cases) {
    TempRoot root;
    fs::create_directories(root.Twain() / "C" / "P");
    fs::create_directories(root.Twain() / "C" / "Q");
    Strings folders = sx::plat::FindFiles(root.Twain().string() + "/C/", "*.*");
    std::erase_if(folders, [](const std::string& n) { return n[0] == '.'; });
    ASSERT_EQ(folders.size(), 2u);
    root.InstallVscan("C/" + folders[0], ScannerIni("Twin"), DefaultVersionText(c.First));
    root.InstallVscan("C/" + folders[1], ScannerIni("Twin"), DefaultVersionText(c.Second));
    Library lib;
    const auto list = Enumerate(lib);
    ASSERT_EQ(list.size(), 1u) << c.First << " / " << c.Second;
    EXPECT_EQ(Text(list[0].Directory), root.Twain().string() + "/C/" + folders[c.Winner] + "/")
        << c.First << " / " << c.Second;
  }
}

TEST(Discovery, NamesThatDoNotFitTheirFieldsAreSkippedNeverCut) {
  TempRoot root;
  // A deeper root sized so that <root>/windows/twain_32/ + a 30-character
  // maker folder + a 29-character model folder fills Directory's 124
  // characters exactly.
  const size_t pad = 124 - (root.Path().string().size() + 1 + 18 + 31 + 30);
  const fs::path deep = root.Path() / std::string(pad, 'r');
  const std::string twain = "../../" + deep.filename().string() + "/windows/twain_32/";
  const std::string maker(30, 'm');
  root.InstallVscan(twain + maker + "/" + std::string(29, 'a'), ScannerIni("Fits"));
  root.InstallVscan(twain + maker + "/" + std::string(30, 'b'), ScannerIni("TooDeep"));
  root.InstallVscan(twain + std::string(31, 'c') + "/m", ScannerIni("LongFolder"));
  root.InstallVscan(twain + "f", ScannerIni("LongFile"), DefaultVersionText(),
                    std::string(29, 'f') + ".dll");
  root.InstallVscan(twain + "g", ScannerIni("MaxFile"), DefaultVersionText(),
                    std::string(28, 'g') + ".dll");
  ScopedEnv deepRoot("SX_ROOT", deep.c_str());
  Library lib;
  const auto list = Enumerate(lib);
  EXPECT_EQ(SortedNames(list), (Strings{DisplayName("USB", "Fits"), DisplayName("USB", "MaxFile")}));
  EXPECT_EQ(Text(Find(list, DisplayName("USB", "Fits")).Directory).size(), 124u);
  EXPECT_EQ(Text(Find(list, DisplayName("USB", "MaxFile")).FileName).size(), 32u);
}

TEST(Discovery, SampleSourceOnlyWithShiftHeldAndNoDrivers) {
  TempRoot root;
  {
    Library lib;
    SxDataSource ds{};
    EXPECT_EQ(lib.GetDS(SX_DS_NEXT, &ds), SX_ERR_NO_SOURCE);
    EXPECT_EQ(lib.GetDS(SX_DS_FIRST, &ds), SX_ERR_NO_SOURCE);
    ScopedEnv shift("SX_SHIFT_HELD", "1");
    ASSERT_EQ(lib.GetDS(SX_DS_FIRST, &ds), 0);
    EXPECT_EQ(Text(ds.DisplayName) + "|" + Text(ds.FileName) + "|" + Text(ds.Directory) + "|" +
                  Text(ds.FileVersion) + "|" + Text(ds.Vendor) + "|" + Text(ds.PortName),
              "ID#0 -        Sample 0.00|Sample.dll|/|0.00|Corvane Inc.|Sample");
    EXPECT_EQ(lib.GetDS(SX_DS_NEXT, &ds), SX_ERR_NO_SOURCE);
    EXPECT_EQ(lib.GetDS(SX_DS_FIRST, &ds), 0);
    EXPECT_EQ(lib.GetDS(SX_DS_FIRST, reinterpret_cast<SxDataSource*>(8)), SX_ERR_NO_SOURCE);
    // Chosen, it runs without a module as the "Test Sample" scanner.
    EXPECT_EQ(lib.SetDriverById(&ds, 0), 0);
    char model[33] = {};
    EXPECT_EQ(lib.GetValue(CAP_MODELNAME, TY_STR32, model), 0);
    EXPECT_STREQ(model, "Test Sample");
  }
  root.InstallVscan("Corvane/QM7110", ScannerIni("QM7110"));
  ScopedEnv shift("SX_SHIFT_HELD", "1");
  Library lib;
  EXPECT_EQ(SortedNames(Enumerate(lib)), Strings{DisplayName("USB", "QM7110")});
}

}  // namespace
}  // namespace sxtest
