// The registry store's file damaged by another program (the system registry
// of Windows cannot be).
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

}  // namespace
}  // namespace sxtest
