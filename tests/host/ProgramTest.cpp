// The sxscan program run as a user runs it, against copies of the virtual
// scanner in a temporary system tree: choosing a source, and scans that end
// up as PNG and multi-page TIFF files.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include <sys/wait.h>

#include <cstdlib>

#include "ImageRead.h"
#include "support/TestEnv.h"

namespace sx::host {
namespace {

namespace fs = std::filesystem;

struct Outcome {
  int exitCode = -1;
  std::string out, err;
};

// Runs the program in the root folder (where the library may put its files).
Outcome RunProgram(const sxtest::TempRoot& root, const std::string& args) {
  fs::path out = root.Path() / "stdout.txt", err = root.Path() / "stderr.txt";
  std::string command = "cd '" + root.Path().string() + "' && '" SX_TEST_SXSCAN "' " + args + " >'" +
                        out.string() + "' 2>'" + err.string() + "' </dev/null";
  int status = std::system(command.c_str());
  Outcome o;
  o.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  o.out = sxtest::ReadFile(out);
  o.err = sxtest::ReadFile(err);
  return o;
}

// A virtual scanner with a model name of its own and the given feeder stack.
void Install(const sxtest::TempRoot& root, const std::string& model, int sheets) {
  root.InstallVscan("Corvane/" + model,
                    "[Scanner]\nModel=" + model + "\n[Feeder]\nSheets=" + std::to_string(sheets) + "\n");
}

TEST(HostProgram, ListsAndSelectsSources) {
  sxtest::TempRoot root;
  Install(root, "QM7110V", 0);
  Install(root, "QM7110X", 0);

  Outcome list = RunProgram(root, "sources");
  ASSERT_EQ(list.exitCode, 0) << list.err;
  EXPECT_NE(list.out.find("QM7110V"), std::string::npos) << list.out;
  EXPECT_NE(list.out.find("QM7110X"), std::string::npos) << list.out;
  EXPECT_NE(list.out.find("Corvane/QM7110X/vscan.dll"), std::string::npos) << list.out;

  // Before a choice the library has no source to open.
  Outcome none = RunProgram(root, "info");
  EXPECT_EQ(none.exitCode, 1);
  EXPECT_NE(none.err.find("sxscan select"), std::string::npos) << none.err;

  Outcome ambiguous = RunProgram(root, "select qm7110");
  EXPECT_EQ(ambiguous.exitCode, 1);
  EXPECT_NE(ambiguous.err.find("matches 2"), std::string::npos) << ambiguous.err;

  Outcome chosen = RunProgram(root, "select qm7110x");
  ASSERT_EQ(chosen.exitCode, 0) << chosen.err;
  // The choice outlives the process: the next run opens it.
  Outcome info = RunProgram(root, "info");
  ASSERT_EQ(info.exitCode, 0) << info.err;
  EXPECT_NE(info.out.find("QM7110X"), std::string::npos) << info.out;

  Outcome got = RunProgram(root, "get CAP_MODELNAME xresolution 0x9202");
  ASSERT_EQ(got.exitCode, 0) << got.err;
  EXPECT_NE(got.out.find("CAP_MODELNAME = \"QM7110X\""), std::string::npos) << got.out;
  EXPECT_EQ(RunProgram(root, "get nosuchcap").exitCode, 2);
}

TEST(HostProgram, FlatbedPageBecomesPng) {
  sxtest::TempRoot root;
  Install(root, "QM7110V", 0);
  ASSERT_EQ(RunProgram(root, "select QM7110V").exitCode, 0);
  // Two inches by one at 100 dpi in grey: 200 pixels (a multiple of the
  // alignment) by 100 lines.
  Outcome scan = RunProgram(root, "scan --source flatbed --mode gray --resolution 100 --area 0,0,2,1 "
                           "--output out/page.png");
  ASSERT_EQ(scan.exitCode, 0) << scan.err;
  PngRead png = ReadPng((root.Path() / "out/page.png").string());
  ASSERT_TRUE(png.ok);
  EXPECT_EQ(png.width, 200u);
  EXPECT_EQ(png.height, 100u);
  EXPECT_EQ(png.depth, 8);
  EXPECT_EQ(png.colour, PNG_COLOR_TYPE_GRAY);
  EXPECT_EQ(png.xppm, 3937u);  // 100 dpi
}

TEST(HostProgram, FeederStackBecomesMultiPageTiff) {
  for (const char* mode : {"", "--buffered"}) {
    SCOPED_TRACE(mode);
    sxtest::TempRoot root;
    Install(root, "QM7110V", 3);
    ASSERT_EQ(RunProgram(root, "select QM7110V").exitCode, 0);
    Outcome scan = RunProgram(root, std::string("scan --source feeder --pages all --mode lineart --resolution 100 "
                                         "--area 0,0,2.56,1 --output stack.png ") + mode);
    ASSERT_EQ(scan.exitCode, 0) << scan.err;
    EXPECT_NE(scan.out.find("wrote 3 pages"), std::string::npos) << scan.out;
    EXPECT_FALSE(fs::exists(root.Path() / "stack.png"));
    std::vector<TiffPage> pages = ReadTiff((root.Path() / "stack.tif").string());
    ASSERT_EQ(pages.size(), 3u);
    for (const auto& page : pages) {
      EXPECT_EQ(page.bits, 1);
      EXPECT_EQ(page.width, 256u);
      EXPECT_EQ(page.height, 100u);
    }
  }
}

TEST(HostProgram, ReportsScanFailures) {
  sxtest::TempRoot root;
  Install(root, "QM7110V", 0);
  ASSERT_EQ(RunProgram(root, "select QM7110V").exitCode, 0);
  Outcome empty = RunProgram(root, "scan --source feeder --output a.png");
  EXPECT_EQ(empty.exitCode, 1);
  EXPECT_NE(empty.err.find("no paper"), std::string::npos) << empty.err;
  EXPECT_FALSE(fs::exists(root.Path() / "a.png"));

  Outcome usage = RunProgram(root, "scan --mode sepia");
  EXPECT_EQ(usage.exitCode, 2);
  Outcome readOnly = RunProgram(root, "set CAP_MODELNAME x");
  EXPECT_EQ(readOnly.exitCode, 2);
}

}  // namespace
}  // namespace sx::host

#else
TEST(HostProgram, NotBuilt) { GTEST_SKIP() << "the command-line host is not part of this build"; }
#endif
