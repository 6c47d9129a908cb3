// The traced driver calls: what reaches the driver, what comes back, the
// lines they leave in the log, and the calls whose rules differ.
#include <cstddef>
#include <cstring>
#include <regex>
#include <vector>

#include "driver/DriverFixture.h"
#include "frame/TraceSupport.h"

namespace {

using namespace sxtest;
using sx::gDriver;
namespace driver = sx::driver;

class TracedCalls : public DriverTest {};

void Put16(std::vector<uint8_t>& bytes, size_t at, uint16_t v) { std::memcpy(&bytes[at], &v, 2); }

// The "Test Sample" record as bytes at their offsets, independent of the
// record's declaration.
std::vector<uint8_t> TestSampleBytes() {
  std::vector<uint8_t> b(sizeof(ScannerAbility), 0);
  std::memcpy(&b[0x0C], "Test Sample", 11);
  std::memcpy(&b[0x20], "9.99", 4);
  std::memcpy(&b[0x28], "None", 4);
  std::memcpy(&b[0x34], "None", 4);
  const uint16_t areas[] = {2550, 3508, 2550, 4200, 300, 300, 300, 300, 300};
  for (size_t i = 0; i < 9; ++i) Put16(b, 0x50 + 2 * i, areas[i]);
  b[0x62] = 0xA0, b[0x64] = 0xE0, b[0x68] = 0xC0, b[0x69] = 0xD2, b[0x6A] = 4;
  const uint8_t alignments[] = {32, 8, 8, 32, 32, 32};
  std::memcpy(&b[0x6C], alignments, sizeof alignments);
  Put16(b, 0x7A, 2550);
  Put16(b, 0x7C, 3508);
  return b;
}

std::vector<uint8_t> Bytes(const ScannerAbility& a) {
  const auto* p = reinterpret_cast<const uint8_t*>(&a);
  return {p, p + sizeof a};
}

bool IsStamp(const std::string& line, const std::string& tagAndLabel) {
  return std::regex_match(line, std::regex(tagAndLabel + " - milliseconds: -?\\d+ "));
}

TEST_F(TracedCalls, ModuleExportingNothingAnswersForTheDriver) {
  Bind(SX_TEST_EMPTY_DLL);
  using Call = int32_t (*)();
  for (Call call : {+[] { return driver::InitializeDriver(); }, +[] { return driver::StartScan(); },
                    +[] { return driver::DoCancel(); }, +[] { return driver::SetPowerSaveTime(5); },
                    +[] { return driver::SetScanParameter(&sx::gScanParameter); },
                    +[] { return driver::ReadNVMData(&sx::gNvRam); },
                    +[] { return driver::TuneScanLength(1, 30, 1); },
                    +[] { return driver::GetBackgroundRaster(0, 0); }}) {
    EXPECT_EQ(call(), 1);
  }
  uint8_t a = 7, b = 8, c = 9, paper = 3;
  uint32_t status = 1234;
  EXPECT_EQ(driver::GetScannerStatusEx(&a, &b, &c, &status), 1);
  EXPECT_EQ(status, 1234u) << "outputs nobody fills keep their values";
  EXPECT_EQ(driver::GetADFStatus(&paper), 1);
  EXPECT_EQ(paper, 3);
  uint8_t buffer[16];
  uint32_t count = sizeof buffer;
  EXPECT_EQ(driver::ReadScan(nullptr, buffer, &count), 0);
  EXPECT_EQ(count, sizeof buffer);
  std::memset(&sx::gAbility, 0xEE, sizeof sx::gAbility);
  EXPECT_EQ(driver::GetScannerAbilityEx(&sx::gAbility), 1);
  EXPECT_EQ(Bytes(sx::gAbility), TestSampleBytes());
}

TEST_F(TracedCalls, ResultsArgumentsAndTheirTraceLines) {
  Bind(SX_TEST_DRVFAKE);
  fake_->Adf = 1;
  fake_->Light = 200;
  TraceSetup t(1);
  fake_->Result = -3;
  EXPECT_EQ(driver::StartScan(), -3);
  fake_->Result = 0;
  ScannerAbilityBasic basic{};
  EXPECT_EQ(driver::GetScannerAbility(&basic), 0);
  EXPECT_EQ(driver::WriteNVMData(&sx::gNvRam), 1) << "no binding fills WriteNVMData";
  fake_->Result = 1;
  driver::TuneScanLength(7, 300, 9);
  driver::SetPowerSaveTime(0x12345);
  driver::InitialButton(1234);
  uint8_t paper = 0, light = 0;
  driver::GetADFStatus(&paper);
  driver::GetLightStatus(&light);
  EXPECT_EQ(Calls(),
            "StartScan;GetScannerAbility;TuneScanLength(1,300,1);SetPowerSaveTime(74565);"
            "InitialButton(1234);GetADFStatus;GetLightStatus;");
  EXPECT_EQ(t.Log(),
            "In   1: StartScan : \r\nOut  -3: StartScan : \r\n"
            "In   1: GetScannerAbility : \r\nOut  1: GetScannerAbility : \r\n"
            "In   1: WriteNVMData : \r\nOut  1: WriteNVMData : \r\n"
            "In   1: TuneScanLength : \r\nOut  1: TuneScanLength : \r\n"
            "In   1: SetPowerSaveTime : 9029 \r\nOut  1: SetPowerSaveTime : 9029 \r\n"
            "In   1: InitialButton : \r\nOut  1: InitialButton : \r\n"
            "In   1: GetADFStatus : \r\nOut  1: GetADFStatus : 1 \r\n"
            "In   1: GetLightStatus : \r\nOut  1: GetLightStatus : 200 \r\n");
}

TEST_F(TracedCalls, StatusFallsBackToTheEightBitStatusOfOlderDrivers) {
  struct Case {
    const char* module;
    uint32_t driverStatus, expected;
  };
  for (const Case c : {Case{SX_TEST_DRVFAKE, 2009, 2009}, Case{SX_TEST_DRVLEGACY, 0x1A4, 164}}) {
    Bind(c.module);
    fake_->StatusCode = c.driverStatus;
    TraceSetup t(1);
    EXPECT_EQ(driver::QueryStatusCode(), c.expected);
    EXPECT_EQ(t.Lines().back(), "Out  1: GetScannerStatusEx : " + std::to_string(c.expected) + " ");
    sx::UnbindDriver();
  }
}

TEST_F(TracedCalls, ReadScanCountsWhatCame) {
  struct Case {
    bool legacy;       // the older driver without ReadScanEx
    int64_t returned;  // ReadScanEx's count; negative: all wanted
    int32_t driverResult, expected;
    uint32_t count;
  };
  const Case cases[] = {
      {false, -1, 1, 0, 4096},   {false, 1000, 1, 5, 1000}, {false, 0, 1, 5, 0},
      {false, 5000, 1, 0, 4096},  // more than wanted counts as all, count untouched
      {false, -1, 0, -4, 4096},  {true, -1, 1, 0, 4096},    {true, -1, 0, -4, 4096},
  };
  std::vector<uint8_t> buffer(8192);
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.returned) + " " + std::to_string(c.driverResult));
    Bind(c.legacy ? SX_TEST_DRVLEGACY : SX_TEST_DRVFAKE);
    fake_->BytesReturned = c.returned;
    fake_->Result = c.driverResult;
    TraceSetup t(1);
    uint32_t count = 4096;
    EXPECT_EQ(driver::ReadScan(nullptr, buffer.data(), &count), c.expected);
    EXPECT_EQ(count, c.count);
    EXPECT_EQ(t.Lines().back(), "Out  " + std::to_string(c.expected) +
                                    ": ReadScan : " + std::to_string(c.count) + " ");
    if (c.legacy) {
      EXPECT_EQ(Calls(), "ReadScan(4096);");
    } else {
      const ReadScanRequest& seen = fake_->SeenRequest;
      EXPECT_EQ(Calls(), "ReadScanEx(4096);") << "ReadScan is not used while ReadScanEx exists";
      EXPECT_EQ(seen.Buffer, buffer.data());
      EXPECT_EQ(seen.BytesRequested, 4096u);
      EXPECT_EQ(seen.Reserved, 0u);
      EXPECT_EQ(seen.BytesReturned, 0u);
    }
    sx::UnbindDriver();
  }
}

