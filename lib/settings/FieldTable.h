// The capabilities that map straight onto one ScanSettings field, shared by
// SxSetValue and SxGetValue so that the two can never disagree about a
// field's native type. Host's thread only.
#pragma once
#include <cstddef>
#include <cstdint>

#include "settings/ScanSettings.h"

namespace sx {

struct PlainField {
  uint16_t Capability;
  uint16_t NativeType;
  size_t Offset;
};

#define SX_FIELD(cap, type, field) {cap, type, offsetof(ScanSettings, field)}
// Stored and reported as they are, in both directions.
inline constexpr PlainField kPlainFields[] = {
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
inline constexpr ChannelField kChannelFields[] = {
    {CAP_BRIGHTNESS, TY_UINT32, offsetof(ScanSettings, Brightness), sizeof(int32_t)},
    {CAP_CONTRAST, TY_UINT32, offsetof(ScanSettings, Contrast), sizeof(int32_t)},
    {CAP_HIGHLIGHT, TY_UINT8, offsetof(ScanSettings, Highlight), sizeof(uint8_t)},
    {CAP_SHADOW, TY_UINT8, offsetof(ScanSettings, Shadow), sizeof(uint8_t)},
};

// Design note: Filter may hold any 8-bit value but only 0..3 name an element
// of the channel arrays. A larger Filter selects no element: setting stores
// nothing and reading gives 0, so nothing beside the arrays is ever touched.
inline bool ChannelSelected() { return gSettings.Filter < kChannels; }

inline uint8_t* SettingsFieldAt(size_t offset) {
  return reinterpret_cast<uint8_t*>(&gSettings) + offset;
}

// The selected element of a channel field, or null when Filter selects none.
inline uint8_t* ChannelElement(const ChannelField& f) {
  return ChannelSelected() ? SettingsFieldAt(f.Offset + gSettings.Filter * f.ElementSize)
                           : nullptr;
}

}  // namespace sx
