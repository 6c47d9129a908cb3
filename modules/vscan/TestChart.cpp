#include "modules/vscan/TestChart.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <iterator>

#include "imaging/kernels/Kernels.h"

namespace sx::vscan {

namespace {

// Layout positions are written in 1/300-inch page units and converted here.
constexpr int32_t P(int32_t pageUnits) { return pageUnits * 4; }

constexpr uint8_t kPaper[3] = {240, 238, 232};
constexpr uint8_t kInk = 20;
constexpr uint8_t kMarkOff = 210;

// The frame around the chart and the content area inside it.
constexpr int32_t kFrameLeft = P(100), kFrameRight = P(2450);
constexpr int32_t kFrameTop = P(100), kFrameBottom = P(3408);
constexpr int32_t kFrameWidth = P(4);
constexpr int32_t kContentLeft = P(150), kContentRight = P(2400);

enum Band : uint8_t {
  kOutside,    // above or below the frame: plain paper
  kInside,     // paper between bands, frame sides only
  kFrameRow,   // the frame's top and bottom lines
  kHeader,     // page mark cells and the title
  kGrayRamp,   // 0..255 across the content
  kHueRamp,    // red, yellow, green, cyan, blue, magenta, red
  kPatchRow0,  // colour patches, first row
  kPatchRow1,  // colour patches, second row
  kWedge,      // 16 gray steps
  kVBars,      // vertical line pairs of decreasing period
  kHBars,      // horizontal line pairs of decreasing period
  kPatterns,   // diagonal stripes, zone plate, checkerboards
  kText,       // text lines at decreasing sizes
  kEdges,      // slanted edges and colour bars
  kFooter,     // page number and page mark cells
  kVRamp,      // gray ramp down the page
};

struct BandSpan {
  int32_t Top, Bottom;  // 1/300 inch
  Band Kind;
};

constexpr BandSpan kBands[] = {
    {150, 250, kHeader},    {300, 500, kGrayRamp},   {550, 750, kHueRamp},
    {800, 940, kPatchRow0}, {960, 1100, kPatchRow1}, {1150, 1300, kWedge},
    {1350, 1550, kVBars},   {1600, 1800, kHBars},    {1850, 2250, kPatterns},
    {2300, 2540, kText},    {2600, 2900, kEdges},    {2950, 3080, kFooter},
    {3150, 3350, kVRamp},
};

// Line-pair periods of the bar groups, in chart units (1/1200 inch): from
// 1/25 inch down to 1/600 inch, the last ones beyond what 300 dpi resolves.
constexpr int32_t kBarPeriods[8] = {48, 32, 24, 16, 12, 8, 4, 2};
constexpr int32_t kBarGroupPitch = P(280), kBarGroupWidth = P(250);

constexpr int32_t kPatchPitch = P(187), kPatchWidth = P(170);
constexpr uint8_t kPatchColors[24][3] = {
    {115, 82, 68},   {194, 150, 130}, {98, 122, 157},  {87, 108, 67},   {133, 128, 177},
    {103, 189, 170}, {214, 126, 44},  {80, 91, 166},   {193, 90, 99},   {94, 60, 108},
    {157, 188, 64},  {224, 163, 46},  {56, 61, 150},   {70, 148, 73},   {175, 54, 60},
    {231, 199, 31},  {187, 86, 149},  {8, 133, 161},   {243, 243, 242}, {200, 200, 200},
    {160, 160, 160}, {122, 122, 121}, {85, 85, 85},    {52, 52, 52},
};

constexpr uint8_t kBarColors[8][3] = {
    {255, 0, 0}, {0, 255, 0},   {0, 0, 255}, {0, 255, 255},
    {255, 0, 255}, {255, 255, 0}, {0, 0, 0},   {255, 255, 255},
};

// Text lines: dot size in chart units; each glyph is 5 x 7 dots in a 6 x 9 cell.
constexpr int32_t kTextDots[6] = {32, 24, 16, 12, 8, 4};
constexpr char kPangram[] = "THE QUICK BROWN FOX JUMPS OVER THE LAZY DOG 0123456789";
constexpr char kTitle[] = "VIRTUAL SCANNER TEST CHART";

// 5 x 7 glyphs, one row per byte, bit 4 leftmost.
struct Glyph {
  char Ch;
  uint8_t Rows[7];
};
constexpr Glyph kFont[] = {
    {'0', {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}}, {'1', {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E}},
    {'2', {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}}, {'3', {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E}},
    {'4', {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}}, {'5', {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E}},
    {'6', {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}}, {'7', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08}},
    {'8', {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}}, {'9', {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}},
    {'A', {0x0E, 0x11, 0x11, 0x11, 0x1F, 0x11, 0x11}}, {'B', {0x1E, 0x11, 0x11, 0x1E, 0x11, 0x11, 0x1E}},
    {'C', {0x0E, 0x11, 0x10, 0x10, 0x10, 0x11, 0x0E}}, {'D', {0x1C, 0x12, 0x11, 0x11, 0x11, 0x12, 0x1C}},
    {'E', {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x1F}}, {'F', {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x10}},
    {'G', {0x0E, 0x11, 0x10, 0x17, 0x11, 0x11, 0x0F}}, {'H', {0x11, 0x11, 0x11, 0x1F, 0x11, 0x11, 0x11}},
    {'I', {0x0E, 0x04, 0x04, 0x04, 0x04, 0x04, 0x0E}}, {'J', {0x07, 0x02, 0x02, 0x02, 0x02, 0x12, 0x0C}},
    {'K', {0x11, 0x12, 0x14, 0x18, 0x14, 0x12, 0x11}}, {'L', {0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x1F}},
    {'M', {0x11, 0x1B, 0x15, 0x15, 0x11, 0x11, 0x11}}, {'N', {0x11, 0x11, 0x19, 0x15, 0x13, 0x11, 0x11}},
    {'O', {0x0E, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0E}}, {'P', {0x1E, 0x11, 0x11, 0x1E, 0x10, 0x10, 0x10}},
    {'Q', {0x0E, 0x11, 0x11, 0x11, 0x15, 0x12, 0x0D}}, {'R', {0x1E, 0x11, 0x11, 0x1E, 0x14, 0x12, 0x11}},
    {'S', {0x0F, 0x10, 0x10, 0x0E, 0x01, 0x01, 0x1E}}, {'T', {0x1F, 0x04, 0x04, 0x04, 0x04, 0x04, 0x04}},
    {'U', {0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0E}}, {'V', {0x11, 0x11, 0x11, 0x11, 0x11, 0x0A, 0x04}},
    {'W', {0x11, 0x11, 0x11, 0x15, 0x15, 0x15, 0x0A}}, {'X', {0x11, 0x11, 0x0A, 0x04, 0x0A, 0x11, 0x11}},
    {'Y', {0x11, 0x11, 0x11, 0x0A, 0x04, 0x04, 0x04}}, {'Z', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x10, 0x1F}},
};

