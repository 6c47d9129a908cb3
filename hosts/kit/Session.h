// The program's calls into libsxscan.so: thin wrappers that turn the
// exported functions' records and memory blocks into plain values.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "kit/Capabilities.h"
#include "kit/ScanPlan.h"
#include "sxscan.h"

namespace sx::host {

// Frees the library's state (SxFree) whichever way a command leaves: the
// power-save time goes back to the scanner and the driver is unloaded.
struct LibraryScope {
  LibraryScope() = default;
  LibraryScope(const LibraryScope&) = delete;
  LibraryScope& operator=(const LibraryScope&) = delete;
  ~LibraryScope() { SxFree(); }
};

// SxGetDS 2, then 3 until the end of the list. *result is 0, or the code of
// the first message when there is no source at all.
std::vector<SxDataSource> ListSources(int32_t* result);

// SxLoad; on failure prints why and what to do.
bool OpenStoredSource();
// Opens the chosen source; with none chosen and exactly one installed, that
// one, saying so (the library stores it as the choice).
bool OpenSourceForScan();
// What the open scanner lists about its sources and their areas.
SourceFacts ReadSourceFacts();
// The source the library has bound (the entry at its list cursor).
bool CurrentSource(SxDataSource* source);

struct QueriedList {
  bool made = false;  // the library handed over a list block
  int32_t count = 0;
  std::vector<uint8_t> items;  // copied out before the blocks were freed
};
// SxQueryData in the capability's item type; frees the list blocks.
QueriedList QueryList(const CapabilityInfo& cap);

// A tone setting's whole-image element (Capabilities.h) for a tone
// capability, whatever CAP_FILTER says.
int32_t ReadValue(const CapabilityInfo& cap, Value* value);
// The setting as named: a capability's value or one colour's element.
int32_t ReadSetting(const NamedSetting& setting, Value* value);

// Empty when the library lists `value` as admissible for the capability;
// otherwise which values it admits, naming the capability and the value.
// Capabilities whose listing acts on the scanner are not asked.
std::string Inadmissible(const CapabilityInfo& cap, const Value& value);
// Inadmissible, said on stderr; whether the value is admissible.
bool CheckAdmissible(const CapabilityInfo& cap, const Value& value);
int32_t WriteValue(const CapabilityInfo& cap, const Value& value);
int32_t WriteSetting(const NamedSetting& setting, const Value& value);

// Every value is checked against what the scanner admits before any is
// written; then they are written in order. A grey or line-art scan taken
// from one colour is shaped by that colour's tone element alone (the
// library's rule): a whole-image tone value given goes to that element too,
// unless the colour's own value is given after it. Refused: a value not
// admitted, nothing written; Failed: the library refused a write. *why says
// which, and why.
enum class SettingsOutcome { Applied, Refused, Failed };
SettingsOutcome ApplySettings(const std::vector<SettingChange>& changes, std::string* why);

// One element of a tone setting, CAP_FILTER restored after.
int32_t ReadElement(const CapabilityInfo& cap, int element, Value* value);
int32_t WriteElement(const CapabilityInfo& cap, int element, const Value& value);

}  // namespace sx::host
