// Choosing a data source with SxSetDriverById, as a host does after SxGetDS.
#include <gtest/gtest.h>

#include "platform/Registry.h"
#include "tests/lib/sources/SourceHelpers.h"

namespace sxtest {
namespace {

SxDataSource Named(const std::string& name) {
  SxDataSource ds{};
  std::memcpy(ds.DisplayName, name.data(), std::min(name.size(), sizeof ds.DisplayName));
  return ds;
}

// The stored "SOURCENAME": the whole 42-byte field as an expandable string.
std::string StoredName() {
  char data[256] = {};
  uint32_t size = sizeof data, type = 0;
  const int32_t rc = sx::plat::RegistryQuery("Software\\Quillmark", "SOURCENAME", &type, data, &size);
  return rc == 0 && type == 2 ? std::string(data, size) : "?";
}

std::string Field42(const std::string& name) { return name + std::string(42 - name.size(), '\0'); }

TEST(Selection, ChoiceIsStoredAndOpenedOnlyWhileNothingIsBound) {
  TempRoot root;
  const fs::path logA = InstallLogged(root, "Corvane/A", "ModelA");
  const fs::path logB = InstallLogged(root, "Corvane/B", "ModelB");
  const std::string nameA = DisplayName("USB", "ModelA"), nameB = DisplayName("USB", "ModelB");
  Library lib;
  SxDataSource ds = Named(nameA);
  EXPECT_EQ(lib.SetDriverById(&ds, 0), SX_ERR_DRIVER);  // no list yet
  EXPECT_EQ(StoredName(), "?");

  ASSERT_EQ(Enumerate(lib).size(), 2u);
  ASSERT_EQ(lib.SetDriverById(&ds, 0), 0);
  EXPECT_EQ(Text(ds.Directory), NativePath(root.Twain().string() + "/Corvane/A/"));  // whole entry back
  EXPECT_EQ(StoredName(), Field42(nameA));
  EXPECT_EQ(TakeCalls(logA, "ReadNVMData"), 1);

  // Bound already: the name is stored, nothing is (re)loaded.
  TakeCalls(logB, "");
  ds = Named(nameB);
  EXPECT_EQ(lib.SetDriverById(&ds, 0), 0);
  EXPECT_EQ(StoredName(), Field42(nameB));
  ds = Named(nameA);
  EXPECT_EQ(lib.SetDriverById(&ds, 0), 0);
  EXPECT_EQ(TakeCalls(logA, "InitializeDriver") + TakeCalls(logB, "InitializeDriver"), 0);

  // Names compare byte for byte; an unreadable record names nothing.
  ds = Named(DisplayName("usb", "ModelA"));
  EXPECT_EQ(lib.SetDriverById(&ds, 0), SX_ERR_DRIVER);
  EXPECT_EQ(lib.SetDriverById(reinterpret_cast<SxDataSource*>(8), 0), SX_ERR_DRIVER);
  EXPECT_EQ(StoredName(), Field42(nameA));

  lib.Free();
  TakeCalls(logA, "");
  EXPECT_EQ(lib.Load(nullptr), 0);  // the next load opens the choice
  EXPECT_EQ(TakeCalls(logA, "ReadNVMData"), 1);
}

TEST(Selection, FailedInitialisationKeepsTheChoiceAndTheModuleUntilFree) {
  TempRoot root;
  const fs::path log = InstallLogged(root, "Corvane/A", "ModelA");
  Library lib;
  ASSERT_EQ(Enumerate(lib).size(), 1u);
  // The scanner goes away between enumeration and choice.
  WriteFile(log.parent_path() / "vscan.ini", LoggedIni(log, "ModelA", "[Faults]\nFailInitializeScanner=1\n"));
  TakeCalls(log, "");
  SxDataSource ds = Named(DisplayName("USB", "ModelA"));
  EXPECT_EQ(lib.SetDriverById(&ds, 0), SX_ERR_DRIVER);
  EXPECT_EQ(StoredName(), Field42(DisplayName("USB", "ModelA")));
  EXPECT_EQ(TakeCalls(log, "TerminateDriver"), 0);
  lib.Free();
  EXPECT_EQ(TakeCalls(log, "TerminateDriver"), 1);
}

}  // namespace
}  // namespace sxtest