int32_t SX_DRIVERAPI StopAnswering42() { return 42; }

TEST_F(TracedCalls, CancelStopsAFeederScanAfterAnEvenNumberOfPages) {
  Bind(SX_TEST_DRVFAKE);
  struct Case {
    uint8_t scanMethod;
    int32_t pagesDelivered;
    bool stops;
  };
  for (const Case c : {Case{4, 0, true}, Case{4, 2, true}, Case{4, 3, false}, Case{1, 0, false},
                       Case{5, 2, false}}) {
    fake_->Log[0] = '\0';
    sx::gScanParameter.ScanMethod = c.scanMethod;
    sx::gSettings.PagesDelivered = c.pagesDelivered;
    EXPECT_EQ(driver::DoCancel(), 1);
    EXPECT_EQ(Calls(), c.stops ? "DoCancel;StopScan;" : "DoCancel;") << c.pagesDelivered;
  }
  // The stop's result becomes the cancel's, and its lines nest inside.
  gDriver.StopScan = &StopAnswering42;
  sx::gScanParameter.ScanMethod = 4;
  sx::gSettings.PagesDelivered = 0;
  TraceSetup t(1);
  EXPECT_EQ(driver::DoCancel(), 42);
  EXPECT_EQ(t.Log(),
            "In   1: DoCancel : \r\nIn   1: StopScan : \r\nOut  42: StopScan : \r\n"
            "Out  42: DoCancel : \r\n");
}

