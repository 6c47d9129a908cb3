// Fuzz target: the virtual scanner's own inputs, its vscan.ini and the PNM
// picture it can scan instead of the chart.
//
// Input: one selector byte. Even: the rest is vscan.ini text, applied over the
// defaults. Odd: eight geometry bytes (u16 pixels, u16 lines, u8 mode, u8
// colour filter, u16 line to render), then the PNM file; a picture that parses
// is rendered at that geometry through the cached renderer and the reference,
// which must agree.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "modules/vscan/TestChart.h"
#include "modules/vscan/VscanConfig.h"

namespace {

using namespace sx::vscan;

constexpr uint16_t kMostPixels = 4096;  // wider lines only cost time
constexpr uint8_t kModes[] = {kModeLineArt, kModeHalftone, kModeGray, kModeColor};

void ApplyText(const uint8_t* data, size_t size) {
  Config config = DefaultConfig();
  ApplyIni(config, std::string(reinterpret_cast<const char*>(data), size), "/nonexistent");
}

void RenderPicture(const uint8_t* data, size_t size) {
  if (size < 8) return;
  uint16_t pixels, lines, row;
  std::memcpy(&pixels, data, 2);
  std::memcpy(&lines, data + 2, 2);
  std::memcpy(&row, data + 6, 2);
  PnmImage image;
  std::string error;
  if (!ParsePnm(data + 8, size - 8, image, error)) return;
  ChartGeometry g;
  g.PixelNum = static_cast<uint16_t>(pixels % kMostPixels + 1);
  g.LineNum = static_cast<uint16_t>(lines % kMostPixels + 1);
  g.ScanMode = kModes[data[4] % 4];
  g.ColorFilter = static_cast<uint8_t>(data[5] % 4);
  g.Image = &image;
  const int32_t y = row % g.LineNum;
  const uint32_t bytes = ChartBytesPerLine(g);
  std::vector<uint8_t> cached(bytes + 1), reference(bytes + 1);
  ChartRenderer renderer;
  PrepareChart(renderer, g);
  RenderLine(renderer, y, cached.data());
  RenderChartLine(g, y, reference.data());
  if (cached != reference) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  if (data[0] % 2 == 0) ApplyText(data + 1, size - 1); else RenderPicture(data + 1, size - 1);
  return 0;
}