// Glyph rows indexed by character; characters without a glyph print blank.
struct FontTable {
  uint8_t Rows[128][7] = {};
  constexpr FontTable() {
    for (const Glyph& g : kFont)
      for (int r = 0; r < 7; ++r) Rows[static_cast<unsigned char>(g.Ch)][r] = g.Rows[r];
  }
};
constexpr FontTable kGlyphs;

// Halftone threshold matrices, 8 x 8 (smaller ones tiled), thresholds 1..255:
// a pixel is black when its toned level is below the threshold.
using Matrix = std::array<std::array<uint8_t, 8>, 8>;

constexpr Matrix MakeBayer(int size) {
  Matrix m{};
  for (int y = 0; y < 8; ++y)
    for (int x = 0; x < 8; ++x) {
      int xs = x % size, ys = y % size, index = 0;
      for (int bit = size / 2, weight = 1; bit >= 1; bit /= 2, weight *= 4) {
        // Bayer recursion: 0 2 / 3 1 at every scale, the finest scale weighted
        // most, so neighbouring thresholds lie far apart.
        int bx = (xs / bit) % 2, by = (ys / bit) % 2;
        int q = by == 0 ? (bx == 0 ? 0 : 2) : (bx == 0 ? 3 : 1);
        index += q * weight;
      }
      m[y][x] = static_cast<uint8_t>((2 * index + 1) * 128 / (size * size));
    }
  return m;
}

