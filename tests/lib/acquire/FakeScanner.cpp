// The simulated scanner behind the white-box acquisition tests.
#include "FakeScanner.h"

#include <algorithm>

#include "acquire/ProgressDialog.h"

namespace acqtest {

namespace {

FakeScanner gFake;

int32_t Refuse(uint32_t status) { return gFake.Status = status, 0; }

// True (with the status set) when the call is to be refused: the list's next code is not 0.
bool Refused(std::vector<uint32_t>& codes) {
  if (codes.empty()) return false;
  const uint32_t code = codes.front();
  codes.erase(codes.begin());
  return code != 0 && Refuse(code) == 0;
}

int32_t Called(const char* name, int32_t result = 1) { return gFake.Calls.push_back(name), result; }

int32_t SX_DRIVERAPI StartScan() {
  const uint8_t method = gFake.Parameters.back().ScanMethod;
  if (method == 1 || method == 4 || method == 5) {
    if (gFake.Sheets == 0) return Called("StartScan", Refuse(2005));
    --gFake.Sheets;
  }
  gFake.Offset = 0;
  return Called("StartScan");
}

int32_t SX_DRIVERAPI ReadScanEx(ReadScanRequest* request) {
  gFake.Calls.push_back("ReadScan");
  const ScanParameter& p = gFake.Parameters.back();
  const int64_t lineBytes = p.ScanMode == 4 ? 3 * p.PixelNum : p.ScanMode == 2 ? p.PixelNum : p.PixelNum / 8;
  int64_t lines = p.LineNum;
  if (gFake.ShortAtLine >= 0) lines = std::min(lines, gFake.ShortAtLine);
  const int64_t wanted = request->BytesRequested;
  if (gFake.FailAtLine >= 0 && gFake.Offset + wanted > gFake.FailAtLine * lineBytes) return Refuse(2004);
  const int64_t n = std::max<int64_t>(0, std::min(wanted, lines * lineBytes - gFake.Offset));
  for (int64_t i = 0; i < n; ++i) request->Buffer[i] = PatternByte(gFake.Page, gFake.Offset + i);
  gFake.Offset += n;
  request->BytesReturned = static_cast<uint32_t>(n);
  return 1;
}

}  // namespace

int FakeScanner::Count(const std::string& name) const {
  return static_cast<int>(std::count(Calls.begin(), Calls.end(), name));
}

std::string FakeScanner::Sequence() const {
  std::string out;
  for (const std::string& c : Calls) out += (out.empty() ? "" : ",") + c;
  return out;
}

FakeScanner& Fake() { return gFake; }

void InstallFakeScanner() {
  gFake = FakeScanner{};
  sx::DriverTable& d = sx::gDriver = sx::DriverTable{};
  d.GetScannerStatusEx = [](uint8_t*, uint8_t*, uint8_t*, uint32_t* status) SX_DRIVERAPI {
    return *status = gFake.Status, Called("GetScannerStatusEx");
  };
  d.GetADFStatus = [](uint8_t* paper) SX_DRIVERAPI {
    if (Refused(gFake.AdfRefusals)) return Called("GetADFStatus", 0);
    return *paper = gFake.Sheets > 0 ? 1 : 0, Called("GetADFStatus");
  };
  d.SetScanParameter = [](ScanParameter* p) SX_DRIVERAPI {
    gFake.Parameters.push_back(*p);
    return Called("SetScanParameter", Refused(gFake.SetParameterRefusals) ? 0 : 1);
  };
  d.SetGammaTable = [](uint8_t*, int32_t, int32_t) SX_DRIVERAPI { return ++gFake.GammaUploads, 1; };
  d.TuneScanLength = [](int32_t a, int32_t b, int32_t c) SX_DRIVERAPI {
    return gFake.TuneArgs = {a, b, c}, Called("TuneScanLength");
  };
  d.StartScan = StartScan;
  d.ReadScanEx = ReadScanEx;
  d.StopScan = []() SX_DRIVERAPI { return ++gFake.Page, Called("StopScan"); };
  d.DoCancel = []() SX_DRIVERAPI { return Called("DoCancel"); };
  d.GetLightStatus = [](uint8_t* lamp) SX_DRIVERAPI {
    return *lamp = gFake.LampWarmPolls-- > 0 ? gFake.LampWarmState : 0, Called("GetLightStatus");
  };
}

ScannerTest::~ScannerTest() {
  sx::gDriver = driver_;
  sx::gSettings = settings_;
  sx::gAbility = ability_;
  sx::gScanParameter = parameter_;
  sx::gTrack = sx::TrackDialogState{};
}

void ScannerTest::SetUp() {
  InstallFakeScanner();
  ScannerAbility& a = sx::gAbility = ScannerAbility{};
  std::memcpy(a.ModelName, "FAKE1000", 8);
  a.AbilityFlags = 1, a.MaxResolution = 600, a.PixelTypeFlags = 0xA0, a.SourceFlags = 0x84;  // flatbed, feeder
  a.FlatbedMaxWidth = a.AdfMaxWidth = 2550, a.FlatbedMaxLength = 3300, a.AdfMaxLength = 4200;
  a.AltAreaWidth = 1200, a.AltAreaLength = 1500, a.HalftonePatternCount = 4;
  for (uint8_t i = 0; i < 8; ++i) a.HalftonePatternMap[i] = static_cast<uint8_t>(10 + i);
  a.LineartAlignment = a.GrayAlignment = a.ColorAlignment = 8;
  a.HalftoneAlignment = 16, a.DiffusionAlignment = 32, a.Gray4Alignment = 4;

  sx::ScanSettings& s = sx::gSettings = sx::ScanSettings{};
  s.ScanType = 2, s.PixelType = 2, s.BitsPerPixel = 24, s.Filter = 2;
  s.XResolution = s.YResolution = 300;
  for (int i = 0; i < sx::kChannels; ++i) s.Highlight[i] = 255, s.Gamma[i] = 100, s.ToneTables[i] = tables_[i];
  s.Gamma[0] = 220;
  s.ImageWidth = 2550, s.ImageLength = 3300, s.XferCount = -1, s.BackgroundLines = 50;
  sx::gScanParameter = ScanParameter{};
}

}  // namespace acqtest
