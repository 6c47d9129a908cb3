#include "modules/vscan/VscanDevice.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>
#include <thread>

namespace sx::vscan {

namespace {

int32_t Fail(Device& d, uint32_t status, std::string& extra, const char* reason) {
  d.Status = status;
  if (reason) extra += std::string(extra.empty() ? "" : " ") + "reason=" + reason;
  return 0;
}

int32_t Fail(Device& d, uint32_t status) {
  d.Status = status;
  return 0;
}

std::string ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

bool IsFeederMethod(uint8_t method) { return method == 1 || method == 4 || method == 5; }

// The largest area the source of a scan method can scan, 1/300 inch. False
// for a method the scanner does not know.
bool SourceArea(const Device& d, uint8_t method, uint32_t& width, uint32_t& length) {
  const ScannerAbility& a = d.Cfg.Ability;
  switch (method) {
    case 0: width = a.FlatbedMaxWidth; length = a.FlatbedMaxLength; return true;
    case 1: case 4: case 5: width = a.AdfMaxWidth; length = a.AdfMaxLength; return true;
    case 2: case 3:
      // The alternate sources fall back to the default area, as the library
      // does when it reads the abilities.
      width = a.AltAreaWidth ? a.AltAreaWidth : d.Cfg.DefaultAreaWidth;
      length = a.AltAreaLength ? a.AltAreaLength : d.Cfg.DefaultAreaLength;
      return true;
    default: return false;
  }
}

// Why the scanner refuses a parameter record, or null when it accepts it.
uint8_t DepthOfMode(uint8_t mode) {
  return mode == kModeColor ? 24 : mode == kModeGray ? 8 : 1;
}

const char* RefusalReason(const Device& d, const ScanParameter& p) {
  const uint16_t maxRes = d.Cfg.Ability.MaxResolution;
  if (p.ScanMode != kModeLineArt && p.ScanMode != kModeHalftone && p.ScanMode != kModeGray &&
      p.ScanMode != kModeColor)
    return "ScanMode";
  if (p.XRes == 0 || p.YRes == 0 || p.XRes > maxRes || p.YRes > maxRes) return "Resolution";
  // The chart comes in one depth per mode: 1 bit for line art and halftone,
  // 8 for gray, 24 for colour; any other depth is refused, as a scanner
  // refuses what it cannot deliver.
  if (p.BitsPerPixel != DepthOfMode(p.ScanMode)) return "BitsPerPixel";
  if (p.PixelNum == 0) return "PixelNum";
  if (p.LineNum == 0) return "LineNum";
  ChartGeometry g;
  g.ScanMode = p.ScanMode;
  g.PixelNum = p.PixelNum;
  // A line art line of fewer than 8 pixels would be a line of no bytes.
  if (ChartBytesPerLine(g) == 0) return "LineBytes";
  uint32_t width = 0, length = 0;
  if (!SourceArea(d, p.ScanMethod, width, length)) return "ScanMethod";
  if (uint32_t{p.Left} + p.Width > width || uint32_t{p.Top} + p.Length > length) return "Area";
  return nullptr;
}

// The lamp refuses work while it warms up; each refusal brings it closer.
bool LampCold(Device& d) {
  if (d.WarmUpLeft == 0) return false;
  --d.WarmUpLeft;
  d.Status = d.Cfg.WarmUpStatus;
  return true;
}

bool FaultPageNow(const Device& d) { return d.Cfg.FaultPage == 0 || d.Cfg.FaultPage == d.PagesStarted; }

void ResetSession(Device& d) {
  d.Status = 0;
  // Fault counts start again with each session, except InitializeDriver's
  // own, so "fail the first initialisation only" spans sessions.
  const uint32_t initHits = d.FaultCalls[static_cast<size_t>(Entry::InitializeDriver)];
  d.FaultCalls.fill(0);
  d.FaultCalls[static_cast<size_t>(Entry::InitializeDriver)] = initHits;
  d.SheetsLeft = d.Cfg.Sheets;
  d.SheetsTaken = 0;
  d.WarmUpLeft = d.Cfg.WarmUpRefusals;
  d.LampPolls = 0;
  d.Pressed = d.Cfg.PressedButton;
  d.ParamsValid = false;
  d.PageActive = false;
  d.PagesStarted = 0;
  for (auto& table : d.Tone)
    for (int i = 0; i < 256; ++i) table[i] = static_cast<uint8_t>(i);
}

// Everything that decides the bytes of a page, as a key for the kept page.
std::string PageKey(const Device& d, const ChartGeometry& g) {
  std::string key;
  auto add = [&key](const void* p, size_t n) { key.append(static_cast<const char*>(p), n); };
  const uint32_t fields[] = {g.Left, g.Top, g.XRes, g.YRes, g.PixelNum, d.PageLines,
                             g.ScanMode, g.ColorFilter, g.HTPatternNo, g.Page, d.HasImage};
  add(fields, sizeof fields);
  add(d.Tone, sizeof d.Tone);
  return key;
}

void Draw(Device& d, uint8_t* out, uint64_t count);

// Draws the whole page into the kept page before the first read, so that
// every read of it is a copy from memory.
void Prerender(Device& d, uint64_t total) {
  Device::PageMemo& m = d.Memo;
  Draw(d, m.Bytes.data(), total);
  d.PagePos = 0;
  d.BufferedLine = -1;
  m.Filled = total;
  m.Replay = true;
}

// A scanner that draws a page again costs the host nothing but the copy, so
// the library's own processing can be measured alone; a pre-rendered page
// costs nothing but the copy from its first read on. Pages beyond
// kMaxKeptPage bytes are never kept.
void PrepareMemo(Device& d, const ChartGeometry& g) {
  constexpr uint64_t kMaxKeptPage = uint64_t{512} << 20;
  Device::PageMemo& m = d.Memo;
  const uint64_t total = uint64_t{d.PageLines} * d.Renderer.BytesPerLine;
  if ((!d.Cfg.KeepLastPage && !d.Cfg.Prerender) || total > kMaxKeptPage) {
    m = {};
    return;
  }
  std::string key = PageKey(d, g);
  m.Replay = m.Key == key && m.Filled == total;
  if (m.Replay) return;
  m.Key = std::move(key);
  m.Bytes.resize(total);
  m.Filled = 0;
  if (d.Cfg.Prerender) Prerender(d, total);
}

void StartPage(Device& d, uint32_t sheet) {
  ChartGeometry g;
  g.Left = d.Params.Left;
  g.Top = d.Params.Top;
  g.XRes = d.Params.XRes;
  g.YRes = d.Params.YRes;
  g.PixelNum = d.Params.PixelNum;
  g.LineNum = d.Params.LineNum;
  g.ScanMode = d.Params.ScanMode;
  g.ColorFilter = d.Params.ColorFilter;
  g.HTPatternNo = d.Params.HTPatternNo;
  g.Page = sheet;
  for (int c = 0; c < 3; ++c) g.Tone[c] = d.Tone[c];
  g.Image = d.HasImage ? &d.Image : nullptr;
  // The tables in effect when the page starts are the ones the page is read
  // with; uploads during a page apply from the next one.
  PrepareChart(d.Renderer, g);
  d.LineBuffer.resize(d.Renderer.BytesPerLine);
  d.BufferedLine = -1;
  d.PagePos = 0;
  d.Overslept = {};
  d.PageLines = d.Params.LineNum;
  if (d.Cfg.ShortReadAtLine && FaultPageNow(d)) d.PageLines = std::min(d.PageLines, d.Cfg.ShortReadAtLine);
  d.PageActive = true;
  PrepareMemo(d, g);
}

// Draws the next `count` bytes of the page raster into `out`.
void Draw(Device& d, uint8_t* out, uint64_t count) {
  const uint64_t bpl = d.Renderer.BytesPerLine;
  while (count > 0) {
    const auto line = static_cast<int32_t>(d.PagePos / bpl);
    const uint64_t offset = d.PagePos % bpl;
    uint64_t n = 0;
    if (offset == 0 && count >= bpl) {
      RenderLine(d.Renderer, line, out);
      n = bpl;
    } else {
      if (d.BufferedLine != line) {
        RenderLine(d.Renderer, line, d.LineBuffer.data());
        d.BufferedLine = line;
      }
      n = std::min(bpl - offset, count);
      std::memcpy(out, d.LineBuffer.data() + offset, n);
    }
    out += n;
    count -= n;
    d.PagePos += n;
  }
}

// Copies the next `count` bytes of the page raster to `out`, from the kept
// page when it is the same page again.
void Deliver(Device& d, uint8_t* out, uint64_t count) {
  Device::PageMemo& m = d.Memo;
  const uint64_t at = d.PagePos;
  if (m.Replay) {
    std::memcpy(out, m.Bytes.data() + at, count);
    d.PagePos += count;
    return;
  }
  Draw(d, out, count);
  if (!m.Key.empty() && m.Filled == at) {
    std::memcpy(m.Bytes.data() + at, out, count);
    m.Filled += count;
  }
}

// The read itself, once the scanner has moved: `n` bytes into `buffer`.
int32_t ReadPaced(Device& d, uint8_t* buffer, uint32_t want, uint64_t n, std::string& extra) {
  if (!buffer && want) return Fail(d, d.Cfg.ParameterStatus, extra, "NoBuffer");
  const uint64_t bpl = d.Renderer.BytesPerLine;
  const uint64_t failLine = d.Cfg.FailReadAtLine;
  if (failLine && failLine <= d.PageLines && n > 0 && FaultPageNow(d)) {
    const uint64_t lineStart = (failLine - 1) * bpl, lineEnd = failLine * bpl;
    if (d.PagePos < lineEnd && d.PagePos + n > lineStart) return Fail(d, d.Cfg.ReadStatus, extra, "FailReadAtLine");
  }
  Deliver(d, buffer, n);
  return 1;
}

// Reads up to `want` bytes of the page; `got` tells how many came (fewer at
// the page end). 0 with Status set when the read fails.
int32_t ReadPage(Device& d, uint8_t* buffer, uint32_t want, uint32_t& got, std::string& extra) {
  got = 0;
  if (!d.PageActive) return Fail(d, kStatusNotReady, extra, "NoPage");
  const uint64_t bpl = d.Renderer.BytesPerLine;
  const uint64_t total = uint64_t{d.PageLines} * bpl;
  const uint64_t n = std::min<uint64_t>(want, total - d.PagePos);
  // A real scanner delivers at its own pace, per read and per line moved,
  // and produces the lines while it moves: the read ends when the pace says,
  // however long drawing the lines took. Reading and processing can then be
  // seen to overlap in a buffered transfer.
  const uint64_t lines = bpl ? n / bpl : 0;
  const uint64_t waitUs = uint64_t{d.Cfg.ReadDelayMs} * 1000 + lines * d.Cfg.LineDelayUs;
  const auto due = std::chrono::steady_clock::now() + std::chrono::microseconds(waitUs) - d.Overslept;
  const int32_t result = ReadPaced(d, buffer, want, n, extra);
  d.Overslept = {};
  if (waitUs && std::chrono::steady_clock::now() < due) {
    // A sleep may end a fraction of a millisecond early (seen with the
    // MinGW runtime under Wine): the pace is a lower bound, so sleep again.
    do std::this_thread::sleep_until(due);
    while (std::chrono::steady_clock::now() < due);
    d.Overslept = std::chrono::steady_clock::now() - due;
  }
  got = result ? static_cast<uint32_t>(n) : 0;
  return result;
}

}  // namespace

uint8_t BackgroundByte(uint32_t index) { return static_cast<uint8_t>(240 + index % 13); }

bool InjectFault(Device& d, Entry e) {
  const Fault& f = d.Cfg.Faults[static_cast<size_t>(e)];
  if (f.Status == 0) return false;
  // `calls` counts every call of the entry point, so a fault can be placed at
  // the second page of a feeder run without touching the first.
  uint32_t& calls = d.FaultCalls[static_cast<size_t>(e)];
  if (calls < UINT32_MAX) ++calls;
  if (calls <= f.After) return false;
  if (f.Times && calls - f.After > f.Times) return false;
  d.Status = f.Status;
  return true;
}

int32_t DoInitializeDriver(Device& d, std::string& extra) {
  CloseLog(d);
  d.Cfg = DefaultConfig();
  const std::string iniPath = d.Folder + "/vscan.ini";
  ApplyIni(d.Cfg, ReadWholeFile(iniPath), d.Folder);
  OpenLog(d);
  if (!d.NvramLoaded) {
    d.Nvram = d.Cfg.Nvram;
    d.NvramLoaded = true;
  }
  ResetSession(d);
  d.Initialized = false;
  d.HasImage = false;
  d.Image = {};
  if (!d.Cfg.ImagePath.empty()) {
    std::string error;
    if (!LoadPnm(d.Cfg.ImagePath, d.Image, error)) {
      LogNote(d, "image: " + error);
      return Fail(d, kStatusNotReady, extra, "Image");
    }
    d.HasImage = true;
  }
  if (InjectFault(d, Entry::InitializeDriver)) return 0;
  d.Initialized = true;
  return 1;
}

int32_t DoTerminateDriver(Device& d) {
  d.Initialized = false;
  d.PageActive = false;
  return 1;
}

int32_t DoInitializeScanner(Device& d) {
  d.PageActive = false;
  return 1;
}

int32_t DoGetScannerStatus(Device& d, uint8_t* a, uint8_t* b, uint8_t* c, uint32_t* status) {
  for (uint8_t* p : {a, b, c})
    if (p) *p = 0;
  if (status) *status = d.Status;
  return 1;
}

int32_t DoGetScannerAbility(Device& d, ScannerAbilityBasic* basic, std::string& extra) {
  if (!basic) return Fail(d, d.Cfg.ParameterStatus, extra, "NoRecord");
  std::memset(basic, 0, sizeof *basic);
  basic->HasExtendedAbility = d.Cfg.Extended;
  basic->DefaultAreaWidth = d.Cfg.DefaultAreaWidth;
  basic->DefaultAreaLength = d.Cfg.DefaultAreaLength;
  extra = "HasExtendedAbility=" + std::to_string(basic->HasExtendedAbility) +
          " DefaultAreaWidth=" + std::to_string(basic->DefaultAreaWidth) +
          " DefaultAreaLength=" + std::to_string(basic->DefaultAreaLength);
  return 1;
}

int32_t DoGetScannerAbilityEx(Device& d, ScannerAbility* ability, std::string& extra) {
  if (!ability) return Fail(d, d.Cfg.ParameterStatus, extra, "NoRecord");
  std::memcpy(ability, &d.Cfg.Ability, sizeof *ability);
  extra = "ModelName=" + std::string(ability->ModelName, strnlen(ability->ModelName, sizeof ability->ModelName));
  return 1;
}

int32_t DoInitialButton(Device& d, uintptr_t record, std::string& extra) {
  if (!record) return Fail(d, d.Cfg.ParameterStatus, extra, "NoRecord");
  auto* r = reinterpret_cast<uint8_t*>(record);
  std::memset(r, 0, 24);
  std::memcpy(r + 4, &d.Cfg.Buttons, sizeof d.Cfg.Buttons);
  extra = "buttons=" + std::to_string(d.Cfg.Buttons);
  return 1;
}

int32_t DoResetPushButton(Device& d) {
  d.Pressed = 0;
  return 1;
}

int32_t DoReadPushButton(Device& d, uintptr_t record, std::string& extra) {
  if (!record) return Fail(d, d.Cfg.ParameterStatus, extra, "NoRecord");
  auto* r = reinterpret_cast<uint8_t*>(record);
  if (d.Pressed) {
    r[0] = 0x80;
    r[1] = static_cast<uint8_t>(d.Pressed & 0xFF);
    r[6] = static_cast<uint8_t>(d.Pressed >> 8);
  } else {
    r[0] &= 0x7F;
  }
  extra = "button=" + std::to_string(d.Pressed);
  return 1;
}

int32_t DoCheckPushButton(Device& d, std::string& extra) {
  extra = "button=" + std::to_string(d.Pressed);
  return 1;
}

int32_t DoSetGammaTable(Device& d, const uint8_t* table, int32_t channel, int32_t count) {
  if (!table || channel < 1 || channel > 3 || count != 256) return Fail(d, d.Cfg.ParameterStatus);
  std::memcpy(d.Tone[channel - 1], table, 256);
  return 1;
}

int32_t DoSetScanParameter(Device& d, const ScanParameter* p, std::string& extra) {
  if (!p) return Fail(d, d.Cfg.ParameterStatus, extra, "NoRecord");
  if (const char* reason = RefusalReason(d, *p)) return Fail(d, d.Cfg.ParameterStatus, extra, reason);
  if (LampCold(d)) return Fail(d, d.Status, extra, "WarmingUp");
  d.Params = *p;
  d.ParamsValid = true;
  return 1;
}

int32_t DoStartScan(Device& d, std::string& extra) {
  if (!d.ParamsValid) return Fail(d, d.Cfg.ParameterStatus, extra, "NoParameters");
  if (LampCold(d)) return Fail(d, d.Status, extra, "WarmingUp");
  uint32_t sheet = 0;
  if (IsFeederMethod(d.Params.ScanMethod)) {
    if (d.SheetsLeft == 0) return Fail(d, d.Cfg.PaperOutStatus, extra, "NoPaper");
    --d.SheetsLeft;
    sheet = ++d.SheetsTaken;
  }
  ++d.PagesStarted;
  StartPage(d, sheet);
  extra = "page=" + std::to_string(d.PagesStarted) + " sheet=" + std::to_string(sheet) +
          " lines=" + std::to_string(d.PageLines) + " bytesPerLine=" + std::to_string(d.Renderer.BytesPerLine);
  return 1;
}

int32_t DoReadScan(Device& d, uint8_t* buffer, uint32_t bytes, std::string& extra) {
  uint32_t got = 0;
  if (!ReadPage(d, buffer, bytes, got, extra)) return 0;
  extra = "returned=" + std::to_string(got);
  // Plain ReadScan has no way to report a shorter delivery: the bytes that
  // remained are in the buffer, and the call fails with the read status.
  if (got < bytes) return Fail(d, d.Cfg.ReadStatus, extra, "ShortRead");
  return 1;
}

int32_t DoReadScanEx(Device& d, ReadScanRequest* request, std::string& extra) {
  if (!request) return Fail(d, d.Cfg.ParameterStatus, extra, "NoRecord");
  uint32_t got = 0;
  if (!ReadPage(d, request->Buffer, request->BytesRequested, got, extra)) return 0;
  // The injected over-report claims more than was asked; only `got` bytes
  // were written.
  request->BytesReturned = d.Cfg.ReadScanExExtra ? request->BytesRequested + d.Cfg.ReadScanExExtra : got;
  extra = "returned=" + std::to_string(request->BytesReturned);
  return 1;
}

int32_t DoStopScan(Device& d) {
  d.PageActive = false;
  return 1;
}

int32_t DoReadNVMData(Device& d, NvRam* nvram) {
  if (!nvram) return Fail(d, d.Cfg.ParameterStatus);
  std::memcpy(nvram, &d.Nvram, sizeof *nvram);
  return 1;
}

int32_t DoWriteNVMData(Device& d, const NvRam* nvram) {
  if (!nvram) return Fail(d, d.Cfg.ParameterStatus);
  std::memcpy(&d.Nvram, nvram, sizeof d.Nvram);
  return 1;
}

int32_t DoSetPowerSaveTime(Device& d, uint32_t value) {
  // The scanner keeps its power-save time in its non-volatile memory.
  d.Nvram.PowerSaveTime = static_cast<uint16_t>(value & 0xFFFF);
  return 1;
}

int32_t DoGetADFStatus(Device& d, uint8_t* paper, std::string& extra) {
  if (!paper) return Fail(d, d.Cfg.ParameterStatus, extra, "NoRecord");
  *paper = d.SheetsLeft ? d.Cfg.PaperFlag : 0;
  extra = "paper=" + std::to_string(*paper);
  return 1;
}

int32_t DoGetLightStatus(Device& d, uint8_t* lamp, std::string& extra) {
  if (!lamp) return Fail(d, d.Cfg.ParameterStatus, extra, "NoRecord");
  if (d.WarmUpLeft && d.Cfg.WarmUpPolls && ++d.LampPolls >= d.Cfg.WarmUpPolls) d.WarmUpLeft = 0;
  *lamp = d.WarmUpLeft ? 2 : 0;
  extra = "lamp=" + std::to_string(*lamp);
  return 1;
}

int32_t DoLampOff(Device& d) {
  d.WarmUpLeft = d.Cfg.WarmUpRefusals;
  d.LampPolls = 0;
  return 1;
}

int32_t DoChooseSCSIScannerByID(Device& d, uint32_t id) {
  d.ScsiId = id;
  return 1;
}

int32_t DoTuneScanLength(Device& d, int32_t length) {
  d.TunedLength = length;
  return 1;
}

int32_t DoGetBackgroundRaster(Device& d, uintptr_t buffer, uint32_t bytes) {
  if (!buffer && bytes) return Fail(d, d.Cfg.ParameterStatus);
  auto* out = reinterpret_cast<uint8_t*>(buffer);
  for (uint32_t i = 0; i < bytes; ++i) out[i] = BackgroundByte(i);
  return 1;
}

}  // namespace sx::vscan