TEST_F(TracedCalls, AbilityRecordFromTheExtendedCallOrTheTestSample) {
  Bind(SX_TEST_DRVFAKE);
  ScannerAbility& a = fake_->Ability;
  std::strcpy(a.ModelName, "QM7110");
  a.AbilityFlags = 0x10;
  fake_->DefaultAreaWidth = 1000;
  fake_->DefaultAreaLength = 2000;
  // Without the extended ability the extended call is not made at all.
  EXPECT_EQ(driver::GetScannerAbilityEx(&sx::gAbility), 1);
  EXPECT_EQ(Calls(), "GetScannerAbility;");
  EXPECT_EQ(Bytes(sx::gAbility), TestSampleBytes());

  fake_->HasExtendedAbility = 1;
  fake_->Result = 7;
  const uint16_t areas[][4] = {{0, 500, 1000, 2000}, {500, 0, 1000, 2000}, {500, 600, 500, 600}};
  for (const auto& area : areas) {
    a.AltAreaWidth = area[0];
    a.AltAreaLength = area[1];
    EXPECT_EQ(driver::GetScannerAbilityEx(&sx::gAbility), 7);
    EXPECT_STREQ(sx::gAbility.ModelName, "QM7110");
    EXPECT_EQ(sx::gAbility.AltAreaWidth, area[2]);
    EXPECT_EQ(sx::gAbility.AltAreaLength, area[3]);
    EXPECT_EQ(sx::gAbility.AbilityFlags, 0x11u);
  }

  // A driver that reports no model keeps only the fields the sample leaves.
  std::memset(&a, 0, sizeof a);
  std::strcpy(a.Vendor, "Corvane");
  std::strcpy(a.PortName, "USB-PORT-12");
  a.HalftonePatternMap[7] = 8;
  a.FeatureFlags = 0xFF;
  a.ExtraFlags = 0x180;
  a.DiffusionPatternCount = 3;
  a.MaxResolution = 1200;
  driver::GetScannerAbilityEx(&sx::gAbility);
  std::vector<uint8_t> expected = TestSampleBytes();
  std::memcpy(&expected[0], "Corvane", 7);
  expected[0x43] = 8;
  expected[0x4C] = 1;  // came from the extended call
  expected[0x6B] = 3;
  Put16(expected, 0x76, 0x180);
  EXPECT_EQ(Bytes(sx::gAbility), expected);
}

