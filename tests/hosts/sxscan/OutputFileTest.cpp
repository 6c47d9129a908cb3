// Output files never lose data: scans writing one output at once each
// publish a whole file of their own, and a full disk or a failing scanner
// reads the same for every format and keeps the pages complete before it.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include <cstdlib>

#include "ImageRead.h"
#include "RunSxscan.h"

namespace {

namespace fs = std::filesystem;
using sxtest::ExitCode;
using sxtest::HasPartialFile;

TEST(HostOutputFiles, ConcurrentScansToOneOutputEachWriteAWholeFile) {
  sxtest::TempRoot root;
  sxtest::InstallSelected(root, "QM7110V", "[Feeder]\nSheets=1000\n");
  // Each scan has its own resolution, so the pages that won tell their
  // writer. A feeder stack keeps its TIFF open through the scan, and large
  // pages take a while to write: the writes overlap.
  const int resolutions[] = {100, 200, 300};
  constexpr int kRounds = 3;
  for (int round = 0; round < kRounds; ++round) {
    const std::string output = round % 2 ? "same.png" : "same.tif";
    SCOPED_TRACE(output);
    std::string script = "cd '" + root.Path().string() + "' && rm -f same.*; ";
    for (int dpi : resolutions) {
      const std::string tag = std::to_string(dpi);
      const std::string options = round % 2 ? "--source flatbed --area 0,0,4,2 " : "--source feeder --pages 3 --area 0,0,2,1 ";
      script += "('" SX_TEST_SXSCAN "' scan --mode gray " + options + "--resolution " + tag + " --output " +
                output + " >out" + tag + " 2>&1; echo $? >code" + tag + ") & ";
    }
    ASSERT_EQ(ExitCode(std::system((script + "wait").c_str())), 0);
    for (int dpi : resolutions) {
      const std::string tag = std::to_string(dpi);
      EXPECT_EQ(sxtest::ReadFile(root.Path() / ("code" + tag)), "0\n") << sxtest::ReadFile(root.Path() / ("out" + tag));
    }
    uint32_t width = 0, height = 0;
    if (round % 2) {
      sx::host::PngRead png = sx::host::ReadPng((root.Path() / output).string());
      ASSERT_TRUE(png.ok);
      width = png.width, height = png.height;
    } else {
      std::vector<sx::host::TiffPage> pages = sx::host::ReadTiff((root.Path() / output).string());
      ASSERT_EQ(pages.size(), 3u);
      width = pages[0].width, height = pages[0].height;
      for (const auto& page : pages) EXPECT_TRUE(page.width == width && page.height == height);
    }
    // Twice as wide as long, at the winner's resolution, whole.
    const int dpi = static_cast<int>(round % 2 ? height / 2 : height);
    EXPECT_EQ(width, 2 * height);
    EXPECT_TRUE(std::find(std::begin(resolutions), std::end(resolutions), dpi) != std::end(resolutions)) << dpi;
    EXPECT_FALSE(HasPartialFile(root.Path()));
  }
}

TEST(HostOutputFiles, AFullDiskIsNamedForEveryFormat) {
  sxtest::TempRoot root;
  sxtest::InstallSelected(root, "QM7110V", "[Feeder]\nSheets=1000\n");
  // A disk that fills inside the first page of a feeder job, and inside the
  // third: small file systems (1 MiB with 128 KiB left; two and a half times
  // one page's file), mounted in a namespace of the test's own. The scan
  // stops there with the reason, and keeps the two complete pages or nothing.
  const fs::path script = root.Path() / "full.sh";
  sxtest::WriteFile(script,
      "cd '" + root.Path().string() + "' && mkdir -p full kept && mount -t tmpfs -o size=1m tmpfs full || exit 77\n"
      "head -c 917504 /dev/zero >full/filler 2>/dev/null\n"
      "for f in png tif jpg pdf; do '" SX_TEST_SXSCAN "' scan --source feeder --pages 4 --output full/page.$f\n"
      "echo \"status $f $?\"; done; echo left: $(ls -A full); umount full\n"
      "for f in tif jpg pdf; do\n"
      "'" SX_TEST_SXSCAN "' scan --source feeder --resolution 100 --pages 1 --output one.$f >/dev/null\n"
      "mount -t tmpfs -o size=$(( $(stat -c %s one.$f) * 5 / 2048 + 1 ))k tmpfs full\n"
      "'" SX_TEST_SXSCAN "' scan --source feeder --resolution 100 --pages 4 --output full/b.$f\n"
      "echo \"status $f $?\"; echo left $f: $(ls -A full); cp full/* kept/; umount full; done\n");
  int status = 0;
  const std::string text = sxtest::RunShell("unshare -rm sh '" + script.string() + "' 2>&1", &status);
  if (ExitCode(status) == 77 || text.find("unshare: ") != std::string::npos)
    GTEST_SKIP() << "no mount namespace here (a full disk needs one): " << text;
  for (std::string format : {"png", "tif", "jpg", "pdf"}) {
    EXPECT_NE(text.find("no space left on device while writing full/page." + format +
                        "; no page was complete, so nothing is kept\n"),
              std::string::npos) << text;
    EXPECT_NE(text.find("status " + format + " 1"), std::string::npos) << text;
  }
  EXPECT_NE(text.find("left: filler\n"), std::string::npos) << text;
  const std::pair<std::string, std::string> kept[] = {
      {"tif", "full/b.tif"}, {"jpg", "full/b.jpg and full/b-2.jpg"}, {"pdf", "full/b.pdf"}};
  for (const auto& [format, names] : kept) {
    EXPECT_NE(text.find("; the 2 pages scanned before it are kept in " + names + "\nstatus " + format + " 1\nleft " +
                        format + ": " + (format == "jpg" ? "b-2.jpg b.jpg" : "b." + format) + "\n"),
              std::string::npos) << text;
  }
  std::vector<sx::host::TiffPage> pages = sx::host::ReadTiff((root.Path() / "kept/b.tif").string());
  EXPECT_TRUE(pages.size() == 2 && pages[1].pages == 2) << pages.size();
  std::string why;
  EXPECT_EQ(sx::host::PdfPages((root.Path() / "kept/b.pdf").string(), &why), 2) << why;
  EXPECT_TRUE(sx::host::DecodeJpeg(sx::host::ReadBytes((root.Path() / "kept/b-2.jpg").string())).ok);
}

// A scanner that fails inside the third page: the two before are kept, and
// the message says where, after the failure.
TEST(HostOutputFiles, ScannerErrorKeepsThePagesBefore) {
  sxtest::TempRoot root;
  sxtest::InstallSelected(root, "QM7110V", "[Feeder]\nSheets=5\n[Faults]\nFaultPage=3\nFailReadAtLine=40\n");
  const sxtest::Outcome scan = sxtest::RunSxscan(root, "scan --source feeder --resolution 50 --output b.tif");
  EXPECT_EQ(scan.exitCode, 1) << scan.text;
  EXPECT_TRUE(scan.Says("sxscan: scan failed: ")) << scan.text;
  EXPECT_TRUE(scan.Says("; the 2 pages scanned before it are kept in b.tif\n")) << scan.text;
  EXPECT_FALSE(scan.Says("wrote")) << scan.text;
  EXPECT_EQ(sx::host::ReadTiff((root.Path() / "b.tif").string()).size(), 2u);
}

}  // namespace
#endif
