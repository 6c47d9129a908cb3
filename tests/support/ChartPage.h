// The test chart as the virtual scanner draws the QM7110 set-up's pages:
// 300 dpi, 2544 colour pixels (2528 in line art, a multiple of 32, which
// arrives inverted), gray taken from green; `sheet` is the feeder sheet
// printed in the page marks (0 on the flatbed). The generator is compiled
// into the test, so the expected raster does not come from the module under
// test.
#pragma once
#include <algorithm>
#include <cstdint>
#include <vector>

#include "modules/vscan/TestChart.h"

namespace sxtest {

inline std::vector<uint8_t> ChartPage(int32_t lines, uint32_t sheet = 0, bool lineArt = false) {
  sx::vscan::ChartGeometry g;
  g.ScanMode = lineArt ? sx::vscan::kModeLineArt : sx::vscan::kModeColor;
  g.PixelNum = lineArt ? 2528 : 2544;
  g.ColorFilter = 2;
  g.Page = sheet;
  const size_t line = sx::vscan::ChartBytesPerLine(g);
  std::vector<uint8_t> bytes(line * static_cast<size_t>(lines));
  for (int32_t y = 0; y < lines; ++y) sx::vscan::RenderChartLine(g, y, bytes.data() + y * line);
  if (lineArt) std::for_each(bytes.begin(), bytes.end(), [](uint8_t& b) { b = static_cast<uint8_t>(~b); });
  return bytes;
}

}  // namespace sxtest
