// sxscan's progress line drawn from the library's own dialogs, as a log
// (stderr not a terminal) records it: the warm-up countdown of a cold lamp,
// then each page's caption, transfer mode (from the localisation file the
// installed tree carries) and bar up to the full page.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include <csignal>
#include <filesystem>
#include <sstream>

#include "RunSxscan.h"

namespace sx::host {
namespace {

using sxtest::Outcome;

TEST(HostProgramProgress, WarmUpCountdownThenPagesFromTheLibrarysDialogs) {
  sxtest::TempRoot root;
  sxtest::ScopedEnv fast("SX_TIME_SCALE", "0.001");
  sxtest::ScopedEnv english("LC_ALL", "C");
  sxtest::InstallSelected(root, "QM7110V", "[Feeder]\nSheets=2\n[Page]\nWarmUpRefusals=1\n");
  std::filesystem::copy_file(SX_TEST_SOURCE_DIR "/cmake/skeleton/sxscan.loc", root.Windows() / "sxscan.loc");
  root.WriteRegistry(root.ReadRegistry() + "[Software\\Quillmark]\n\"LOCALIZE\"=\"sxscan.loc\"\n");
  const Outcome scan = sxtest::RunSxscan(
      root, "scan --source feeder --pages all --resolution 100 --mode gray --progress --output pages.tiff");
  ASSERT_EQ(scan.exitCode, 0) << scan.err;

  std::vector<std::string> countdown, pageEnds;
  std::istringstream lines(scan.err);
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
  sxtest::InstallSelected(root, "QM7110V", "[Page]\nWarmUpRefusals=1\n");
  for (int signal : {SIGINT, SIGTERM}) {
    SCOPED_TRACE(signal == SIGINT ? "SIGINT" : "SIGTERM");
    const Outcome o = sxtest::Interrupt(
        root, "scan --progress --output page.png",
        [](const std::string& err) { return err.find("Please wait ...  27") != std::string::npos; }, {signal});
    EXPECT_EQ(o.exitCode, 130) << o.text;
    EXPECT_TRUE(o.Says("scan cancelled")) << o.text;
    EXPECT_FALSE(o.Says("Please wait ...  10")) << "the countdown went on: " << o.text;
    EXPECT_FALSE(std::filesystem::exists(root.Path() / "page.png"));
    EXPECT_FALSE(std::filesystem::exists(root.Path() / ".page.png.part"));
  }
}

}  // namespace
}  // namespace sx::host
#endif
