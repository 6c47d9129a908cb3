// The settings operations as a host sees them: libsxscan.so loaded, the
// virtual scanner bound by SxLoad, values exchanged only through the
// exported functions, and the scanner's side seen in its call log.
#include <gtest/gtest.h>

#include "support/TestEnv.h"

namespace {

using namespace sxtest;

TEST(HostValues, StoredDefaultsScannerRequestsAndColourMatching) {
  TempRoot root;
  const fs::path log = root.Path() / "vscan.log";
  root.WriteRegistry("[Software\\Quillmark\\ScanData]\n\"SCANTYPE\"=dword:00000003\n"
                     "\"UNITS\"=dword:00000000\n\"XPOSITION\"=str(2):\"1.5\"\n");
  root.InstallVscan("Corvane/QM7110", "[Scanner]\nPressedButton=258\n[Feeder]\nSheets=2\n"
                                      "[Log]\nFile=" + log.string() + "\n");
  Library lib;
  SxDataSource ds{};  // chosen once, then opened by the stored choice
  ASSERT_EQ(lib.GetDS(SX_DS_FIRST, &ds), 0);
  ASSERT_EQ(lib.SetDriverById(&ds, 0), 0);
  lib.Free();
  ASSERT_EQ(lib.Load(nullptr), 0);

  uint16_t u16 = 0;
  uint8_t u8 = 0;
  lib.GetValue(CAP_XPOSITION, TY_UINT16, &u16);
  EXPECT_EQ(u16, 450);
  lib.GetValue(CAP_SCANTYPE, TY_UINT8, &u8);
  EXPECT_EQ(u8, 3) << "the scanner has source 3";
  const size_t before = ReadLines(log).size();
  for (int16_t expected : {258, 0}) {  // the first read resets the button
    int16_t button = -1;
    EXPECT_EQ(lib.GetValue(CAP_PUSHBUTTON, TY_INT16, &button), 0);
    EXPECT_EQ(button, expected);
  }
  int16_t minutes = 20;
  lib.SetValue(CAP_ENERGYSAVING, TY_INT16, &minutes);
  std::string calls;
  for (size_t i = before; i < ReadLines(log).size(); ++i) calls += ReadLines(log)[i] + ";";
  // WriteNVMData is never bound: the written record reaches no driver.
  EXPECT_EQ(calls.substr(0, calls.find(" ->")), "ReadPushButton()");
  EXPECT_NE(calls.find("ResetPushButton() -> 1;ReadNVMData() -> 1"), std::string::npos) << calls;
  EXPECT_NE(calls.find(";SetPowerSaveTime(20) -> 1;"), std::string::npos) << calls;

  auto colourMatchValues = [&] {
    SxValueList* list = nullptr;
    EXPECT_EQ(lib.QueryData(CAP_COLORMATCH, TY_INT32, &list), 0);
    const int32_t count = list->Count;
    for (void* locked : {list->Items, static_cast<void*>(list)}) {
      SxHandle h = lib.GlobalHandle(locked);
      while (lib.GlobalUnlock(h)) {
      }
      EXPECT_EQ(lib.GlobalFree(h), nullptr);
    }
    return count;
  };
  EXPECT_EQ(colourMatchValues(), 1) << "no colour module";
  fs::copy_file(SX_TEST_CMMS_FAKE, root.Path() / "windows" / "system32" / "sxcmms.dll");
  WriteFile(root.Twain() / "Corvane" / "QM7110" / "cmatch.ini", "[Model]\nQM7110V=qm.icc\n");
  WriteFile(root.Path() / "windows" / "system32" / "SPOOL" / "DRIVERS" / "COLOR" / "qm.icc", "p");
  EXPECT_EQ(colourMatchValues(), 2);

  auto* bad = reinterpret_cast<void*>(uintptr_t{8});
  EXPECT_EQ(lib.SetValue(CAP_XRESOLUTION, TY_UINT16, bad), 0);
  EXPECT_EQ(lib.GetValue(CAP_DITHER, TY_STR32, bad), 0);
  EXPECT_EQ(lib.QueryData(CAP_DITHER, TY_STR32, static_cast<SxValueList**>(bad)), 0);
  lib.Free();
}

}  // namespace
