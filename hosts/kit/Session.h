// The program's calls into libsxscan.so: thin wrappers that turn the
// exported functions' records and memory blocks into plain values.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "kit/Capabilities.h"
#include "sxscan.h"

namespace sx::host {

// SxGetDS 2, then 3 until the end of the list. *result is 0, or the code of
// the first message when there is no source at all.
std::vector<SxDataSource> ListSources(int32_t* result);

// SxLoad; on failure prints why and what to do.
bool OpenStoredSource();
// The source the library has bound (the entry at its list cursor).
bool CurrentSource(SxDataSource* source);

struct QueriedList {
  bool made = false;  // the library handed over a list block
  int32_t count = 0;
  std::vector<uint8_t> items;  // copied out before the blocks were freed
};
// SxQueryData in the capability's item type; frees the list blocks.
QueriedList QueryList(const CapabilityInfo& cap);

int32_t ReadValue(const CapabilityInfo& cap, Value* value);

// Whether the library lists `value` as admissible for the capability; when
// not, prints which values it admits, naming the capability and the value.
// Capabilities whose listing acts on the scanner are not asked.
bool CheckAdmissible(const CapabilityInfo& cap, const Value& value);
int32_t WriteValue(const CapabilityInfo& cap, const Value& value);

// One element of a tone setting (Capabilities.h), CAP_FILTER restored after.
// ReadValue and WriteValue address the whole image's element of a tone
// setting; in a grey or line-art scan taken from one colour, that colour's
// element, which alone shapes such an image.
int32_t ReadElement(const CapabilityInfo& cap, int element, Value* value);
int32_t WriteElement(const CapabilityInfo& cap, int element, const Value& value);

// Unlocks a locked global block until its lock count is zero and frees it.
void ReleaseLockedBlock(void* address);

}  // namespace sx::host
