// What a scan asks of the library: the capability changes that the scan
// options stand for, and the page layout that an ImageInfo announces.
#pragma once
#include <string>
#include <vector>

#include "kit/Capabilities.h"
#include "kit/ScanRequest.h"
#include "documents/ImageWriter.h"
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
// The source is not among them: which one a scan uses is known only once
// the scanner is open (AddSourceChanges).
bool BuildScanSettings(const ScanOptions& options, std::vector<SettingChange>* changes,
                       std::string* error);

// What the open scanner says about its sources, in the order CAP_SCANTYPE
// lists them; the widths and lengths are in `units` (CAP_UNITS).
struct SourceFacts {
  std::vector<int> sources;
  std::vector<float> maxWidths, maxLengths;
  int units = static_cast<int>(AreaUnits::ThreeHundredths);
  bool feederLoaded = false;
};

// The source a scan uses. Auto, and no --source at all, mean the feeder when
// paper is loaded in it, else the flatbed (else the first source listed);
// a named source is kept as named, to be checked against the list.
ScanSource ChooseSource(ScanSource asked, const SourceFacts& facts);

// Puts the chosen source first in `changes` and, when the person gave no
// area, the source's whole area after it: the stored default is one paper
// size, which would cut a longer bed short.
void AddSourceChanges(const ScanOptions& options, ScanSource chosen, const SourceFacts& facts,
                      std::vector<SettingChange>* changes);

// Whether the person stated the area's size (--area, or --set of its
// width or length): only then is a narrower page worth a warning.
bool AsksForAreaSize(const ScanOptions& options);

// The page layout of the raster that follows an ImageInfo. The library
// delivers line art at 1 bit, grey at one byte and colour at three bytes per
// pixel, whatever bit depth the settings name, and cuts a line-art line to
// whole bytes.
bool PageFormatFromInfo(const SxImageInfo& info, PageFormat* format, std::string* error);

}  // namespace sx::host
