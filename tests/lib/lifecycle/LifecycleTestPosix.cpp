// The registry store's file: damaged by another program, or refusing writes
// (a folder in its place). The system registry of Windows is neither.
#include <gtest/gtest.h>

#include "tests/lib/sources/SourceHelpers.h"

namespace sxtest {
namespace {

// A store damaged by another program still loads every intact value; the
// trace says how many lines were skipped and in which file.
TEST(Lifecycle, DamagedRegistryStoreIsReadAndTraced) {
  TempRoot root;
  root.InstallVscan("Corvane/QM7110", ScannerIni("QM7110"));
  root.WriteRegistry(SourceNameLine(DisplayName("USB", "QM7110")) + "\"DEBUGLEVEL\"=dword:00000001\n" +
                     "\"SAVEPATH\"=str(2):\"" + root.Path().string() + "/\"\n\"TRUNCA");
  Library lib;
  ASSERT_EQ(lib.Load(nullptr), 0) << "the stored source is still found";
  EXPECT_EQ(ReadTrace(root, {"SxLoad"}).at(1),
            "   |SxLoad|registry store: 1 damaged line(s) skipped, read " +
                (root.Path() / "user.reg").string());
  lib.Free();
}

TEST(Lifecycle, RefusingRegistryKeepsTheChoiceInTheFallbackFile) {
  TempRoot root;
  root.InstallVscan("Corvane/QM7110", ScannerIni("QM7110"));
  fs::create_directories(root.Path() / "user.reg");  // a store that cannot be written
  Library lib;
  SxDataSource ds{};
  ASSERT_EQ(lib.GetDS(SX_DS_FIRST, &ds), 0);
  ASSERT_EQ(lib.SetDriverById(&ds, 0), 0);
  EXPECT_NE(ReadFile(root.Path() / "temp" / "scandiag.ini").find("SOURCENAME"), std::string::npos);
  lib.Free();
  EXPECT_EQ(lib.Load(nullptr), 0);  // the name is read back from the fall-back file
}

}  // namespace
}  // namespace sxtest
