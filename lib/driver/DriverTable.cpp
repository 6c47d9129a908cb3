// The one driver table and the library's driver records; binding a module's
// entry points into the table's slots.
#include "driver/DriverTable.h"

#include <cstddef>
#include <cstring>
#include <iterator>
#include <span>

namespace sx {

DriverTable gDriver;
ScannerAbility gAbility;
NvRam gNvRam;
ScanParameter gScanParameter;

namespace {

// One entry of a binding list: the exported name and where its slot lives.
struct SlotName {
  const char* Name;
  size_t Offset;
  bool Selected;  // also looked up when the host chooses a source by id
};

#define SX_SLOT(name) SlotName{#name, offsetof(DriverTable, name), true}
// Choosing a source by id leaves these as an earlier binding left them.
#define SX_LOAD_ONLY(name) SlotName{#name, offsetof(DriverTable, name), false}

// SxLoad looks up every entry point the library knows, in this order, except
// WriteNVMData, which no binding ever fills.
constexpr SlotName kLoadList[] = {
    SX_SLOT(TerminateDriver),     SX_SLOT(InitializeDriver),    SX_SLOT(InitializeScanner),
    SX_SLOT(GetScannerStatusEx),  SX_SLOT(GetScannerStatus),    SX_SLOT(GetScannerAbilityEx),
    SX_SLOT(GetScannerAbility),   SX_SLOT(InitialButton),       SX_SLOT(ResetPushButton),
    SX_SLOT(ReadPushButton),      SX_SLOT(SetGammaTable),       SX_SLOT(StartScan),
    SX_SLOT(ReadScan),            SX_LOAD_ONLY(ReadScanEx),     SX_SLOT(StopScan),
    SX_SLOT(SetScanParameter),    SX_SLOT(CheckPushButton),     SX_SLOT(SetPowerSaveTime),
    SX_SLOT(LampOff),             SX_SLOT(GetADFStatus),        SX_SLOT(ReadNVMData),
    SX_SLOT(GetLightStatus),      SX_SLOT(ChooseSCSIScannerByID), SX_LOAD_ONLY(TuneScanLength),
    SX_LOAD_ONLY(GetBackgroundRaster), SX_LOAD_ONLY(DoCancel),
};
#undef SX_LOAD_ONLY

// Verifying a candidate module needs only these, in the verifier's order.
constexpr SlotName kDiscoveryList[] = {
    SX_SLOT(InitializeDriver),    SX_SLOT(InitializeScanner), SX_SLOT(TerminateDriver),
    SX_SLOT(GetScannerAbilityEx), SX_SLOT(GetScannerAbility), SX_SLOT(GetScannerStatusEx),
};

#undef SX_SLOT

static_assert(std::size(kLoadList) == 26);
constexpr size_t kSelectCount = [] {
  size_t n = 0;
  for (const SlotName& slot : kLoadList) n += slot.Selected;
  return n;
}();
static_assert(kSelectCount == 22);
static_assert(std::size(kDiscoveryList) == 6);
// Slots are stored as raw addresses; both kinds of pointer have one width here.
static_assert(sizeof(void*) == sizeof(PFN_StartScan));

std::span<const SlotName> ListOf(Binding binding) {
  return binding == Binding::Discovery ? std::span<const SlotName>(kDiscoveryList)
                                       : std::span<const SlotName>(kLoadList);
}

void StoreSlot(size_t offset, void* address) {
  std::memcpy(reinterpret_cast<unsigned char*>(&gDriver) + offset, &address, sizeof address);
}

}  // namespace

void BindDriver(plat::ModuleHandle module, Binding binding) {
  gDriver.Module = module;
  for (const SlotName& slot : ListOf(binding)) {
    if (binding == Binding::Select && !slot.Selected) continue;
    // A null module must not reach the symbol lookup: the process's own
    // global scope would answer instead.
    StoreSlot(slot.Offset, module ? plat::ModuleSymbol(module, slot.Name) : nullptr);
  }
}

// Design note: every slot is emptied on release, not only the handle, so a
// slot a later binding does not look up can never point into an unloaded
// module.
void UnbindDriver() {
  if (gDriver.Module) plat::FreeModule(gDriver.Module);
  gDriver = DriverTable{};
}

void ReleaseDriver() {
  driver::TerminateDriver();
  UnbindDriver();
}

void SanitizeSerialNumber(NvRam& record) {
  // The text may run past its 24-byte field into the rest of the record; one
  // that does is not a serial number the host can be given.
  const size_t room = sizeof(NvRam) - offsetof(NvRam, SerialNumber);
  const char* text = reinterpret_cast<const char*>(&record) + offsetof(NvRam, SerialNumber);
  if (strnlen(text, room) > sizeof record.SerialNumber) record.SerialNumber[0] = '\0';
}

}  // namespace sx
