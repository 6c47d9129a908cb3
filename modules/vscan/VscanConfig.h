// The behaviour of one installed copy of the virtual scanner, read from the
// vscan.ini beside the module file (keys documented in vscan.ini.example).
#pragma once
#include <array>
#include <cstdint>
#include <string>

#include "modules/common/ModuleIni.h"
#include "sxdriver.h"

namespace sx::vscan {

// The entry points, in the order the library binds them; the names are the
// exported names and the keys of injected faults.
enum class Entry : uint8_t {
  TerminateDriver, InitializeDriver, InitializeScanner, GetScannerStatusEx, GetScannerStatus,
  GetScannerAbilityEx, GetScannerAbility, InitialButton, ResetPushButton, ReadPushButton,
  SetGammaTable, StartScan, ReadScan, ReadScanEx, StopScan, SetScanParameter, CheckPushButton,
  SetPowerSaveTime, LampOff, GetADFStatus, ReadNVMData, GetLightStatus, ChooseSCSIScannerByID,
  TuneScanLength, GetBackgroundRaster, DoCancel, WriteNVMData,
};
constexpr size_t kEntryCount = static_cast<size_t>(Entry::WriteNVMData) + 1;
const char* EntryName(Entry e);

// Scanner status codes the virtual scanner reports (StatusCode of
// GetScannerStatusEx). Each has its own code so a host can tell the
// conditions apart after the library maps them.
constexpr uint32_t kStatusWarmingUp = 164;        // lamp still warming up
constexpr uint32_t kStatusNotReady = 2004;        // no driver session or no page started
constexpr uint32_t kStatusReadFailed = 2004;      // default of [Faults] ReadStatus
constexpr uint32_t kStatusPaperOut = 2010;        // feeder page started with no sheet left
constexpr uint32_t kStatusBadParameter = 2013;    // a record or argument the scanner refuses

// A failure injected into every call of one entry point (Status 0: none).
struct Fault {
  uint32_t Status = 0;
  uint32_t Times = 0;  // 0: every call; else only the first Times calls
  uint32_t After = 0;  // calls that succeed before the fault starts to hit
};

struct Config {
  ScannerAbility Ability{};
  uint8_t Extended = 1;
  uint16_t DefaultAreaWidth = 0;
  uint16_t DefaultAreaLength = 0;
  uint16_t Buttons = 0;
  uint16_t PressedButton = 0;
  NvRam Nvram{};
  uint32_t Sheets = 0;
  uint8_t PaperFlag = 1;  // what GetADFStatus reports while sheets remain
  std::string ImagePath;  // empty: the generated chart
  uint32_t WarmUpRefusals = 0;
  uint32_t WarmUpStatus = kStatusWarmingUp;
  uint32_t WarmUpPolls = 0;  // 0: only the refusals warm the lamp
  uint32_t ReadDelayMs = 0;  // the scanner's speed: a pause in every read
  uint32_t LineDelayUs = 0;  // and a pause for every line a read delivers
  uint32_t KeepLastPage = 0;  // 1: a page drawn again is copied from memory
  uint32_t Prerender = 0;     // 1: each page is drawn whole at StartScan, read by copy
  std::array<Fault, kEntryCount> Faults{};
  uint32_t ShortReadAtLine = 0;
  uint32_t FailReadAtLine = 0;
  uint32_t ReadStatus = kStatusReadFailed;
  uint32_t FaultPage = 0;  // 0: read faults hit every page
  uint32_t ReadScanExExtra = 0;
  uint32_t ParameterStatus = kStatusBadParameter;
  uint32_t PaperOutStatus = kStatusPaperOut;
  std::string LogPath;  // empty: no call log
};

// The defaults: a colour flatbed with a document feeder.
Config DefaultConfig();
// Applies ini text over `config`. Relative paths (image, log) are taken from
// `folder`. Unknown keys and malformed lines are ignored; a number that does
// not parse keeps the value it had.
void ApplyIni(Config& config, const std::string& text, const std::string& folder);

// Numbers are read as modini::ParseIniNumber reads them.
using modini::ParseIniNumber;

}  // namespace sx::vscan