TEST_F(TracedCalls, ScanParameterFieldsFollowTheCall) {
  ScanParameter p{};
  p.Left = 1, p.Top = 2, p.Width = 2550, p.Length = 3508, p.PixelNum = 5100, p.LineNum = 7016;
  p.ScanMode = 4, p.ScanMethod = 5, p.BitsPerPixel = 24, p.ScanSpeed = 6, p.Contrast = -128;
  p.Brightness = -5, p.HTPatternNo = 7, p.Highlight = 255, p.Shadow = 8, p.ColorFilter = 3;
  p.Invert = 9, p.ReadStatus = 10, p.ExtScanParam = 0x9000, p.RExposure = 11, p.GExposure = 12;
  p.BExposure = 65535, p.XRes = 600, p.YRes = 1200, p.BackgroundLines = 13, p.ExtensionFlag = 1;
  std::string fields;
  for (const char* f :
       {"Left : 1",          "Top : 2",           "Width : 2550",         "Length : 3508",
        "PixelNum : 5100",   "LineNum : 7016",    "ScanMode : 4",         "ScanMethod : 5",
        "BitsPerPixel : 24", "ScanSpeed : 6",     "Brightness : -5",      "Contrast : -128",
        "Highlight : 255",   "Shadow : 8",        "HTPatternNo : 7",      "ColorFilter : 3",
        "Invert : 9",        "ReadStatus : 10",   "ExtScanParam : 36864", "RExposure : 11",
        "GExposure : 12",    "BExposure : 65535", "XRes : 600",           "YRes : 1200"}) {
    fields += std::string("In   1: param->") + f + " \r\n";
  }
  {
    TraceSetup t(1);
    driver::SetScanParameter(&p);
    EXPECT_EQ(t.Log(),
              "In   1: SetScanParameter : \r\n" + fields + "Out  1: SetScanParameter : \r\n");
  }
  // At level 2 the driver call is bracketed by timestamps; the fields follow.
  TraceSetup t(2);
  driver::SetScanParameter(&p);
  const auto lines = t.Lines();
  ASSERT_EQ(lines.size(), 28u);
  EXPECT_EQ(lines[0], "In   1: SetScanParameter : ");
  EXPECT_TRUE(IsStamp(lines[1], "   In   SetScanParameter")) << lines[1];
  EXPECT_TRUE(IsStamp(lines[2], "   Out  SetScanParameter")) << lines[2];
  EXPECT_EQ(lines[3], "In   1: param->Left : 1 ");
}

TEST_F(TracedCalls, NvRamFieldsAreDetailLinesAtLevelTwo) {
  Bind(SX_TEST_DRVFAKE);
  // Four counters, the fourteen 16-bit fields 100.., then the two bytes.
  auto* raw = reinterpret_cast<uint8_t*>(&fake_->Nv);
  const uint32_t counters[] = {123456, 2, 3, 4};
  std::memcpy(raw, counters, sizeof counters);
  for (uint16_t i = 0; i < 14; ++i) {
    const uint16_t v = static_cast<uint16_t>(100 + i);
    std::memcpy(raw + offsetof(NvRam, FBLeadingEdge) + 2 * i, &v, 2);
  }
  fake_->Nv.CCDType = 200;
  fake_->Nv.ScanSpeed = 9;
  std::string expected = "In   1: ReadNVMData : \r\nOut  1: ReadNVMData : \r\n";
  for (const char* f : {"PadCount : 123456",
                        "ADFSingleCount : 2",
                        "ADFDuplexCount : 3",
                        "PadFBCountCount : 4",
                        "FBLeadingEdge : 100",
                        "FBSideEdge : 101",
                        "ADFFrontLeadingEdge : 102",
                        "ADFFrontSideEdge : 103",
                        "ADFRearLeadingEdge : 104",
                        "ADFRearSideEdge : 105",
                        "BornMonth : 106",
                        "BornDay : 107",
                        "BornYear : 108",
                        "FirstScanMonth : 109",
                        "FirstScanDay : 110",
                        "FirstScanYear : 111",
                        "VMag : 112",
                        "HMag : 113",
                        "CCDType : 200",
                        "ScanSpeed : 9"}) {
    expected += std::string("     1: lNvRam->") + f + " \r\n";
  }
  TraceSetup t(2);
  NvRam record{};
  driver::ReadNVMData(&record);
  std::string log = t.Log();
  log = std::regex_replace(log, std::regex("   (In |Out)  ReadNVMData - milliseconds: -?\\d+ \r\n"),
                           "");
  EXPECT_EQ(log, expected);
}

TEST_F(TracedCalls, SerialNumberLongerThanItsFieldIsEmptied) {
  for (size_t chars : {0, 24, 25, 40}) {  // non-zero characters from the field's start
    NvRam record{};
    std::memset(reinterpret_cast<char*>(&record) + offsetof(NvRam, SerialNumber), 'S', chars);
    sx::SanitizeSerialNumber(record);
    EXPECT_EQ(record.SerialNumber[0], chars > 0 && chars <= 24 ? 'S' : '\0') << chars;
  }
}

}  // namespace
