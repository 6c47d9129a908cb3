// The traced driver calls: what reaches the driver, what comes back (and
// the driver's status codes as library codes), the lines they leave in the
// log, and the calls whose rules differ.
#include <cstddef>
#include <cstring>
#include <numeric>
#include <regex>
#include <vector>

#include "driver/ErrorCodes.h"
#include "tests/lib/driver/DriverFixture.h"
#include "tests/lib/frame/TraceSupport.h"

namespace {

using namespace sxtest;
using sx::gDriver;
namespace driver = sx::driver;
using TracedCalls = DriverTest;

// The "Test Sample" record as bytes at their offsets.
std::vector<uint8_t> TestSampleBytes() {
  std::vector<uint8_t> b(sizeof(ScannerAbility), 0);
  std::memcpy(&b[0x0C], "Test Sample", 11);
  std::memcpy(&b[0x20], "9.99", 4);
  std::memcpy(&b[0x28], "None", 4);
  std::memcpy(&b[0x34], "None", 4);
  const uint16_t areas[] = {2550, 3508, 2550, 4200, 300, 300, 300, 300, 300}, alt[] = {2550, 3508};
  std::memcpy(&b[0x50], areas, sizeof areas);  // little-endian, as the record is
  std::memcpy(&b[0x7A], alt, sizeof alt);
  b[0x62] = 0xA0, b[0x64] = 0xE0, b[0x68] = 0xC0, b[0x69] = 0xD2, b[0x6A] = 4;
  const uint8_t alignments[] = {32, 8, 8, 32, 32, 32};
  std::memcpy(&b[0x6C], alignments, sizeof alignments);
  return b;
}

// One trace line per field, "<prefix><field> \r\n".
std::string FieldLines(const std::string& prefix, std::initializer_list<const char*> fields) {
  std::string lines;
  for (const char* f : fields) lines += prefix + f + " \r\n";
  return lines;
}

std::vector<uint8_t> Bytes(const ScannerAbility& a) {
  const auto* p = reinterpret_cast<const uint8_t*>(&a);
  return {p, p + sizeof a};
}

TEST_F(TracedCalls, ModuleExportingNothingAnswersForTheDriver) {
  Bind(SX_TEST_EMPTY_DLL);
  uint8_t a = 7, b = 8, c = 9, paper = 3, buffer[16];
  uint32_t status = 1234, count = sizeof buffer;
  const int32_t results[] = {
      driver::InitializeDriver(), driver::StartScan(), driver::DoCancel(), driver::SetPowerSaveTime(5),
      driver::SetScanParameter(&sx::gScanParameter), driver::ReadNVMData(&sx::gNvRam),
      driver::TuneScanLength(1, 30, 1), driver::GetBackgroundRaster(0, 0),
      driver::GetScannerStatusEx(&a, &b, &c, &status), driver::GetADFStatus(&paper)};
  for (int32_t r : results) EXPECT_EQ(r, 1);
  EXPECT_EQ(status + paper, 1234u + 3) << "outputs nobody fills keep their values";
  EXPECT_EQ(driver::ReadScan(nullptr, buffer, &count), 0);
  EXPECT_EQ(count, sizeof buffer);
  std::memset(&sx::gAbility, 0xEE, sizeof sx::gAbility);
  EXPECT_EQ(driver::GetScannerAbilityEx(&sx::gAbility), 1);
  EXPECT_EQ(Bytes(sx::gAbility), TestSampleBytes());
}

int32_t SX_DRIVERAPI StopAnswering42() { return 42; }

// Results pass through (0 here) except where a line always shows 1.
TEST_F(TracedCalls, CallsWhoseArgumentsLinesOrEffectsDiffer) {
  Bind(SX_TEST_DRVFAKE);
  fake_->Adf = 1, fake_->Light = 200, fake_->Result = 0;
  TraceSetup t(1);
  ScannerAbilityBasic basic{};
  EXPECT_EQ(driver::GetScannerAbility(&basic), 0);
  EXPECT_EQ(driver::WriteNVMData(&sx::gNvRam), 1) << "no binding fills WriteNVMData";
  driver::TuneScanLength(7, 300, 9);
  driver::SetPowerSaveTime(0x12345);
  uint8_t paper = 0, light = 0;
  driver::GetADFStatus(&paper);
  driver::GetLightStatus(&light);
  EXPECT_EQ(Calls(), "GetScannerAbility;TuneScanLength(1,300,1);SetPowerSaveTime(74565);"
                     "GetADFStatus;GetLightStatus;");
  EXPECT_EQ(t.Log(),
            "In   1: GetScannerAbility : \r\nOut  1: GetScannerAbility : \r\n"
            "In   1: WriteNVMData : \r\nOut  1: WriteNVMData : \r\n"
            "In   1: TuneScanLength : \r\nOut  0: TuneScanLength : \r\n"
            "In   1: SetPowerSaveTime : 9029 \r\nOut  0: SetPowerSaveTime : 9029 \r\n"
            "In   1: GetADFStatus : \r\nOut  0: GetADFStatus : 1 \r\n"
            "In   1: GetLightStatus : \r\nOut  0: GetLightStatus : 200 \r\n");

  // Cancel stops a feeder scan of method 4 after an even number of pages.
  fake_->Result = 1;
  for (const auto& [method, pages, stops] : {std::tuple{4, 3, false}, {1, 0, false}, {5, 2, false},
                                              {4, 0, true}, {4, 2, true}}) {
    fake_->Log[0] = '\0';
    sx::gScanParameter.ScanMethod = static_cast<uint8_t>(method);
    sx::gSettings.PagesDelivered = pages;
    EXPECT_EQ(driver::DoCancel(), 1);
    EXPECT_EQ(Calls(), stops ? "DoCancel;StopScan;" : "DoCancel;") << method << " " << pages;
  }
  gDriver.StopScan = &StopAnswering42;
  EXPECT_EQ(driver::DoCancel(), 42) << "the stop's result becomes the cancel's";
}

TEST_F(TracedCalls, ReadScanAndStatusOfNewAndOlderDrivers) {
  // {older driver, ReadScanEx's count (negative: all), driver result, result, count}
  const std::tuple<bool, int64_t, int32_t, int32_t, uint32_t> cases[] = {
      {false, -1, 1, 0, 4096}, {false, 1000, 1, 5, 1000}, {false, 0, 1, 5, 0},
      {false, 5000, 1, 0, 4096},  // more than wanted counts as all, count untouched
      {false, -1, 0, -4, 4096}, {true, -1, 1, 0, 4096},   {true, -1, 0, -4, 4096},
  };
  std::vector<uint8_t> buffer(8192);
  for (const auto& [legacy, returned, driverResult, expected, expectedCount] : cases) {
    SCOPED_TRACE(std::to_string(returned) + " " + std::to_string(driverResult));
    Bind(legacy ? SX_TEST_DRVLEGACY : SX_TEST_DRVFAKE);
    fake_->StatusCode = 0x1A4;  // older drivers have only its low 8 bits to give
    TraceSetup t(1);
    const uint32_t status = legacy ? 164 : 0x1A4;
    EXPECT_EQ(driver::QueryStatusCode(), status);
    EXPECT_EQ(t.Lines()[1], "Out  1: GetScannerStatusEx : " + std::to_string(status) + " ");
    fake_->BytesReturned = returned;
    fake_->Result = driverResult;
    uint32_t count = 4096;
    EXPECT_EQ(driver::ReadScan(nullptr, buffer.data(), &count), expected);
    EXPECT_EQ(count, expectedCount);
    EXPECT_EQ(t.Lines().back(), "Out  " + std::to_string(expected) + ": ReadScan : " +
                                    std::to_string(expectedCount) + " ");
    EXPECT_EQ(Calls(), legacy ? "GetScannerStatus;ReadScan(4096);" : "GetScannerStatusEx;ReadScanEx(4096);");
    sx::UnbindDriver();
  }
}

TEST_F(TracedCalls, AbilityRecordFromTheExtendedCallOrTheTestSample) {
  Bind(SX_TEST_DRVFAKE);
  ScannerAbility& a = fake_->Ability;
  std::strcpy(a.ModelName, "QM7110");
  a.AbilityFlags = 0x10;
  fake_->DefaultAreaWidth = 1000, fake_->DefaultAreaLength = 2000;
  // Without the extended ability the extended call is not made at all.
  EXPECT_EQ(driver::GetScannerAbilityEx(&sx::gAbility), 1);
  EXPECT_EQ(Calls(), "GetScannerAbility;");

  fake_->HasExtendedAbility = 1, fake_->Result = 7;
  // {driver's alternate width, length, the record's}
  const uint16_t areas[][4] = {{0, 500, 1000, 2000}, {500, 0, 1000, 2000}, {500, 600, 500, 600}};
  for (const auto& area : areas) {
    a.AltAreaWidth = area[0];
    a.AltAreaLength = area[1];
    EXPECT_EQ(driver::GetScannerAbilityEx(&sx::gAbility), 7);
    const ScannerAbility& got = sx::gAbility;
    EXPECT_EQ((std::vector<uint32_t>{got.AltAreaWidth, got.AltAreaLength, got.AbilityFlags}),
              (std::vector<uint32_t>{area[2], area[3], 0x11u}));
  }

  // A driver that reports no model keeps only the fields the sample leaves.
  std::memset(&a, 0, sizeof a);
  std::strcpy(a.Vendor, "Corvane");
  a.HalftonePatternMap[7] = 8;
  a.MaxResolution = 1200;
  driver::GetScannerAbilityEx(&sx::gAbility);
  std::vector<uint8_t> expected = TestSampleBytes();
  std::memcpy(&expected[0], "Corvane", 7);
  expected[0x43] = 8;
  expected[0x4C] = 1;  // came from the extended call
  EXPECT_EQ(Bytes(sx::gAbility), expected);
}

TEST_F(TracedCalls, RecordFieldLines) {
  Bind(SX_TEST_DRVFAKE);
  ScanParameter p{};
  p.Left = 1, p.Top = 2, p.Width = 2550, p.Length = 3508, p.PixelNum = 5100, p.LineNum = 7016;
  p.ScanMode = 4, p.ScanMethod = 5, p.BitsPerPixel = 24, p.ScanSpeed = 6, p.Contrast = -128;
  p.Brightness = -5, p.HTPatternNo = 7, p.Highlight = 255, p.Shadow = 8, p.ColorFilter = 3;
  p.Invert = 9, p.ReadStatus = 10, p.ExtScanParam = 0x9000, p.RExposure = 11, p.GExposure = 12;
  p.BExposure = 65535, p.XRes = 600, p.YRes = 1200, p.BackgroundLines = 13, p.ExtensionFlag = 1;
  const std::string fields = FieldLines(
      "In   1: param->",
      {"Left : 1",          "Top : 2",           "Width : 2550",         "Length : 3508",
       "PixelNum : 5100",   "LineNum : 7016",    "ScanMode : 4",         "ScanMethod : 5",
       "BitsPerPixel : 24", "ScanSpeed : 6",     "Brightness : -5",      "Contrast : -128",
       "Highlight : 255",   "Shadow : 8",        "HTPatternNo : 7",      "ColorFilter : 3",
       "Invert : 9",        "ReadStatus : 10",   "ExtScanParam : 36864", "RExposure : 11",
       "GExposure : 12",    "BExposure : 65535", "XRes : 600",           "YRes : 1200"});
  {
    TraceSetup t(1);
    driver::SetScanParameter(&p);
    driver::ReadNVMData(&sx::gNvRam);
    EXPECT_EQ(t.Log(), "In   1: SetScanParameter : \r\n" + fields + "Out  1: SetScanParameter : \r\n"
                       "In   1: ReadNVMData : \r\nOut  1: ReadNVMData : \r\n");
  }

  // Four counters, the fourteen 16-bit fields 100.., then the two bytes.
  const uint32_t counters[] = {123456, 2, 3, 4};
  uint16_t shorts[14];
  std::iota(shorts, shorts + 14, uint16_t{100});
  std::memcpy(&fake_->Nv, counters, sizeof counters);
  std::memcpy(reinterpret_cast<uint8_t*>(&fake_->Nv) + offsetof(NvRam, FBLeadingEdge), shorts, 28);
  fake_->Nv.CCDType = 200, fake_->Nv.ScanSpeed = 9;
  // At level 2 the driver call is bracketed by timestamps; the fields follow.
  const std::string expected =
      "In   1: ReadNVMData : \r\n   In   ReadNVMData - milliseconds: N \r\n"
      "   Out  ReadNVMData - milliseconds: N \r\nOut  1: ReadNVMData : \r\n" +
      FieldLines("     1: lNvRam->",
                 {"PadCount : 123456", "ADFSingleCount : 2", "ADFDuplexCount : 3", "PadFBCountCount : 4",
                  "FBLeadingEdge : 100", "FBSideEdge : 101", "ADFFrontLeadingEdge : 102", "ADFFrontSideEdge : 103",
                  "ADFRearLeadingEdge : 104", "ADFRearSideEdge : 105", "BornMonth : 106", "BornDay : 107",
                  "BornYear : 108", "FirstScanMonth : 109", "FirstScanDay : 110", "FirstScanYear : 111",
                  "VMag : 112", "HMag : 113", "CCDType : 200", "ScanSpeed : 9"});
  TraceSetup t(2);
  driver::ReadNVMData(&sx::gNvRam);
  EXPECT_EQ(std::regex_replace(t.Log(), std::regex("milliseconds: -?\\d+ "), "milliseconds: N "), expected);
  // A serial number longer than its field is emptied.
  for (size_t chars : {0, 24, 25, 40}) {  // non-zero characters from the field's start
    NvRam record{};
    std::memset(reinterpret_cast<char*>(&record) + offsetof(NvRam, SerialNumber), 'S', chars);
    sx::SanitizeSerialNumber(record);
    EXPECT_EQ(record.SerialNumber[0], chars > 0 && chars <= 24 ? 'S' : '\0') << chars;
  }
}

TEST(ErrorCodeMapping, BothRangesMeetInTheSameCodes) {
  const std::pair<uint32_t, int32_t> cases[] = {
      {164, -22},  {2009, -22}, {108, -22}, {2007, -22}, {131, 131},  {2003, 2003}, {130, -6},  {2004, -6},
      {1, -6},     {2005, -8},  {127, -9},  {2013, -12}, {104, -17},  {2010, -20},  {125, -23}, {2018, -23},
      {132, -27},  {2019, -27}, {250, -28}, {2002, -28}, {151, -30},
      // Everything else, including codes that are negative as signed numbers.
      {0, -4},     {2, -4},     {2011, -4}, {2012, -4},  {2015, -4},  {2016, -4},   {2017, -4},
      {131 + 256, -4}, {0x80000000u, -4}, {0x80000083u, -4}, {0xFFFFFFFFu, -4}};
  for (const auto& [status, expected] : cases)
    EXPECT_EQ(sx::ErrorCodeMapping(status), expected) << status;

  sxtest::TraceSetup t(1);
  sx::ErrorCodeMapping(2009);
  sx::ErrorCodeMapping(0x80000000u);
  EXPECT_EQ(t.Log(),
            "In   1: ErrorCodeMapping : 2009 \r\nOut  1: ErrorCodeMapping : -22 \r\n"
            "In   1: ErrorCodeMapping : -2147483648 \r\nOut  1: ErrorCodeMapping : -4 \r\n");
}

}  // namespace
