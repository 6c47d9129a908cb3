// Wrong values are named before anything is scanned, with exit status 2: the
// transfer buffer, the area, an unknown capability, help for one command,
// no command at all and a system tree that is not one.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include <sys/wait.h>

#include <cstdlib>

#include "support/TestEnv.h"

namespace {

namespace fs = std::filesystem;

struct Outcome {
  int exitCode = -1;
  std::string out, err;
};

Outcome RunShell(const sxtest::TempRoot& root, const std::string& command) {
  const fs::path out = root.Path() / "out.txt", err = root.Path() / "err.txt";
  const int status = std::system(("cd '" + root.Path().string() + "' && " + command + " >'" + out.string() +
                                  "' 2>'" + err.string() + "' </dev/null").c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, sxtest::ReadFile(out), sxtest::ReadFile(err)};
}

TEST(HostErrors, BadValuesAreNamedBeforeScanning) {
  sxtest::TempRoot root;
  root.InstallVscan("Corvane/QM7110V", "[Scanner]\nModel=QM7110V\n");
  const std::string sxscan = "'" SX_TEST_SXSCAN "' ";
  ASSERT_EQ(RunShell(root, sxscan + "select QM7110V").exitCode, 0);
  const struct {
    const char* args;
    const char* says;
  } cases[] = {
      {"scan --buffer 10", "the transfer buffer of 10 bytes is smaller than one line of this page (7632 bytes)"},
      {"scan --mode gray --area 0,0,0.02,1", "the area is too small"},
      {"scan --area 0,0,1,0.001", "the area is too small"},
      {"scan --area 0,20,1,1", "the area starts at 0,20 in, outside the source's 8.5 x 11.69"},
      {"scan --set nosuch=1", "unknown capability 'nosuch' (see 'sxscan caps')"},
      {"help nosuch", "no help for 'nosuch'"},
  };
  for (const auto& c : cases) {
    Outcome o = RunShell(root, sxscan + c.args + " --output page.png");
    EXPECT_EQ(o.exitCode, 2) << c.args << ": " << o.err;
    EXPECT_NE(o.err.find(c.says), std::string::npos) << c.args << ": " << o.err;
    EXPECT_EQ(o.err.find("page 1"), std::string::npos) << c.args << ": " << o.err;
    EXPECT_FALSE(fs::exists(root.Path() / "page.png")) << c.args;
  }
  Outcome help = RunShell(root, sxscan + "help scan");
  EXPECT_TRUE(help.exitCode == 0 && help.out.rfind("usage: sxscan scan", 0) == 0) << help.out << help.err;
  Outcome bare = RunShell(root, sxscan);
  EXPECT_TRUE(bare.exitCode == 2 && bare.out.empty() && bare.err.rfind("usage: sxscan", 0) == 0) << bare.err;

  // SX_ROOT that names no tree: a mistyped name (which must not become a
  // new tree), a file, or empty.
  fs::create_directories(root.Path() / "empty");
  const struct {
    std::string root;
    const char* says;
  } roots[] = {
      {(root.Path() / "no/such/tree").string(), "which does not exist"},
      {(root.Path() / "empty").string(), "which holds no system tree (no windows folder in it)"},
      {(root.Path() / "windows/twain_32/Corvane/QM7110V/vscan.ini").string(), "which is a file, not a folder"},
      {"", "SX_ROOT is set but empty"},
  };
  for (const auto& r : roots) {
    Outcome o = RunShell(root, "SX_ROOT='" + r.root + "' " + sxscan + "sources");
    EXPECT_EQ(o.exitCode, 2) << r.root << ": " << o.err;
    EXPECT_NE(o.err.find(r.says), std::string::npos) << r.root << ": " << o.err;
  }
  EXPECT_FALSE(fs::exists(root.Path() / "no")) << "a mistyped SX_ROOT made a tree";
}

}  // namespace
#endif
