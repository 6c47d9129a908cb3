// Wrong values are named before anything is scanned, with exit status 2:
// options, capabilities and values the scanner does not take, the transfer
// buffer, the area, the output folder, help for one command, no command at
// all and a system tree that is not one.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include "RunSxscan.h"

namespace {

namespace fs = std::filesystem;
using sxtest::Outcome;
using sxtest::RunSxscan;

TEST(HostErrors, BadValuesAreNamedBeforeScanning) {
  sxtest::TempRoot root;
  sxtest::InstallSelected(root, "QM7110V");
  const struct {
    const char* args;
    const char* says;
  } cases[] = {
      {"scan --quality 0 --output page.jpg", "--quality wants a JPEG quality, 1 to 100"},
      {"get nosuchcap", "unknown capability 'nosuchcap' (see 'sxscan caps')"},
      {"scan --set nosuch=1 --output page.png", "unknown capability 'nosuch'"},
      {"set CAP_MODELNAME x", "CAP_MODELNAME cannot be set"},
      // Values outside what the library lists, with what it takes.
      {"scan --resolution 7 --output page.png", "CAP_XRESOLUTION cannot be 7; the scanner takes 50 to"},
      {"set pixeltype 7", "CAP_PIXELTYPE cannot be 7; the scanner takes one of 0 (lineart), 1 (gray), 2 (color)"},
      {"scan --set gamma=-1 --output page.png", "the scanner takes 0.01 to 655.35"},
      {"scan --set gamma=0 --output page.png", "the scanner takes 0.01 to 655.35"},
      {"scan --set gamma=1e9 --output page.png", "the scanner takes 0.01 to 655.35"},
      {"scan --set gamma-b=0 --output page.png", "the scanner takes 0.01 to 655.35"},
      {"scan --set brightness=5000 --output page.png", "the scanner takes -1000 to 1000 step 10"},
      {"scan --buffer 10 --output page.png",
       "the transfer buffer of 10 bytes is smaller than one line of this page (7632 bytes)"},
      {"scan --mode gray --area 0,0,0.02,1 --output page.png", "the area is too small"},
      {"scan --area 0,0,1,0.001 --output page.png", "the area is too small"},
      {"scan --area 0,20,1,1 --output page.png", "the area starts at 0,20 in, outside the source's 8.5 x 11.69"},
      {"scan --output out/page.png", "the folder out does not exist"},  // none is made
      {"scan --output /sys/page.png", "cannot create a file in the folder /sys: "},  // not even for root
      {"help nosuch", "no help for 'nosuch'"},
  };
  for (const auto& c : cases) {
    Outcome o = RunSxscan(root, c.args);
    EXPECT_EQ(o.exitCode, 2) << c.args << ": " << o.text;
    EXPECT_TRUE(o.Says(c.says)) << c.args << ": " << o.text;
    EXPECT_FALSE(o.Says("page 1")) << c.args << ": " << o.text;
    EXPECT_FALSE(fs::exists(root.Path() / "page.png") || fs::exists(root.Path() / "page.jpg") ||
                 fs::exists(root.Path() / "out"))
        << c.args;
  }
  Outcome help = RunSxscan(root, "help scan");
  EXPECT_TRUE(help.exitCode == 0 && help.out.rfind("usage: sxscan scan", 0) == 0) << help.text;
  Outcome bare = RunSxscan(root, "");
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
    Outcome o = RunSxscan(root, "sources", "SX_ROOT='" + r.root + "'");
    EXPECT_EQ(o.exitCode, 2) << r.root << ": " << o.err;
    EXPECT_TRUE(o.Says(r.says)) << r.root << ": " << o.err;
  }
  EXPECT_FALSE(fs::exists(root.Path() / "no")) << "a mistyped SX_ROOT made a tree";
}

}  // namespace
#endif
