// SxSetValue: the host changes one setting, named by capability, in a value
// type of its choosing. No ranges are checked here: the host picks values
// from the lists of SxQueryData, and the parameter check refuses what the
// scanner cannot do.
#include "driver/DriverTable.h"
#include "frame/LibraryState.h"
#include "settings/SettingsInternal.h"

namespace sx {

namespace {

constexpr int32_t kCannotSet = SX_ERR_UNSUPPORTED;

// Capabilities that store the host's value into one field and do nothing else.
// Design note: PixelType above 2 and ScanType above 4 are stored as given;
// the parameter check refuses them when an acquisition starts, as it does
// for the same values read from the stored defaults.
struct PlainField {
  uint16_t Capability;
  uint16_t NativeType;
  size_t Offset;
};

#define SX_FIELD(cap, type, field) {cap, type, offsetof(ScanSettings, field)}
constexpr PlainField kPlainFields[] = {
    SX_FIELD(CAP_BACKGROUND, TY_UINT8, Background),
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
    SX_FIELD(CAP_BACKGROUNDLINES, TY_UINT8, BackgroundLines),
    SX_FIELD(CAP_UNITS, TY_UINT8, Units),
    SX_FIELD(CAP_OVERSCAN, TY_INT16, Overscan),
    SX_FIELD(CAP_XFERCOUNT, TY_INT32, XferCount),
    SX_FIELD(CAP_PAGESIZE, TY_UINT8, PageSize),
};
#undef SX_FIELD

// Channel settings: the element that Filter selects.
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

struct AreaCapability {
  uint16_t Capability;
  uint16_t ScanSettings::*Field;
};
constexpr AreaCapability kAreaCapabilities[] = {
    {CAP_XPOSITION, &ScanSettings::XPosition},
    {CAP_YPOSITION, &ScanSettings::YPosition},
    {CAP_IMAGELENGTH, &ScanSettings::ImageLength},
    {CAP_IMAGEWIDTH, &ScanSettings::ImageWidth},
};

constexpr uint16_t kCannotSetCodes[] = {
    CAP_MODELNAME, CAP_SERIALNUMBER, CAP_FIRMWAREVERSION, CAP_PUSHBUTTON, 0x9102, 0x9301,
    0x9302,        CAP_MAXLENGTHS,   CAP_MAXWIDTHS,       CAP_FEEDERLOADED,
};

uint8_t* FieldAt(size_t offset) { return reinterpret_cast<uint8_t*>(&gSettings) + offset; }

// Design note: Filter may hold any 8-bit value but only 0..3 name an element
// of the channel arrays. A larger Filter selects no element: setting stores
// nothing and reading gives 0, so nothing beside the arrays is ever touched.
bool ChannelSelected() { return gSettings.Filter < kChannels; }

void SetEnergySaving(uint32_t type, const void* value) {
  ConvertValue(&gSettings.EnergySaving, TY_INT16, type, value);
  // The scanner keeps the time in its non-volatile record and applies it now.
  NvRam record{};
  driver::ReadNVMData(&record);
  record.PowerSaveTime = gSettings.EnergySaving;
  driver::WriteNVMData(&record);
  driver::SetPowerSaveTime(gSettings.EnergySaving);
}

void SetBuffering(uint32_t type, const void* value) {
  ConvertValue(&gSettings.Buffering, TY_UINT8, type, value);
  if (gSettings.Buffering == 0) {
    ReleaseBufferRing();
    return;
  }
  BuildOrGrowBufferRing(StoredMinBuffer());
}

void SetMinBuffer(uint32_t type, const void* value) {
  // A value the conversion cannot read sizes nothing.
  int32_t minBuffer = 0;
  if (TryConvertValue(&minBuffer, TY_INT32, type, value)) BuildOrGrowBufferRing(minBuffer);
}

void SetGamma(uint32_t type, const void* value) {
  float gamma = 0.0f;
  if (!TryConvertValue(&gamma, TY_FLOAT32, type, value) || !ChannelSelected()) return;
  gSettings.Gamma[gSettings.Filter] = static_cast<uint16_t>(TruncateReal(Single(gamma * 100.0f)));
}

void SetDither(uint32_t type, const void* value) {
  char name[kDitherNameSize] = {};
  if (!TryConvertValue(name, TY_STR32, type, value)) return;
  DitherWords words;
  LoadDitherWords(words);
  gSettings.Dither = DitherFromName(name, gAbility.HalftonePatternCount, words);
}

bool SetArea(uint16_t capability, uint32_t type, const void* value) {
  for (const AreaCapability& a : kAreaCapabilities) {
    if (a.Capability != capability) continue;
    float real = 0.0f;
    uint16_t pixels;
    if (TryConvertValue(&real, TY_FLOAT32, type, value) &&
        UnitsToPixels(real, gSettings.Units, pixels))
      gSettings.*a.Field = pixels;
    return true;
  }
  return false;
}

bool SetTableField(uint16_t capability, uint32_t type, const void* value) {
  for (const PlainField& f : kPlainFields) {
    if (f.Capability != capability) continue;
    ConvertValue(FieldAt(f.Offset), f.NativeType, type, value);
    return true;
  }
  for (const ChannelField& f : kChannelFields) {
    if (f.Capability != capability) continue;
    if (ChannelSelected())
      ConvertValue(FieldAt(f.Offset + gSettings.Filter * f.ElementSize), f.NativeType, type,
                   value);
    return true;
  }
  return SetArea(capability, type, value);
}

int32_t SetValue(uint16_t capability, uint32_t type, const void* value) {
  for (uint16_t code : kCannotSetCodes)
    if (code == capability) return kCannotSet;
  switch (capability) {
    case CAP_LOCALIZE: CreateDialogFont(); return SX_OK;
    case CAP_BUFFERING: SetBuffering(type, value); return SX_OK;
    case CAP_ENERGYSAVING: SetEnergySaving(type, value); return SX_OK;
    case CAP_MINBUFFER: SetMinBuffer(type, value); return SX_OK;
    case CAP_GAMMA: SetGamma(type, value); return SX_OK;
    case CAP_DITHER: SetDither(type, value); return SX_OK;
    default: SetTableField(capability, type, value); return SX_OK;
  }
}

}  // namespace

}  // namespace sx

SX_EXPORT int32_t SX_API SxSetValue(uint32_t capability, uint32_t valueType, void* value) {
  try {
    return sx::SetValue(static_cast<uint16_t>(sx::LowWord(capability)), sx::LowWord(valueType),
                        value);
  } catch (...) {
    return SX_OK;  // nothing may escape to the host
  }
}
