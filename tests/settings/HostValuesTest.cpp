// Lists as a host receives them from libsxscan.so with the virtual scanner bound: colour
// matching is offered once the colour module and a profile are there.
#include <gtest/gtest.h>

#include "support/TestEnv.h"

namespace {

using namespace sxtest;

TEST(HostValues, ColourMatchingIsOfferedOnlyWithTheModule) {
  TempRoot root;
  root.InstallVscan("Corvane/QM7110", "");
  Library lib;
  SxDataSource ds{};
  ASSERT_EQ(lib.GetDS(SX_DS_FIRST, &ds), 0);
  ASSERT_EQ(lib.SetDriverById(&ds, 0), 0);
  const auto colourMatchValues = [&] {
    SxValueList* list = nullptr;
    EXPECT_EQ(lib.QueryData(CAP_COLORMATCH, TY_INT32, &list), 0);
    const int32_t count = list->Count;
    for (void* locked : {list->Items, static_cast<void*>(list)}) {  // released as a host does
      SxHandle h = lib.GlobalHandle(locked);
      while (lib.GlobalUnlock(h)) {
      }
      EXPECT_EQ(lib.GlobalFree(h), nullptr);
    }
    return count;
  };
  EXPECT_EQ(colourMatchValues(), 1);
  fs::copy_file(SX_TEST_CMMS_FAKE, root.Path() / "windows" / "system32" / "sxcmms.dll");
  WriteFile(root.Twain() / "Corvane" / "QM7110" / "cmatch.ini", "[Model]\nQM7110V=qm.icc\n");
  WriteFile(root.Path() / "windows" / "system32" / "SPOOL" / "DRIVERS" / "COLOR" / "qm.icc", "p");
  EXPECT_EQ(colourMatchValues(), 2);
  lib.Free();
}

}  // namespace
