// sxscan's progress line drawn from the library's own dialogs, as a log
// (stderr not a terminal) records it: the warm-up countdown of a cold lamp,
// then each page's caption, transfer mode (from the localisation file the
// installed tree carries) and bar up to the full page.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <cstdlib>
#include <sstream>
#include <thread>

#include "support/TestEnv.h"

namespace sx::host {
namespace {

TEST(HostProgramProgress, WarmUpCountdownThenPagesFromTheLibrarysDialogs) {
  sxtest::TempRoot root;
  sxtest::ScopedEnv fast("SX_TIME_SCALE", "0.001");
  sxtest::ScopedEnv english("LC_ALL", "C");
  root.InstallVscan("Corvane/QM7110V", "[Scanner]\nModel=QM7110V\n[Feeder]\nSheets=2\n[Page]\nWarmUpRefusals=1\n");
  std::filesystem::copy_file(SX_TEST_SOURCE_DIR "/cmake/skeleton/sxscan.loc", root.Windows() / "sxscan.loc");
  root.WriteRegistry("[Software\\Quillmark]\n\"LOCALIZE\"=\"sxscan.loc\"\n");
  const std::string program = "cd '" + root.Path().string() + "' && '" SX_TEST_SXSCAN "' ";
  ASSERT_EQ(std::system((program + "select QM7110V >/dev/null").c_str()), 0);
  const std::string log = (root.Path() / "log.txt").string();
  const int status = std::system((program + "scan --source feeder --pages all --resolution 100 --mode gray "
                                            "--progress --output pages.tiff >/dev/null 2>'" + log + "' </dev/null").c_str());
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << sxtest::ReadFile(log);

  std::vector<std::string> countdown, pageEnds;
  std::istringstream lines(sxtest::ReadFile(log));
  const std::string wait = "Scanner warm up...  Scanner lamp is warming up  Please wait ...";
  const std::string fullBar = "#] 100%";  // not the empty bar a new dialog shows before its page
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(wait, 0) == 0 && line.size() > wait.size()) {
      countdown.push_back(line.substr(wait.size() + 2));
    } else if (line.size() > fullBar.size() &&
               line.compare(line.size() - fullBar.size(), fullBar.size(), fullBar) == 0) {
      pageEnds.push_back(line.substr(0, line.find("  [")));
    }
  }
  ASSERT_EQ(countdown.size(), 29u);
  EXPECT_EQ(countdown.front(), "29");
  EXPECT_EQ(countdown.back(), "1");
  EXPECT_EQ(pageEnds, (std::vector<std::string>{"Page1 Scanning  Transfer Mode : Direct",
                                                "Page2 Scanning  Transfer Mode : Direct"}));
}

// Ctrl-C while the lamp warms up ends the wait at the next tick (the
// warm-up dialog's Cancel is pressed for the user) and the scan ends as
// cancelled, without waiting out the countdown.
TEST(HostProgramProgress, InterruptEndsTheWarmUpWait) {
  sxtest::TempRoot root;
  sxtest::ScopedEnv slow("SX_TIME_SCALE", "0.1");  // a countdown of three seconds
  root.InstallVscan("Corvane/QM7110V", "[Scanner]\nModel=QM7110V\n[Page]\nWarmUpRefusals=1\n");
  ASSERT_EQ(std::system(("cd '" + root.Path().string() + "' && '" SX_TEST_SXSCAN "' select QM7110V >/dev/null").c_str()), 0);
  for (int signal : {SIGINT, SIGTERM}) {
    SCOPED_TRACE(signal == SIGINT ? "SIGINT" : "SIGTERM");
    const std::string log = (root.Path() / "log.txt").string();
    std::filesystem::remove(log);  // the last run's countdown must not count
    const pid_t pid = fork();
    if (pid == 0) {
      const int err = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      const int null = open("/dev/null", O_RDWR);
      if (err < 0 || null < 0 || chdir(root.Path().c_str()) != 0) _exit(127);
      dup2(null, 0), dup2(null, 1), dup2(err, 2);
      execl(SX_TEST_SXSCAN, "sxscan", "scan", "--progress", "--output", "page.png", static_cast<char*>(nullptr));
      _exit(127);
    }
    ASSERT_GT(pid, 0);
    const auto start = std::chrono::steady_clock::now();
    while (sxtest::ReadFile(log).find("Please wait ...  27") == std::string::npos &&
           std::chrono::steady_clock::now() - start < std::chrono::seconds(20)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    kill(pid, signal);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    const std::string text = sxtest::ReadFile(log);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 130) << text;
    EXPECT_NE(text.find("scan cancelled"), std::string::npos) << text;
    EXPECT_EQ(text.find("Please wait ...  10"), std::string::npos) << "the countdown went on: " << text;
    EXPECT_FALSE(std::filesystem::exists(root.Path() / "page.png"));
    EXPECT_FALSE(std::filesystem::exists(root.Path() / ".page.png.part"));
  }
}

}  // namespace
}  // namespace sx::host
#endif