constexpr Matrix MakeClustered() {
  constexpr int order[4][4] = {{12, 5, 6, 13}, {4, 0, 1, 7}, {11, 3, 2, 8}, {15, 10, 9, 14}};
  Matrix m{};
  for (int y = 0; y < 8; ++y)
    for (int x = 0; x < 8; ++x) m[y][x] = static_cast<uint8_t>((2 * order[y % 4][x % 4] + 1) * 8);
  return m;
}

constexpr Matrix MakeLineScreen() {
  Matrix m{};
  for (int y = 0; y < 8; ++y)
    for (int x = 0; x < 8; ++x) m[y][x] = static_cast<uint8_t>((2 * ((x + y) % 8) + 1) * 16);
  return m;
}

// Pattern number 0 or 1: Bayer 8x8; 2: Bayer 4x4; 3: clustered dot; 4: line
// screen; higher numbers repeat the cycle of 1..4.
constexpr Matrix kHalftones[4] = {MakeBayer(8), MakeBayer(4), MakeClustered(), MakeLineScreen()};

const Matrix& HalftoneFor(uint8_t pattern) { return kHalftones[pattern == 0 ? 0 : (pattern - 1) % 4]; }

struct RowInfo {
  Band Kind = kOutside;
  int32_t Local = 0;  // chart units below the band's top
  uint64_t Key = 0;   // rows with equal keys are identical
  bool Cacheable = true;
};

void SetColor(uint8_t rgb[3], uint8_t r, uint8_t g, uint8_t b) {
  rgb[0] = r;
  rgb[1] = g;
  rgb[2] = b;
}
void SetGray(uint8_t rgb[3], uint8_t v) { SetColor(rgb, v, v, v); }
void SetPaper(uint8_t rgb[3]) { SetColor(rgb, kPaper[0], kPaper[1], kPaper[2]); }

bool TextInk(const char* text, size_t length, int32_t du, int32_t dv, int32_t dot) {
  if (du < 0 || dv < 0) return false;
  int32_t row = dv / dot;
  if (row >= 7) return false;
  int32_t cell = du / (6 * dot);
  int32_t col = (du % (6 * dot)) / dot;
  if (col >= 5 || static_cast<size_t>(cell) >= length) return false;
  auto ch = static_cast<unsigned char>(text[cell]) & 0x7F;
  return (kGlyphs.Rows[ch][row] >> (4 - col)) & 1;
}

// Sixteen cells carrying the page number, most significant bit first.
bool MarkCell(int32_t u, int32_t left, uint32_t page, uint8_t rgb[3]) {
  int32_t du = u - left;
  if (du < 0 || du >= 16 * P(70) || du % P(70) >= P(60)) return false;
  bool set = (page >> (15 - du / P(70))) & 1;
  SetGray(rgb, set ? kInk : kMarkOff);
  return true;
}

// "PAGE n" with n below 100000, without the cost of a formatted print per pixel.
size_t PageLabel(uint32_t page, char out[12]) {
  std::memcpy(out, "PAGE ", 5);
  char digits[5];
  size_t count = 0;
  page %= 100000;
  do {
    digits[count++] = static_cast<char>('0' + page % 10);
    page /= 10;
  } while (page);
  for (size_t i = 0; i < count; ++i) out[5 + i] = digits[count - 1 - i];
  return 5 + count;
}

uint8_t BarGroupMask(int32_t local) {
  uint8_t mask = 0;
  for (int g = 0; g < 8; ++g)
    if (local % kBarPeriods[g] < kBarPeriods[g] / 2) mask |= static_cast<uint8_t>(1u << g);
  return mask;
}

uint8_t VRampLevel(int32_t local) { return static_cast<uint8_t>(local * 255 / (P(200) - 1)); }

