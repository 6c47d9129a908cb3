// Ctrl-C during a scan: the pages complete before it are kept whole under
// the output's name, the page being scanned is left out, nothing partial is
// left beside it, and the program ends with 130. A second interrupt ends the
// program at once and keeps the same pages. The virtual scanner is paced like
// hardware, so every interrupt lands inside a page.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include <csignal>

#include "ImageRead.h"
#include "RunSxscan.h"

namespace {

namespace fs = std::filesystem;
using sxtest::HasPartialFile;
using sxtest::Outcome;

// `sxscan scan` of three feeder pages to `output`, sent SIGINT once standard
// error shows `mark` (and, with `second`, a partial file is being written:
// the page has begun) and `after` more has passed and, if `second` is a
// signal, that one `gap` after it.
Outcome InterruptAt(const sxtest::TempRoot& root, const std::string& output, const std::string& mark, int second = 0,
                    std::chrono::microseconds gap = {}, std::chrono::milliseconds after = {},
                    const std::string& more = "") {
  return sxtest::Interrupt(
      root, "scan --source feeder --pages 3 --resolution 150 --output " + output + more,
      [&](const std::string& err) {
        return err.find(mark) != std::string::npos && (!second || HasPartialFile(root.Path()));
      },
      second ? std::vector<int>{SIGINT, second} : std::vector<int>{SIGINT}, gap, after);
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

// The files of earlier rounds: a scan to b.png refuses to replace b.tif.
void RemoveOutputs(const sxtest::TempRoot& root) {
  for (const auto& entry : fs::directory_iterator(root.Path()))
    if (entry.path().filename().string().rfind("b", 0) == 0) fs::remove(entry.path());
}

// A second signal at once, a moment later or while the first is being
// handled: the two complete pages are kept as a valid document, the third
// never, and the message says so; inside the first page nothing is left.
// Each of the signals that interrupt serves as the second.
TEST(HostInterrupt, SecondSignalKeepsTheCompletePages) {
  sxtest::TempRoot root;
  sxtest::InstallSelected(root, "QM7110V", kPacedScanner);
  const std::pair<const char*, const char*> outputs[] = {
      {"b.tif", "b.tif"}, {"b.png", "b.tif"}, {"b.pdf", "b.pdf"}, {"b.jpg", "b.jpg and b-2.jpg"}};
  const int signals[] = {SIGINT, SIGTERM, SIGHUP};
  int round = 0;
  for (const auto& [output, kept] : outputs) {
    for (int micros : {0, 1000, 100000}) {
      const std::chrono::microseconds gap(micros);
      const int signal = signals[round++ % 3];
      SCOPED_TRACE(testing::Message() << output << " signal " << signal << " after " << micros << " us");
      RemoveOutputs(root);
      // Inside the third page, which takes over half a second, once the encoder
      // has written the second page's end (it is at most a transfer block behind).
      const Outcome o = InterruptAt(root, output, "page 2:", signal, gap, std::chrono::milliseconds(300));
      EXPECT_EQ(o.exitCode, 130) << o.text;
      EXPECT_TRUE(o.Says(std::string("scan cancelled; the 2 pages scanned before it are kept in ") + kept)) << o.text;
      EXPECT_FALSE(HasPartialFile(root.Path())) << o.text;
      const fs::path first = root.Path() / std::string(kept).substr(0, 5);
      if (first.extension() == ".tif") {
        const std::vector<sx::host::TiffPage> pages = sx::host::ReadTiff(first.string());
        EXPECT_TRUE(pages.size() == 2 && pages[1].height == 2100u) << pages.size();
      } else if (first.extension() == ".pdf") {
        std::string why;
        EXPECT_EQ(sx::host::PdfPages(first.string(), &why), 2) << why;
      } else {
        EXPECT_EQ(sx::host::DecodeJpeg(sx::host::ReadBytes((root.Path() / "b-2.jpg").string())).height, 2100u);
        EXPECT_FALSE(fs::exists(root.Path() / "b-3.jpg"));
      }
    }
    // Inside the first page (the library's progress dialog shows once the
    // scan, and the program's interrupt handling, have begun).
    RemoveOutputs(root);
    const Outcome o = InterruptAt(root, output, "Scanning", SIGINT, {}, {}, " --progress");
    EXPECT_EQ(o.exitCode, 130) << o.text;
    EXPECT_TRUE(o.Says("scan cancelled; no page was complete, so nothing is kept")) << o.text;
    EXPECT_FALSE(HasPartialFile(root.Path()) || fs::exists(root.Path() / output)) << o.text;
  }
}

}  // namespace
#endif
