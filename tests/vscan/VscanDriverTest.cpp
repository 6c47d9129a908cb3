// The virtual scanner as a driver module: configuration, abilities, NVRAM,
// buttons, feeder, lamp, injected faults, the call log and the built files.
#include <cstring>

#include "platform/Module.h"
#include "tests/vscan/VscanHarness.h"

namespace {

using namespace vscantest;

std::string Text(const char* field, size_t size) { return std::string(field, strnlen(field, size)); }

TEST(VscanConfig, NoIniAndTheExampleIniDescribeTheSameScanner) {
  Vscan bare;
  Vscan example(sxtest::ReadFile(std::string(SX_TEST_SOURCE_DIR) + "/modules/vscan/vscan.ini.example"));
  ScannerAbility a{}, b{};
  ScannerAbilityBasic ba{}, bb{};
  NvRam na{}, nb{};
  for (Vscan* v : {&bare, &example}) v->Open();
  ASSERT_EQ(bare.GetScannerAbilityEx(&a), 1);
  ASSERT_EQ(example.GetScannerAbilityEx(&b), 1);
  ASSERT_EQ(bare.GetScannerAbility(&ba), 1);
  ASSERT_EQ(example.GetScannerAbility(&bb), 1);
  ASSERT_EQ(bare.ReadNVMData(&na), 1);
  ASSERT_EQ(example.ReadNVMData(&nb), 1);
  EXPECT_EQ(std::memcmp(&a, &b, sizeof a), 0);
  EXPECT_EQ(std::memcmp(&ba, &bb, sizeof ba), 0);
  EXPECT_EQ(std::memcmp(&na, &nb, sizeof na), 0);

  // A colour flatbed with a feeder, with an extended record.
  EXPECT_EQ(Text(a.ModelName, sizeof a.ModelName), "QM7110V");
  EXPECT_EQ(a.PixelTypeFlags & SX_PIXEL_COLOR, SX_PIXEL_COLOR);
  EXPECT_EQ(a.SourceFlags & (SX_SOURCE_FLATBED | SX_SOURCE_SHEETFED_ONLY | SX_SOURCE_FEEDER_TYPES), 0x84)
      << "a flatbed, and a feeder with both feeder types";
  EXPECT_EQ(a.HalftonePatternMap[7], 8) << "the list fills the whole map";
  EXPECT_EQ(ba.HasExtendedAbility, 1);
  EXPECT_EQ(ba.DefaultAreaLength, 3508);
  EXPECT_EQ(Text(na.SerialNumber, sizeof na.SerialNumber), "VS0001234");
}

TEST(VscanConfig, IniRulesAndFieldLimits) {
  Vscan v(
      "; comment\n# comment\n[scanner]\n  model = \"QM 99\"  \n"
      "VENDOR=ABCDEFGHIJKLMNOP\nMaxResolution=0x4B0\nExtended=0\nAdfMaxLength=12x\n"
      "FlatbedMaxWidth=oops\nHalftonePatternMap=9, 8,,7\nPort=\n"
      "[Scanner]\nModel=ignored, the first section wins\n"
      "[NVRAM]\nSerialNumber=123456789012345678901234567\nBornYear=1999\nCCDType=0x1FF\n");
  v.Open();
  ScannerAbility a{};
  ScannerAbilityBasic basic{};
  NvRam n{};
  ASSERT_EQ(v.GetScannerAbilityEx(&a), 1);
  ASSERT_EQ(v.GetScannerAbility(&basic), 1);
  ASSERT_EQ(v.ReadNVMData(&n), 1);
  EXPECT_EQ(Text(a.ModelName, sizeof a.ModelName), "QM 99");
  // Texts fill their fields without a terminator when they are that long.
  EXPECT_EQ(std::string(a.Vendor, sizeof a.Vendor), "ABCDEFGHIJKL");
  EXPECT_EQ(a.FirmwareVersion[0], '1') << "neighbouring field intact";
  EXPECT_EQ(a.PortName[0], 0);
  EXPECT_EQ(a.MaxResolution, 1200);
  EXPECT_EQ(a.AdfMaxLength, 12) << "leading number";
  EXPECT_EQ(a.FlatbedMaxWidth, 2550) << "no number: default kept";
  EXPECT_EQ(a.HalftonePatternMap[0], 9);
  EXPECT_EQ(a.HalftonePatternMap[1], 8);
  EXPECT_EQ(a.HalftonePatternMap[2], 3) << "empty item keeps its default";
  EXPECT_EQ(a.HalftonePatternMap[3], 7);
  EXPECT_EQ(basic.HasExtendedAbility, 0);
  EXPECT_EQ(std::string(n.SerialNumber, sizeof n.SerialNumber), "123456789012345678901234");
  EXPECT_EQ(n.PowerSaveTime, 15);
  EXPECT_EQ(n.BornYear, 1999);
  EXPECT_EQ(n.CCDType, 0xFF) << "cut to the field's width";
}

TEST(VscanSession, CallsNeedAnInitialisedDriver) {
  Vscan v;
  uint8_t paper = 7;
  EXPECT_EQ(v.GetADFStatus(&paper), 0);
  EXPECT_EQ(v.Status(), 2004u);
  uint8_t a, b, c, status8 = 0;
  EXPECT_EQ(v.GetScannerStatus(&a, &b, &c, &status8), 1);
  EXPECT_EQ(status8, 2004 & 0xFF);
  EXPECT_EQ(v.TerminateDriver(), 1);
  v.Open();
  EXPECT_EQ(v.Status(), 0u) << "a successful call clears the status";
  EXPECT_EQ(v.TerminateDriver(), 1);
  EXPECT_EQ(v.GetADFStatus(&paper), 0);
}

TEST(VscanSession, InjectedFaults) {
  struct Row {
    const char* Ini;
    int32_t (*Call)(Vscan&);
    std::vector<int32_t> Results;  // of successive calls
    uint32_t Status;               // after the first
    bool Initialise = true;        // open the session before the calls
  };
  const Row rows[] = {
      {"InitializeDriver=2003\nInitializeDriverTimes=1\n", [](Vscan& v) { return v.InitializeDriver(); }, {0, 1}, 2003, false},
      {"FailInitializeDriver=1\n", [](Vscan& v) { return v.InitializeDriver(); }, {0, 0}, 1, false},
      {"FailInitializeScanner=131\n", [](Vscan& v) { return v.InitializeScanner(); }, {0, 0}, 131},
      {"FailAbility=250\n", [](Vscan& v) { ScannerAbility a{}; return v.GetScannerAbilityEx(&a); }, {0}, 250},
      {"TerminateDriver=2000\n", [](Vscan& v) { return v.TerminateDriver(); }, {0, 0}, 2000},
      {"GetADFStatus=2018\nGetADFStatusTimes=2\n", [](Vscan& v) { uint8_t p; return v.GetADFStatus(&p); },
       {0, 0, 1}, 2018},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.Ini);
    Vscan v(std::string("[Faults]\n") + r.Ini);
    if (r.Initialise) {
      ASSERT_EQ(v.InitializeDriver(), 1);
    }
    for (size_t i = 0; i < r.Results.size(); ++i) {
      EXPECT_EQ(r.Call(v), r.Results[i]) << "call " << i;
      if (i == 0) {
        EXPECT_EQ(v.Status(), r.Status);
      }
    }
  }
}