RowInfo DescribeRow(int32_t v) {
  RowInfo row;
  if (v < kFrameTop || v >= kFrameBottom) return row;
  if (v < kFrameTop + kFrameWidth || v >= kFrameBottom - kFrameWidth) {
    row.Kind = kFrameRow;
    row.Key = kFrameRow;
    return row;
  }
  row.Kind = kInside;
  row.Key = kInside;
  for (const BandSpan& band : kBands) {
    if (v < P(band.Top) || v >= P(band.Bottom)) continue;
    row.Kind = band.Kind;
    row.Local = v - P(band.Top);
    row.Key = band.Kind;
    switch (band.Kind) {
      case kHBars: row.Key |= static_cast<uint64_t>(BarGroupMask(row.Local)) << 8; break;
      case kVRamp: row.Key |= static_cast<uint64_t>(VRampLevel(row.Local)) << 8; break;
      case kHeader: case kPatterns: case kText: case kEdges: case kFooter: row.Cacheable = false; break;
      default: break;
    }
    break;
  }
  return row;
}

void HueColor(int32_t u, uint8_t rgb[3]) {
  int32_t h = (u - kContentLeft) * 1536 / (kContentRight - kContentLeft);
  auto f = static_cast<uint8_t>(h & 255);
  auto rf = static_cast<uint8_t>(255 - f);
  switch (h >> 8) {
    case 0: SetColor(rgb, 255, f, 0); break;
    case 1: SetColor(rgb, rf, 255, 0); break;
    case 2: SetColor(rgb, 0, 255, f); break;
    case 3: SetColor(rgb, 0, rf, 255); break;
    case 4: SetColor(rgb, f, 0, 255); break;
    default: SetColor(rgb, 255, 0, rf); break;
  }
}

void PatchColor(int32_t u, int rowIndex, uint8_t rgb[3]) {
  int32_t du = u - kContentLeft;
  int32_t col = du / kPatchPitch;
  if (col >= 12 || du % kPatchPitch >= kPatchWidth) return SetPaper(rgb);
  const uint8_t* c = kPatchColors[rowIndex * 12 + col];
  SetColor(rgb, c[0], c[1], c[2]);
}

void BarColor(int32_t u, int32_t local, bool vertical, uint8_t rgb[3]) {
  int32_t du = u - kContentLeft;
  int32_t group = du / kBarGroupPitch, offset = du % kBarGroupPitch;
  if (group >= 8 || offset >= kBarGroupWidth) return SetPaper(rgb);
  int32_t period = kBarPeriods[group];
  int32_t phase = vertical ? offset % period : local % period;
  SetGray(rgb, phase < period / 2 ? kInk : 250);
}

void PatternColor(int32_t u, int32_t local, uint8_t rgb[3]) {
  if (u < P(1000)) {  // diagonal stripes, 24 units wide
    return SetGray(rgb, (u + local) % 48 < 24 ? kInk : 250);
  }
  int32_t du = u - P(1275), dv = local - P(200);
  uint64_t d2 = static_cast<uint64_t>(int64_t{du} * du + int64_t{dv} * dv);
  if (d2 < static_cast<uint64_t>(P(200)) * P(200)) {
    // Zone plate: a triangle wave of r^2, so the frequency rises with the
    // radius until it aliases at every scanning resolution.
    auto t = static_cast<int32_t>(((d2 * 3495) >> 16) & 255);
    return SetGray(rgb, static_cast<uint8_t>(t < 128 ? 255 - 2 * t : 2 * t - 255));
  }
  int32_t cu = u - P(1550);
  if (cu < 0 || cu / P(212) >= 4 || cu % P(212) >= P(200)) return SetPaper(rgb);
  constexpr int32_t kSquares[4] = {32, 16, 8, 4};
  int32_t s = kSquares[cu / P(212)];
  SetGray(rgb, ((cu % P(212)) / s + local / s) % 2 ? kInk : 250);
}

void TextColor(int32_t u, int32_t local, uint8_t rgb[3]) {
  int32_t top = 0;
  for (int32_t dot : kTextDots) {
    if (local < top + 9 * dot) {
      bool ink = u < kContentRight &&
                 TextInk(kPangram, sizeof kPangram - 1, u - kContentLeft, local - top, dot);
      return ink ? SetGray(rgb, kInk) : SetPaper(rgb);
    }
    top += 9 * dot;
  }
  SetPaper(rgb);
}

