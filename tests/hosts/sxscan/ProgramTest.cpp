// The sxscan program run as a user runs it, against copies of the virtual
// scanner in a temporary system tree: choosing a source, and scans that end
// up as PNG and multi-page TIFF files.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include <sys/wait.h>

#include <cstdlib>

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

TEST(HostProgram, SelectsSourceScansPngAndReportsErrors) {
  sxtest::TempRoot root;
  Install(root, "QM7110V", 0);
  Install(root, "QM7110X", 0);
  EXPECT_NE(RunSxscan(root, "sources").text.find("Corvane/QM7110X/vscan.dll"), std::string::npos);
  // Before a choice the library has no source to open.
  Outcome none = RunSxscan(root, "info");
  EXPECT_TRUE(none.exitCode == 1 && none.text.find("sxscan select") != std::string::npos) << none.text;
  EXPECT_EQ(RunSxscan(root, "select qm7110").exitCode, 1);  // matches both

  ASSERT_EQ(RunSxscan(root, "select qm7110v").exitCode, 0);
  // The choice outlives the process: the next run opens it.
  Outcome got = RunSxscan(root, "get CAP_MODELNAME xresolution 0x9202");
  ASSERT_EQ(got.exitCode, 0) << got.text;
  EXPECT_NE(got.text.find("CAP_MODELNAME = \"QM7110V\""), std::string::npos) << got.text;
  EXPECT_EQ(RunSxscan(root, "get nosuchcap").exitCode, 2);
  EXPECT_EQ(RunSxscan(root, "scan --mode sepia").exitCode, 2);
  EXPECT_EQ(RunSxscan(root, "set CAP_MODELNAME x").exitCode, 2);
  // Values outside what the library lists are refused before the scanner
  // is touched, with what it takes.
  Outcome tooFine = RunSxscan(root, "scan --resolution 7 --output never.png");
  EXPECT_EQ(tooFine.exitCode, 2);
  EXPECT_NE(tooFine.text.find("CAP_XRESOLUTION cannot be 7; the scanner takes 50 to"), std::string::npos)
      << tooFine.text;
  Outcome badType = RunSxscan(root, "set pixeltype 7");
  EXPECT_EQ(badType.exitCode, 2);
  EXPECT_NE(badType.text.find("CAP_PIXELTYPE cannot be 7; the scanner takes one of 0 (lineart), 1 (gray), 2 (color)"), std::string::npos)
      << badType.text;

  // Two inches by one at 100 dpi in grey: 200 pixels (a multiple of the
  // alignment) by 100 lines. The output folder must exist: none is made.
  const std::string grey = "scan --source flatbed --mode gray --resolution 100 --area 0,0,2,1 ";
  Outcome noFolder = RunSxscan(root, grey + "--output out/page.png");
  EXPECT_EQ(noFolder.exitCode, 2);
  EXPECT_NE(noFolder.text.find("the folder out does not exist"), std::string::npos) << noFolder.text;
  EXPECT_FALSE(fs::exists(root.Path() / "out"));
  fs::create_directory(root.Path() / "out");
  Outcome scan = RunSxscan(root, grey + "--output out/page.png");
  ASSERT_EQ(scan.exitCode, 0) << scan.text;
  EXPECT_FALSE(fs::exists(root.Path() / "out/.page.png.part")) << "the partial file is renamed";
  PngRead png = ReadPng((root.Path() / "out/page.png").string());
  ASSERT_TRUE(png.ok);
  EXPECT_TRUE(png.width == 200u && png.height == 100u && png.colour == PNG_COLOR_TYPE_GRAY);
  EXPECT_EQ(png.xppm, 3937u);  // 100 dpi
  EXPECT_NE(scan.text.find("page 1: 200 x 100 pixels at 100 dpi, gray"), std::string::npos) << scan.text;

  // Without mode or resolution: colour at 300 dpi. An area wider than the
  // flatbed is clipped, and the user is told.
  Outcome plain = RunSxscan(root, "scan --area 8,0,1,1 --output out/plain.png");
  ASSERT_EQ(plain.exitCode, 0) << plain.text;
  PngRead colour = ReadPng((root.Path() / "out/plain.png").string());
  EXPECT_TRUE(colour.colour == PNG_COLOR_TYPE_RGB && colour.xppm == 11811u && colour.height == 300u);
  EXPECT_NE(plain.text.find("the width was clipped to the source's area"), std::string::npos) << plain.text;

  Outcome empty = RunSxscan(root, "scan --source feeder --output a.png");
  EXPECT_EQ(empty.exitCode, 1);
  EXPECT_NE(empty.text.find("no paper"), std::string::npos) << empty.text;
  EXPECT_FALSE(fs::exists(root.Path() / "a.png"));
}