TEST(VscanDevice, NvramRoundTripLastsForTheModulesLife) {
  Vscan v;
  v.Open();
  NvRam n{};
  ASSERT_EQ(v.ReadNVMData(&n), 1);
  n.PadCount = 99;
  n.FirstScanYear = 2024;
  std::strcpy(n.SerialNumber, "NEW-SERIAL");
  n.Reserved48[10] = 0x5A;
  ASSERT_EQ(v.WriteNVMData(&n), 1);
  ASSERT_EQ(v.SetPowerSaveTime(0x12340030), 1);
  ASSERT_EQ(v.TerminateDriver(), 1);
  v.Open();  // a new session keeps the scanner's memory
  NvRam back{};
  ASSERT_EQ(v.ReadNVMData(&back), 1);
  n.PowerSaveTime = 0x30;
  EXPECT_EQ(std::memcmp(&n, &back, sizeof n), 0);
  EXPECT_EQ(v.ReadNVMData(nullptr), 0);
  EXPECT_EQ(v.Status(), 2013u);
}

TEST(VscanDevice, PushButtons) {
  Vscan v("[Scanner]\nButtons=3\nPressedButton=0x1234\n");
  v.Open();
  uint8_t record[24];
  std::memset(record, 0xEE, sizeof record);
  ASSERT_EQ(v.InitialButton(reinterpret_cast<uintptr_t>(record)), 1);
  EXPECT_EQ(record[4] | record[5] << 8, 3);
  EXPECT_EQ(record[0] | record[23], 0) << "the record is cleared";

  uint8_t state[24] = {};
  ASSERT_EQ(v.ReadPushButton(reinterpret_cast<uintptr_t>(state)), 1);
  EXPECT_EQ(state[0], 0x80);
  EXPECT_EQ(state[6] * 256 + state[1], 0x1234);
  ASSERT_EQ(v.ResetPushButton(), 1);
  std::memset(state, 0, sizeof state);
  ASSERT_EQ(v.ReadPushButton(reinterpret_cast<uintptr_t>(state)), 1);
  EXPECT_EQ(state[0] & 0x80, 0);
  EXPECT_EQ(v.ReadPushButton(0), 0);
}