void EdgeColor(int32_t u, int32_t local, uint8_t rgb[3]) {
  if (u >= P(300) && u < P(700)) {  // nearly vertical edge, 1 in 12
    return SetGray(rgb, 12 * (u - P(500)) + (local - P(150)) < 0 ? kInk : 250);
  }
  if (u >= P(800) && u < P(1200)) {  // nearly horizontal edge
    return SetGray(rgb, 12 * (local - P(150)) - (u - P(1000)) < 0 ? kInk : 250);
  }
  if (u >= P(1300) && u < kContentRight) {
    const uint8_t* c = kBarColors[std::min<int32_t>((u - P(1300)) / P(137), 7)];
    return SetColor(rgb, c[0], c[1], c[2]);
  }
  SetPaper(rgb);
}

void PixelColor(const RowInfo& row, int32_t u, uint32_t page, uint8_t rgb[3]) {
  if (row.Kind == kOutside || u < kFrameLeft || u >= kFrameRight) return SetPaper(rgb);
  if (row.Kind == kFrameRow || u < kFrameLeft + kFrameWidth || u >= kFrameRight - kFrameWidth)
    return SetGray(rgb, kInk);
  if (u < kContentLeft || u >= kContentRight) return SetPaper(rgb);
  int32_t du = u - kContentLeft;
  switch (row.Kind) {
    case kHeader:
      if (row.Local < P(80) && MarkCell(u, kContentLeft, page, rgb)) return;
      return TextInk(kTitle, sizeof kTitle - 1, u - P(1300), row.Local - P(10), 24)
                 ? SetGray(rgb, kInk)
                 : SetPaper(rgb);
    case kGrayRamp:
      return SetGray(rgb, static_cast<uint8_t>(du * 255 / (kContentRight - kContentLeft - 1)));
    case kHueRamp: return HueColor(u, rgb);
    case kPatchRow0: return PatchColor(u, 0, rgb);
    case kPatchRow1: return PatchColor(u, 1, rgb);
    case kWedge:
      return du / P(140) < 16 ? SetGray(rgb, static_cast<uint8_t>(du / P(140) * 17)) : SetPaper(rgb);
    case kVBars: return BarColor(u, row.Local, true, rgb);
    case kHBars: return BarColor(u, row.Local, false, rgb);
    case kPatterns: return PatternColor(u, row.Local, rgb);
    case kText: return TextColor(u, row.Local, rgb);
    case kEdges: return EdgeColor(u, row.Local, rgb);
    case kFooter: {
      if (row.Local < P(80) && MarkCell(u, P(1300), page, rgb)) return;
      if (row.Local >= 7 * 32 || du >= 10 * 6 * 32) return SetPaper(rgb);
      char label[12];
      size_t n = PageLabel(page, label);
      return TextInk(label, n, du, row.Local, 32) ? SetGray(rgb, kInk) : SetPaper(rgb);
    }
    case kVRamp: return SetGray(rgb, VRampLevel(row.Local));
    default: return SetPaper(rgb);
  }
}

int32_t ChartLength() { return P(kChartPageLength); }

int32_t PictureRow(const ChartGeometry& g, int32_t y) {
  const PnmImage& img = *g.Image;
  if (g.LineNum == 0) return std::min<int32_t>(y, static_cast<int32_t>(img.Height) - 1);
  uint64_t row = static_cast<uint64_t>(y) * img.Height / g.LineNum;
  return static_cast<int32_t>(std::min<uint64_t>(row, img.Height - 1));
}

bool HasPicture(const ChartGeometry& g) {
  return g.Image && g.Image->Width && g.Image->Height &&
         g.Image->Pixels.size() >= size_t{g.Image->Width} * g.Image->Height * g.Image->Channels;
}

// The unfinished colour line: chart or picture, before tone and mode.
void RenderRgb(const ChartRenderer& r, int32_t y, const RowInfo& row, uint8_t* rgb) {
  const ChartGeometry& g = r.Geometry;
  if (HasPicture(g)) {
    const PnmImage& img = *g.Image;
    const uint8_t* src = img.Pixels.data() + size_t{img.Width} * img.Channels * PictureRow(g, y);
    for (size_t x = 0; x < r.Columns.size(); ++x, rgb += 3) {
      const uint8_t* p = src + size_t(r.Columns[x]) * img.Channels;
      if (img.Channels == 3) SetColor(rgb, p[0], p[1], p[2]); else SetGray(rgb, p[0]);
    }
    return;
  }
  for (size_t x = 0; x < r.Columns.size(); ++x, rgb += 3) PixelColor(row, r.Columns[x], g.Page, rgb);
}

