#include "kit/ScanPlan.h"

#include <algorithm>

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
    const auto [cap, element] = FindSetting(name);
    if (!cap) {
      *error = "unknown capability '" + name + "' (see 'sxscan caps')";
      return false;
    }
    if (!cap->setType) {
      *error = std::string(cap->name) + " cannot be set";
      return false;
    }
    Value value;
    if (!ParseSettingValue(*cap, text, &value, error)) {
      *error = std::string(cap->name) + ": " + *error;
      return false;
    }
    changes->push_back({cap, value, element});
  }
  return true;
}

ScanSource ChooseSource(ScanSource asked, const SourceFacts& facts) {
  if (asked != ScanSource::Auto && asked != ScanSource::Keep) return asked;
  const auto listed = [&](ScanSource s) {
    return std::find(facts.sources.begin(), facts.sources.end(), static_cast<int>(s)) != facts.sources.end();
  };
  if (facts.feederLoaded && listed(ScanSource::Feeder)) return ScanSource::Feeder;
  if (listed(ScanSource::Flatbed)) return ScanSource::Flatbed;
  if (!facts.sources.empty()) return static_cast<ScanSource>(facts.sources.front());
  return ScanSource::Auto;  // the library decides
}

void AddSourceChanges(const ScanOptions& o, ScanSource chosen, const SourceFacts& facts,
                      std::vector<SettingChange>* changes) {
  std::vector<SettingChange> first;
  AddInteger(&first, CAP_SCANTYPE, static_cast<int>(chosen));
  const auto at = std::find(facts.sources.begin(), facts.sources.end(), static_cast<int>(chosen));
  const size_t index = static_cast<size_t>(at - facts.sources.begin());
  if (!o.hasArea && index < facts.maxWidths.size() && index < facts.maxLengths.size()) {
    AddInteger(&first, CAP_UNITS, facts.units);
    Add(&first, CAP_XPOSITION, RealValue(0));
    Add(&first, CAP_YPOSITION, RealValue(0));
    Add(&first, CAP_IMAGEWIDTH, RealValue(facts.maxWidths[index]));
    Add(&first, CAP_IMAGELENGTH, RealValue(facts.maxLengths[index]));
  }
  changes->insert(changes->begin(), first.begin(), first.end());
}

bool AsksForAreaSize(const ScanOptions& o) {
  if (o.hasArea) return true;
  return std::any_of(o.settings.begin(), o.settings.end(), [](const auto& setting) {
    const CapabilityInfo* cap = FindCapability(setting.first);
    return cap && (cap->code == CAP_IMAGEWIDTH || cap->code == CAP_IMAGELENGTH);
  });
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
