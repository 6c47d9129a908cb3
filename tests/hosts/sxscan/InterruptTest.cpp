// Ctrl-C during a scan: the pages complete before it are kept whole under
// the output's name, the page being scanned is left out, nothing partial is
// left beside it, and the program ends with 130. A second interrupt ends the
// program at once, and still leaves nothing partial. The virtual scanner is
// paced like hardware, so every interrupt lands inside a page.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include <csignal>

#include "ImageRead.h"
#include "RunSxscan.h"

namespace {

namespace fs = std::filesystem;
using sxtest::HasPartialFile;
using sxtest::Outcome;

// `sxscan scan` of three feeder pages to `output`, sent SIGINT as soon as
// standard error shows `mark` (and, with `second`, a partial file is being
// written: the page has begun) and, if `second` is a signal, that one right
// after.
Outcome InterruptAt(const sxtest::TempRoot& root, const std::string& output, const std::string& mark, int second = 0,
                    const std::string& more = "") {
  return sxtest::Interrupt(
      root, "scan --source feeder --pages 3 --resolution 150 --output " + output + more,
      [&](const std::string& err) {
        return err.find(mark) != std::string::npos && (!second || HasPartialFile(root.Path()));
      },
      second ? std::vector<int>{SIGINT, second} : std::vector<int>{SIGINT});
}

// A feeder of four sheets, each page taking about half a second at 150 dpi.
constexpr char kPacedScanner[] = "[Feeder]\nSheets=4\n[Page]\nLineDelayUs=300\n";

TEST(HostInterrupt, PagesCompleteBeforeTheInterruptAreKeptAndNothingPartialStays) {
  sxtest::TempRoot root;
  sxtest::InstallSelected(root, "QM7110V", kPacedScanner);

  // Two pages of three into a PDF: the third, being scanned, is left out.
  const Outcome pdf = InterruptAt(root, "stack.pdf", "page 2:");
  EXPECT_EQ(pdf.exitCode, 130) << pdf.text;
  EXPECT_NE(sxtest::ReadFile(root.Path() / "stack.pdf").find("/Count 2"), std::string::npos) << pdf.text;
  EXPECT_FALSE(HasPartialFile(root.Path()));

  // One page for a PNG name while the second was coming: the document is
  // that page's PNG, not a TIFF. Said once: what was kept, not "wrote" and
  // "cancelled" both.
  const Outcome png = InterruptAt(root, "big.png", "page 1:");
  EXPECT_EQ(png.exitCode, 130) << png.text;
  const sx::host::PngRead page = sx::host::ReadPng((root.Path() / "big.png").string());
  EXPECT_TRUE(page.ok && page.height > 1000u) << png.text;
  EXPECT_FALSE(fs::exists(root.Path() / "big.tif"));
  EXPECT_FALSE(HasPartialFile(root.Path()));
  EXPECT_TRUE(png.Says("scan cancelled; the 1 page scanned before it is kept in big.png")) << png.text;
  EXPECT_FALSE(png.Says("wrote")) << png.text;
}

TEST(HostInterrupt, SecondSignalDuringAPageRemovesThePartialFile) {
  sxtest::TempRoot root;
  sxtest::InstallSelected(root, "QM7110V", kPacedScanner);
  for (const char* output : {"mid.png", "mid.tif", "mid.jpg", "mid.pdf"}) {
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) {
      SCOPED_TRACE(testing::Message() << output << " signal " << signal);
      // The library's progress dialog shows once the scan, and the
      // program's interrupt handling, have begun.
      const Outcome o = InterruptAt(root, output, "Scanning", signal, " --progress");
      EXPECT_EQ(o.exitCode, 130) << o.text;
      EXPECT_TRUE(o.Says("scan cancelled")) << o.text;
      EXPECT_FALSE(HasPartialFile(root.Path())) << o.text;
      EXPECT_FALSE(fs::exists(root.Path() / output)) << o.text;
    }
  }
}

}  // namespace
#endif
