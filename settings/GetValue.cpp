// SxGetValue: the current value of one capability in the host's value type.
// Most read a settings field; the push button, the feeder and the background
// raster ask the scanner through the traced driver calls.
#include "driver/DriverTable.h"
#include "settings/SettingsInternal.h"

namespace sx {

namespace {

constexpr int32_t kCannotGet = SX_ERR_UNSUPPORTED;
constexpr uint16_t kFirstInert = 0x9000, kLastInert = 0x9003;

struct PlainField {
  uint16_t Capability;
  uint16_t NativeType;
  size_t Offset;
};

#define SX_FIELD(cap, type, field) {cap, type, offsetof(ScanSettings, field)}
// Positions and extents are always reported in 1/300 inch, whatever Units holds.
constexpr PlainField kPlainFields[] = {
    SX_FIELD(CAP_BUFFERING, TY_UINT8, Buffering),
    SX_FIELD(CAP_BACKGROUND, TY_UINT8, Background),
    SX_FIELD(CAP_ENERGYSAVING, TY_INT16, EnergySaving),
    SX_FIELD(CAP_UICONTROL, TY_UINT8, UIControl),
    SX_FIELD(CAP_INDICATORS, TY_UINT8, Indicators),
    SX_FIELD(CAP_SCANTYPE, TY_UINT8, ScanType),
    SX_FIELD(CAP_FEEDERTYPE, TY_UINT8, FeederType),
    SX_FIELD(CAP_XRESOLUTION, TY_UINT16, XResolution),
    SX_FIELD(CAP_YRESOLUTION, TY_UINT16, YResolution),
    SX_FIELD(CAP_PIXELTYPE, TY_UINT8, PixelType),
    SX_FIELD(CAP_BITSPERPIXEL, TY_UINT8, BitsPerPixel),
    SX_FIELD(CAP_FILTER, TY_UINT8, Filter),
    SX_FIELD(CAP_COMPRESSION, TY_UINT8, Compression),
    SX_FIELD(CAP_THRESHOLD, TY_UINT8, Threshold),
    SX_FIELD(CAP_INVERT, TY_UINT8, Invert),
    SX_FIELD(CAP_SHARPEN, TY_UINT8, Sharpen),
    SX_FIELD(CAP_COLORMATCH, TY_UINT8, ColorMatch),
    SX_FIELD(CAP_DESCREEN, TY_UINT8, Descreen),
    SX_FIELD(CAP_XPOSITION, TY_UINT16, XPosition),
    SX_FIELD(CAP_YPOSITION, TY_UINT16, YPosition),
    SX_FIELD(CAP_IMAGELENGTH, TY_UINT16, ImageLength),
    SX_FIELD(CAP_IMAGEWIDTH, TY_UINT16, ImageWidth),
    SX_FIELD(CAP_UNITS, TY_UINT8, Units),
    SX_FIELD(CAP_OVERSCAN, TY_INT16, Overscan),
    SX_FIELD(CAP_XFERCOUNT, TY_INT32, XferCount),
    SX_FIELD(CAP_PAGESIZE, TY_UINT8, PageSize),
};
#undef SX_FIELD

struct ChannelField {
  uint16_t Capability;
  uint16_t NativeType;
  size_t Offset;
  size_t ElementSize;
};
constexpr ChannelField kChannelFields[] = {
    {CAP_BRIGHTNESS, TY_UINT32, offsetof(ScanSettings, Brightness), sizeof(int32_t)},
    {CAP_CONTRAST, TY_UINT32, offsetof(ScanSettings, Contrast), sizeof(int32_t)},
    {CAP_HIGHLIGHT, TY_UINT8, offsetof(ScanSettings, Highlight), sizeof(uint8_t)},
    {CAP_SHADOW, TY_UINT8, offsetof(ScanSettings, Shadow), sizeof(uint8_t)},
};

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

const uint8_t* FieldAt(size_t offset) {
  return reinterpret_cast<const uint8_t*>(&gSettings) + offset;
}

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
  if (gSettings.Filter < kChannels)
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

bool GetTableField(uint16_t capability, uint32_t type, void* value) {
  for (const PlainField& f : kPlainFields) {
    if (f.Capability != capability) continue;
    ConvertValue(value, type, f.NativeType, FieldAt(f.Offset));
    return true;
  }
  for (const ChannelField& f : kChannelFields) {
    if (f.Capability != capability) continue;
    // A Filter beyond the channels selects no element (see SxSetValue): 0.
    const uint32_t none = 0;
    const void* source = gSettings.Filter < kChannels
                             ? FieldAt(f.Offset + gSettings.Filter * f.ElementSize)
                             : static_cast<const void*>(&none);
    ConvertValue(value, type, f.NativeType, source);
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
  try {
    return sx::GetValue(static_cast<uint16_t>(sx::LowWord(capability)), sx::LowWord(valueType),
                        value);
  } catch (...) {
    return SX_OK;  // nothing may escape to the host
  }
}