// Tone, channel choice and bit packing, as the scanner's output stage does.
void FinishLine(const ChartRenderer& r, const uint8_t* rgb, int32_t y, uint8_t* out) {
  const ChartGeometry& g = r.Geometry;
  const size_t pixels = g.PixelNum;
  const uint8_t* t1 = r.Tone.data();
  if (g.ScanMode == kModeColor) {
    sx::Kernels().ToneMap(out, rgb, pixels, 3, t1);
    return;
  }
  const int channel = g.ColorFilter >= 1 && g.ColorFilter <= 3 ? g.ColorFilter : 0;
  const uint8_t* tone = t1 + 256 * (channel ? channel - 1 : 1);
  auto level = [&](const uint8_t* p) -> uint8_t {
    uint8_t s = channel ? p[channel - 1] : static_cast<uint8_t>((77 * p[0] + 150 * p[1] + 29 * p[2] + 128) >> 8);
    return tone[s];
  };
  if (g.ScanMode == kModeGray) {
    for (size_t x = 0; x < pixels; ++x, rgb += 3) out[x] = level(rgb);
    return;
  }
  const Matrix& m = HalftoneFor(g.HTPatternNo);
  const bool halftone = g.ScanMode == kModeHalftone;
  for (size_t byte = 0; byte < pixels / 8; ++byte) {
    uint8_t bits = 0;
    for (size_t b = 0; b < 8; ++b, rgb += 3) {
      size_t x = byte * 8 + b;
      uint8_t threshold = halftone ? m[y & 7][x & 7] : 128;
      if (level(rgb) < threshold) bits |= static_cast<uint8_t>(0x80u >> b);
    }
    out[byte] = bits;
  }
}

uint64_t LineKey(const ChartRenderer& r, int32_t y, const RowInfo& row) {
  // A picture row is its own key; the dither phase splits halftone lines.
  uint64_t key = HasPicture(r.Geometry) ? (uint64_t{1} << 48) | static_cast<uint64_t>(PictureRow(r.Geometry, y))
                                       : row.Key;
  if (r.Geometry.ScanMode == kModeHalftone) key |= static_cast<uint64_t>(y & 7) << 40;
  return key;
}

}  // namespace

uint32_t ChartBytesPerLine(const ChartGeometry& g) {
  switch (g.ScanMode) {
    case kModeColor: return 3u * g.PixelNum;
    case kModeGray: return g.PixelNum;
    case kModeLineArt: case kModeHalftone: return g.PixelNum / 8u;
    default: return 0;
  }
}

int32_t ChartColumnUnit(const ChartGeometry& g, int32_t x) {
  int32_t res = g.XRes ? g.XRes : 300;
  return P(g.Left) + (2 * x + 1) * (kChartUnitsPerInch / 2) / res;
}

int32_t ChartLineUnit(const ChartGeometry& g, int32_t y) {
  int32_t res = g.YRes ? g.YRes : 300;
  return P(g.Top) + (2 * y + 1) * (kChartUnitsPerInch / 2) / res;
}

void ChartColor(int32_t u, int32_t v, uint32_t page, uint8_t rgb[3]) {
  PixelColor(DescribeRow(v % ChartLength()), u, page, rgb);
}