TEST(VscanDevice, LampWarmsUpOverRefusalsOrPolls) {
  ScanParameter p = Colour300(2544, 4);
  uint8_t lamp = 0;
  {
    Vscan v("[Page]\nWarmUpRefusals=2\n");
    v.Open();
    ASSERT_EQ(v.GetLightStatus(&lamp), 1);
    EXPECT_EQ(lamp, 2);
    EXPECT_EQ(v.SetScanParameter(&p), 0);
    EXPECT_EQ(v.Status(), 164u);
    EXPECT_EQ(v.StartScan(), 0) << "no parameters accepted yet";
    EXPECT_EQ(v.SetScanParameter(&p), 0);
    ASSERT_EQ(v.GetLightStatus(&lamp), 1);
    EXPECT_EQ(lamp, 0);
    EXPECT_EQ(v.SetScanParameter(&p), 1);
    EXPECT_EQ(v.StartScan(), 1);
    ASSERT_EQ(v.LampOff(), 1);
    ASSERT_EQ(v.GetLightStatus(&lamp), 1);
    EXPECT_EQ(lamp, 2) << "the lamp is cold again";
  }
  {
    Vscan v("[Page]\nWarmUpRefusals=9\nWarmUpPolls=2\nWarmUpStatus=2009\n");
    v.Open();
    EXPECT_EQ(v.SetScanParameter(&p), 0);
    EXPECT_EQ(v.Status(), 2009u);
    for (uint8_t expected : {2, 0}) {
      ASSERT_EQ(v.GetLightStatus(&lamp), 1);
      EXPECT_EQ(lamp, expected);
    }
    EXPECT_EQ(v.SetScanParameter(&p), 1);
  }
}

