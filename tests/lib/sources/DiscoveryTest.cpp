// Discovery under twain_32 as a host sees it through SxGetDS.
#include <gtest/gtest.h>

#include "platform/Paths.h"
#include "tests/lib/sources/SourceHelpers.h"

namespace sxtest {
namespace {

// One tree: drivers at every folder level, names from various abilities, candidates to reject.
// Shift is held: with drivers present that adds no "Sample" source.
TEST(Discovery, WhatIsListedAndHowEntriesDescribeIt) {
  TempRoot root;
  ScopedEnv shift("SX_SHIFT_HELD", "1");
  const std::string twain = root.Twain().string() + "/", qm = DisplayName("USB", "QM7110");
  root.InstallVscan("Corvane/QM7110", ScannerIni("QM7110"), DefaultVersionText("1, 0, 8, 107"));
  // Its own maker folder: a driver lying in a maker folder ends the walk of that folder, so the
  // model folders listed after it (in the file system's order) would not be looked at.
  root.InstallVscan("Maker", ScannerIni("InMaker"), DefaultVersionText(), "maker.dll");
  root.InstallVscan("", ScannerIni("AtTop"), DefaultVersionText(), "top.DLL");
  Strings expected = {qm, DisplayName("USB", "InMaker"), DisplayName("USB", "AtTop")};
  std::vector<std::pair<std::string, std::string>> directories = {
      {expected[1], NativePath(twain + "Maker/")}, {expected[2], NativePath(twain)}};

  // {port, model, firmware, DeviceId, display name, device number}
  const std::tuple<std::string, std::string, std::string, std::string, std::string, uint8_t> named[] = {
      {"scsi-2", "QM2000", "2.10", "3", "ID#3 - QM2000              2.10", 3},
      {"PARALLEL1", "PortCut", "1.00", "7", DisplayName("PARALLEL", "PortCut"), 7},
      {"USB", "Blank", "1.0 b", "x", DisplayName("USB", "Blank", "1.0"), 0},
      {"USB", "FwCut", "12345", "51", DisplayName("USB", "FwCut", "1234"), 3},
      {"USB", "ABCDEFGHIJKLMNOPQRST", "1.00", "12", DisplayName("USB", "ABCDEFGHIJKLMNOPQRST"), 12 - 48},
  };
  for (const auto& [port, model, firmware, id, name, device] : named) {
    root.InstallVscan("C/" + model, ScannerIni(model, port, firmware, id));
    expected.push_back(name);
  }

  const std::string tr = "\\VarFileInfo\\Translation=hex:", us = "\\StringFileInfo\\040904B0\\",
                    de = "\\StringFileInfo\\040704E4\\", v = DefaultVersionText();
  const std::string german = tr + "07 04 e4 04\n" + de + "CompanyName=corvane\n" + de + "FileVersion=1\n",
                    twoLanguages = tr + "09 04 b0 04 07 04 e4 04\n" + us + "CompanyName=Corvane\n" + us +
                                   "FileVersion=1\n";
  // {folder, file, model, injected fault, version record, listed}
  const std::tuple<std::string, std::string, std::string, std::string, std::string, bool> checked[] = {
      {"A/Company", "vscan.dll", "Company", "", v, true},
      {"A/Product", "vscan.dll", "Product", "", DefaultVersionText("1", "Other", "CORVANE x"), true},
      {"A/Foreign", "vscan.dll", "Foreign", "", DefaultVersionText("1", "Other", "Other"), false},
      {"A/Short", "vscan.dll", "Short", "", DefaultVersionText("1", "Corv", "Corv"), false},
      {"A/German", "vscan.dll", "German", "", german, true},
      {"A/TwoLang", "vscan.dll", "TwoLang", "", twoLanguages, false},
      {"A/NoRecord", "vscan.dll", "NoRecord", "", "", false},
      {"A/NoVersion", "vscan.dll", "NoVersion", "", tr + "09 04 b0 04\n" + us + "CompanyName=Corvane\n", false},
      {"A/NoModel", "vscan.dll", "", "", v, false},
      {"A/Scanner", "vscan.dll", "Scanner", "FailInitializeScanner=1", v, false},
      {"A/Driver", "vscan.dll", "Driver", "FailInitializeDriver=1", v, false},
      {"Manager", "TWDSM32.dll", "Manager", "", v, false},   // files in a maker folder
      {"Renamed", "vscan.dll.old", "Renamed", "", v, false},
  };
  for (const auto& [dir, file, model, fault, version, listed] : checked) {
    root.InstallVscan(dir, ScannerIni(model, "USB", "1.00", "0", "[Faults]\n" + fault + "\n"), version, file);
    if (listed) expected.push_back(DisplayName("USB", model));
  }

  // Copies of one scanner make one entry with the greatest version text.
  // {maker, versions in the folders the walk meets first and second, the winner}
  const std::tuple<std::string, std::string, std::string, int> copies[] = {
      {"Twin0", "1, 0, 0, 5", "1, 0, 1, 0", 1}, {"Twin1", "1, 0, 1, 0", "1, 0, 0, 5", 0},
      {"Twin2", "1, 0, 10, 0", "1, 0, 9, 0", 1}, {"Twin3", "1, 0, 1, 0", "1, 0, 1, 0", 0}};  // as text
  for (const auto& [maker, first, second, winner] : copies) {
    fs::create_directories(root.Twain() / maker / "P");
    fs::create_directories(root.Twain() / maker / "Q");
    Strings folders = sx::plat::FindFiles((root.Twain() / maker).string() + "/", "*.*");
    std::erase_if(folders, [](const std::string& n) { return n[0] == '.'; });
    root.InstallVscan(maker + "/" + folders[0], ScannerIni(maker), DefaultVersionText(first));
    root.InstallVscan(maker + "/" + folders[1], ScannerIni(maker), DefaultVersionText(second));
    expected.push_back(DisplayName("USB", maker));
    directories.emplace_back(expected.back(), NativePath(twain + maker + "/" + folders[winner] + "/"));
  }
  std::sort(expected.begin(), expected.end());

  Library lib;
  const auto list = Enumerate(lib);
  EXPECT_EQ(SortedNames(list), expected);
  EXPECT_EQ(Fields(Find(list, qm)),
            qm + "|vscan.dll|" + NativePath(twain + "Corvane/QM7110/") + "|1,0,8,107|CORVANE|USB");
  for (const auto& [port, model, firmware, id, name, device] : named)
    EXPECT_EQ(Find(list, name).DeviceNumber, device) << name;
  for (const auto& [name, directory] : directories) EXPECT_EQ(Text(Find(list, name).Directory), directory);

  // The end stays the end; message 2 starts over; other messages repeat the entry at the cursor.
  SxDataSource ds{}, again{};
  EXPECT_EQ(lib.GetDS(SX_DS_NEXT, &ds), SX_ERR_NO_SOURCE);
  ASSERT_EQ(lib.GetDS(SX_DS_FIRST, &ds), 0);
  ASSERT_EQ(lib.GetDS(0x10007, &again), 0);
  EXPECT_EQ(Text(again.DisplayName), Text(ds.DisplayName));
  ASSERT_EQ(lib.GetDS(SX_DS_NEXT, &again), 0);
  EXPECT_NE(Text(again.DisplayName), Text(ds.DisplayName));
}

TEST(Discovery, SampleSourceOnlyWithShiftHeldAndNoDrivers) {
  TempRoot root;
  Library lib;
  SxDataSource ds{};
  EXPECT_EQ(lib.GetDS(SX_DS_NEXT, &ds), SX_ERR_NO_SOURCE);
  EXPECT_EQ(lib.GetDS(SX_DS_FIRST, &ds), SX_ERR_NO_SOURCE);
  ScopedEnv shift("SX_SHIFT_HELD", "1");
  ASSERT_EQ(lib.GetDS(SX_DS_FIRST, &ds), 0);
  EXPECT_EQ(Fields(ds), NativePath("ID#0 -        Sample 0.00|Sample.dll|/|0.00|Corvane Inc.|Sample"));
  EXPECT_EQ(lib.GetDS(SX_DS_NEXT, &ds), SX_ERR_NO_SOURCE);
  EXPECT_EQ(lib.GetDS(SX_DS_FIRST, &ds), 0);
  EXPECT_EQ(lib.GetDS(SX_DS_FIRST, reinterpret_cast<SxDataSource*>(8)), SX_ERR_NO_SOURCE);
  // Chosen, it runs without a module as the "Test Sample" scanner.
  EXPECT_EQ(lib.SetDriverById(&ds, 0), 0);
  char model[33] = {};
  EXPECT_EQ(lib.GetValue(CAP_MODELNAME, TY_STR32, model), 0);
  EXPECT_STREQ(model, "Test Sample");
}

}  // namespace
}  // namespace sxtest
