// The virtual scanner's state and behaviour behind the exported entry points.
//
// Thread contract: there is one Device for the module (gDevice in
// VscanExports.cpp); every entry point holds the module's lock for its whole
// call, so the host's thread and the library's read thread may both call in.
// Nothing here locks by itself.
#pragma once
#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "modules/vscan/TestChart.h"
#include "modules/vscan/VscanConfig.h"
#include "sxdriver.h"

namespace sx::vscan {

struct Device {
  bool Initialized = false;
  Config Cfg;
  std::string Folder;  // where the module file and its vscan.ini lie

  // Non-volatile memory lives as long as the module is loaded: a new driver
  // session (InitializeDriver again) keeps what was written.
  bool NvramLoaded = false;
  NvRam Nvram{};

  PnmImage Image;
  bool HasImage = false;

  uint32_t Status = 0;  // StatusCode of the last call; 0 when it succeeded
  std::array<uint32_t, kEntryCount> FaultCalls{};

  uint32_t SheetsLeft = 0;
  uint32_t SheetsTaken = 0;
  uint32_t WarmUpLeft = 0;
  uint32_t LampPolls = 0;
  uint16_t Pressed = 0;
  uint32_t ScsiId = 0;
  int32_t TunedLength = 0;

  bool ParamsValid = false;
  ScanParameter Params{};
  uint8_t Tone[3][256] = {};  // tables of channels 1..3 as uploaded

  // The page being read.
  bool PageActive = false;
  uint32_t PagesStarted = 0;
  uint32_t PageLines = 0;
  uint64_t PagePos = 0;  // bytes delivered
  ChartRenderer Renderer;
  std::vector<uint8_t> LineBuffer;  // the line a partial read is taken from
  int64_t BufferedLine = -1;
  // The last page drawn, kept when the configuration asks: a page with the
  // same key is then copied instead of drawn again.
  struct PageMemo {
    std::string Key;
    std::vector<uint8_t> Bytes;
    uint64_t Filled = 0;  // bytes of the page drawn so far
    bool Replay = false;  // the current page is copied from Bytes
  } Memo;
  // How far the last paced read overslept; the next read is that much
  // shorter, so the timer's granularity does not slow the scanner down.
  std::chrono::steady_clock::duration Overslept{};

  // The open call log: a descriptor or a system handle (VscanLogFile.h).
  intptr_t LogFile = -1;
};

// Entry-point bodies. Each returns the entry point's result: non-zero on
// success; on failure 0 with Status set. `extra` collects the key=value
// outputs of the call for the call log.
int32_t DoInitializeDriver(Device& d, std::string& extra);
int32_t DoTerminateDriver(Device& d);
int32_t DoInitializeScanner(Device& d);
int32_t DoGetScannerStatus(Device& d, uint8_t* a, uint8_t* b, uint8_t* c, uint32_t* status);
int32_t DoGetScannerAbility(Device& d, ScannerAbilityBasic* basic, std::string& extra);
int32_t DoGetScannerAbilityEx(Device& d, ScannerAbility* ability, std::string& extra);
int32_t DoInitialButton(Device& d, uintptr_t record, std::string& extra);
int32_t DoResetPushButton(Device& d);
int32_t DoReadPushButton(Device& d, uintptr_t record, std::string& extra);
int32_t DoCheckPushButton(Device& d, std::string& extra);
int32_t DoSetGammaTable(Device& d, const uint8_t* table, int32_t channel, int32_t count);
int32_t DoSetScanParameter(Device& d, const ScanParameter* p, std::string& extra);
int32_t DoStartScan(Device& d, std::string& extra);
int32_t DoReadScan(Device& d, uint8_t* buffer, uint32_t bytes, std::string& extra);
int32_t DoReadScanEx(Device& d, ReadScanRequest* request, std::string& extra);
int32_t DoStopScan(Device& d);
int32_t DoReadNVMData(Device& d, NvRam* nvram);
int32_t DoWriteNVMData(Device& d, const NvRam* nvram);
int32_t DoSetPowerSaveTime(Device& d, uint32_t value);
int32_t DoGetADFStatus(Device& d, uint8_t* paper, std::string& extra);
int32_t DoGetLightStatus(Device& d, uint8_t* lamp, std::string& extra);
int32_t DoLampOff(Device& d);
int32_t DoChooseSCSIScannerByID(Device& d, uint32_t id);
int32_t DoTuneScanLength(Device& d, int32_t length);
int32_t DoGetBackgroundRaster(Device& d, uintptr_t buffer, uint32_t bytes);

// The background raster pattern: byte i is 240 + i % 13 (a light, slightly
// uneven backing plate).
uint8_t BackgroundByte(uint32_t index);

// True (and Status set) when an injected fault fails this call of `e`.
bool InjectFault(Device& d, Entry e);

// Call log: one line per call, appended with a single write.
void OpenLog(Device& d);
void CloseLog(Device& d);
bool IsLogOpen(const Device& d);
void LogLine(Device& d, const std::string& line);
// Diagnostic lines start with "# ".
void LogNote(Device& d, const std::string& note);
std::string FormatScanParameter(const ScanParameter* p);
// The fields worth logging; the serial number with blanks and other bytes
// outside printable ASCII as \xHH.
std::string FormatNvram(const NvRam* nvram, const char* separator);
std::string HexBytes(const uint8_t* bytes, size_t count);

}  // namespace sx::vscan