TEST(HostProgram, FeederStackBecomesMultiPageTiff) {
  for (const char* mode : {"", "--buffered"}) {
    SCOPED_TRACE(mode);
    sxtest::TempRoot root;
    Install(root, "QM7110V", 3);
    ASSERT_EQ(RunSxscan(root, "select QM7110V").exitCode, 0);
    Outcome scan = RunSxscan(root, std::string("scan --source feeder --pages all --mode lineart --resolution 100 "
                                         "--area 0,0,2.56,1 --output stack.png ") + mode);
    ASSERT_EQ(scan.exitCode, 0) << scan.text;
    EXPECT_NE(scan.text.find("wrote 3 pages"), std::string::npos) << scan.text;
    EXPECT_FALSE(fs::exists(root.Path() / "stack.png"));
    std::vector<TiffPage> pages = ReadTiff((root.Path() / "stack.tif").string());
    ASSERT_EQ(pages.size(), 3u);
    for (const auto& page : pages) EXPECT_TRUE(page.bits == 1 && page.width == 256u && page.height == 100u);
    // Each page says which it is of how many.
    TIFF* tif = TIFFOpen((root.Path() / "stack.tif").string().c_str(), "r");
    ASSERT_TRUE(tif);
    for (uint16_t want = 0; want < 3; ++want, TIFFReadDirectory(tif)) {
      uint16_t number = 0, total = 0;
      EXPECT_TRUE(TIFFGetField(tif, TIFFTAG_PAGENUMBER, &number, &total) && number == want && total == 3);
    }
    TIFFClose(tif);
    // Another feeder scan to the PNG name would replace that TIFF: refused
    // before it starts.
    Outcome again = RunSxscan(root, "scan --source feeder --mode gray --resolution 50 --output stack.png");
    EXPECT_EQ(again.exitCode, 2);
    EXPECT_NE(again.text.find("stack.tif exists, and a feeder scan to stack.png writes its pages there"),
              std::string::npos) << again.text;
    EXPECT_EQ(ReadTiff((root.Path() / "stack.tif").string()).size(), 3u);
  }
}

// A store with a damaged line is named with the line, and select does not
// store the choice into it.
TEST(HostProgram, DamagedStoreIsReportedAndNotWritten) {
  sxtest::TempRoot root;
  Install(root, "QM7110V", 0);
  const std::string damaged = "[Software\\Quillmark]\n\"SOURCENAME\"=str(2):\"USB - QM7";
  root.WriteRegistry(damaged);
  Outcome select = RunSxscan(root, "select QM7110V");
  EXPECT_EQ(select.exitCode, 1);
  EXPECT_NE(select.text.find("user.reg:3: the registry store has 1 line(s)"), std::string::npos)
      << select.text;  // line 2 is the library's own write test at load
  EXPECT_EQ(root.ReadRegistry().find("QM7110V"), std::string::npos) << "the choice is not stored";
  Outcome info = RunSxscan(root, "info");
  EXPECT_EQ(info.exitCode, 1);
  EXPECT_NE(info.text.find("no data source could be read from the store"), std::string::npos) << info.text;
}

// With nothing chosen or named: the only source installed, the feeder while
// it holds paper, a source's whole area, and no warning about a width nobody
// asked for.
TEST(HostProgram, DefaultsAreWhatAPersonExpects) {
  sxtest::TempRoot root;
  Install(root, "QM7110V", 3);
  Outcome stack = RunSxscan(root, "scan --pages 5 --resolution 50 --mode gray --output stack.tif");
  ASSERT_EQ(stack.exitCode, 0) << stack.text;
  EXPECT_NE(stack.text.find("using the only one installed, USB - QM7110V"), std::string::npos) << stack.text;
  EXPECT_NE(stack.text.find("the feeder ran out of paper after 3 of the 5 pages asked for"), std::string::npos)
      << stack.text;
  EXPECT_EQ(RunSxscan(root, "info").exitCode, 0) << "the source used is the chosen one from now on";

  // Auto is the feeder while it holds paper; the flatbed's default is its
  // whole A4 length (11.69 inches at 50 dpi), not a Letter page.
  EXPECT_EQ(RunSxscan(root, "scan --source auto --pages 1 --output auto.png").exitCode, 0);
  Outcome flat = RunSxscan(root, "scan --source flatbed --resolution 50 --mode gray --output flat.png");
  ASSERT_EQ(flat.exitCode, 0) << flat.text;
  EXPECT_EQ(ReadPng((root.Path() / "flat.png").string()).height, 585u);
  EXPECT_EQ(flat.text.find("sxscan: the width"), std::string::npos) << flat.text;
  // A width the person asked for and did not get is still told.
  Outcome asked = RunSxscan(root, "scan --resolution 50 --mode gray --area 0,0,8.5,1 --output asked.png");
  EXPECT_NE(asked.text.find("reduced to the scanner's alignment: 424 of the 425"), std::string::npos)
      << asked.text;
}

