// The virtual scanner's page image: a deterministic test chart laid out in
// page coordinates (or a PNM picture stretched over the scan), sampled at the
// requested geometry and finished the way the scanner hardware would: tone
// tables per channel, then colour, gray, line art or halftone output.
//
// Tests and benchmarks link this (target vscan_chart) to predict every byte
// the module delivers: RenderChartLine(geometry, y, out) gives line y of the
// raster exactly as ReadScan delivers it.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace sx::vscan {

// ScanParameter ScanMode values.
constexpr uint8_t kModeLineArt = 0;
constexpr uint8_t kModeHalftone = 1;
constexpr uint8_t kModeGray = 2;
constexpr uint8_t kModeColor = 4;

// Chart units: 1/1200 inch, four per 1/300-inch page unit, so 600 and 1200 dpi
// scans resolve detail that 300 dpi scans alias.
constexpr int32_t kChartUnitsPerInch = 1200;
// The chart repeats down the page every A4 length (1/300 inch), so longer
// feeder pages stay covered.
constexpr int32_t kChartPageLength = 3508;

// A decoded binary PNM picture (P5 gray: 1 channel, P6 colour: 3 channels),
// samples scaled to 0..255.
struct PnmImage {
  uint32_t Width = 0;
  uint32_t Height = 0;
  uint32_t Channels = 0;
  std::vector<uint8_t> Pixels;  // row-major, Channels bytes per pixel
};

// Parses a P5/P6 file image with maxval 1..255. False with a reason otherwise.
bool ParsePnm(const uint8_t* data, size_t size, PnmImage& image, std::string& error);
bool LoadPnm(const std::string& path, PnmImage& image, std::string& error);

// What the scanner was asked for, in ScanParameter terms.
struct ChartGeometry {
  uint16_t Left = 0;  // 1/300 inch
  uint16_t Top = 0;   // 1/300 inch
  uint16_t XRes = 300;
  uint16_t YRes = 300;
  uint16_t PixelNum = 0;
  uint16_t LineNum = 0;  // only a picture uses it (stretched over the lines)
  uint8_t ScanMode = kModeColor;
  // Gray, line art and halftone are taken from this channel (1 red, 2 green,
  // 3 blue); 0 takes the luminance (77 R + 150 G + 29 B + 128) >> 8.
  uint8_t ColorFilter = 0;
  uint8_t HTPatternNo = 0;
  // Feeder sheet number printed in the page marks; 0 on the flatbed.
  uint32_t Page = 0;
  // Tone tables of channels 1..3 (256 entries each); null means identity.
  // Colour output maps R, G, B through tables 1, 2, 3; single-channel output
  // maps through the table of ColorFilter, or table 2 when ColorFilter is 0.
  const uint8_t* Tone[3] = {nullptr, nullptr, nullptr};
  // When set, this picture replaces the chart, stretched (nearest sample) to
  // PixelNum x LineNum: source column x * Width / PixelNum, row
  // y * Height / LineNum.
  const PnmImage* Image = nullptr;
};

// Bytes per raster line: colour 3 x PixelNum, gray PixelNum, line art and
// halftone PixelNum / 8 (pixels past the last whole byte are dropped, bits
// MSB first, 1 = black). 0 for any other mode.
uint32_t ChartBytesPerLine(const ChartGeometry& g);

// Page position of scan pixel x / line y, in chart units: the centre of the
// pixel, Left * 4 + (2x + 1) * 600 / XRes (and likewise for lines).
int32_t ChartColumnUnit(const ChartGeometry& g, int32_t x);
int32_t ChartLineUnit(const ChartGeometry& g, int32_t y);

// The chart's colour at page position (u, v) in chart units (v is taken
// modulo the chart length). `page` is the sheet number printed in the marks.
void ChartColor(int32_t u, int32_t v, uint32_t page, uint8_t rgb[3]);

// A renderer for one geometry: column tables, the tone tables (copied), and a
// small cache of finished lines, since most chart bands repeat the same line.
// Not shared between threads.
struct ChartRenderer {
  ChartGeometry Geometry;
  uint32_t BytesPerLine = 0;
  std::vector<int32_t> Columns;  // chart unit (or picture column) per pixel
  std::vector<uint8_t> Tone;     // 3 x 256
  std::vector<uint8_t> Rgb;      // scratch line, 3 x PixelNum
  struct CacheSlot {
    uint64_t Key = 0;
    bool Valid = false;
    std::vector<uint8_t> Bytes;
  };
  std::vector<CacheSlot> Cache;
};

void PrepareChart(ChartRenderer& r, const ChartGeometry& g);
// Writes line y (BytesPerLine bytes) to out.
void RenderLine(ChartRenderer& r, int32_t y, uint8_t* out);

// The reference: line y of the raster for geometry g, written to out
// (ChartBytesPerLine(g) bytes), without any cached state.
void RenderChartLine(const ChartGeometry& g, int32_t y, uint8_t* out);

}  // namespace sx::vscan
