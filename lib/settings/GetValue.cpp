// SxGetValue: the current value of one capability in the host's value type.
// Most read a settings field; the push button, the feeder and the background
// raster ask the scanner through the traced driver calls.
#include <iterator>

#include "driver/DriverTable.h"
#include "frame/HostCall.h"
#include "settings/FieldTable.h"
#include "settings/SettingsInternal.h"

namespace sx {

namespace {

constexpr int32_t kCannotGet = SX_ERR_UNSUPPORTED;
constexpr uint16_t kFirstInert = 0x9000, kLastInert = 0x9003;

#define SX_FIELD(cap, type, field) {cap, type, offsetof(ScanSettings, field)}
// Fields only reported as they are: setting them does more than store, and
// positions and extents are always reported in 1/300 inch, whatever Units holds.
constexpr PlainField kReportedFields[] = {
    SX_FIELD(CAP_BUFFERING, TY_UINT8, Buffering),
    SX_FIELD(CAP_ENERGYSAVING, TY_INT16, EnergySaving),
    SX_FIELD(CAP_XPOSITION, TY_UINT16, XPosition),
    SX_FIELD(CAP_YPOSITION, TY_UINT16, YPosition),
    SX_FIELD(CAP_IMAGELENGTH, TY_UINT16, ImageLength),
    SX_FIELD(CAP_IMAGEWIDTH, TY_UINT16, ImageWidth),
};
#undef SX_FIELD

// Scanner texts: fixed-width fields that need not be terminated.
struct TextField {
  uint16_t Capability;
  const char* Field;
  size_t Width;
};
const TextField kTextFields[] = {
    {CAP_MODELNAME, gAbility.ModelName, sizeof gAbility.ModelName},
    {CAP_SERIALNUMBER, gNvRam.SerialNumber, sizeof gNvRam.SerialNumber},
    {CAP_FIRMWAREVERSION, gAbility.FirmwareVersion, sizeof gAbility.FirmwareVersion},
};

constexpr uint16_t kCannotGetCodes[] = {CAP_MINBUFFER, 0x9102,         0x9301,
                                        0x9302,        CAP_MAXLENGTHS, CAP_MAXWIDTHS};

// Push-button record: byte 0 bit 0x80 marks an event; the value is byte 6
// (high) and byte 1 (low). The driver may use more of it than it reports.
constexpr size_t kButtonRecordSize = 24;
constexpr uint8_t kButtonEvent = 0x80;

void GetPushButton(uint32_t type, void* value) {
  alignas(8) uint8_t record[kButtonRecordSize] = {};
  int16_t button = 0;
  if (driver::ReadPushButton(reinterpret_cast<uintptr_t>(record)) != 0 &&
      (record[0] & kButtonEvent))
    button = static_cast<int16_t>(record[6] * 256 + record[1]);
  ConvertValue(value, type, TY_INT16, &button);
  driver::ResetPushButton();
}

int32_t GetFeederLoaded(uint32_t type, void* value) {
  uint8_t paper = 0;
  if (driver::GetADFStatus(&paper) == 0) return SX_ERR_DRIVER;
  ConvertValue(value, type, TY_UINT8, &paper);
  return SX_OK;
}

void GetBackgroundRaster(void* value) {
  // The host's buffer goes to the driver as it is; the host sizes it for the
  // latest acquisition's line length.
  uint32_t bytes = static_cast<uint32_t>(gSettings.BackgroundLines) *
                   static_cast<uint32_t>(gSettings.ScanBytesPerLine);
  if (gSettings.FeederType == 1) bytes *= 2;
  driver::GetBackgroundRaster(reinterpret_cast<uintptr_t>(value), bytes);
}

void GetGamma(uint32_t type, void* value) {
  float gamma = 0.0f;
  if (ChannelSelected())
    gamma = Single(static_cast<float>(gSettings.Gamma[gSettings.Filter]) * 0.01f);
  ConvertValue(value, type, TY_FLOAT32, &gamma);
}

void GetDither(uint32_t type, void* value) {
  DitherWords words;
  LoadDitherWords(words);
  char name[kDitherNameSize];
  DitherName(gSettings.Dither, gAbility.HalftonePatternCount, words, name);
  ConvertValue(value, type, TY_STR32, name);
}

bool GetPlainField(const PlainField* begin, const PlainField* end, uint16_t capability,
                   uint32_t type, void* value) {
  for (const PlainField* f = begin; f != end; ++f) {
    if (f->Capability != capability) continue;
    ConvertValue(value, type, f->NativeType, SettingsFieldAt(f->Offset));
    return true;
  }
  return false;
}

bool GetTableField(uint16_t capability, uint32_t type, void* value) {
  if (GetPlainField(std::begin(kPlainFields), std::end(kPlainFields), capability, type, value) ||
      GetPlainField(std::begin(kReportedFields), std::end(kReportedFields), capability, type,
                    value))
    return true;
  for (const ChannelField& f : kChannelFields) {
    if (f.Capability != capability) continue;
    const uint32_t none = 0;
    const uint8_t* element = ChannelElement(f);
    ConvertValue(value, type, f.NativeType, element ? element : reinterpret_cast<const uint8_t*>(&none));
    return true;
  }
  for (const TextField& f : kTextFields) {
    if (f.Capability != capability) continue;
    char text[kDitherNameSize];
    FieldText(f.Field, f.Width, text);
    ConvertValue(value, type, TY_STR32, text);
    return true;
  }
  return false;
}

int32_t GetValue(uint16_t capability, uint32_t type, void* value) {
  for (uint16_t code : kCannotGetCodes)
    if (code == capability) return kCannotGet;
  if (capability >= kFirstInert && capability <= kLastInert) return SX_OK;
  switch (capability) {
    case CAP_PUSHBUTTON: GetPushButton(type, value); return SX_OK;
    case CAP_FEEDERLOADED: return GetFeederLoaded(type, value);
    case CAP_BACKGROUNDLINES: GetBackgroundRaster(value); return SX_OK;
    case CAP_GAMMA: GetGamma(type, value); return SX_OK;
    case CAP_DITHER: GetDither(type, value); return SX_OK;
    case CAP_RESERVED9602: {
      const int16_t zero = 0;
      ConvertValue(value, type, TY_INT16, &zero);
      return SX_OK;
    }
    default: GetTableField(capability, type, value); return SX_OK;
  }
}

}  // namespace

}  // namespace sx

SX_EXPORT int32_t SX_API SxGetValue(uint32_t capability, uint32_t valueType, void* value) {
  return sx::GuardedHostCall(SX_OK, [&] {
    return sx::GetValue(static_cast<uint16_t>(sx::LowWord(capability)), sx::LowWord(valueType), value);
  });
}
