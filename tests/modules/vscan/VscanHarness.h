// A private copy of a virtual scanner module loaded as the library loads a driver: its own
// folder, its own vscan.ini, its own state.
#pragma once
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "modules/vscan/TestChart.h"
#include "platform/Module.h"
#include "support/TestEnv.h"
#include "sxdriver.h"

namespace vscantest {

namespace fs = std::filesystem;

#define VSCAN_ENTRY_POINTS(X)                                                                      \
  X(InitializeDriver) X(TerminateDriver) X(InitializeScanner) X(GetScannerStatusEx)               \
  X(GetScannerStatus) X(GetScannerAbilityEx) X(GetScannerAbility) X(InitialButton)                \
  X(ResetPushButton) X(ReadPushButton) X(SetGammaTable) X(StartScan) X(ReadScan) X(ReadScanEx)    \
  X(StopScan) X(SetScanParameter) X(SetPowerSaveTime) X(LampOff) X(GetADFStatus) X(ReadNVMData)   \
  X(GetLightStatus) X(DoCancel) X(WriteNVMData) X(TuneScanLength)

struct Vscan {
  explicit Vscan(const std::string& ini = "", const char* module = SX_TEST_VSCAN) {
    Dir = sxtest::MakeTempFolder("vscan-");
    fs::copy_file(module, Dir / "vscan.dll");
    if (!ini.empty()) sxtest::WriteFile(Dir / "vscan.ini", ini);
    Handle = sx::plat::LoadModule((Dir / "vscan.dll").string());
    if (!Handle) throw std::runtime_error("cannot load " + (Dir / "vscan.dll").string());
#define VSCAN_BIND(name) name = reinterpret_cast<PFN_##name>(sx::plat::ModuleSymbol(Handle, #name));
    VSCAN_ENTRY_POINTS(VSCAN_BIND)
#undef VSCAN_BIND
  }
  ~Vscan() {
    sx::plat::FreeModule(Handle);
    std::error_code ec;
    fs::remove_all(Dir, ec);
  }
  Vscan(const Vscan&) = delete;
  Vscan& operator=(const Vscan&) = delete;

  uint32_t Status() const {
    uint8_t a = 0, b = 0, c = 0;
    uint32_t code = 0xFFFFFFFF;
    GetScannerStatusEx(&a, &b, &c, &code);
    return code;
  }
  // InitializeDriver and InitializeScanner, as the library opens a scanner.
  void Open() const {
    ASSERT_EQ(InitializeDriver() + InitializeScanner(), 2);
  }
  std::vector<std::string> Log() const { return sxtest::ReadLines(Dir / "calls.log"); }

  fs::path Dir;
  void* Handle = nullptr;
#define VSCAN_MEMBER(name) PFN_##name name = nullptr;
  VSCAN_ENTRY_POINTS(VSCAN_MEMBER)
#undef VSCAN_MEMBER
};

// A record as the library sends it for a colour flatbed scan at 300 dpi.
inline ScanParameter Colour300(uint16_t pixels = 2544, uint16_t lines = 600) {
  ScanParameter p{};
  p.Width = 2550, p.Length = 3508, p.PixelNum = pixels, p.LineNum = lines;
  p.ScanMode = sx::vscan::kModeColor, p.BitsPerPixel = 24, p.Highlight = 255;
  p.ExtScanParam = 0x9000, p.XRes = p.YRes = 300, p.ExtensionFlag = 1;
  return p;
}

// The chart the module renders for a record's first `lines` lines.
inline std::vector<uint8_t> Chart(const ScanParameter& p, int32_t lines, uint32_t sheet = 0,
                                  const uint8_t* const* tone = nullptr) {
  sx::vscan::ChartGeometry g;
  g.Left = p.Left, g.Top = p.Top, g.XRes = p.XRes, g.YRes = p.YRes, g.PixelNum = p.PixelNum, g.LineNum = p.LineNum;
  g.ScanMode = p.ScanMode, g.ColorFilter = p.ColorFilter, g.HTPatternNo = p.HTPatternNo, g.Page = sheet;
  if (tone) std::copy(tone, tone + 3, g.Tone);
  const size_t bpl = sx::vscan::ChartBytesPerLine(g);
  std::vector<uint8_t> bytes(bpl * lines);
  for (int32_t y = 0; y < lines; ++y) sx::vscan::RenderChartLine(g, y, bytes.data() + y * bpl);
  return bytes;
}

}  // namespace vscantest
