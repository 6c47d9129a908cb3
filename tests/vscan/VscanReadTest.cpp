// Reading pages from the virtual scanner: every delivered byte is compared
// with the chart rendered independently from the requested geometry.
#include <array>
#include <cstring>

#include "tests/vscan/VscanHarness.h"

namespace {

using namespace vscantest;

// Reads `total` bytes in chunks cycling through `chunks`, through ReadScanEx
// when the module has it, else through ReadScan.
std::vector<uint8_t> ReadAll(const Vscan& v, size_t total, const std::vector<uint32_t>& chunks) {
  std::vector<uint8_t> bytes(total);
  size_t done = 0;
  for (size_t i = 0; done < total; ++i) {
    const uint32_t n = static_cast<uint32_t>(std::min<size_t>(chunks[i % chunks.size()], total - done));
    if (v.ReadScanEx) {
      ReadScanRequest r{bytes.data() + done, n, 0, 0};
      EXPECT_EQ(v.ReadScanEx(&r), 1);
      EXPECT_EQ(r.BytesReturned, n);
    } else {
      EXPECT_EQ(v.ReadScan(nullptr, bytes.data() + done, n), 1);
    }
    done += n;
  }
  return bytes;
}

struct Tables {
  std::array<uint8_t, 256> T[3];
  Tables() {
    for (int i = 0; i < 256; ++i) {
      T[0][i] = static_cast<uint8_t>(255 - i);
      T[1][i] = static_cast<uint8_t>(i / 2 + 40);
      T[2][i] = static_cast<uint8_t>(std::min(255, 2 * i));
    }
  }
};

TEST(VscanRead, WholePagesInOddChunksEqualTheChart) {
  struct Row {
    const char* Name;
    ScanParameter P;
    const char* Module;
  };
  auto make = [](uint8_t mode, uint16_t res, uint16_t left, uint16_t top, uint16_t pixels, uint16_t lines) {
    ScanParameter p = Colour300(pixels, lines);
    p.ScanMode = mode;
    p.XRes = p.YRes = res;
    p.Left = left;
    p.Top = top;
    p.Width = static_cast<uint16_t>(pixels * 300 / res + 1);
    p.Length = static_cast<uint16_t>(lines * 300 / res + 1);
    return p;
  };
  std::vector<Row> rows = {
      {"colour, whole page at 75 dpi", make(4, 75, 0, 0, 636, 876), SX_TEST_VSCAN},
      {"gray from red, patterns", make(2, 150, 300, 1800, 600, 300), SX_TEST_VSCAN},
      {"line art, text, 600 x 300 dpi", make(0, 600, 0, 2280, 2400, 150), SX_TEST_VSCAN},
      {"halftone, ramps", make(1, 300, 100, 300, 1000, 400), SX_TEST_VSCAN},
      {"colour through plain ReadScan", make(4, 200, 50, 700, 1200, 300), SX_TEST_VSCAN_BASIC},
  };
  rows[1].P.ColorFilter = 1;
  rows[2].P.YRes = 300;
  rows[2].P.Length = 151;
  rows[3].P.HTPatternNo = 3;
  const Tables tables;
  for (const Row& r : rows) {
    SCOPED_TRACE(r.Name);
    Vscan v("", r.Module);
    v.Open();
    ScanParameter p = r.P;
    ASSERT_EQ(v.SetScanParameter(&p), 1);
    for (int c = 0; c < 3; ++c) {
      std::array<uint8_t, 256> t = tables.T[c];
      ASSERT_EQ(v.SetGammaTable(t.data(), c + 1, 256), 1);
    }
    ASSERT_EQ(v.StartScan(), 1);
    std::array<uint8_t, 256> identity;
    for (int i = 0; i < 256; ++i) identity[i] = static_cast<uint8_t>(i);
    ASSERT_EQ(v.SetGammaTable(identity.data(), 1, 256), 1) << "applies from the next page";

    sx::vscan::ChartGeometry g = GeometryOf(p);
    for (int c = 0; c < 3; ++c) g.Tone[c] = tables.T[c].data();
    const std::vector<uint8_t> expected = Chart(g, p.LineNum);
    const uint32_t bpl = sx::vscan::ChartBytesPerLine(g);
    const std::vector<uint8_t> got = ReadAll(v, expected.size(), {1, 7, 1000, bpl + 3, 65536, bpl});
    EXPECT_TRUE(got == expected);

    if (v.ReadScanEx) {  // the page is over: nothing more comes
      uint8_t byte = 0;
      ReadScanRequest more{&byte, 1, 0, 99};
      EXPECT_EQ(v.ReadScanEx(&more), 1);
      EXPECT_EQ(more.BytesReturned, 0u);
    }
    EXPECT_EQ(v.StopScan(), 1);
  }
}

TEST(VscanRead, FeederSheetsCarryTheirNumbers) {
  Vscan v("[Feeder]\nSheets=2\n");
  v.Open();
  ScanParameter p = Colour300(1200, 80);
  p.Top = 150;  // the page mark cells
  p.Length = 100;
  p.ScanMethod = 1;
  std::vector<std::vector<uint8_t>> pages;
  uint8_t paper = 0;
  for (uint32_t sheet = 1; sheet <= 2; ++sheet) {
    ASSERT_EQ(v.GetADFStatus(&paper), 1);
    EXPECT_EQ(paper, 1) << "exactly 1 while sheets remain";
    ASSERT_EQ(v.SetScanParameter(&p), 1);
    ASSERT_EQ(v.StartScan(), 1);
    const std::vector<uint8_t> expected = Chart(GeometryOf(p, sheet), p.LineNum);
    pages.push_back(ReadAll(v, expected.size(), {100000}));
    EXPECT_TRUE(pages.back() == expected) << "sheet " << sheet;
    ASSERT_EQ(v.StopScan(), 1);
  }
  EXPECT_FALSE(pages[0] == pages[1]);
  ASSERT_EQ(v.GetADFStatus(&paper), 1);
  EXPECT_EQ(paper, 0);
  EXPECT_EQ(v.StartScan(), 0);
  EXPECT_EQ(v.Status(), 2010u) << "paper out";
  p.ScanMethod = 0;
  ASSERT_EQ(v.SetScanParameter(&p), 1);
  EXPECT_EQ(v.StartScan(), 1) << "the flatbed needs no sheet";
}

TEST(VscanRead, ShortAndFailingReads) {
  ScanParameter p = Colour300(100, 10);
  const uint32_t bpl = 300;
  const std::vector<uint8_t> chart = Chart(GeometryOf(p), 10);
  std::vector<uint8_t> buffer(4000, 0xA5);
  {
    SCOPED_TRACE("the page ends at the injected line");
    Vscan v("[Faults]\nShortReadAtLine=3\n");
    v.Open();
    ASSERT_EQ(v.SetScanParameter(&p), 1);
    ASSERT_EQ(v.StartScan(), 1);
    ReadScanRequest r{buffer.data(), 10 * bpl, 0, 0};
    ASSERT_EQ(v.ReadScanEx(&r), 1);
    EXPECT_EQ(r.BytesReturned, 3 * bpl);
    EXPECT_TRUE(std::equal(chart.begin(), chart.begin() + 3 * bpl, buffer.begin()));
    EXPECT_EQ(buffer[3 * bpl], 0xA5);
  }
  {
    SCOPED_TRACE("plain ReadScan cannot report a short page: it fails");
    Vscan v("[Faults]\nShortReadAtLine=3\nReadStatus=2006\n", SX_TEST_VSCAN_BASIC);
    v.Open();
    ASSERT_EQ(v.SetScanParameter(&p), 1);
    ASSERT_EQ(v.StartScan(), 1);
    EXPECT_EQ(v.ReadScan(nullptr, buffer.data(), 4 * bpl), 0);
    EXPECT_EQ(v.Status(), 2006u);
    EXPECT_TRUE(std::equal(chart.begin(), chart.begin() + 3 * bpl, buffer.begin()));
  }
  {
    SCOPED_TRACE("the read that reaches line 3 fails, on the first page only");
    Vscan v("[Faults]\nFailReadAtLine=3\nReadStatus=2006\nFaultPage=1\n");
    v.Open();
    ASSERT_EQ(v.SetScanParameter(&p), 1);
    ASSERT_EQ(v.StartScan(), 1);
    ReadScanRequest r{buffer.data(), 2 * bpl, 0, 0};
    ASSERT_EQ(v.ReadScanEx(&r), 1);
    r = {buffer.data(), 1, 0, 0};
    for (int attempt = 0; attempt < 2; ++attempt) {
      EXPECT_EQ(v.ReadScanEx(&r), 0);
      EXPECT_EQ(v.Status(), 2006u);
    }
    ASSERT_EQ(v.StopScan(), 1);
    ASSERT_EQ(v.StartScan(), 1);
    EXPECT_TRUE(ReadAll(v, chart.size(), {bpl}) == chart);
  }
  {
    SCOPED_TRACE("over-reported bytes, and reads outside a page");
    Vscan v("[Faults]\nReadScanExExtra=7\n");
    v.Open();
    ReadScanRequest r{buffer.data(), 50, 0, 0};
    EXPECT_EQ(v.ReadScanEx(&r), 0) << "no page started";
    EXPECT_EQ(v.Status(), 2004u);
    ASSERT_EQ(v.SetScanParameter(&p), 1);
    ASSERT_EQ(v.StartScan(), 1);
    std::fill(buffer.begin(), buffer.end(), 0xA5);
    ASSERT_EQ(v.ReadScanEx(&r), 1);
    EXPECT_EQ(r.BytesReturned, 57u);
    EXPECT_EQ(buffer[50], 0xA5) << "only the bytes asked for are written";
    ReadScanRequest noBuffer{nullptr, 5, 0, 0};
    EXPECT_EQ(v.ReadScanEx(&noBuffer), 0);
    EXPECT_EQ(v.ReadScanEx(nullptr), 0);
    ASSERT_EQ(v.DoCancel(), 1);
    EXPECT_EQ(v.ReadScanEx(&r), 0) << "cancel ends the page";
  }
}

TEST(VscanRead, PictureStretchedToTheScan) {
  // 3 x 2 colour picture, 8-bit samples.
  const std::string ppm = std::string("P6\n# test\n3 2\n255\n") +
                          std::string("\x01\x02\x03\x04\x05\x06\x07\x08\x09"
                                      "\x0a\x0b\x0c\x0d\x0e\x0f\x10\x11\x12", 18);
  Vscan v("[Page]\nImage=picture.ppm\n");
  sxtest::WriteFile(v.Dir / "picture.ppm", ppm);
  v.Open();
  ScanParameter p = Colour300(6, 4);
  ASSERT_EQ(v.SetScanParameter(&p), 1);
  std::array<uint8_t, 256> plusOne;
  for (int i = 0; i < 256; ++i) plusOne[i] = static_cast<uint8_t>(i + 1);
  ASSERT_EQ(v.SetGammaTable(plusOne.data(), 3, 256), 1);
  ASSERT_EQ(v.StartScan(), 1);
  const std::vector<uint8_t> got = ReadAll(v, 6 * 4 * 3, {13});
  // Nearest sample: column x / 2, row y / 2; blue through the table.
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 6; ++x)
      for (int c = 0; c < 3; ++c) {
        const int source = 1 + (y / 2) * 9 + (x / 2) * 3 + c;
        EXPECT_EQ(got[(y * 6 + x) * 3 + c], c == 2 ? source + 1 : source) << x << "," << y << "," << c;
      }
}

}  // namespace
