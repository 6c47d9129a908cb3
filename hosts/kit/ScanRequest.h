// What a program asks a scan for, in a person's terms: the source, the
// colour mode, the area and its unit, the pages, the output, the transfer
// buffer, and any further capability by name. `sxscan scan` fills it from
// its command line, the eSCL server from a client's ScanSettings; the scan
// plan (ScanPlan.h) turns it into capability changes.
#pragma once
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace sx::host {

// Values are those of CAP_SCANTYPE.
enum class ScanSource : int { Keep = -1, Auto = 0, Feeder = 1, Flatbed = 2 };
// Values are those of CAP_PIXELTYPE.
enum class ColorMode : int { Keep = -1, Lineart = 0, Gray = 1, Color = 2 };
// Values are those of CAP_FILTER: the colour a grey or line-art scan is
// taken from.
enum class ColorFilter : int { Keep = -1, None = 0, Red = 1, Green = 2, Blue = 3 };
// Values are those of CAP_UNITS.
// The third is 1/300 inch whatever the scan resolution, so it is named for
// that, not for pixels.
enum class AreaUnits : int { Inches = 0, Centimetres = 1, ThreeHundredths = 2 };

// Direct transfers: a quarter of a mebibyte holds a dozen 600 dpi colour
// lines and costs no speed; a larger block only adds to the program's peak
// memory (it is copied once more onto the encoder's queue).
constexpr uint32_t kDefaultTransferBytes = 1u << 18;
// A buffered transfer hands over blocks of up to one mebibyte, so the buffer
// may not be smaller there.
constexpr uint32_t kBufferedTransferBytes = 1u << 20;
constexpr int32_t kAllPages = -1;

struct ScanArea {
  float x = 0, y = 0, width = 0, length = 0;
};

struct ScanOptions {
  // What a person expects with no options: a colour page at 300 dpi (of the
  // source's whole area, the library's stored default).
  int32_t resolution = 300;  // 0: keep the current setting
  ColorMode mode = ColorMode::Color;
  bool hasArea = false;
  ScanArea area;
  bool hasUnits = false;
  AreaUnits units = AreaUnits::Inches;
  ScanSource source = ScanSource::Keep;
  ColorFilter filter = ColorFilter::Keep;
  int32_t pages = 0;  // 0: keep the current setting; kAllPages: as many as come
  std::string output = "scan.png";
  int quality = 85;  // JPEG quality, 1..100
  bool buffered = false;
  uint32_t transferBytes = kDefaultTransferBytes;
  bool progress = false;  // draw the bar even when stderr is not a terminal
  bool stats = false;     // print the scan's figures for a benchmark
  // --set NAME=VALUE, applied after the options above, in the order given.
  std::vector<std::pair<std::string, std::string>> settings;
};

}  // namespace sx::host