TEST(VscanDevice, ParameterRecordsTheScannerRefuses) {
  struct Row {
    const char* Name;
    void (*Change)(ScanParameter&);
    int32_t Result;
  };
  const Row rows[] = {
      {"as the library sends it", [](ScanParameter&) {}, 1},
      {"gray", [](ScanParameter& p) { p.ScanMode = 2; }, 1},
      {"mode 3", [](ScanParameter& p) { p.ScanMode = 3; }, 0},
      {"above MaxResolution", [](ScanParameter& p) { p.XRes = 1200; }, 0},
      {"YRes 0", [](ScanParameter& p) { p.YRes = 0; }, 0},
      {"no pixels", [](ScanParameter& p) { p.PixelNum = 0; }, 0},
      {"no lines", [](ScanParameter& p) { p.LineNum = 0; }, 0},
      {"line art line without a byte", [](ScanParameter& p) { p.ScanMode = 0; p.PixelNum = 7; }, 0},
      {"unknown method", [](ScanParameter& p) { p.ScanMethod = 6; }, 0},
      {"wider than the flatbed", [](ScanParameter& p) { p.Left = 1; }, 0},
      {"feeder length on the flatbed", [](ScanParameter& p) { p.Length = 4200; }, 0},
      {"feeder length on the feeder", [](ScanParameter& p) { p.Length = 4200; p.ScanMethod = 5; }, 1},
      {"alternate source takes the default area", [](ScanParameter& p) { p.ScanMethod = 2; }, 1},
      {"beyond the default area", [](ScanParameter& p) { p.ScanMethod = 3; p.Top = 1; }, 0},
  };
  Vscan v;
  v.Open();
  for (const Row& r : rows) {
    SCOPED_TRACE(r.Name);
    ScanParameter p = Colour300();
    r.Change(p);
    EXPECT_EQ(v.SetScanParameter(&p), r.Result);
    EXPECT_EQ(v.Status(), r.Result ? 0u : 2013u);
  }
  EXPECT_EQ(v.SetScanParameter(nullptr), 0);
}

TEST(VscanLog, OneLinePerCallWithArgumentsAndOutputs) {
  Vscan v("[Log]\nFile=calls.log\n[Feeder]\nSheets=0\n");
  v.Open();
  ScanParameter p = Colour300(8, 2);
  p.Brightness = -5;
  p.ScanMethod = 1;
  ASSERT_EQ(v.SetScanParameter(&p), 1);
  uint8_t table[256];
  for (int i = 0; i < 256; ++i) table[i] = static_cast<uint8_t>(255 - i);
  ASSERT_EQ(v.SetGammaTable(table, 2, 256), 1);
  EXPECT_EQ(v.SetGammaTable(table, 4, 256), 0);
  EXPECT_EQ(v.StartScan(), 0);
  v.Status();
  p.ScanMethod = 0;
  ASSERT_EQ(v.SetScanParameter(&p), 1);
  ASSERT_EQ(v.StartScan(), 1);
  uint8_t buffer[64];
  ReadScanRequest request{buffer, 30, 0, 0};
  ASSERT_EQ(v.ReadScanEx(&request), 1);
  ASSERT_EQ(v.ReadScan(nullptr, buffer, 40), 0);
  ASSERT_EQ(v.TuneScanLength(1, -20, 1), 1);
  NvRam nvram{};
  ASSERT_EQ(v.ReadNVMData(&nvram), 1);
  ASSERT_EQ(v.TerminateDriver(), 1);
  ASSERT_EQ(v.ReadScanEx(&request), 0) << "after the session: not logged";

  std::string descending;
  for (int i = 255; i >= 0; --i) descending += "0123456789abcdef"[i >> 4], descending += "0123456789abcdef"[i & 15];
  const std::string params =
      "Left=0, Top=0, Width=2550, Length=3508, PixelNum=8, LineNum=2, ScanMode=4, ScanMethod=%d, "
      "BitsPerPixel=24, ScanSpeed=0, Contrast=0, Brightness=-5, HTPatternNo=0, Highlight=255, Shadow=0, "
      "ColorFilter=0, Invert=0, ReadStatus=0, ExtScanParam=36864, RExposure=0, GExposure=0, BExposure=0, "
      "XRes=300, YRes=300, BackgroundLines=0, ExtensionFlag=1";
  auto withMethod = [&](int m) {
    std::string s = params;
    return s.replace(s.find("%d"), 2, std::to_string(m));
  };
  const std::vector<std::string> expected = {
      "InitializeDriver() -> 1",
      "InitializeScanner() -> 1",
      "SetScanParameter(" + withMethod(1) + ") -> 1",
      "SetGammaTable(channel=2, count=256, table=" + descending + ") -> 1",
      "SetGammaTable(channel=4, count=256, table=" + descending + ") -> 0 status=2013",
      "StartScan() -> 0 reason=NoPaper status=2010",
      "GetScannerStatusEx() -> 1 StatusCode=2010",
      "SetScanParameter(" + withMethod(0) + ") -> 1",
      "StartScan() -> 1 page=1 sheet=0 lines=2 bytesPerLine=24",
      "ReadScanEx(requested=30) -> 1 returned=30",
      "ReadScan(requested=40) -> 0 returned=18 reason=ShortRead status=2004",
      "TuneScanLength(1, -20, 1) -> 1",
      "ReadNVMData() -> 1 PadCount=12 ADFSingleCount=345 ADFDuplexCount=6 PowerSaveTime=15 SerialNumber=VS0001234",
      "TerminateDriver() -> 1",
  };
  EXPECT_EQ(v.Log(), expected);
}

