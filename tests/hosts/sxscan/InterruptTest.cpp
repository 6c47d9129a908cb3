// Ctrl-C during a scan: the pages complete before it are kept whole under
// the output's name, the page being scanned is left out, nothing partial is
// left beside it, and the program ends with 130. A second interrupt ends the
// program at once, and still leaves nothing partial. The virtual scanner is
// paced like hardware, so every interrupt lands inside a page.
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

// Runs `sxscan scan ARGS` in the root, sends SIGINT as soon as standard error
// shows `mark` (and, with `second`, a partial file is being written: the
// page has begun) and, if `second` is a signal, that one right after;
// returns the exit status and what it printed.
std::pair<int, std::string> InterruptAt(const sxtest::TempRoot& root, std::vector<const char*> args,
                                        const std::string& mark, int second = 0) {
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
  kill(pid, SIGINT);
  if (second) kill(pid, second);
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

TEST(HostInterrupt, SecondSignalDuringAPageRemovesThePartialFile) {
  sxtest::TempRoot root;
  InstallPacedScanner(root);
  for (const char* output : {"mid.png", "mid.tif", "mid.jpg", "mid.pdf"}) {
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) {
      SCOPED_TRACE(testing::Message() << output << " signal " << signal);
      // The library's progress dialog shows once the scan, and the
      // program's interrupt handling, have begun.
      std::vector<const char*> args = FeederTo(output);
      args.push_back("--progress");
      auto [code, text] = InterruptAt(root, args, "Scanning", signal);
      EXPECT_EQ(code, 130) << text;
      EXPECT_NE(text.find("scan cancelled"), std::string::npos) << text;
      EXPECT_FALSE(HasPartialFile(root.Path())) << text;
      EXPECT_FALSE(fs::exists(root.Path() / output)) << text;
    }
  }
}

}  // namespace
#endif
