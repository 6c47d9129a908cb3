// One traced call per driver entry point: an "In " line, the driver call
// bracketed by two timestamp lines, an "Out" line. An empty slot calls
// nothing, so the library runs without any driver module at all.
//
// Thread contract: the calls read gDriver and the library's records without a
// lock; the host's thread and the read thread never call the driver at the
// same time, and no binding happens while an acquisition runs.
#include <cstddef>
#include <cstring>
#include <type_traits>

#include "driver/DriverTable.h"
#include "frame/Trace.h"
#include "settings/ScanSettings.h"

namespace sx {

namespace {

constexpr uint8_t kFeederScanMethod = 4;  // the feeder mode of feeder type 1
constexpr int32_t kReadComplete = 0;
constexpr int32_t kReadShort = 5;
constexpr int32_t kReadFailed = -4;

void Stamp(const char* label, const char* tag) {
  TraceLog(kTraceFile, label, tag, 1, kTraceTimestamp, kKindNumber, 2);
}

// Steps 3 to 5 of every traced call: the timestamps are written whether or
// not there is anything to call, and `result` is kept when the slot is empty.
template <class Fn, class... Args>
int32_t CallSlot(const char* label, Fn slot, int32_t result, Args... args) {
  Stamp(label, kTagCallIn);
  if (slot) result = slot(args...);
  Stamp(label, kTagCallOut);
  return result;
}

template <class Fn, class... Args>
int32_t Traced(const char* label, Fn slot, Args... args) {
  TraceIn(label);
  const int32_t result = CallSlot(label, slot, 1, args...);
  TraceOut(label, result);
  return result;
}

// A record field as the trace shows it: unsigned fields as unsigned numbers,
// signed ones with their sign.
struct TracedField {
  const char* Label;
  size_t Offset;
  size_t Width;
  bool Signed;
};

template <class Record, class Field>
constexpr TracedField MakeField(const char* label, size_t offset) {
  static_assert(sizeof(Field) <= 4);
  return TracedField{label, offset, sizeof(Field), std::is_signed_v<Field>};
}

#define SX_FIELD(Record, prefix, name) \
  MakeField<Record, decltype(Record::name)>(prefix #name, offsetof(Record, name))

int32_t FieldValue(const void* record, const TracedField& field) {
  const auto* bytes = static_cast<const unsigned char*>(record) + field.Offset;
  uint32_t raw = 0;
  std::memcpy(&raw, bytes, field.Width);  // little-endian: the low bytes
  if (field.Signed && field.Width < 4) {
    const uint32_t sign = 1u << (field.Width * 8 - 1);
    raw = (raw ^ sign) - sign;
  }
  return static_cast<int32_t>(raw);
}

// Not memory order: Brightness precedes Contrast and HTPatternNo follows
// Shadow, as the trace has always shown them.
constexpr TracedField kParameterFields[] = {
    SX_FIELD(ScanParameter, "param->", Left),
    SX_FIELD(ScanParameter, "param->", Top),
    SX_FIELD(ScanParameter, "param->", Width),
    SX_FIELD(ScanParameter, "param->", Length),
    SX_FIELD(ScanParameter, "param->", PixelNum),
    SX_FIELD(ScanParameter, "param->", LineNum),
    SX_FIELD(ScanParameter, "param->", ScanMode),
    SX_FIELD(ScanParameter, "param->", ScanMethod),
    SX_FIELD(ScanParameter, "param->", BitsPerPixel),
    SX_FIELD(ScanParameter, "param->", ScanSpeed),
    SX_FIELD(ScanParameter, "param->", Brightness),
    SX_FIELD(ScanParameter, "param->", Contrast),
    SX_FIELD(ScanParameter, "param->", Highlight),
    SX_FIELD(ScanParameter, "param->", Shadow),
    SX_FIELD(ScanParameter, "param->", HTPatternNo),
    SX_FIELD(ScanParameter, "param->", ColorFilter),
    SX_FIELD(ScanParameter, "param->", Invert),
    SX_FIELD(ScanParameter, "param->", ReadStatus),
    SX_FIELD(ScanParameter, "param->", ExtScanParam),
    SX_FIELD(ScanParameter, "param->", RExposure),
    SX_FIELD(ScanParameter, "param->", GExposure),
    SX_FIELD(ScanParameter, "param->", BExposure),
    SX_FIELD(ScanParameter, "param->", XRes),
    SX_FIELD(ScanParameter, "param->", YRes),
};
static_assert(std::size(kParameterFields) == 24);

// Memory order up to ScanSpeed; the serial number text is not traced.
constexpr TracedField kNvRamFields[] = {
    SX_FIELD(NvRam, "lNvRam->", PadCount),
    SX_FIELD(NvRam, "lNvRam->", ADFSingleCount),
    SX_FIELD(NvRam, "lNvRam->", ADFDuplexCount),
    SX_FIELD(NvRam, "lNvRam->", PadFBCountCount),
    SX_FIELD(NvRam, "lNvRam->", FBLeadingEdge),
    SX_FIELD(NvRam, "lNvRam->", FBSideEdge),
    SX_FIELD(NvRam, "lNvRam->", ADFFrontLeadingEdge),
    SX_FIELD(NvRam, "lNvRam->", ADFFrontSideEdge),
    SX_FIELD(NvRam, "lNvRam->", ADFRearLeadingEdge),
    SX_FIELD(NvRam, "lNvRam->", ADFRearSideEdge),
    SX_FIELD(NvRam, "lNvRam->", BornMonth),
    SX_FIELD(NvRam, "lNvRam->", BornDay),
    SX_FIELD(NvRam, "lNvRam->", BornYear),
    SX_FIELD(NvRam, "lNvRam->", FirstScanMonth),
    SX_FIELD(NvRam, "lNvRam->", FirstScanDay),
    SX_FIELD(NvRam, "lNvRam->", FirstScanYear),
    SX_FIELD(NvRam, "lNvRam->", VMag),
    SX_FIELD(NvRam, "lNvRam->", HMag),
    SX_FIELD(NvRam, "lNvRam->", CCDType),
    SX_FIELD(NvRam, "lNvRam->", ScanSpeed),
};

#undef SX_FIELD

void TraceFields(const void* record, const TracedField* fields, size_t count, const char* tag,
                 uint32_t level) {
  if (!record) return;
  for (size_t i = 0; i < count; ++i) {
    TraceLog(kTraceFile, fields[i].Label, tag, 1, FieldValue(record, fields[i]), kKindNumber,
             level);
  }
}

void SetText(char* field, size_t width, const char* text) {
  std::memset(field, 0, width);
  std::memcpy(field, text, std::strlen(text));
}

// What a scanner that reports no model of its own is described as. Fields
// not set here keep what the driver (or the zero fill) left in them.
// Design note: the texts are zero-padded to their full field width.
void FillTestSample(ScannerAbility& a) {
  SetText(a.ModelName, sizeof a.ModelName, "Test Sample");
  SetText(a.FirmwareVersion, sizeof a.FirmwareVersion, "9.99");
  SetText(a.PortName, sizeof a.PortName, "None");
  SetText(a.DeviceId, sizeof a.DeviceId, "None");
  a.FeatureFlags = 0;
  a.FeatureFlags2 = 0;
  a.FlatbedMaxWidth = 2550;
  a.FlatbedMaxLength = 3508;
  a.AdfMaxWidth = 2550;
  a.AdfMaxLength = 4200;
  a.MaxResolution = 300;
  a.ResolutionLimitA = 300;
  a.ResolutionLimitB = 300;
  a.ResolutionLimitC = 300;
  a.ResolutionLimitD = 300;
  a.PixelTypeFlags = 0xA0;
  a.Reserved63 = 0;
  a.SourceFlags = 0xE0;
  a.Reserved65[0] = 0;
  a.ModeFlags = 0xC0;
  a.OptionFlags = 0xD2;
  a.HalftonePatternCount = 4;
  a.LineartAlignment = 32;
  a.GrayAlignment = 8;
  a.ColorAlignment = 8;
  a.HalftoneAlignment = 32;
  a.DiffusionAlignment = 32;
  a.Gray4Alignment = 32;
  a.AltAreaWidth = 2550;
  a.AltAreaLength = 3508;
}

}  // namespace

namespace driver {

int32_t InitializeDriver() { return Traced("InitializeDriver", gDriver.InitializeDriver); }
int32_t TerminateDriver() { return Traced("TerminateDriver", gDriver.TerminateDriver); }
int32_t InitializeScanner() { return Traced("InitializeScanner", gDriver.InitializeScanner); }
int32_t StartScan() { return Traced("StartScan", gDriver.StartScan); }
int32_t StopScan() { return Traced("StopScan", gDriver.StopScan); }
int32_t ResetPushButton() { return Traced("ResetPushButton", gDriver.ResetPushButton); }

int32_t InitialButton(uintptr_t record) {
  return Traced("InitialButton", gDriver.InitialButton, record);
}

int32_t ReadPushButton(uintptr_t record) {
  return Traced("ReadPushButton", gDriver.ReadPushButton, record);
}

int32_t GetBackgroundRaster(uintptr_t buffer, uint32_t bytes) {
  return Traced("GetBackgroundRaster", gDriver.GetBackgroundRaster, buffer, bytes);
}

// Only the length is the caller's; the driver always gets 1 on both sides.
int32_t TuneScanLength(int32_t, int32_t length, int32_t) {
  return Traced("TuneScanLength", gDriver.TuneScanLength, int32_t{1}, length, int32_t{1});
}

// A cancelled feeder scan in the first feeder mode must also be stopped when
// an even number of pages has gone to the host; the stop's result is then the
// cancel's. The stop comes after the cancel's own call, before its "Out" line.
int32_t DoCancel() {
  constexpr char kLabel[] = "DoCancel";
  TraceIn(kLabel);
  int32_t result = CallSlot(kLabel, gDriver.DoCancel, 1);
  if (gScanParameter.ScanMethod == kFeederScanMethod && gSettings.PagesDelivered % 2 == 0) {
    result = StopScan();
  }
  TraceOut(kLabel, result);
  return result;
}

int32_t GetScannerStatusEx(uint8_t* a, uint8_t* b, uint8_t* c, uint32_t* statusCode) {
  constexpr char kLabel[] = "GetScannerStatusEx";
  TraceIn(kLabel);
  int32_t result = 1;
  Stamp(kLabel, kTagCallIn);
  if (gDriver.GetScannerStatusEx) {
    result = gDriver.GetScannerStatusEx(a, b, c, statusCode);
  } else if (gDriver.GetScannerStatus) {
    // Older drivers report an 8-bit status only.
    uint8_t status = 0;
    result = gDriver.GetScannerStatus(a, b, c, &status);
    if (statusCode) *statusCode = status;
  }
  Stamp(kLabel, kTagCallOut);
  TraceOut(kLabel, result, statusCode ? static_cast<int32_t>(*statusCode) : kTraceNoValue);
  return result;
}

uint32_t QueryStatusCode() {
  uint8_t a = 0, b = 0, c = 0;
  uint32_t statusCode = 0;
  GetScannerStatusEx(&a, &b, &c, &statusCode);
  return statusCode;
}

int32_t GetScannerAbility(ScannerAbilityBasic* record) {
  constexpr char kLabel[] = "GetScannerAbility";
  TraceIn(kLabel);
  const int32_t result = CallSlot(kLabel, gDriver.GetScannerAbility, 1, record);
  TraceOut(kLabel, 1);  // the trace has never shown this call's result
  return result;
}

int32_t GetScannerAbilityEx(ScannerAbility* record) {
  constexpr char kLabel[] = "GetScannerAbilityEx";
  TraceIn(kLabel);
  int32_t result = 1;
  std::memset(record, 0, sizeof *record);
  ScannerAbilityBasic basic{};
  basic.HasExtendedAbility = 0;
  GetScannerAbility(&basic);
  // The extended record is asked for only when the basic one announces it.
  if (basic.HasExtendedAbility && gDriver.GetScannerAbilityEx) {
    result = CallSlot(kLabel, gDriver.GetScannerAbilityEx, result, record);
    if (record->AltAreaWidth == 0 || record->AltAreaLength == 0) {
      record->AltAreaWidth = basic.DefaultAreaWidth;
      record->AltAreaLength = basic.DefaultAreaLength;
    }
    record->AbilityFlags |= 1u;
  }
  if (record->ModelName[0] == '\0') FillTestSample(*record);
  TraceOut(kLabel, result);
  return result;
}

int32_t SetScanParameter(ScanParameter* parameter) {
  constexpr char kLabel[] = "SetScanParameter";
  TraceIn(kLabel);
  const int32_t result = CallSlot(kLabel, gDriver.SetScanParameter, 1, parameter);
  TraceFields(parameter, kParameterFields, std::size(kParameterFields), kTagIn, 1);
  TraceOut(kLabel, result);
  return result;
}

int32_t ReadScan(uint8_t* unused, uint8_t* buffer, uint32_t* count) {
  constexpr char kLabel[] = "ReadScan";
  const uint32_t wanted = count ? *count : 0;
  int32_t result = kReadComplete;
  TraceIn(kLabel, static_cast<int32_t>(wanted));
  Stamp(kLabel, kTagCallIn);
  if (gDriver.ReadScanEx) {
    // The reserved field is cleared: the driver must not find stale data.
    ReadScanRequest request{buffer, wanted, 0, 0};
    if (gDriver.ReadScanEx(&request) == 0) {
      result = kReadFailed;
    } else if (request.BytesReturned < wanted) {
      result = kReadShort;
      if (count) *count = request.BytesReturned;
    }
    // More than wanted counts as all wanted: the count is left as it was.
  } else if (gDriver.ReadScan) {
    if (gDriver.ReadScan(unused, buffer, wanted) == 0) result = kReadFailed;
  }
  Stamp(kLabel, kTagCallOut);
  TraceOut(kLabel, result, static_cast<int32_t>(count ? *count : 0));
  return result;
}

int32_t ReadNVMData(NvRam* record) {
  constexpr char kLabel[] = "ReadNVMData";
  const int32_t result = Traced(kLabel, gDriver.ReadNVMData, record);
  TraceFields(record, kNvRamFields, std::size(kNvRamFields), kTagDetail, 2);
  return result;
}

int32_t WriteNVMData(NvRam* record) {
  constexpr char kLabel[] = "WriteNVMData";
  TraceIn(kLabel);
  const int32_t result = CallSlot(kLabel, gDriver.WriteNVMData, 1, record);
  TraceOut(kLabel, 1);  // no binding fills this slot; the trace shows 1
  return result;
}

// The power-save time is 16 bits wide; the driver still gets the whole value.
int32_t SetPowerSaveTime(uint32_t value) {
  constexpr char kLabel[] = "SetPowerSaveTime";
  const int32_t shown = static_cast<int32_t>(value & 0xFFFFu);
  TraceIn(kLabel, shown);
  const int32_t result = CallSlot(kLabel, gDriver.SetPowerSaveTime, 1, value);
  TraceOut(kLabel, result, shown);
  return result;
}

namespace {
template <class Fn>
int32_t TracedByteOut(const char* label, Fn slot, uint8_t* out) {
  TraceIn(label);
  const int32_t result = CallSlot(label, slot, 1, out);
  TraceOut(label, result, out ? static_cast<int32_t>(*out) : kTraceNoValue);
  return result;
}
}  // namespace

int32_t GetADFStatus(uint8_t* paper) {
  return TracedByteOut("GetADFStatus", gDriver.GetADFStatus, paper);
}

int32_t GetLightStatus(uint8_t* state) {
  return TracedByteOut("GetLightStatus", gDriver.GetLightStatus, state);
}

}  // namespace driver

}  // namespace sx
