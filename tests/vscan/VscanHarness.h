// A private copy of a virtual scanner module loaded with dlopen, as the
// library loads a driver: its own folder, its own vscan.ini, its own state.
#pragma once
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>
#include <vector>

#include "modules/vscan/TestChart.h"
#include "support/TestEnv.h"
#include "sxdriver.h"

namespace vscantest {

namespace fs = std::filesystem;

struct Vscan {
  explicit Vscan(const std::string& ini = "", const char* module = SX_TEST_VSCAN) {
    char tmpl[] = "/tmp/vscan-XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
    Dir = tmpl;
    fs::copy_file(module, Dir / "vscan.dll");
    if (!ini.empty()) sxtest::WriteFile(Dir / "vscan.ini", ini);
    Handle = dlopen((Dir / "vscan.dll").c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!Handle) throw std::runtime_error(std::string("dlopen: ") + dlerror());
#define VSCAN_BIND(name) name = reinterpret_cast<PFN_##name>(dlsym(Handle, #name))
    VSCAN_BIND(InitializeDriver); VSCAN_BIND(TerminateDriver); VSCAN_BIND(InitializeScanner);
    VSCAN_BIND(GetScannerStatusEx); VSCAN_BIND(GetScannerStatus); VSCAN_BIND(GetScannerAbilityEx);
    VSCAN_BIND(GetScannerAbility); VSCAN_BIND(InitialButton); VSCAN_BIND(ResetPushButton);
    VSCAN_BIND(ReadPushButton); VSCAN_BIND(SetGammaTable); VSCAN_BIND(StartScan);
    VSCAN_BIND(ReadScan); VSCAN_BIND(ReadScanEx); VSCAN_BIND(StopScan); VSCAN_BIND(SetScanParameter);
    VSCAN_BIND(SetPowerSaveTime); VSCAN_BIND(LampOff); VSCAN_BIND(GetADFStatus);
    VSCAN_BIND(ReadNVMData); VSCAN_BIND(GetLightStatus);
    VSCAN_BIND(DoCancel); VSCAN_BIND(WriteNVMData); VSCAN_BIND(TuneScanLength);
#undef VSCAN_BIND
  }
  ~Vscan() {
    if (Handle) dlclose(Handle);
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
    ASSERT_EQ(InitializeDriver(), 1);
    ASSERT_EQ(InitializeScanner(), 1);
  }
  std::vector<std::string> Log(const char* name = "calls.log") const { return sxtest::ReadLines(Dir / name); }

  fs::path Dir;
  void* Handle = nullptr;
  PFN_InitializeDriver InitializeDriver = nullptr;
  PFN_TerminateDriver TerminateDriver = nullptr;
  PFN_InitializeScanner InitializeScanner = nullptr;
  PFN_GetScannerStatusEx GetScannerStatusEx = nullptr;
  PFN_GetScannerStatus GetScannerStatus = nullptr;
  PFN_GetScannerAbilityEx GetScannerAbilityEx = nullptr;
  PFN_GetScannerAbility GetScannerAbility = nullptr;
  PFN_InitialButton InitialButton = nullptr;
  PFN_ResetPushButton ResetPushButton = nullptr;
  PFN_ReadPushButton ReadPushButton = nullptr;
  PFN_SetGammaTable SetGammaTable = nullptr;
  PFN_StartScan StartScan = nullptr;
  PFN_ReadScan ReadScan = nullptr;
  PFN_ReadScanEx ReadScanEx = nullptr;
  PFN_StopScan StopScan = nullptr;
  PFN_SetScanParameter SetScanParameter = nullptr;
  PFN_SetPowerSaveTime SetPowerSaveTime = nullptr;
  PFN_LampOff LampOff = nullptr;
  PFN_GetADFStatus GetADFStatus = nullptr;
  PFN_ReadNVMData ReadNVMData = nullptr;
  PFN_GetLightStatus GetLightStatus = nullptr;
  PFN_DoCancel DoCancel = nullptr;
  PFN_WriteNVMData WriteNVMData = nullptr;
  PFN_TuneScanLength TuneScanLength = nullptr;
};

// A record as the library sends it for a colour flatbed scan at 300 dpi.
inline ScanParameter Colour300(uint16_t pixels = 2544, uint16_t lines = 600) {
  ScanParameter p{};
  p.Width = 2550;
  p.Length = 3508;
  p.PixelNum = pixels;
  p.LineNum = lines;
  p.ScanMode = sx::vscan::kModeColor;
  p.BitsPerPixel = 24;
  p.Highlight = 255;
  p.ExtScanParam = 0x9000;
  p.XRes = p.YRes = 300;
  p.ExtensionFlag = 1;
  return p;
}

// The geometry the module renders for a record.
inline sx::vscan::ChartGeometry GeometryOf(const ScanParameter& p, uint32_t sheet = 0) {
  sx::vscan::ChartGeometry g;
  g.Left = p.Left;
  g.Top = p.Top;
  g.XRes = p.XRes;
  g.YRes = p.YRes;
  g.PixelNum = p.PixelNum;
  g.LineNum = p.LineNum;
  g.ScanMode = p.ScanMode;
  g.ColorFilter = p.ColorFilter;
  g.HTPatternNo = p.HTPatternNo;
  g.Page = sheet;
  return g;
}

inline std::vector<uint8_t> Chart(const sx::vscan::ChartGeometry& g, int32_t lines) {
  const size_t bpl = sx::vscan::ChartBytesPerLine(g);
  std::vector<uint8_t> bytes(bpl * lines);
  for (int32_t y = 0; y < lines; ++y) sx::vscan::RenderChartLine(g, y, bytes.data() + y * bpl);
  return bytes;
}

}  // namespace vscantest
