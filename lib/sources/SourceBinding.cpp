#include "sources/SourceBinding.h"

#include <cstring>
#include <string>

#include "imaging/ToneTable.h"
#include "platform/Memory.h"
#include "settings/ScanSettings.h"

namespace sx {

namespace {

// Design note: a buffer that already exists is kept rather than replaced
// (its content is scratch, rebuilt before every upload), so choosing a
// source again never strands the earlier blocks.
void AllocateToneTables() {
  for (uint8_t*& table : gSettings.ToneTables) {
    if (table) continue;
    SxHandle block = SxSysGlobalAlloc(plat::kGhnd, kToneEntries);
    table = block ? static_cast<uint8_t*>(SxSysGlobalLock(block)) : nullptr;
    if (block && !table) SxSysGlobalFree(block);
  }
}

}  // namespace

bool IsSampleSource(const DataSourceEntry& entry) {
  return std::strncmp(entry.Host.FileName, kSampleFileName, sizeof entry.Host.FileName) == 0;
}

int32_t OpenDataSource(const DataSourceEntry& entry, Binding binding, int32_t unloadableResult) {
  // Design note: the path is composed in its own string: Directory and
  // FileName together can be longer than the 144-byte scratch path buffer.
  const std::string path = std::string(entry.Host.Directory, strnlen(entry.Host.Directory,
                                                                      sizeof entry.Host.Directory)) +
                           std::string(entry.Host.FileName,
                                       strnlen(entry.Host.FileName, sizeof entry.Host.FileName));
  plat::ModuleHandle module = plat::LoadModule(path);
  // The built-in source goes on without a module: every slot stays empty and
  // each traced call answers as the "Test Sample" scanner.
  if (!module && !IsSampleSource(entry)) return unloadableResult;
  BindDriver(module, binding);

  if (!driver::InitializeDriver()) return SX_ERR_DRIVER;
  if (!driver::InitializeScanner()) return SX_ERR_DRIVER;
  if (!driver::GetScannerAbilityEx(&gAbility)) return SX_ERR_DRIVER;
  driver::ReadNVMData(&gNvRam);
  SanitizeSerialNumber(gNvRam);
  LoadScanSettings(gSettings, gAbility);
  AllocateToneTables();
  return SX_OK;
}

void FreeToneTables() {
  for (uint8_t*& table : gSettings.ToneTables) {
    if (!table) continue;
    plat::GlobalUnlockAndFreeAddress(table);
    table = nullptr;
  }
}

}  // namespace sx
