// Which slots each binding fills, which it leaves alone, and that release
// empties them all.
#include <cstddef>
#include <cstring>
#include <set>
#include <string>

#include "driver/DriverFixture.h"

namespace {

using namespace sxtest;
using sx::DriverTable;
using sx::gDriver;

// clang-format off
#define SLOT(name) std::pair<std::string, size_t>{#name, offsetof(DriverTable, name)}
const std::pair<std::string, size_t> kAllSlots[] = {
    SLOT(TerminateDriver),     SLOT(InitializeDriver),      SLOT(InitializeScanner),
    SLOT(GetScannerStatusEx),  SLOT(GetScannerStatus),      SLOT(GetScannerAbilityEx),
    SLOT(GetScannerAbility),   SLOT(InitialButton),         SLOT(ResetPushButton),
    SLOT(ReadPushButton),      SLOT(SetGammaTable),         SLOT(StartScan),
    SLOT(ReadScan),            SLOT(ReadScanEx),            SLOT(StopScan),
    SLOT(SetScanParameter),    SLOT(CheckPushButton),       SLOT(SetPowerSaveTime),
    SLOT(LampOff),             SLOT(GetADFStatus),          SLOT(ReadNVMData),
    SLOT(GetLightStatus),      SLOT(ChooseSCSIScannerByID), SLOT(TuneScanLength),
    SLOT(GetBackgroundRaster), SLOT(DoCancel),              SLOT(WriteNVMData),
};
// clang-format on
#undef SLOT

void*& Slot(size_t i) {
  return *reinterpret_cast<void**>(reinterpret_cast<char*>(&gDriver) + kAllSlots[i].second);
}

// A recognisable address per slot that no binding could produce.
void* Marker(size_t i) { return reinterpret_cast<void*>(0x1000 + 16 * i); }

class Binding : public DriverTest {};

TEST_F(Binding, EachListFillsItsSlotsAndLeavesTheOthers) {
  const std::set<std::string> notSelected = {"ReadScanEx", "TuneScanLength", "GetBackgroundRaster",
                                             "DoCancel", "WriteNVMData"};
  const std::set<std::string> discovered = {"InitializeDriver",  "InitializeScanner",
                                            "TerminateDriver",   "GetScannerAbilityEx",
                                            "GetScannerAbility", "GetScannerStatusEx"};
  struct Case {
    sx::Binding binding;
    const char* module;
  };
  for (const Case c :
       {Case{sx::Binding::Load, SX_TEST_DRVFAKE}, Case{sx::Binding::Select, SX_TEST_DRVFAKE},
        Case{sx::Binding::Discovery, SX_TEST_DRVFAKE},
        Case{sx::Binding::Load, SX_TEST_EMPTY_DLL}}) {
    SCOPED_TRACE(std::string(c.module) + " " + std::to_string(static_cast<int>(c.binding)));
    for (size_t i = 0; i < std::size(kAllSlots); ++i) Slot(i) = Marker(i);
    Bind(c.module, c.binding);
    for (size_t i = 0; i < std::size(kAllSlots); ++i) {
      const std::string& name = kAllSlots[i].first;
      const bool looked = c.binding == sx::Binding::Load     ? name != "WriteNVMData"
                          : c.binding == sx::Binding::Select ? !notSelected.count(name)
                                                             : discovered.count(name) > 0;
      // A looked-up name the module lacks empties its slot.
      EXPECT_EQ(Slot(i), looked ? sx::plat::ModuleSymbol(gDriver.Module, name.c_str()) : Marker(i))
          << name;
    }
    gDriver = DriverTable{gDriver.Module};  // forget the markers before unloading
    sx::UnbindDriver();
  }
}

int32_t gTerminations = 0;
int32_t SX_DRIVERAPI CountingTerminate() { return ++gTerminations; }

TEST_F(Binding, ReleaseTerminatesOnceAndEmptiesEverySlot) {
  Bind(SX_TEST_DRVFAKE);
  gDriver.TerminateDriver = &CountingTerminate;
  gDriver.WriteNVMData = reinterpret_cast<PFN_WriteNVMData>(Marker(0));
  sx::ReleaseDriver();
  EXPECT_EQ(gTerminations, 1);
  EXPECT_EQ(gDriver.Module, nullptr);
  for (size_t i = 0; i < std::size(kAllSlots); ++i)
    EXPECT_EQ(Slot(i), nullptr) << kAllSlots[i].first;
}

}  // namespace
