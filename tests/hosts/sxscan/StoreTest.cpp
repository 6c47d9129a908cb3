// A registry store that cannot be written or is damaged is named as such:
// select refuses with the path and the cause, info uses the choice the store
// holds, the doctor gives a fix for that cause, and no raw byte of a damaged
// line reaches the terminal.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include <unistd.h>

#include <cstdlib>

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
  sxtest::InstallSelected(root, "QM7110V");
  const fs::path store = root.Path() / "user.reg";
  {
    Immutable mark(store);
    if (!mark.set) GTEST_SKIP() << "chattr +i is not available here";
    Outcome select = RunSxscan(root, "select QM7110V");
    EXPECT_EQ(select.exitCode, 1) << select.text;
    EXPECT_FALSE(select.Says("selected")) << select.text;
    EXPECT_NE(select.text.find(store.string() + " cannot be written: the file is marked immutable"),
              std::string::npos) << select.text;
    Outcome info = RunSxscan(root, "info");
    EXPECT_EQ(info.exitCode, 0) << info.text;
    EXPECT_TRUE(info.Says("QM7110V")) << info.text;
    Outcome doctor = RunSxscan(root, "doctor");
    EXPECT_TRUE(doctor.Says("fix:     sudo chattr -i -a " + store.string())) << doctor.text;
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
    EXPECT_TRUE(select.Says("the user may not write the file; fix: chmod u+w"))
        << select.text;
  }
}

// A damaged store is named with its first damaged line, no raw byte of it
// reaching the terminal, and select does not store the choice into it.
TEST(HostStore, DamagedStoreIsShownWithoutRawBytesAndNotWritten) {
  sxtest::TempRoot root;
  root.InstallVscan("Corvane/QM7110V", "[Scanner]\nModel=QM7110V\n");
  root.WriteRegistry("[Software\\Quillmark]\n\x1b]0;owned\x07\xff junk\n\"SOURCENAME\"=str(2):\"USB - QM7");
  Outcome select = RunSxscan(root, "select QM7110V");
  EXPECT_EQ(select.exitCode, 1);
  // Line 2 is the library's own write test at load.
  EXPECT_TRUE(select.Says("user.reg:3: the registry store has 2 line(s) the library does not understand, the "
                          "first: \\x1B]0;owned\\x07\\xFF junk;"))
      << select.text;
  EXPECT_FALSE(select.Says("\x1b"));
  EXPECT_EQ(root.ReadRegistry().find("QM7110V"), std::string::npos) << "the choice is not stored";
  Outcome info = RunSxscan(root, "info");
  EXPECT_EQ(info.exitCode, 1);
  EXPECT_TRUE(info.Says("no data source could be read from the store")) << info.text;
}

}  // namespace
#endif
