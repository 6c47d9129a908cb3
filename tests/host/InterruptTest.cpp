// Ctrl-C while a finished page is still being written: the page is written
// whole under the output's name, nothing partial is left beside it, and the
// program ends with 130. A second interrupt during the write ends the
// program at once, and still leaves nothing partial.
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
// shows `mark` and, if `second` is a signal, that one as soon as a partial
// file is being written; returns the exit status and what it printed.
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
  while (sxtest::ReadFile(log).find(mark) == std::string::npos &&
         std::chrono::steady_clock::now() - start < std::chrono::seconds(30)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  kill(pid, SIGINT);
  int status = 0;
  bool ended = false;
  while (second && !HasPartialFile(root.Path()) && !(ended = waitpid(pid, &status, WNOHANG) == pid)) {
    std::this_thread::yield();
  }
  if (second && !ended) kill(pid, second);
  if (!ended) waitpid(pid, &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, sxtest::ReadFile(log)};
}

TEST(HostInterrupt, PagesBeingWrittenAreFinishedWholeAndNothingPartialStays) {
  sxtest::TempRoot root;
  root.InstallVscan("Corvane/QM7110V", "[Scanner]\nModel=QM7110V\n[Feeder]\nSheets=4\n");
  ASSERT_EQ(std::system(("cd '" + root.Path().string() + "' && '" SX_TEST_SXSCAN "' select QM7110V >/dev/null").c_str()), 0);

  // A whole colour page at 300 dpi: its PNG is written after the scan ends.
  auto [code, text] = InterruptAt(root, {"--output", "big.png"}, "page 1:");
  EXPECT_EQ(code, 130) << text;
  sx::host::PngRead png = sx::host::ReadPng((root.Path() / "big.png").string());
  EXPECT_TRUE(png.ok && png.height > 3000u) << text;
  EXPECT_FALSE(HasPartialFile(root.Path()));
  // Said once: what was kept, not "wrote" and "cancelled" both.
  EXPECT_NE(text.find("scan cancelled; the 1 page scanned before it is kept in big.png"), std::string::npos)
      << text;
  EXPECT_EQ(text.find("wrote"), std::string::npos) << text;

  // Two feeder pages into a PDF, interrupted once the second has arrived.
  auto [pdfCode, pdfText] = InterruptAt(
      root, {"--source", "feeder", "--pages", "2", "--resolution", "150", "--output", "stack.pdf"}, "page 2:");
  EXPECT_EQ(pdfCode, 130) << pdfText;
  EXPECT_NE(sxtest::ReadFile(root.Path() / "stack.pdf").find("/Count 2"), std::string::npos) << pdfText;
  EXPECT_FALSE(HasPartialFile(root.Path()));
}

TEST(HostInterrupt, SecondSignalDuringTheWriteRemovesThePartialFile) {
  sxtest::TempRoot root;
  root.InstallVscan("Corvane/QM7110V", "[Scanner]\nModel=QM7110V\n");
  ASSERT_EQ(std::system(("cd '" + root.Path().string() + "' && '" SX_TEST_SXSCAN "' select QM7110V >/dev/null").c_str()), 0);
  constexpr int kRounds = 3;
  for (int round = 0; round < kRounds; ++round) {
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) {
      SCOPED_TRACE(signal);
      fs::remove(root.Path() / "big.png");
      auto [code, text] = InterruptAt(root, {"--output", "big.png"}, "page 1:", signal);
      EXPECT_EQ(code, 130) << text;
      EXPECT_NE(text.find("scan cancelled"), std::string::npos) << text;
      EXPECT_FALSE(HasPartialFile(root.Path())) << text;
      // Either the write finished first and the page is whole, or no page.
      if (fs::exists(root.Path() / "big.png")) {
        EXPECT_TRUE(sx::host::ReadPng((root.Path() / "big.png").string()).ok);
      }
    }
  }
}

}  // namespace
#endif
