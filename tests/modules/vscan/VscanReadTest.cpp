// Reading pages from the virtual scanner: every delivered byte is compared with the chart
// rendered independently from the requested geometry.
#include <algorithm>
#include <array>
#include <chrono>

#include "tests/modules/vscan/VscanHarness.h"

namespace {

using namespace vscantest;
using Bytes = std::vector<uint8_t>;

// Reads `total` bytes in chunks cycling through `chunks`, through ReadScanEx
// when the module has it, else through ReadScan.
Bytes ReadAll(const Vscan& v, size_t total, const std::vector<uint32_t>& chunks) {
  Bytes bytes(total);
  for (size_t i = 0, done = 0; done < total; ++i) {
    const uint32_t n = static_cast<uint32_t>(std::min<size_t>(chunks[i % chunks.size()], total - done));
    ReadScanRequest r{bytes.data() + done, n, 0, 0};
    EXPECT_EQ(v.ReadScanEx ? v.ReadScanEx(&r) : v.ReadScan(nullptr, bytes.data() + done, n), 1);
    EXPECT_EQ(v.ReadScanEx ? r.BytesReturned : n, n);
    done += n;
  }
  return bytes;
}

// Opens `v` and starts a page of `p`.
void Start(const Vscan& v, ScanParameter p) {
  v.Open();
  ASSERT_EQ(v.SetScanParameter(&p), 1);
  ASSERT_EQ(v.StartScan(), 1);
}

TEST(VscanRead, WholePagesInOddChunksEqualTheChartThroughTheTables) {
  // {mode, resolution, left, top, pixels, lines, ColorFilter, pattern}
  const std::tuple<const char*, std::array<uint16_t, 8>, const char*> rows[] = {
      {"colour, whole page at 75 dpi", {4, 75, 0, 0, 636, 876, 0, 0}, SX_TEST_VSCAN},
      {"gray from red, patterns", {2, 150, 300, 1800, 600, 300, 1, 0}, SX_TEST_VSCAN},
      {"line art, text", {0, 600, 0, 2280, 2400, 150, 0, 0}, SX_TEST_VSCAN},
      {"halftone, ramps", {1, 300, 100, 300, 1000, 400, 0, 3}, SX_TEST_VSCAN},
      {"colour through plain ReadScan", {4, 200, 50, 700, 1200, 300, 0, 0}, SX_TEST_VSCAN_BASIC},
  };
  std::array<uint8_t, 256> tables[3], identity;
  for (int i = 0; i < 256; ++i) {
    tables[0][i] = static_cast<uint8_t>(255 - i);
    tables[1][i] = static_cast<uint8_t>(i / 2 + 40);
    tables[2][i] = static_cast<uint8_t>(std::min(255, 2 * i));
    identity[i] = static_cast<uint8_t>(i);
  }
  const uint8_t* const tone[3] = {tables[0].data(), tables[1].data(), tables[2].data()};
  for (const auto& [name, f, module] : rows) {
    SCOPED_TRACE(name);
    ScanParameter p = Colour300(f[4], f[5]);
    p.ScanMode = static_cast<uint8_t>(f[0]), p.XRes = p.YRes = f[1], p.Left = f[2], p.Top = f[3];
    p.BitsPerPixel = f[0] == 4 ? 24 : f[0] == 2 ? 8 : 1;  // the scanner's one depth per mode
    p.ColorFilter = static_cast<uint8_t>(f[6]), p.HTPatternNo = static_cast<uint8_t>(f[7]);
    p.Width = static_cast<uint16_t>(f[4] * 300 / f[1] + 1), p.Length = static_cast<uint16_t>(f[5] * 300 / f[1] + 1);
    Vscan v("", module);
    v.Open();
    ASSERT_EQ(v.SetScanParameter(&p), 1);
    for (int c = 0; c < 3; ++c) ASSERT_EQ(v.SetGammaTable(tables[c].data(), c + 1, 256), 1);
    ASSERT_EQ(v.StartScan(), 1);
    ASSERT_EQ(v.SetGammaTable(identity.data(), 1, 256), 1) << "applies from the next page";
    const Bytes expected = Chart(p, p.LineNum, 0, tone);
    const uint32_t bpl = static_cast<uint32_t>(expected.size() / p.LineNum);
    EXPECT_TRUE(ReadAll(v, expected.size(), {1, 7, 1000, bpl + 3, 65536, bpl}) == expected);
    uint8_t byte = 0;
    ReadScanRequest more{&byte, 1, 0, 99};
    EXPECT_TRUE(!v.ReadScanEx || (v.ReadScanEx(&more) == 1 && more.BytesReturned == 0)) << "the page is over";
  }
}

TEST(VscanRead, FeederSheetsCarryTheirNumbers) {
  Vscan v("[Feeder]\nSheets=2\n");
  v.Open();
  ScanParameter p = Colour300(1200, 80);
  p.Top = 150, p.Length = 100, p.ScanMethod = 1;  // the page mark cells, from the feeder
  uint8_t paper = 0;
  for (uint32_t sheet = 1; sheet <= 2; ++sheet) {
    EXPECT_TRUE(v.GetADFStatus(&paper) == 1 && paper == 1) << "exactly 1 while sheets remain";
    ASSERT_EQ(v.SetScanParameter(&p) + v.StartScan(), 2);
    const Bytes expected = Chart(p, p.LineNum, sheet);
    EXPECT_TRUE(ReadAll(v, expected.size(), {100000}) == expected) << "sheet " << sheet;
    EXPECT_FALSE(expected == Chart(p, p.LineNum, 3 - sheet)) << "the sheets differ";
    ASSERT_EQ(v.StopScan(), 1);
  }
  EXPECT_TRUE(v.GetADFStatus(&paper) == 1 && paper == 0);
  EXPECT_TRUE(v.StartScan() == 0 && v.Status() == 2010u) << "paper out";
  p.ScanMethod = 0;
  EXPECT_EQ(v.SetScanParameter(&p) + v.StartScan(), 2) << "the flatbed needs no sheet";
}

TEST(VscanRead, ShortAndFailingReads) {
  ScanParameter p = Colour300(100, 10);
  const uint32_t bpl = 300;
  const Bytes chart = Chart(p, 10);
  Bytes buffer(4000, 0xA5);
  {
    SCOPED_TRACE("the page ends at the injected line");
    Vscan v("[Faults]\nShortReadAtLine=3\n");
    Start(v, p);
    ReadScanRequest r{buffer.data(), 10 * bpl, 0, 0};
    ASSERT_TRUE(v.ReadScanEx(&r) == 1 && r.BytesReturned == 3 * bpl);
    EXPECT_TRUE(std::equal(chart.begin(), chart.begin() + 3 * bpl, buffer.begin()));
    EXPECT_EQ(buffer[3 * bpl], 0xA5);
  }
  {
    Vscan v("[Faults]\nShortReadAtLine=3\nReadStatus=2006\n", SX_TEST_VSCAN_BASIC);
    Start(v, p);
    EXPECT_TRUE(v.ReadScan(nullptr, buffer.data(), 4 * bpl) == 0 && v.Status() == 2006u)
        << "plain ReadScan cannot report a short page";
  }
  {
    SCOPED_TRACE("the read that reaches line 3 fails, on the first page only");
    Vscan v("[Faults]\nFailReadAtLine=3\nReadStatus=2006\nFaultPage=1\n");
    Start(v, p);
    ReadScanRequest r{buffer.data(), 2 * bpl, 0, 0};
    ASSERT_EQ(v.ReadScanEx(&r), 1);
    r = {buffer.data(), 1, 0, 0};
    for (int attempt = 0; attempt < 2; ++attempt) EXPECT_TRUE(v.ReadScanEx(&r) == 0 && v.Status() == 2006u);
    ASSERT_EQ(v.StopScan() + v.StartScan(), 2);
    EXPECT_TRUE(ReadAll(v, chart.size(), {bpl}) == chart);
  }
  {
    SCOPED_TRACE("over-reported bytes, and reads outside a page");
    Vscan v("[Faults]\nReadScanExExtra=7\n");
    v.Open();
    ReadScanRequest r{buffer.data(), 50, 0, 0};
    EXPECT_TRUE(v.ReadScanEx(&r) == 0 && v.Status() == 2004u) << "no page started";
    ASSERT_EQ(v.SetScanParameter(&p) + v.StartScan(), 2);
    std::fill(buffer.begin(), buffer.end(), 0xA5);
    ASSERT_TRUE(v.ReadScanEx(&r) == 1 && r.BytesReturned == 57u);
    EXPECT_EQ(buffer[50], 0xA5) << "only the bytes asked for are written";
    ASSERT_EQ(v.DoCancel(), 1);
    EXPECT_EQ(v.ReadScanEx(&r), 0) << "cancel ends the page";
  }
}

// The scanner's pace: a read waits its per-read pause plus the per-line one
// for every whole line it delivers. What one read oversleeps the next gives
// back, so the promise is the lower bound of the whole run.
// A pre-rendered page keeps the pace too.
TEST(VscanRead, ReadsTakeTheScannersPace) {
  ScanParameter p = Colour300(100, 40);
  const uint32_t bpl = 300;
  Bytes buffer(40 * bpl);
  for (const char* prerender : {"0", "1"}) {
    Vscan v(std::string("[Page]\nReadDelayMs=5\nLineDelayUs=1000\nPrerender=") + prerender + "\n");
    Start(v, p);
    const auto start = std::chrono::steady_clock::now();
    for (uint32_t lines : {30u, 10u}) {
      ReadScanRequest r{buffer.data(), lines * bpl, 0, 0};
      ASSERT_TRUE(v.ReadScanEx(&r) == 1 && r.BytesReturned == lines * bpl);
    }
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2 * 5 + 40)) << prerender;
  }
}