void PrepareChart(ChartRenderer& r, const ChartGeometry& g) {
  r.Geometry = g;
  r.BytesPerLine = ChartBytesPerLine(g);
  r.Columns.resize(g.PixelNum);
  const bool picture = HasPicture(g);
  for (int32_t x = 0; x < g.PixelNum; ++x)
    r.Columns[x] = picture ? static_cast<int32_t>(uint64_t(x) * g.Image->Width / g.PixelNum)
                           : ChartColumnUnit(g, x);
  r.Tone.resize(3 * 256);
  for (int c = 0; c < 3; ++c)
    for (int i = 0; i < 256; ++i) r.Tone[256 * c + i] = g.Tone[c] ? g.Tone[c][i] : static_cast<uint8_t>(i);
  // The copy keeps the renderer valid after the caller's tables change.
  for (int c = 0; c < 3; ++c) r.Geometry.Tone[c] = r.Tone.data() + 256 * c;
  r.Rgb.assign(size_t{3} * g.PixelNum, 0);
  r.Cache.assign(16, {});
}

void RenderLine(ChartRenderer& r, int32_t y, uint8_t* out) {
  if (r.BytesPerLine == 0) return;
  const RowInfo row = DescribeRow(ChartLineUnit(r.Geometry, y) % ChartLength());
  const bool cacheable = HasPicture(r.Geometry) || row.Cacheable;
  const uint64_t key = LineKey(r, y, row);
  ChartRenderer::CacheSlot* slot = nullptr;
  if (cacheable && !r.Cache.empty()) {
    slot = &r.Cache[(key ^ (key >> 8) ^ (key >> 40)) % r.Cache.size()];
    if (slot->Valid && slot->Key == key) {
      std::memcpy(out, slot->Bytes.data(), r.BytesPerLine);
      return;
    }
  }
  RenderRgb(r, y, row, r.Rgb.data());
  FinishLine(r, r.Rgb.data(), y, out);
  if (slot) {
    slot->Bytes.assign(out, out + r.BytesPerLine);
    slot->Key = key;
    slot->Valid = true;
  }
}

void RenderChartLine(const ChartGeometry& g, int32_t y, uint8_t* out) {
  ChartRenderer r;
  PrepareChart(r, g);
  r.Cache.clear();
  RenderLine(r, y, out);
}

bool ParsePnm(const uint8_t* data, size_t size, PnmImage& image, std::string& error) {
  size_t pos = 0;
  auto skipBlanks = [&] {
    while (pos < size) {
      if (data[pos] == '#') {
        while (pos < size && data[pos] != '\n') ++pos;
      } else if (data[pos] == ' ' || data[pos] == '\t' || data[pos] == '\r' || data[pos] == '\n') {
        ++pos;
      } else {
        break;
      }
    }
  };
  auto number = [&](uint32_t& value) {
    skipBlanks();
    if (pos >= size || data[pos] < '0' || data[pos] > '9') return false;
    uint64_t v = 0;
    while (pos < size && data[pos] >= '0' && data[pos] <= '9') {
      v = v * 10 + (data[pos++] - '0');
      if (v > 65535) return false;
    }
    value = static_cast<uint32_t>(v);
    return true;
  };
  if (size < 2 || data[0] != 'P' || (data[1] != '5' && data[1] != '6')) {
    error = "not a binary PNM (P5 or P6)";
    return false;
  }
  pos = 2;
  uint32_t width = 0, height = 0, maxval = 0;
  if (!number(width) || !number(height) || !number(maxval) || width == 0 || height == 0) {
    error = "bad PNM header (width, height up to 65535)";
    return false;
  }
  if (maxval == 0 || maxval > 255) {
    error = "PNM samples must be 8-bit (maxval 1..255)";
    return false;
  }
  if (pos >= size) {
    error = "PNM header not followed by data";
    return false;
  }
  ++pos;  // the single blank after maxval
  const uint32_t channels = data[1] == '6' ? 3 : 1;
  const size_t bytes = size_t{width} * height * channels;
  if (size - pos < bytes) {
    error = "PNM data shorter than its header says";
    return false;
  }
  image.Width = width;
  image.Height = height;
  image.Channels = channels;
  image.Pixels.assign(data + pos, data + pos + bytes);
  if (maxval != 255)
    for (uint8_t& s : image.Pixels) s = static_cast<uint8_t>(std::min<uint32_t>(s, maxval) * 255 / maxval);
  return true;
}

bool LoadPnm(const std::string& path, PnmImage& image, std::string& error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    error = "cannot open " + path;
    return false;
  }
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return ParsePnm(bytes.data(), bytes.size(), image, error);
}

}  // namespace sx::vscan
