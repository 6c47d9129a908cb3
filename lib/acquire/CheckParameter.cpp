// The parameter check run at the start of every acquisition.
#include "acquire/CheckParameter.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>

#include "acquire/WarmUpDialog.h"
#include "driver/DriverTable.h"
#include "driver/ErrorCodes.h"
#include "frame/Trace.h"
#include "imaging/ColorMatch.h"
#include "imaging/ToneTable.h"

namespace sx {

namespace {

constexpr char kLabel[] = "CheckParameter";

// The double nearest to 1/300: area units are 1/300 inch.
constexpr double kPerAreaUnit = 0.0033333333333333335;

// Driver scan modes and methods.
constexpr uint8_t kModeLineart = 0;
constexpr uint8_t kModeHalftone = 1;
constexpr uint8_t kModeGray = 2;
constexpr uint8_t kModeColor = 4;
constexpr uint8_t kMethodFlatbed = 0;
constexpr uint8_t kMethodSource3 = 2;
constexpr uint8_t kMethodSource4 = 3;
constexpr uint8_t kFeederMethods[] = {1, 4, 5};  // by FeederType 0, 1, 2

constexpr uint16_t kExtScanParam = 0x9000;
constexpr uint8_t kExtensionFlag = 1;
constexpr uint8_t kWhiteLevel = 255;

// Line widths are rounded to a model-specific pixel multiple. Drivers that
// report an extended ability record give their own; for the others the model
// name (a case-sensitive prefix) decides, first matching row wins.
enum class Firmware { Any, Above102, AtMost102 };

struct ModelAlignment {
  const char* Prefix;
  Firmware Condition;
  uint8_t Lineart, Gray, Color, Halftone;
};

constexpr ModelAlignment kModelAlignments[] = {
    {"QM7110", Firmware::Any, 32, 4, 4, 32},
    {"QMB4", Firmware::Any, 32, 4, 4, 32},
    {"QM530C", Firmware::Any, 32, 4, 4, 32},
    {"QM570C", Firmware::Any, 32, 4, 4, 32},
    {"RT700C", Firmware::Any, 8, 2, 4, 8},
    {"3100", Firmware::Above102, 8, 2, 4, 8},
    {"3100", Firmware::AtMost102, 32, 4, 4, 32},
};
constexpr ModelAlignment kOtherModels = {"", Firmware::Any, 8, 2, 2, 8};

// The firmware version as a decimal number, read without regard to the
// process locale (blanks, then digits with an optional fraction).
double FirmwareNumber(const char (&field)[8]) {
  char text[sizeof(field) + 1] = {};
  std::memcpy(text, field, sizeof(field));
  const char* begin = text;
  while (*begin == ' ') ++begin;
  double value = 0.0;
  std::from_chars(begin, text + std::strlen(text), value);
  return value;
}

bool FirmwareMatches(Firmware condition) {
  if (condition == Firmware::Any) return true;
  const bool above = FirmwareNumber(gAbility.FirmwareVersion) > 1.02;
  return condition == Firmware::Above102 ? above : !above;
}

const ModelAlignment& FindModelAlignment() {
  for (const ModelAlignment& row : kModelAlignments) {
    if (std::strncmp(gAbility.ModelName, row.Prefix, std::strlen(row.Prefix)) == 0 &&
        FirmwareMatches(row.Condition)) {
      return row;
    }
  }
  return kOtherModels;
}

// The area the chosen source can scan, in 1/300 inch.
struct SourceArea {
  int32_t MaxWidth = 0;
  int32_t MaxLength = 0;
};

// Sets ScanMethod and FeederInUse for the source. 0, or the early-exit code.
int32_t ChooseSource(ScanSettings& s, ScanParameter& p, SourceArea& area) {
  const auto useFlatbed = [&] {
    p.ScanMethod = kMethodFlatbed;
    area = {gAbility.FlatbedMaxWidth, gAbility.FlatbedMaxLength};
    s.FeederInUse = 0;
  };
  switch (s.ScanType) {
    case kScanTypeAuto:
    case kScanTypeFeeder: {
      uint8_t paper = 0;
      if (driver::GetADFStatus(&paper) == 0) return ErrorCodeMapping(driver::QueryStatusCode());
      if (paper != 0) {
        if (s.FeederType < std::size(kFeederMethods)) p.ScanMethod = kFeederMethods[s.FeederType];
        area = {gAbility.AdfMaxWidth, gAbility.AdfMaxLength};
        s.FeederInUse = 1;
      } else if (s.ScanType == kScanTypeFeeder ||
                 (gAbility.SourceFlags & SX_SOURCE_SHEETFED_ONLY) != 0) {
        return SX_ERR_NO_PAPER;
      } else {
        useFlatbed();
      }
      return 0;
    }
    case kScanTypeFlatbed:
      useFlatbed();
      return 0;
    default:
      p.ScanMethod = s.ScanType == kScanTypeSource3 ? kMethodSource3 : kMethodSource4;
      area = {gAbility.AltAreaWidth, gAbility.AltAreaLength};
      s.FeederInUse = 0;
      return 0;
  }
}

int32_t PixelsAt(int32_t extent, int32_t resolution) {
  return static_cast<int32_t>(static_cast<double>(extent) * resolution * kPerAreaUnit + 0.5);
}

// With descreening the scanner scans at a raised resolution so that the
// filter works on finer data; the largest power-of-two reduction of the
// maximum resolution that stays above the request is used, backed off one
// step when that would land within 50 dpi of the request.
int32_t DescreenResolution(int32_t maxResolution, int32_t requested) {
  int32_t n = 2;
  while (maxResolution >= 300 * n && maxResolution % n == 0 && maxResolution > requested * n) {
    n *= 2;
  }
  const int32_t d = std::max(n / 2, 1);
  const int32_t s = maxResolution / d;
  if (s <= requested + 50) return maxResolution / std::max(d / 2, 1);
  return s;
}

void SetByteCounts(ScanSettings& s) {
  switch (s.PixelType) {
    case kPixelColor:
      s.ScanBytesPerLine = 3 * s.ScanPixels;
      s.OutputBytesPerLine = 3 * s.OutputPixels;
      break;
    case kPixelGray:
      s.ScanBytesPerLine = s.ScanPixels;
      s.OutputBytesPerLine = s.OutputPixels;
      break;
    default:
      s.ScanBytesPerLine = s.ScanPixels / 8;
      s.OutputBytesPerLine = s.OutputPixels / 8;
      break;
  }
}

bool ScalingMode(uint8_t descreen) { return descreen >= 1 && descreen <= 3; }

bool ScalableDepth(uint8_t bitsPerPixel) {
  return bitsPerPixel == 1 || bitsPerPixel == 8 || bitsPerPixel == 24;
}

// Works out the area, counts and scanning resolution. Returns 0, or the
// refusal code when the clamped area or the resulting lines are empty: a
// position beyond the source's area would otherwise give a negative extent,
// and an empty line would leave the transfer without progress.
int32_t ComputeGeometry(ScanSettings& s, ScanParameter& p, const SourceArea& area,
                        uint8_t alignment) {
  int32_t left = s.XPosition;
  const int32_t top = s.YPosition;
  int32_t width = s.ImageWidth;
  int32_t length = s.ImageLength;
  // Design note: a driver that reports no maximum resolution gets no
  // overscan added, rather than a division by zero.
  // The sum is truncated as a whole, so a negative overscan that is not a
  // whole number of area units shortens the length by one more unit.
  if (gAbility.MaxResolution != 0) {
    length = static_cast<int32_t>(static_cast<double>(s.ImageLength) +
                                  static_cast<double>(s.Overscan) * 600.0 /
                                      static_cast<double>(gAbility.MaxResolution));
  }
  if (left + width > area.MaxWidth) width = area.MaxWidth - left;
  if (top + length > area.MaxLength) length = area.MaxLength - top;
  if (width <= 0 || length <= 0) return kRefusedSettings;

  s.OutputPixels = PixelsAt(width, s.XResolution);
  s.OutputLines = PixelsAt(length, s.XResolution);
  if (s.FeederInUse == 1 && left == 0) left = (area.MaxWidth - width) / 2;

  const int32_t maxResolution = gAbility.MaxResolution;
  if (s.Descreen != 0 && s.XResolution <= maxResolution) {
    const int32_t scanResolution = DescreenResolution(maxResolution, s.XResolution);
    // Design note: a raised scan resolution is brought back to the asked one
    // only by the descreening modes 1 to 3, and only for 1-, 8- and 24-bit
    // samples. Any other mode (8 and 9 are accepted but never offered) or
    // depth would deliver the scan lines unscaled, more than the page's
    // ImageInfo announces, and a host sizing its image from it would overrun;
    // such a combination is refused as unsupported before the scanner is set.
    if (scanResolution != s.XResolution && (!ScalableDepth(s.BitsPerPixel) || !ScalingMode(s.Descreen)))
      return kRefusedSettings;
    p.XRes = static_cast<uint16_t>(scanResolution);
    p.YRes = static_cast<uint16_t>(scanResolution);
    s.ScanPixels = PixelsAt(s.ImageWidth, scanResolution);
    s.ScanLines = PixelsAt(s.ImageLength, scanResolution);
  } else {
    s.ScanPixels = s.OutputPixels;
    s.ScanLines = s.OutputLines;
  }

  p.BitsPerPixel = s.BitsPerPixel;
  s.ScanPixels = s.ScanPixels / alignment * alignment;
  s.OutputPixels = s.OutputPixels / alignment * alignment;
  SetByteCounts(s);

  p.Left = static_cast<uint16_t>(left);
  p.Top = static_cast<uint16_t>(top);
  p.Width = static_cast<uint16_t>(width);
  p.Length = static_cast<uint16_t>(length);
  if (s.ScanBytesPerLine <= 0 || s.OutputBytesPerLine <= 0 || s.ScanLines <= 0 ||
      s.OutputLines <= 0) {
    return kRefusedSettings;
  }
  return 0;
}

void FillDriverRecord(const ScanSettings& s, ScanParameter& p) {
  p.PixelNum = static_cast<uint16_t>(s.ScanPixels);
  p.LineNum = static_cast<uint16_t>(s.ScanLines);
  p.ScanSpeed = 0;
  // Tone reaches the image through the tone tables, not the driver record.
  p.Contrast = 0;
  p.Brightness = 0;
  p.HTPatternNo = s.Dither;
  p.Highlight = kWhiteLevel;
  p.Shadow = 0;
  p.Invert = 0;
  p.ColorFilter = s.Filter;
  p.ExtensionFlag = kExtensionFlag;
  p.BackgroundLines = s.BackgroundLines;
}

bool LampWarmingUp(uint32_t status) {
  return status == SX_STATUS_WARMING_UP || status == SX_STATUS_WARMING_UP_EX;
}

// Sends the record; a cold lamp gets one retry after the warm-up wait. The
// code of the first refusal is the one reported.
int32_t SendScanParameter(const ScanSettings& s) {
  if (driver::SetScanParameter(&gScanParameter) != 0) return 0;
  const uint32_t status = driver::QueryStatusCode();
  if (s.Indicators != 0 && LampWarmingUp(status)) {
    RunWarmUpDialog();
    if (driver::SetScanParameter(&gScanParameter) != 0) return 0;
  }
  return ErrorCodeMapping(status);
}

}  // namespace

uint8_t PixelAlignment(ScanSettings& settings) {
  const uint8_t dither = settings.Dither;
  if (gAbility.AbilityFlags != 0) {
    // Design note: the driver's map has eight entries; higher pattern numbers
    // (diffusion patterns, or more than eight halftones) go to the driver
    // unmapped instead of reading past the map.
    if (dither > 0 && dither <= std::size(gAbility.HalftonePatternMap)) {
      settings.Dither = gAbility.HalftonePatternMap[dither - 1];
    }
  } else {
    const ModelAlignment& row = FindModelAlignment();
    gAbility.LineartAlignment = row.Lineart;
    gAbility.GrayAlignment = row.Gray;
    gAbility.ColorAlignment = row.Color;
    gAbility.HalftoneAlignment = row.Halftone;
  }

  switch (settings.PixelType) {
    case kPixelBlackWhite: {
      if (dither > 0) {
        const uint8_t patterned = dither > gAbility.HalftonePatternCount
                                      ? gAbility.DiffusionAlignment
                                      : gAbility.HalftoneAlignment;
        if (patterned != 0) return patterned;
      }
      return gAbility.LineartAlignment;
    }
    case kPixelGray:
      return settings.BitsPerPixel == 4 ? gAbility.Gray4Alignment : gAbility.GrayAlignment;
    case kPixelColor:
      return gAbility.ColorAlignment;
    default:
      return 1;
  }
}

int32_t CheckParameter(ScanSettings& settings) {
  ScanSettings& s = settings;
  TraceLog(kTraceFile, kLabel, kTagIn, 1, 0, kKindNumber, 1);

  // Design note: only pixel types 0..2 and sources 0..4 have a scan mode, an
  // area and an alignment; anything else is refused before the settings or
  // the driver are touched.
  if (s.PixelType > kPixelColor || s.ScanType > kScanTypeSource4) return kRefusedSettings;
  if (s.PixelType == kPixelColor && (gAbility.PixelTypeFlags & SX_PIXEL_COLOR) == 0) {
    return SX_ERR_NO_COLOR;
  }

  // The record is assembled aside and committed only once every refusal has
  // been ruled out, so a refused check leaves the last scan's record intact.
  ScanParameter p = gScanParameter;
  std::memset(p.Reserved24, 0, sizeof(p.Reserved24));
  std::memset(p.Reserved2D, 0, sizeof(p.Reserved2D));
  std::memset(p.Reserved3F, 0, sizeof(p.Reserved3F));

  switch (s.PixelType) {
    case kPixelBlackWhite:
      s.Sharpen = 0;
      s.Descreen = 0;
      s.Highlight[0] = kWhiteLevel;
      s.Shadow[0] = 0;
      if (s.Dither == 0) {
        s.Contrast[0] = 0;
        p.ScanMode = kModeLineart;
      } else {
        p.ScanMode = kModeHalftone;
      }
      break;
    case kPixelGray:
      p.ScanMode = kModeGray;
      break;
    default:
      p.ScanMode = kModeColor;
      break;
  }

  // Design note: every count follows XResolution, so a request whose
  // YResolution differs is made square; the driver record and the image
  // description then both tell the resolution actually delivered.
  s.YResolution = s.XResolution;
  p.ExtScanParam = kExtScanParam;
  p.XRes = s.XResolution;
  p.YRes = s.YResolution;

  SourceArea area;
  if (const int32_t code = ChooseSource(s, p, area); code != 0) return code;

  // Design note: an alignment of 0 from the driver would divide by zero; it
  // means no rounding.
  const uint8_t alignment = std::max<uint8_t>(PixelAlignment(s), 1);
  if (const int32_t code = ComputeGeometry(s, p, area, alignment); code != 0) return code;
  if (s.PixelType == kPixelBlackWhite) {
    // The scanner's line-art polarity is the reverse of the host's. The flip
    // stays in the settings, so two scans in a row without the host setting
    // Invert run with opposite values.
    s.Invert = s.Invert == 0 ? 1 : 0;
  }
  FillDriverRecord(s, p);
  gScanParameter = p;

  RebuildToneTables(s);
  InitialCMatch(s);
  const int32_t result = SendScanParameter(s);
  driver::TuneScanLength(1, s.Overscan, 1);
  SetGammaTableFunction(s);

  TraceLog(kTraceFile, kLabel, kTagOut, 1, result, kKindNumber, 1);
  return result;
}

}  // namespace sx