// What caps and get show is what a person types: words set takes, lengths
// per source in inches, units named for what they are.
TEST(HostProgram, CapsAndValuesReadAsTheyAreTyped) {
  sxtest::TempRoot root;
  Install(root, "QM7110V", 0);
  ASSERT_EQ(RunSxscan(root, "select QM7110V").exitCode, 0);
  Outcome caps = RunSxscan(root, "caps");
  ASSERT_EQ(caps.exitCode, 0) << caps.text;
  for (const char* shown : {"feeder 14 in, flatbed 11.69 in", "feeder 8.5 in, flatbed 8.5 in", "50 to 600 dpi",
                            "one of 0 (lineart), 1 (gray), 2 (color)", "2550 300ths"})
    EXPECT_NE(caps.text.find(shown), std::string::npos) << shown << "\n" << caps.text;
  Outcome set = RunSxscan(root, "set pixeltype color scantype flatbed units inches imagewidth 2");
  ASSERT_EQ(set.exitCode, 0) << set.text;
  for (const char* shown : {"CAP_PIXELTYPE = 2 (color)", "CAP_SCANTYPE = 2 (flatbed)", "CAP_IMAGEWIDTH = 2 in"})
    EXPECT_NE(set.text.find(shown), std::string::npos) << shown << "\n" << set.text;
  EXPECT_NE(RunSxscan(root, "get pixeltype").text.find("CAP_PIXELTYPE = 0 (lineart)"), std::string::npos);

  // The third unit is 1/300 inch at any resolution: 600 by 300 of them at
  // 100 dpi are 200 by 100 pixels. "pixels" would promise otherwise.
  Outcome dots = RunSxscan(root, "scan --units 300ths --area 0,0,600,300 --resolution 100 --output d.png");
  ASSERT_EQ(dots.exitCode, 0) << dots.text;
  PngRead png = ReadPng((root.Path() / "d.png").string());
  EXPECT_TRUE(png.width == 200u && png.height == 100u);
  EXPECT_EQ(RunSxscan(root, "scan --units pixels --area 0,0,1,1").exitCode, 2);
}

// PDF holds every feeder page in one document; JPEG writes one file a page.
TEST(HostProgram, FeederPagesAsPdfAndJpeg) {
  sxtest::TempRoot root;
  Install(root, "QM7110V", 6);
  ASSERT_EQ(RunSxscan(root, "select QM7110V").exitCode, 0);
  const std::string feeder = "scan --source feeder --pages 3 --resolution 100 --area 0,0,2,1 ";
  Outcome pdf = RunSxscan(root, feeder + "--output stack.pdf");
  ASSERT_EQ(pdf.exitCode, 0) << pdf.text;
  const std::string document = sxtest::ReadFile(root.Path() / "stack.pdf");
  EXPECT_EQ(document.rfind("%PDF-", 0), 0u);
  EXPECT_NE(document.find("/Count 3"), std::string::npos) << "three pages";
  EXPECT_FALSE(fs::exists(root.Path() / ".stack.pdf.part"));

  Outcome jpeg = RunSxscan(root, feeder + "--mode gray --quality 60 --output page.jpg");
  ASSERT_EQ(jpeg.exitCode, 0) << jpeg.text;
  EXPECT_NE(jpeg.text.find("wrote 3 pages to page.jpg, page-2.jpg and page-3.jpg"), std::string::npos) << jpeg.text;
  for (const char* name : {"page.jpg", "page-2.jpg", "page-3.jpg"}) {
    const std::string bytes = sxtest::ReadFile(root.Path() / name);
    EXPECT_TRUE(bytes.size() > 4 && bytes.compare(0, 2, "\xFF\xD8") == 0) << name;
  }
  EXPECT_EQ(RunSxscan(root, "scan --quality 0 --output x.jpg").exitCode, 2);
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
  Install(root, "QM7110V", 0);
  ASSERT_EQ(RunSxscan(root, "select QM7110V").exitCode, 0);
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
