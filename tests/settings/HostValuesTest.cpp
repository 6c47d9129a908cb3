// The settings operations as a host sees them: libsxscan.so loaded, the
// virtual scanner installed and bound, values exchanged only through the
// exported functions, and the scanner's side seen in its call log.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "support/TestEnv.h"

namespace {

using namespace sxtest;

class HostValues : public ::testing::Test {
 protected:
  // Installs the virtual scanner with `extraIni` appended to its ini, stores
  // `scanData` as the defaults, chooses the scanner as a host without a
  // stored source does, and opens it again by the stored choice (the full
  // binding of SxLoad).
  void Bind(const std::string& extraIni = "", const std::string& scanData = "") {
    root_.WriteRegistry("[Software\\Quillmark\\ScanData]\n" + scanData);
    source_ = root_.InstallVscan("Corvane/QM7110",
                                 "[Log]\nFile=" + LogPath().string() + "\n" + extraIni);
    ASSERT_TRUE(lib_.Loaded());
    EXPECT_EQ(lib_.Load(nullptr), SX_ERR_NO_SOURCE);
    SxDataSource ds{};
    ASSERT_EQ(lib_.GetDS(SX_DS_FIRST, &ds), 0);
    ASSERT_EQ(lib_.SetDriverById(&ds, 0), 0);
    lib_.Free();
    ASSERT_EQ(lib_.Load(nullptr), 0);
  }
  void TearDown() override {
    if (lib_.Loaded()) lib_.Free();
  }
  fs::path LogPath() const { return root_.Path() / "vscan.log"; }
  // Log lines from `from` on whose call name is `name`.
  std::vector<std::string> Calls(const std::string& name, size_t from = 0) const {
    std::vector<std::string> out;
    const std::vector<std::string> lines = ReadLines(LogPath());
    for (size_t i = from; i < lines.size(); ++i)
      if (lines[i].rfind(name + "(", 0) == 0) out.push_back(lines[i]);
    return out;
  }
  size_t LogSize() const { return ReadLines(LogPath()).size(); }

  template <class T>
  T Get(uint32_t cap, uint32_t type, int32_t expectedResult = 0) {
    T v{};
    EXPECT_EQ(lib_.GetValue(cap, type, &v), expectedResult);
    return v;
  }
  std::string GetText(uint32_t cap) {
    char text[33] = {};
    EXPECT_EQ(lib_.GetValue(cap, TY_STR32, text), 0);
    return text;
  }
  // Count and the first `n` 32-bit items of a list, released as a host does.
  std::pair<int32_t, std::vector<int32_t>> List(uint32_t cap, size_t n) {
    SxValueList* list = nullptr;
    EXPECT_EQ(lib_.QueryData(cap, TY_INT32, &list), 0);
    if (!list) return {};
    std::vector<int32_t> items(n);
    std::memcpy(items.data(), list->Items, n * 4);
    const int32_t count = list->Count;
    for (void* locked : {list->Items, static_cast<void*>(list)}) {
      SxHandle h = lib_.GlobalHandle(locked);
      while (lib_.GlobalUnlock(h)) {
      }
      EXPECT_EQ(lib_.GlobalFree(h), nullptr);
    }
    return {count, items};
  }

