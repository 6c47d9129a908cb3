// What a scan asks of the library: the capability changes that the scan
// options stand for, and the page layout that an ImageInfo announces.
#pragma once
#include <string>
#include <vector>

#include "Capabilities.h"
#include "CommandLine.h"
#include "ImageWriter.h"
#include "sxscan.h"

namespace sx::host {

struct SettingChange {
  const CapabilityInfo* cap = nullptr;
  Value value;
  // A tone setting's colour element ("gamma-r"); kNoElement for the setting
  // as a person means it (a tone setting then shapes the whole image).
  int element = kNoElement;
};

// The changes in the order they must reach the library: the unit before the
// area stated in it, pixel type before bits per pixel, and the --set values
// last so that they can override anything.
bool BuildScanSettings(const ScanOptions& options, std::vector<SettingChange>* changes,
                       std::string* error);

// The page layout of the raster that follows an ImageInfo. The library
// delivers line art at 1 bit, grey at one byte and colour at three bytes per
// pixel, whatever bit depth the settings name, and cuts a line-art line to
// whole bytes.
bool PageFormatFromInfo(const SxImageInfo& info, PageFormat* format, std::string* error);

}  // namespace sx::host
