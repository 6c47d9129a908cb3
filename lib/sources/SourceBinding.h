// Opening a chosen data source: load its module, bind the entry points,
// initialise driver and scanner, read abilities and NVRAM, load the settings
// and make the tone tables. Shared by SxLoad and SxSetDriverById, which differ
// only in the names they bind and in what an unloadable module means to them.
// Host's thread only.
#pragma once
#include <cstdint>

#include "driver/DriverTable.h"
#include "sources/DataSourceList.h"

namespace sx {

// True for the built-in source, which runs without a module.
bool IsSampleSource(const DataSourceEntry& entry);

// 0 when the source is bound and initialised; `unloadableResult` when its
// module cannot be loaded (nothing bound); SX_ERR_DRIVER when InitializeDriver,
// InitializeScanner or GetScannerAbilityEx fails (the module stays bound).
int32_t OpenDataSource(const DataSourceEntry& entry, Binding binding, int32_t unloadableResult);

// Unlocks and frees the four tone-table buffers that exist.
void FreeToneTables();

}  // namespace sx
