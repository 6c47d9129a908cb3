// Ctrl-C during a scan: the pages complete before it are kept whole under
// the output's name, the page being scanned is left out, nothing partial is
// left beside it, and the program ends with 130. A second interrupt ends the
// program at once and keeps the same pages. The virtual scanner is paced like
// hardware, so every interrupt lands inside a page.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "ImageRead.h"
#include "support/TestEnv.h"

namespace {

namespace fs = std::filesystem;

bool HasPartialFile(const fs::path& folder) {
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(folder, ec)) {
    if (entry.path().extension() == ".part") return true;
  }
  return false;
}

// Runs `sxscan scan ARGS` in the root, sends SIGINT once standard error shows
// `mark` (and, with `second`, a partial file is being written) and `after`
// more has passed and, if `second` is a signal, that one `gap` after it;
// returns the exit status and what it printed.
std::pair<int, std::string> InterruptAt(const sxtest::TempRoot& root, std::vector<const char*> args,
                                        const std::string& mark, int second = 0,
                                        std::chrono::microseconds gap = {},
                                        std::chrono::milliseconds after = {}) {
  const std::string log = (root.Path() / "err.txt").string();
  fs::remove(log);
  const pid_t pid = fork();
  if (pid == 0) {
    const int err = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int null = open("/dev/null", O_RDWR);
    if (err < 0 || null < 0 || chdir(root.Path().c_str()) != 0) _exit(127);
    dup2(null, 0), dup2(null, 1), dup2(err, 2);
    args.insert(args.begin(), {"sxscan", "scan"});
    args.push_back(nullptr);
    execv(SX_TEST_SXSCAN, const_cast<char* const*>(args.data()));
    _exit(127);
  }
  const auto start = std::chrono::steady_clock::now();
  const auto reached = [&] {
    return sxtest::ReadFile(log).find(mark) != std::string::npos && (!second || HasPartialFile(root.Path()));
  };
  while (!reached() && std::chrono::steady_clock::now() - start < std::chrono::seconds(30)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  std::this_thread::sleep_for(after);
  kill(pid, SIGINT);
  if (second) {
    std::this_thread::sleep_for(gap);
    kill(pid, second);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, sxtest::ReadFile(log)};
}

// A feeder of four sheets, each page taking about half a second at 150 dpi.
void InstallPacedScanner(const sxtest::TempRoot& root) {
  root.InstallVscan("Corvane/QM7110V", "[Scanner]\nModel=QM7110V\n[Feeder]\nSheets=4\n[Page]\nLineDelayUs=300\n");
  ASSERT_EQ(std::system(("cd '" + root.Path().string() + "' && '" SX_TEST_SXSCAN "' select QM7110V >/dev/null").c_str()), 0);
}

const std::vector<const char*> kFeeder = {"--source", "feeder", "--pages", "3", "--resolution", "150"};

std::vector<const char*> FeederTo(const char* output) {
  std::vector<const char*> args = kFeeder;
  args.insert(args.end(), {"--output", output});
  return args;
}

TEST(HostInterrupt, PagesCompleteBeforeTheInterruptAreKeptAndNothingPartialStays) {
  sxtest::TempRoot root;
  InstallPacedScanner(root);

  // Two pages of three into a PDF: the third, being scanned, is left out.
  auto [pdfCode, pdfText] = InterruptAt(root, FeederTo("stack.pdf"), "page 2:");
  EXPECT_EQ(pdfCode, 130) << pdfText;
  EXPECT_NE(sxtest::ReadFile(root.Path() / "stack.pdf").find("/Count 2"), std::string::npos) << pdfText;
  EXPECT_FALSE(HasPartialFile(root.Path()));

  // One page for a PNG name while the second was coming: the document is
  // that page's PNG, not a TIFF. Said once: what was kept, not "wrote" and
  // "cancelled" both.
  auto [code, text] = InterruptAt(root, FeederTo("big.png"), "page 1:");
  EXPECT_EQ(code, 130) << text;
  sx::host::PngRead png = sx::host::ReadPng((root.Path() / "big.png").string());
  EXPECT_TRUE(png.ok && png.height > 1000u) << text;
  EXPECT_FALSE(fs::exists(root.Path() / "big.tif"));
  EXPECT_FALSE(HasPartialFile(root.Path()));
  EXPECT_NE(text.find("scan cancelled; the 1 page scanned before it is kept in big.png"), std::string::npos)
      << text;
  EXPECT_EQ(text.find("wrote"), std::string::npos) << text;
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
  InstallPacedScanner(root);
  const bool qpdf = std::system("command -v qpdf >/dev/null && command -v pdftoppm >/dev/null") == 0;
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
      auto [code, text] = InterruptAt(root, FeederTo(output), "page 2:", signal, gap, std::chrono::milliseconds(300));
      EXPECT_EQ(code, 130) << text;
      EXPECT_NE(text.find(std::string("scan cancelled; the 2 pages scanned before it are kept in ") + kept),
                std::string::npos) << text;
      EXPECT_FALSE(HasPartialFile(root.Path())) << text;
      const fs::path first = root.Path() / std::string(kept).substr(0, 5);
      if (first.extension() == ".tif") {
        const std::vector<sx::host::TiffPage> pages = sx::host::ReadTiff(first.string());
        EXPECT_TRUE(pages.size() == 2 && pages[1].height == 2100u) << pages.size();
      } else if (first.extension() == ".pdf") {
        std::string why;
        EXPECT_EQ(sx::host::PdfStructurePages(sx::host::ReadBytes(first.string()), &why), 2) << why;
        if (qpdf) {
          const std::string pdf = "'" + first.string() + "'";
          EXPECT_EQ(std::system(("qpdf --check " + pdf + " >/dev/null").c_str()), 0);
          const std::string shown = "'" + (root.Path() / "b-shown").string() + "'";
          EXPECT_EQ(std::system(("pdftoppm -r 4 -png " + pdf + " " + shown).c_str()), 0);
          EXPECT_TRUE(fs::exists(root.Path() / "b-shown-2.png") && !fs::exists(root.Path() / "b-shown-3.png"));
        }
      } else {
        EXPECT_EQ(sx::host::DecodeJpeg(sx::host::ReadBytes((root.Path() / "b-2.jpg").string())).height, 2100u);
        EXPECT_FALSE(fs::exists(root.Path() / "b-3.jpg"));
      }
    }
    // Inside the first page (the library's progress dialog shows once the
    // scan, and the program's interrupt handling, have begun).
    RemoveOutputs(root);
    std::vector<const char*> args = FeederTo(output);
    args.push_back("--progress");
    auto [code, text] = InterruptAt(root, args, "Scanning", SIGINT);
    EXPECT_EQ(code, 130) << text;
    EXPECT_NE(text.find("scan cancelled; no page was complete, so nothing is kept"), std::string::npos) << text;
    EXPECT_FALSE(HasPartialFile(root.Path()) || fs::exists(root.Path() / output)) << text;
  }
  if (!qpdf) std::printf("qpdf or pdftoppm not installed: the PDF was checked by the test's own reader only\n");
}

}  // namespace
#endif
