// The sxscan program run as a user runs it, against copies of the virtual
// scanner in a temporary system tree: choosing a source, and scans that end
// up as PNG and multi-page TIFF files.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include "ImageRead.h"
#include "RunSxscan.h"

namespace sx::host {
namespace {

using sxtest::Outcome;
using sxtest::RunSxscan;

namespace fs = std::filesystem;

// A virtual scanner with a model name of its own and the given feeder stack.
void Install(const sxtest::TempRoot& root, const std::string& model, int sheets) {
  root.InstallVscan("Corvane/" + model,
                    "[Scanner]\nModel=" + model + "\n[Feeder]\nSheets=" + std::to_string(sheets) + "\n");
}

TEST(HostProgram, SelectsSourceAndScansPng) {
  sxtest::TempRoot root;
  Install(root, "QM7110V", 0);
  Install(root, "QM7110X", 0);
  EXPECT_TRUE(RunSxscan(root, "sources").Says("Corvane/QM7110X/vscan.dll"));
  // Before a choice the library has no source to open.
  Outcome none = RunSxscan(root, "info");
  EXPECT_TRUE(none.exitCode == 1 && none.Says("sxscan select")) << none.text;
  EXPECT_EQ(RunSxscan(root, "select qm7110").exitCode, 1);  // matches both

  ASSERT_EQ(RunSxscan(root, "select qm7110v").exitCode, 0);
  // The choice outlives the process: the next run opens it.
  Outcome got = RunSxscan(root, "get CAP_MODELNAME xresolution 0x9202");
  ASSERT_EQ(got.exitCode, 0) << got.text;
  EXPECT_TRUE(got.Says("CAP_MODELNAME = \"QM7110V\"")) << got.text;
  // Two inches by one at 100 dpi in grey: 200 pixels (a multiple of the
  // alignment) by 100 lines.
  Outcome scan = RunSxscan(root, "scan --source flatbed --mode gray --resolution 100 --area 0,0,2,1 --output page.png");
  ASSERT_EQ(scan.exitCode, 0) << scan.text;
  EXPECT_FALSE(fs::exists(root.Path() / ".page.png.part")) << "the partial file is renamed";
  PngRead png = ReadPng((root.Path() / "page.png").string());
  ASSERT_TRUE(png.ok);
  EXPECT_TRUE(png.width == 200u && png.height == 100u && png.colour == PNG_COLOR_TYPE_GRAY);
  EXPECT_EQ(png.xppm, 3937u);  // 100 dpi
  EXPECT_TRUE(scan.Says("page 1: 200 x 100 pixels at 100 dpi, gray")) << scan.text;

  // Without mode or resolution: colour at 300 dpi. An area wider than the
  // flatbed is clipped, and the user is told.
  Outcome plain = RunSxscan(root, "scan --area 8,0,1,1 --output plain.png");
  ASSERT_EQ(plain.exitCode, 0) << plain.text;
  PngRead colour = ReadPng((root.Path() / "plain.png").string());
  EXPECT_TRUE(colour.colour == PNG_COLOR_TYPE_RGB && colour.xppm == 11811u && colour.height == 300u);
  EXPECT_TRUE(plain.Says("the width was clipped to the source's area")) << plain.text;

  Outcome empty = RunSxscan(root, "scan --source feeder --output a.png");
  EXPECT_EQ(empty.exitCode, 1);
  EXPECT_TRUE(empty.Says("no paper")) << empty.text;
  EXPECT_FALSE(fs::exists(root.Path() / "a.png"));
}

TEST(HostProgram, FeederStackBecomesMultiPageTiff) {
  for (const char* mode : {"", "--buffered"}) {
    SCOPED_TRACE(mode);
    sxtest::TempRoot root;
    sxtest::InstallSelected(root, "QM7110V", "[Feeder]\nSheets=3\n");
    Outcome scan = RunSxscan(root, std::string("scan --source feeder --pages all --mode lineart --resolution 100 "
                                         "--area 0,0,2.56,1 --output stack.png ") + mode);
    ASSERT_EQ(scan.exitCode, 0) << scan.text;
    EXPECT_TRUE(scan.Says("wrote 3 pages")) << scan.text;
    EXPECT_FALSE(fs::exists(root.Path() / "stack.png"));
    std::vector<TiffPage> pages = ReadTiff((root.Path() / "stack.tif").string());
    ASSERT_EQ(pages.size(), 3u);
    // Each page says which it is of how many.
    for (uint16_t i = 0; i < 3; ++i)
      EXPECT_TRUE(pages[i].bits == 1 && pages[i].width == 256u && pages[i].height == 100u && pages[i].page == i &&
                  pages[i].pages == 3);
    // Another feeder scan to the PNG name would replace that TIFF: refused
    // before it starts.
    Outcome again = RunSxscan(root, "scan --source feeder --mode gray --resolution 50 --output stack.png");
    EXPECT_EQ(again.exitCode, 2);
    EXPECT_NE(again.text.find("stack.tif exists, and a feeder scan to stack.png writes its pages there"),
              std::string::npos) << again.text;
    EXPECT_EQ(ReadTiff((root.Path() / "stack.tif").string()).size(), 3u);
  }
}

// With nothing chosen or named: the only source installed, the feeder while
// it holds paper, a source's whole area, and no warning about a width nobody
// asked for.
TEST(HostProgram, DefaultsAreWhatAPersonExpects) {
  sxtest::TempRoot root;
  Install(root, "QM7110V", 3);
  Outcome stack = RunSxscan(root, "scan --pages 5 --resolution 50 --mode gray --output stack.tif");
  ASSERT_EQ(stack.exitCode, 0) << stack.text;
  EXPECT_EQ(stack.Unsaid({"using the only one installed, USB - QM7110V",
                          "the feeder ran out of paper after 3 of the 5 pages asked for"}),
            "")
      << stack.text;
  EXPECT_EQ(RunSxscan(root, "info").exitCode, 0) << "the source used is the chosen one from now on";

  // Auto is the feeder while it holds paper; the flatbed's default is its
  // whole A4 length (11.69 inches at 50 dpi), not a Letter page.
  EXPECT_EQ(RunSxscan(root, "scan --source auto --pages 1 --output auto.png").exitCode, 0);
  Outcome flat = RunSxscan(root, "scan --source flatbed --resolution 50 --mode gray --output flat.png");
  ASSERT_EQ(flat.exitCode, 0) << flat.text;
  EXPECT_EQ(ReadPng((root.Path() / "flat.png").string()).height, 585u);
  EXPECT_FALSE(flat.Says("sxscan: the width")) << flat.text;
  // A width the person asked for and did not get is still told.
  Outcome asked = RunSxscan(root, "scan --resolution 50 --mode gray --area 0,0,8.5,1 --output asked.png");
  EXPECT_TRUE(asked.Says("reduced to the scanner's alignment: 424 of the 425")) << asked.text;
}

// What caps and get show is what a person types: words set takes, lengths
// per source in inches, units named for what they are.
TEST(HostProgram, CapsAndValuesReadAsTheyAreTyped) {
  sxtest::TempRoot root;
  sxtest::InstallSelected(root, "QM7110V");
  Outcome caps = RunSxscan(root, "caps");
  ASSERT_EQ(caps.exitCode, 0) << caps.text;
  EXPECT_EQ(caps.Unsaid({"feeder 14 in, flatbed 11.69 in", "feeder 8.5 in, flatbed 8.5 in", "50 to 600 dpi",
                         "one of 0 (lineart), 1 (gray), 2 (color)", "2550 300ths"}),
            "")
      << caps.text;
  Outcome set = RunSxscan(root, "set pixeltype color scantype flatbed units inches imagewidth 2");
  ASSERT_EQ(set.exitCode, 0) << set.text;
  EXPECT_EQ(set.Unsaid({"CAP_PIXELTYPE = 2 (color)", "CAP_SCANTYPE = 2 (flatbed)", "CAP_IMAGEWIDTH = 2 in"}), "")
      << set.text;
  EXPECT_TRUE(RunSxscan(root, "get pixeltype").Says("CAP_PIXELTYPE = 0 (lineart)"));

  // The third unit is 1/300 inch at any resolution: 600 by 300 of them at
  // 100 dpi are 200 by 100 pixels. "pixels" would promise otherwise.
  Outcome dots = RunSxscan(root, "scan --units 300ths --area 0,0,600,300 --resolution 100 --output d.png");
  ASSERT_EQ(dots.exitCode, 0) << dots.text;
  PngRead png = ReadPng((root.Path() / "d.png").string());
  EXPECT_TRUE(png.width == 200u && png.height == 100u);
}

// The share of light pixels: bits set in packed line art, samples above the
// middle in 8-bit gray.
double LightShare(const std::vector<uint8_t>& raster, bool packed) {
  size_t light = 0, total = 0;
  for (uint8_t b : raster) {
    if (packed) {
      light += static_cast<size_t>(__builtin_popcount(b)), total += 8;
    } else {
      light += b > 127, ++total;
    }
  }
  return total ? static_cast<double>(light) / static_cast<double>(total) : -1;
}

// Line art reads alike in every format, and as the gray scan of the same
// area does: light where the page is light.
TEST(HostProgram, LineArtReadsAsTheGrayScanInEveryFormat) {
  sxtest::TempRoot root;
  sxtest::InstallSelected(root, "QM7110V");
  const std::string scan = "scan --resolution 100 --area 0,0,2.56,2 ";
  ASSERT_EQ(RunSxscan(root, scan + "--mode gray --output gray.png").exitCode, 0);
  const double gray = LightShare(ReadPng((root.Path() / "gray.png").string()).raster, false);
  for (const char* name : {"la.png", "la.tif", "la.jpg", "la.pdf"}) {
    Outcome o = RunSxscan(root, scan + "--mode lineart --output " + name);
    ASSERT_EQ(o.exitCode, 0) << o.text;
    const std::string path = (root.Path() / name).string();
    const std::string ext = fs::path(name).extension().string();
    double share = -1;
    if (ext == ".png") share = LightShare(ReadPng(path).raster, true);
    if (ext == ".tif") share = LightShare(ReadTiff(path).at(0).raster, true);
    if (ext == ".jpg") share = LightShare(DecodeJpeg(ReadBytes(path)).raster, false);
    if (ext == ".pdf") share = LightShare(ReadPdf(ReadBytes(path)).at(0).raster, true);
    EXPECT_NEAR(share, gray, 0.05) << name;
  }
}

}  // namespace
}  // namespace sx::host

#else
TEST(HostProgram, NotBuilt) { GTEST_SKIP() << "the command-line host is not part of this build"; }
#endif
