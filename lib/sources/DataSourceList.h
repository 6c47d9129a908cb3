// The data-source list: built once per load by SxGetDS (message 2) or SxLoad,
// walked by a single cursor, freed by SxFree. Host's thread only.
#pragma once
#include "sxscan.h"

namespace sx {

struct DataSourceEntry {
  SxDataSource Host;       // the 281 bytes shared with the host
  DataSourceEntry* Next;
};

inline constexpr char kSampleFileName[] = "Sample.dll";
inline constexpr char kSampleDisplayName[] = "ID#0 -        Sample 0.00";

extern DataSourceEntry* gSourceHead;
extern DataSourceEntry* gSourceCursor;

// Builds the list when it does not exist (discovery under twain_32).
void BuildDataSourceList();
// Frees every entry; head and cursor become empty.
void FreeDataSourceList();
// The selected source (the cursor after SxLoad or SxSetDriverById), or null.
inline const DataSourceEntry* CurrentDataSource() { return gSourceCursor; }
}  // namespace sx
