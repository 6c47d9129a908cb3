// SxSetValue: the host changes one setting, named by capability, in a value
// type of its choosing. No ranges are checked here: the host picks values
// from the lists of SxQueryData, and the parameter check refuses what the
// scanner cannot do.
#include <iterator>

#include "driver/DriverTable.h"
#include "frame/HostCall.h"
#include "frame/LibraryState.h"
#include "settings/FieldTable.h"
#include "settings/SettingsInternal.h"

namespace sx {

namespace {

constexpr int32_t kCannotSet = SX_ERR_UNSUPPORTED;

// Design note: PixelType above 2 and ScanType above 4 are stored as given
// (plain fields of the shared table); the parameter check refuses them when an
// acquisition starts, as it does for the same values read from the stored
// defaults.

// BackgroundLines is stored here; reading it fetches the background raster.
constexpr PlainField kStoredOnlyFields[] = {
    {CAP_BACKGROUNDLINES, TY_UINT8, offsetof(ScanSettings, BackgroundLines)},
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

bool SetPlainField(const PlainField* begin, const PlainField* end, uint16_t capability,
                   uint32_t type, const void* value) {
  for (const PlainField* f = begin; f != end; ++f) {
    if (f->Capability != capability) continue;
    ConvertValue(SettingsFieldAt(f->Offset), f->NativeType, type, value);
    return true;
  }
  return false;
}

bool SetTableField(uint16_t capability, uint32_t type, const void* value) {
  if (SetPlainField(std::begin(kPlainFields), std::end(kPlainFields), capability, type, value) ||
      SetPlainField(std::begin(kStoredOnlyFields), std::end(kStoredOnlyFields), capability, type,
                    value))
    return true;
  for (const ChannelField& f : kChannelFields) {
    if (f.Capability != capability) continue;
    if (uint8_t* element = ChannelElement(f)) ConvertValue(element, f.NativeType, type, value);
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
  return sx::GuardedHostCall(SX_OK, [&] {
    return sx::SetValue(static_cast<uint16_t>(sx::LowWord(capability)), sx::LowWord(valueType), value);
  });
}
