#include "ScanPlan.h"

namespace sx::host {
namespace {

// Bits per pixel that go with each pixel type; the library does not derive
// them when the host changes the pixel type.
constexpr int kBitsForMode[] = {1, 8, 24};  // line art, grey, colour

void Add(std::vector<SettingChange>* changes, uint16_t code, const Value& value) {
  for (const auto& cap : AllCapabilities()) {
    if (cap.code == code) {
      changes->push_back({&cap, value});
      return;
    }
  }
}

void AddInteger(std::vector<SettingChange>* changes, uint16_t code, int64_t v) {
  Add(changes, code, IntegerValue(TY_INT32, v));
}

}  // namespace

bool BuildScanSettings(const ScanOptions& o, std::vector<SettingChange>* changes, std::string* error) {
  changes->clear();
  if (o.source != ScanSource::Keep) AddInteger(changes, CAP_SCANTYPE, static_cast<int>(o.source));
  if (o.mode != ColorMode::Keep) {
    int mode = static_cast<int>(o.mode);
    AddInteger(changes, CAP_PIXELTYPE, mode);
    AddInteger(changes, CAP_BITSPERPIXEL, kBitsForMode[mode]);
  }
  if (o.resolution > 0) {
    AddInteger(changes, CAP_XRESOLUTION, o.resolution);
    AddInteger(changes, CAP_YRESOLUTION, o.resolution);
  }
  if (o.hasArea) {
    AddInteger(changes, CAP_UNITS, static_cast<int>(o.units));
    Add(changes, CAP_XPOSITION, RealValue(o.area.x));
    Add(changes, CAP_YPOSITION, RealValue(o.area.y));
    Add(changes, CAP_IMAGEWIDTH, RealValue(o.area.width));
    Add(changes, CAP_IMAGELENGTH, RealValue(o.area.length));
  }
  if (o.pages != 0) AddInteger(changes, CAP_XFERCOUNT, o.pages);
  if (o.buffered) AddInteger(changes, CAP_BUFFERING, 1);
  if (o.filter != ColorFilter::Keep) AddInteger(changes, CAP_FILTER, static_cast<int>(o.filter));
  for (const auto& [name, text] : o.settings) {
    int element = kNoElement;
    const CapabilityInfo* cap = FindToneChannel(name, &element);
    if (!cap) cap = FindCapability(name);
    if (!cap) {
      *error = "unknown capability " + name;
      return false;
    }
    if (!cap->setType) {
      *error = std::string(cap->name) + " cannot be set";
      return false;
    }
    Value value;
    if (!ParseValue(cap->setType, text, &value, error)) {
      *error = std::string(cap->name) + ": " + *error;
      return false;
    }
    changes->push_back({cap, value, element});
  }
  return true;
}

bool PageFormatFromInfo(const SxImageInfo& info, PageFormat* format, std::string* error) {
  if (info.PixelsPerLine <= 0 || info.LinesPerPage <= 0) {
    *error = "the library announced a page without pixels";
    return false;
  }
  PageFormat f;
  uint32_t pixels = static_cast<uint32_t>(info.PixelsPerLine);
  switch (info.PixelType) {
    case 0:
      f.kind = PixelKind::Lineart;
      f.bytesPerLine = pixels / 8;
      f.width = f.bytesPerLine * 8;
      break;
    case 1:
      f.kind = PixelKind::Gray;
      f.bytesPerLine = pixels;
      f.width = pixels;
      break;
    case 2:
      f.kind = PixelKind::Rgb;
      if (pixels > UINT32_MAX / 3) {
        *error = "the page is too wide";
        return false;
      }
      f.bytesPerLine = pixels * 3;
      f.width = pixels;
      break;
    default:
      *error = "pixel type " + std::to_string(info.PixelType) + " cannot be written to a file";
      return false;
  }
  f.lines = static_cast<uint32_t>(info.LinesPerPage);
  f.xdpi = info.ResolutionX > 0 ? static_cast<uint32_t>(info.ResolutionX) : 0;
  f.ydpi = info.ResolutionY > 0 ? static_cast<uint32_t>(info.ResolutionY) : 0;
  if (!CheckPageFormat(f, error)) return false;
  *format = f;
  return true;
}

}  // namespace sx::host
