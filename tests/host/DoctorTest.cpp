// sxscan doctor against system trees with known faults: each fault named with
// its fix, and a sound tree reported as such.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include <sys/wait.h>

#include <cstdlib>

#include "support/TestEnv.h"

namespace {

namespace fs = std::filesystem;

struct Report {
  int exitCode = -1;
  std::string text;
  bool Says(const std::string& what) const { return text.find(what) != std::string::npos; }
};

Report Doctor(const sxtest::TempRoot& root) {
  const fs::path out = root.Path() / "doctor.txt";
  const int status = std::system(("'" SX_TEST_SXSCAN "' doctor >'" + out.string() + "' 2>&1").c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, sxtest::ReadFile(out)};
}

TEST(HostDoctor, NamesEachFaultWithItsFixAndPassesASoundTree) {
  sxtest::TempRoot root;
  root.InstallVscan("Corvane/QM7110", "[Scanner]\nModel=QM7110V\n");
  Report sound = Doctor(root);
  EXPECT_EQ(sound.exitCode, 0) << sound.text;
  EXPECT_TRUE(sound.Says("from the environment variable SX_ROOT")) << sound.text;
  EXPECT_TRUE(sound.Says("Corvane/QM7110/vscan.dll: offered as \"USB - QM7110V")) << sound.text;
  EXPECT_TRUE(sound.Says("no problem found")) << sound.text;

  // A module without a version record, one refused at initialisation (no
  // model), another maker's, and a damaged registry store.
  root.InstallVscan("Corvane/Empty", "", "", "empty.dll");
  root.InstallVscan("Corvane/NoModel", "[Scanner]\nModel=Test Sample\n");
  root.InstallVscan("Other/Scanner", "[Scanner]\nModel=QM9\n",
                    sxtest::DefaultVersionText("1, 0, 0, 0", "Other Devices Ltd."), "other.dll");
  root.WriteRegistry("[Software\\Quillmark]\n\"DEBUGLEVEL\"=dword:00000002\n\"SOURCENAME\"=str(2):\"US");
  Report faults = Doctor(root);
  EXPECT_EQ(faults.exitCode, 1);
  EXPECT_TRUE(faults.Says("Corvane/Empty/empty.dll: not offered\n  problem: it carries no version record"))
      << faults.text;
  EXPECT_TRUE(faults.Says("Corvane/NoModel/vscan.dll: version 1,0,1,0, not offered\n  problem: the "
                          "library loaded it, but its initialisation"))
      << faults.text;
  EXPECT_TRUE(faults.Says("Other/Scanner/other.dll: not offered (maker \"Other Devices Ltd.\")"))
      << faults.text;
  EXPECT_TRUE(faults.Says("1 damaged line(s)")) << faults.text;
  EXPECT_TRUE(faults.Says("trace level 2, log scandiag.txt in " + (root.Path() / "temp").string()))
      << faults.text;
  EXPECT_TRUE(faults.Says("4 problem(s) found")) << faults.text;
}

}  // namespace
#endif