  TempRoot root_;
  Library lib_;
  fs::path source_;
};

TEST_F(HostValues, BindingLoadsStoredDefaultsFittedToTheScanner) {
  Bind("", "\"SCANTYPE\"=dword:00000003\n\"UNITS\"=dword:00000000\n"
           "\"XPOSITION\"=str(2):\"1.5\"\n\"GAMMA\"=str(2):\"1.8\"\n\"DITHER\"=str(2):\"Diffusion 2\"\n");
  EXPECT_EQ(Get<uint8_t>(CAP_SCANTYPE, TY_UINT8), 3) << "source 3 by the feature flag";
  EXPECT_EQ(Get<uint16_t>(CAP_XRESOLUTION, TY_UINT16), 300);
  EXPECT_EQ(Get<uint16_t>(CAP_XPOSITION, TY_UINT16), 450);
  EXPECT_EQ(Get<float>(CAP_GAMMA, TY_FLOAT32), 1.0f) << "Filter 2 selects green";
  uint8_t master = 0;
  lib_.SetValue(CAP_FILTER, TY_UINT8, &master);
  EXPECT_EQ(Get<float>(CAP_GAMMA, TY_FLOAT32), 180.0f * 0.01f);
  EXPECT_EQ(GetText(CAP_DITHER), "Diffusion 2");
  EXPECT_EQ(GetText(CAP_MODELNAME), "QM7110V");
  EXPECT_EQ(GetText(CAP_SERIALNUMBER), "VS0001234");
  EXPECT_EQ(Get<int32_t>(CAP_XFERCOUNT, TY_INT32), -1);
}

TEST_F(HostValues, EnergySavingIsHandedToTheScanner) {
  Bind();
  const size_t before = LogSize();
  int16_t minutes = 20;
  EXPECT_EQ(lib_.SetValue(CAP_ENERGYSAVING, TY_INT16, &minutes), 0);
  const std::vector<std::string> lines = ReadLines(LogPath());
  // The record is read and written back, but no binding ever gives the
  // library the scanner's WriteNVMData, so the write reaches no driver.
  ASSERT_EQ(lines.size(), before + 2);
  EXPECT_EQ(lines[before].rfind("ReadNVMData(", 0), 0u);
  EXPECT_EQ(lines[before + 1].rfind("SetPowerSaveTime(20)", 0), 0u);
  EXPECT_EQ(Get<int16_t>(CAP_ENERGYSAVING, TY_INT16), 20);

  EXPECT_EQ(List(CAP_ENERGYSAVING, 1).first, 0);
  EXPECT_EQ(Calls("SetPowerSaveTime", before + 2).at(0).rfind("SetPowerSaveTime(0)", 0), 0u);
}

TEST_F(HostValues, ScannerQueriesAndRequests) {
  Bind("[Scanner]\nPressedButton=258\n[Feeder]\nSheets=2\n");
  EXPECT_EQ(Get<int16_t>(CAP_PUSHBUTTON, TY_INT16), 258);
  EXPECT_EQ(Get<int16_t>(CAP_PUSHBUTTON, TY_INT16), 0) << "the first read reset the button";
  EXPECT_EQ(Calls("ResetPushButton").size(), 2u);
  EXPECT_EQ(List(CAP_PUSHBUTTON, 3), (std::pair<int32_t, std::vector<int32_t>>{3, {0, 1, 2}}));
  EXPECT_EQ(Get<uint8_t>(CAP_FEEDERLOADED, TY_UINT8), 1);
  uint8_t raster[16];
  EXPECT_EQ(lib_.GetValue(CAP_BACKGROUNDLINES, TY_UINT8, raster), 0);
  EXPECT_NE(Calls("GetBackgroundRaster").at(0).find("bytes=0"), std::string::npos)
      << "no acquisition has set a line length yet";
  EXPECT_EQ(List(CAP_COLORMATCH, 1), (std::pair<int32_t, std::vector<int32_t>>{1, {0}}))
      << "no colour module installed";
}

TEST_F(HostValues, FailingFeederStatusIsReported) {
  Bind("[Faults]\nGetADFStatus=2004\n");
  uint8_t paper = 0x5A;
  EXPECT_EQ(lib_.GetValue(CAP_FEEDERLOADED, TY_UINT8, &paper), SX_ERR_DRIVER);
  EXPECT_EQ(paper, 0x5A);
}

TEST_F(HostValues, ColourMatchingIsOfferedWithTheModuleAndProfile) {
  fs::copy_file(SX_TEST_CMMS_FAKE, root_.Path() / "windows" / "system32" / "sxcmms.dll");
  Bind();
  WriteFile(source_.parent_path() / "cmatch.ini", "[Model]\nQM7110V=qm.icc\n");
  WriteFile(root_.Path() / "windows" / "system32" / "SPOOL" / "DRIVERS" / "COLOR" / "qm.icc", "p");
  EXPECT_EQ(List(CAP_COLORMATCH, 2), (std::pair<int32_t, std::vector<int32_t>>{2, {0, 1}}));
}

TEST_F(HostValues, BadHostAddressesAreSurvived) {
  Bind();
  auto* bad = reinterpret_cast<void*>(uintptr_t{8});
  for (uint32_t cap : std::initializer_list<uint32_t>{CAP_XRESOLUTION, CAP_DITHER, CAP_MODELNAME,
                                                      CAP_GAMMA, CAP_PUSHBUTTON}) {
    EXPECT_EQ(lib_.SetValue(cap, TY_STR32, bad), cap == CAP_MODELNAME || cap == CAP_PUSHBUTTON
                                                     ? SX_ERR_UNSUPPORTED
                                                     : 0);
    EXPECT_EQ(lib_.GetValue(cap, TY_STR32, bad), 0);
    EXPECT_EQ(lib_.QueryData(cap, TY_STR32, static_cast<SxValueList**>(bad)), 0);
  }
  EXPECT_EQ(Get<uint16_t>(CAP_XRESOLUTION, TY_UINT16), 300);
}

}  // namespace