TEST(VscanLog, UnreadableImageFailsInitialisationWithANote) {
  Vscan v("[Page]\nImage=missing.ppm\n[Log]\nFile=calls.log\n");
  EXPECT_EQ(v.InitializeDriver(), 0);
  const std::vector<std::string> log = v.Log();
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[0].rfind("# image: cannot open " + (v.Dir / "missing.ppm").string(), 0), 0u) << log[0];
  EXPECT_EQ(log[1], "InitializeDriver() -> 0 reason=Image status=2004");
}

TEST(VscanBuild, VersionRecordAndExports) {
  const std::string record = sxtest::ReadFile(std::string(SX_TEST_SOURCE_DIR) + "/modules/vscan/version.txt");
  for (const char* module : {SX_TEST_VSCAN, SX_TEST_VSCAN_BASIC, SX_TEST_VSCAN_MIN}) {
    SCOPED_TRACE(module);
    const uint32_t size = sx::plat::FileVersionInfoSize(module);
    ASSERT_GT(size, 0u);
    std::vector<uint8_t> block(size);
    ASSERT_TRUE(sx::plat::FileVersionInfo(module, size, block.data()));
    const void* value = nullptr;
    uint32_t length = 0;
    ASSERT_TRUE(sx::plat::VersionQueryValue(block.data(), "\\StringFileInfo\\040904B0\\CompanyName", &value, &length));
    EXPECT_STREQ(static_cast<const char*>(value), "Corvane Inc.");
    ASSERT_TRUE(sx::plat::VersionQueryValue(block.data(), "\\VarFileInfo\\Translation", &value, &length));
    ASSERT_EQ(length, 4u);
    EXPECT_EQ(std::memcmp(value, "\x09\x04\xb0\x04", 4), 0);
  }
  Vscan full, basic("", SX_TEST_VSCAN_BASIC), minimal("", SX_TEST_VSCAN_MIN);
  EXPECT_NE(full.ReadScanEx, nullptr);
  EXPECT_NE(full.WriteNVMData, nullptr);
  EXPECT_EQ(basic.ReadScanEx, nullptr);
  EXPECT_NE(basic.ReadScan, nullptr);
  EXPECT_NE(minimal.GetScannerAbilityEx, nullptr);
  EXPECT_EQ(minimal.GetScannerAbility, nullptr);
  EXPECT_EQ(minimal.StartScan, nullptr);
  // Nothing but the entry points leaves the module.
  EXPECT_EQ(dlsym(full.Handle, "_ZN2sx5vscan15RenderChartLineERKNS0_13ChartGeometryEiPh"), nullptr);
}

}  // namespace