// A kept page is only ever the same page again: a page read halfway, other
// tone tables or another sheet are drawn afresh. A page drawn whole before
// its first read is the same raster as one drawn read by read.
TEST(VscanRead, AKeptPageIsTheSamePageAgain) {
  std::array<uint8_t, 256> inverse;
  for (int i = 0; i < 256; ++i) inverse[i] = static_cast<uint8_t>(255 - i);
  const uint8_t* const inverted[3] = {inverse.data(), inverse.data(), inverse.data()};
  for (const char* keep : {"KeepLastPage=1", "Prerender=1"}) {
    SCOPED_TRACE(keep);
    Vscan v(std::string("[Page]\n") + keep + "\n[Feeder]\nSheets=2\n");
    v.Open();
    ScanParameter p = Colour300(1200, 80);
    p.Top = 150, p.Length = 100;
    const Bytes plain = Chart(p, p.LineNum), dark = Chart(p, p.LineNum, 0, inverted);
    auto page = [&](size_t upTo) {
      EXPECT_EQ(v.SetScanParameter(&p) + v.StartScan(), 2);
      Bytes got = ReadAll(v, upTo, {7000, 65536});
      EXPECT_EQ(v.StopScan(), 1);
      return got;
    };
    EXPECT_TRUE(page(plain.size() / 2) == Bytes(plain.begin(), plain.begin() + plain.size() / 2));
    EXPECT_TRUE(page(plain.size()) == plain) << "after a page read halfway";
    EXPECT_TRUE(page(plain.size()) == plain) << "kept";
    for (int c = 1; c <= 3; ++c) ASSERT_EQ(v.SetGammaTable(inverse.data(), c, 256), 1);
    EXPECT_TRUE(page(plain.size()) == dark) << "other tables";
    p.ScanMethod = 1;
    for (uint32_t sheet = 1; sheet <= 2; ++sheet)
      EXPECT_TRUE(page(plain.size()) == Chart(p, p.LineNum, sheet, inverted)) << "sheet " << sheet;
  }
}

}  // namespace
