// The virtual scanner as a driver module: configuration, abilities, NVRAM, buttons, lamp,
// the records it refuses, the call log and the built files.
#include <cstring>

#include "platform/Module.h"
#include "tests/modules/vscan/VscanHarness.h"

namespace {

using namespace vscantest;

std::string Text(const char* field, size_t size) { return std::string(field, strnlen(field, size)); }

struct Records {
  ScannerAbility Ability;
  ScannerAbilityBasic Basic;
  NvRam Nv;
};
Records Read(const Vscan& v) {
  Records r;
  std::memset(&r, 0, sizeof r);  // padding too: the records are compared whole
  v.Open();
  EXPECT_EQ(v.GetScannerAbilityEx(&r.Ability) + v.GetScannerAbility(&r.Basic) + v.ReadNVMData(&r.Nv), 3);
  return r;
}

TEST(VscanConfig, DefaultsExampleIniAndFieldLimits) {
  const Vscan bare, example(sxtest::ReadFile(std::string(SX_TEST_SOURCE_DIR) + "/modules/vscan/vscan.ini.example"));
  const Records a = Read(bare), b = Read(example);
  EXPECT_EQ(std::memcmp(&a, &b, sizeof a), 0) << "no ini and the example describe the same scanner";
  EXPECT_EQ(Text(a.Ability.ModelName, 20) + "/" + Text(a.Nv.SerialNumber, 24), "QM7110V/VS0001234");
  // A colour flatbed with a feeder of both types, an extended record, the whole pattern map.
  const int colour = a.Ability.PixelTypeFlags & SX_PIXEL_COLOR,
            sources = a.Ability.SourceFlags & (SX_SOURCE_FLATBED | SX_SOURCE_SHEETFED_ONLY | SX_SOURCE_FEEDER_TYPES);
  EXPECT_EQ((std::vector<int>{colour, sources, a.Ability.HalftonePatternMap[7], a.Basic.HasExtendedAbility,
                              a.Basic.DefaultAreaLength}),
            (std::vector<int>{SX_PIXEL_COLOR, 0x84, 8, 1, 3508}));

  const Vscan v("; comment\n# comment\n[scanner]\n  model = \"QM 99\"  \n"
                "VENDOR=ABCDEFGHIJKLMNOP\nMaxResolution=0x4B0\nExtended=0\nAdfMaxLength=12x\n"
                "FlatbedMaxWidth=oops\nHalftonePatternMap=9, 8,,7\nPort=\n"
                "[Scanner]\nModel=ignored, the first section wins\nFirmware=9\n"
                "[NVRAM]\nSerialNumber=123456789012345678901234567\nBornYear=1999\nCCDType=0x1FF\n");
  const Records c = Read(v);
  EXPECT_EQ(Text(c.Ability.ModelName, sizeof c.Ability.ModelName), "QM 99");
  // Texts fill their fields without a terminator when they are that long.
  EXPECT_EQ(std::string(c.Ability.Vendor, sizeof c.Ability.Vendor) + c.Ability.FirmwareVersion[0], "ABCDEFGHIJKL1");
  EXPECT_EQ(c.Ability.PortName[0], 0);
  // 0x4B0; a leading number; no number keeps the default; an empty item keeps its default.
  EXPECT_EQ((std::vector<int>{c.Ability.MaxResolution, c.Ability.AdfMaxLength, c.Ability.FlatbedMaxWidth,
                              c.Ability.HalftonePatternMap[0], c.Ability.HalftonePatternMap[1],
                              c.Ability.HalftonePatternMap[2], c.Ability.HalftonePatternMap[3], c.Basic.HasExtendedAbility}),
            (std::vector<int>{1200, 12, 2550, 9, 8, 3, 7, 0}));
  EXPECT_EQ(std::string(c.Nv.SerialNumber, sizeof c.Nv.SerialNumber), "123456789012345678901234");
  EXPECT_EQ((std::vector<int>{c.Nv.PowerSaveTime, c.Nv.BornYear, c.Nv.CCDType}), (std::vector<int>{15, 1999, 0xFF}));
}

TEST(VscanDevice, NvramLastsForTheModulesLifeAndButtonsReport) {
  Vscan v("[Scanner]\nButtons=3\nPressedButton=0x1234\n");
  v.Open();
  NvRam n{}, back{};
  ASSERT_EQ(v.ReadNVMData(&n), 1);
  n.PadCount = 99, n.FirstScanYear = 2024, n.Reserved48[10] = 0x5A;
  std::strcpy(n.SerialNumber, "NEW-SERIAL");
  ASSERT_EQ(v.WriteNVMData(&n) + v.SetPowerSaveTime(0x12340030) + v.TerminateDriver(), 3);
  v.Open();  // a new session keeps the scanner's memory
  ASSERT_EQ(v.ReadNVMData(&back), 1);
  n.PowerSaveTime = 0x30;
  EXPECT_EQ(std::memcmp(&n, &back, sizeof n), 0);
  EXPECT_TRUE(v.ReadNVMData(nullptr) == 0 && v.Status() == 2013u);

  uint8_t record[24];
  std::memset(record, 0xEE, sizeof record);
  ASSERT_EQ(v.InitialButton(reinterpret_cast<uintptr_t>(record)), 1);
  EXPECT_EQ(record[4] | record[5] << 8, 3);
  EXPECT_EQ(record[0] | record[23], 0) << "the record is cleared";
  ASSERT_EQ(v.ReadPushButton(reinterpret_cast<uintptr_t>(record)), 1);
  EXPECT_EQ((std::vector<int>{record[0], record[6] * 256 + record[1]}), (std::vector<int>{0x80, 0x1234}));
  ASSERT_EQ(v.ResetPushButton() + v.ReadPushButton(reinterpret_cast<uintptr_t>(record)), 2);
  EXPECT_EQ(record[0] & 0x80, 0) << "reset";
  EXPECT_EQ(v.ReadPushButton(0), 0);
}

TEST(VscanDevice, LampWarmsUpOverRefusalsOrPolls) {
  ScanParameter p = Colour300(2544, 4);
  uint8_t lamp = 0;
  const auto lampState = [&](const Vscan& v) { return v.GetLightStatus(&lamp) == 1 ? lamp : -1; };
  {
    Vscan v("[Page]\nWarmUpRefusals=2\n");
    v.Open();
    for (int refusal = 0; refusal < 2; ++refusal) {
      EXPECT_EQ(lampState(v), 2);
      EXPECT_TRUE(v.SetScanParameter(&p) == 0 && v.Status() == 164u);
      EXPECT_EQ(v.StartScan(), 0) << "no parameters accepted yet";
    }
    EXPECT_EQ(lampState(v), 0);
    EXPECT_EQ(v.SetScanParameter(&p) + v.StartScan(), 2);
    EXPECT_TRUE(v.LampOff() == 1 && lampState(v) == 2) << "the lamp is cold again";
  }
  Vscan v("[Page]\nWarmUpRefusals=9\nWarmUpPolls=2\nWarmUpStatus=2009\n");
  v.Open();
  EXPECT_TRUE(v.SetScanParameter(&p) == 0 && v.Status() == 2009u);
  EXPECT_EQ(lampState(v), 2);
  EXPECT_EQ(lampState(v), 0);
  EXPECT_EQ(v.SetScanParameter(&p), 1);
}

TEST(VscanDevice, ParameterRecordsTheScannerRefuses) {
  const std::pair<void (*)(ScanParameter&), int32_t> rows[] = {
      {[](ScanParameter&) {}, 1},                      {[](ScanParameter& p) { p.ScanMode = 3; }, 0},
      {[](ScanParameter& p) { p.XRes = 1200; }, 0},    {[](ScanParameter& p) { p.LineNum = 0; }, 0},
      {[](ScanParameter& p) { p.Length = 4200; }, 0},  {[](ScanParameter& p) { p.Length = 4200, p.ScanMethod = 5; }, 1},
  };
  Vscan v;
  v.Open();
  for (size_t i = 0; i < std::size(rows); ++i) {
    ScanParameter p = Colour300();
    rows[i].first(p);
    EXPECT_EQ(v.SetScanParameter(&p), rows[i].second) << i;
    EXPECT_EQ(v.Status(), rows[i].second ? 0u : 2013u) << i;
  }
}

TEST(VscanLog, OneLinePerCallWithItsResult) {
  Vscan v("[Log]\nFile=calls.log\n[Feeder]\nSheets=0\n");
  v.Open();
  ScanParameter p = Colour300(8, 2);
  p.Brightness = -5, p.ScanMethod = 1;
  ASSERT_EQ(v.SetScanParameter(&p), 1);
  uint8_t table[256];
  std::string descending;
  for (int i = 0; i < 256; ++i) {
    table[i] = static_cast<uint8_t>(255 - i);
    descending += "0123456789abcdef"[table[i] >> 4], descending += "0123456789abcdef"[table[i] & 15];
  }
  ASSERT_EQ(v.SetGammaTable(table, 2, 256), 1);
  EXPECT_EQ(v.SetGammaTable(table, 4, 256), 0);
  EXPECT_EQ(v.StartScan(), 0);
  v.Status();
  p.ScanMethod = 0;
  ASSERT_EQ(v.SetScanParameter(&p) + v.StartScan(), 2);
  uint8_t buffer[64];
  ReadScanRequest request{buffer, 30, 0, 0};
  ASSERT_EQ(v.ReadScanEx(&request) + v.ReadScan(nullptr, buffer, 40), 1);  // the second is short
  NvRam nvram{};
  ASSERT_EQ(v.TuneScanLength(1, -20, 1) + v.ReadNVMData(&nvram) + v.TerminateDriver(), 3);
  ASSERT_EQ(v.ReadScanEx(&request), 0) << "after the session: not logged";

  // What the other suites read from the log: each call's name and result, and
  // the tables as sent. The rest of a line is for people.
  const std::vector<std::string> log = v.Log();
  std::vector<std::string> heads;
  for (const std::string& line : log)
    heads.push_back(line.substr(0, line.find('(')) + line.substr(line.find(") -> ") + 1, 5));
  EXPECT_EQ(heads, (std::vector<std::string>{
                       "InitializeDriver -> 1", "InitializeScanner -> 1", "SetScanParameter -> 1", "SetGammaTable -> 1",
                       "SetGammaTable -> 0", "StartScan -> 0", "GetScannerStatusEx -> 1", "SetScanParameter -> 1",
                       "StartScan -> 1", "ReadScanEx -> 1", "ReadScan -> 0", "TuneScanLength -> 1", "ReadNVMData -> 1",
                       "TerminateDriver -> 1"}));
  EXPECT_EQ(log.at(3), "SetGammaTable(channel=2, count=256, table=" + descending + ") -> 1");
}

TEST(VscanBuild, VersionRecordAndExports) {
  for (const char* module : {SX_TEST_VSCAN, SX_TEST_VSCAN_BASIC, SX_TEST_VSCAN_MIN}) {
    SCOPED_TRACE(module);
    const uint32_t size = sx::plat::FileVersionInfoSize(module);
    std::vector<uint8_t> block(size);
    ASSERT_TRUE(sx::plat::FileVersionInfo(module, size, block.data()));
    const void* value = nullptr;
    uint32_t length = 0;
    ASSERT_TRUE(
        sx::plat::VersionQueryValue(block.data(), "\\StringFileInfo\\040904B0\\CompanyName", &value, &length));
    EXPECT_EQ(std::string(static_cast<const char*>(value), length), std::string("Corvane Inc.", 13));
  }
  Vscan full, basic("", SX_TEST_VSCAN_BASIC), minimal("", SX_TEST_VSCAN_MIN);
  EXPECT_TRUE(full.ReadScanEx && full.WriteNVMData && basic.ReadScan && minimal.GetScannerAbilityEx);
  EXPECT_FALSE(basic.ReadScanEx || minimal.GetScannerAbility || minimal.StartScan);
  // Nothing but the entry points leaves the module.
  EXPECT_EQ(sx::plat::ModuleSymbol(full.Handle, "_ZN2sx5vscan15RenderChartLineERKNS0_13ChartGeometryEiPh"), nullptr);
}

}  // namespace
