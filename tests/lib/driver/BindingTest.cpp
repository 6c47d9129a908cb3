// Which slots each binding fills (a name the module lacks empties its slot),
// which it leaves alone, and that release empties them all.
#include <set>

#include "tests/lib/driver/DriverFixture.h"

namespace {

using namespace sxtest;
using sx::gDriver;

// The slots in the table's order: after the module handle, all of one width.
const std::string kSlots[] = {
    "TerminateDriver", "InitializeDriver", "InitializeScanner", "GetScannerStatusEx", "GetScannerStatus",
    "GetScannerAbilityEx", "GetScannerAbility", "InitialButton", "ResetPushButton", "ReadPushButton",
    "SetGammaTable", "StartScan", "ReadScan", "ReadScanEx", "StopScan", "SetScanParameter",
    "CheckPushButton", "SetPowerSaveTime", "LampOff", "GetADFStatus", "ReadNVMData", "GetLightStatus",
    "ChooseSCSIScannerByID", "TuneScanLength", "GetBackgroundRaster", "DoCancel", "WriteNVMData"};
static_assert(sizeof(sx::DriverTable) == 28 * sizeof(void*));

void*& Slot(size_t i) { return reinterpret_cast<void**>(&gDriver)[1 + i]; }
void* Marker(size_t i) { return reinterpret_cast<void*>(0x1000 + 16 * i); }  // no binding's

using Binding = DriverTest;

TEST_F(Binding, EachListFillsItsSlotsAndLeavesTheOthers) {
  const std::set<std::string> notSelected = {"ReadScanEx", "TuneScanLength", "GetBackgroundRaster",
                                             "DoCancel", "WriteNVMData"};
  const std::set<std::string> discovered = {"InitializeDriver",    "InitializeScanner", "TerminateDriver",
                                            "GetScannerAbilityEx", "GetScannerAbility", "GetScannerStatusEx"};
  using enum sx::Binding;
  for (const auto& [binding, module] : {std::pair{Load, SX_TEST_DRVFAKE}, {Select, SX_TEST_DRVFAKE},
                                        {Discovery, SX_TEST_DRVFAKE}, {Load, SX_TEST_EMPTY_DLL}}) {
    SCOPED_TRACE(std::string(module) + " " + std::to_string(static_cast<int>(binding)));
    for (size_t i = 0; i < std::size(kSlots); ++i) Slot(i) = Marker(i);
    Bind(module, binding);
    for (size_t i = 0; i < std::size(kSlots); ++i) {
      const std::string& name = kSlots[i];
      const bool looked = binding == Load     ? name != "WriteNVMData"
                          : binding == Select ? !notSelected.count(name)
                                              : discovered.count(name) > 0;
      EXPECT_EQ(Slot(i), looked ? sx::plat::ModuleSymbol(gDriver.Module, name.c_str()) : Marker(i))
          << name;
    }
    gDriver = sx::DriverTable{gDriver.Module};  // forget the markers before unloading
    sx::UnbindDriver();
  }
}

// Even a slot no binding looks up: nothing may point into an unloaded module.
TEST_F(Binding, ReleaseEmptiesEverySlot) {
  Bind(SX_TEST_DRVFAKE);
  gDriver.WriteNVMData = reinterpret_cast<PFN_WriteNVMData>(Marker(0));
  sx::ReleaseDriver();
  for (size_t i = 0; i < std::size(kSlots); ++i) EXPECT_EQ(Slot(i), nullptr) << kSlots[i];
}

}  // namespace
