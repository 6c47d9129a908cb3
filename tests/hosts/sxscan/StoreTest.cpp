// A registry store that cannot be written or is damaged is named as such:
// select refuses with the path and the cause, info uses the choice the store
// holds, the doctor gives a fix for that cause, and no raw byte of a damaged
// line reaches the terminal.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "support/TestEnv.h"
#include "RunSxscan.h"

namespace {

using sxtest::Outcome;
using sxtest::RunSxscan;

namespace fs = std::filesystem;

// The immutable mark, which holds even for root; removed again at the end.
struct Immutable {
  fs::path path;
  bool set = false;
  explicit Immutable(fs::path p) : path(std::move(p)) {
    set = std::system(("chattr +i '" + path.string() + "' 2>/dev/null").c_str()) == 0;
  }
  ~Immutable() {
    if (set) std::system(("chattr -i '" + path.string() + "'").c_str());
  }
};

TEST(HostStore, UnwritableStoreIsNamedAndItsChoiceStillUsed) {
  sxtest::TempRoot root;
  root.InstallVscan("Corvane/QM7110V", "[Scanner]\nModel=QM7110V\n");
  ASSERT_EQ(RunSxscan(root, "select QM7110V").exitCode, 0);
  const fs::path store = root.Path() / "user.reg";
  {
    Immutable mark(store);
    if (!mark.set) GTEST_SKIP() << "chattr +i is not available here";
    Outcome select = RunSxscan(root, "select QM7110V");
    EXPECT_EQ(select.exitCode, 1) << select.text;
    EXPECT_EQ(select.text.find("selected"), std::string::npos) << select.text;
    EXPECT_NE(select.text.find(store.string() + " cannot be written: the file is marked immutable"),
              std::string::npos) << select.text;
    Outcome info = RunSxscan(root, "info");
    EXPECT_EQ(info.exitCode, 0) << info.text;
    EXPECT_NE(info.text.find("QM7110V"), std::string::npos) << info.text;
    Outcome doctor = RunSxscan(root, "doctor");
    EXPECT_NE(doctor.text.find("fix:     sudo chattr -i -a " + store.string()), std::string::npos) << doctor.text;
  }
  {
    fs::remove(store);
    Immutable mark(root.Path());
    Outcome select = RunSxscan(root, "select QM7110V");
    EXPECT_EQ(select.exitCode, 1) << select.text;
    EXPECT_NE(select.text.find(store.string() + " cannot be made: the folder is marked immutable"),
              std::string::npos) << select.text;
  }
  if (geteuid() != 0) {  // root writes whatever the permissions say
    fs::permissions(store, fs::perms::owner_write, fs::perm_options::remove);
    Outcome select = RunSxscan(root, "select QM7110V");
    EXPECT_NE(select.text.find("the user may not write the file; fix: chmod u+w"), std::string::npos)
        << select.text;
  }
}

TEST(HostStore, DamagedLineIsShownWithoutRawBytes) {
  sxtest::TempRoot root;
  root.InstallVscan("Corvane/QM7110V", "[Scanner]\nModel=QM7110V\n");
  root.WriteRegistry("[Software\\Quillmark]\n\x1b]0;owned\x07\xff junk\n");
  Outcome select = RunSxscan(root, "select QM7110V");
  EXPECT_EQ(select.exitCode, 1);
  EXPECT_NE(select.text.find("the first: \\x1B]0;owned\\x07\\xFF junk;"), std::string::npos) << select.text;
  EXPECT_EQ(select.text.find('\x1b'), std::string::npos);
}

}  // namespace
#endif
