#include "Session.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "Commands.h"
#include "sxsys.h"

namespace sx::host {
namespace {
// More entries than any tree holds: a bound on the walk, should the list
// never report its end.
constexpr int kMaxSources = 4096;
// Unlock calls before giving up on a block whose count never drops.
constexpr int kMaxUnlocks = 1 << 16;
}  // namespace

std::vector<SxDataSource> ListSources(int32_t* result) {
  std::vector<SxDataSource> sources;
  SxDataSource entry{};
  *result = SxGetDS(SX_DS_FIRST, &entry);
  if (*result != SX_OK) return sources;
  do {
    sources.push_back(entry);
    std::memset(&entry, 0, sizeof entry);
  } while (sources.size() < kMaxSources && SxGetDS(SX_DS_NEXT, &entry) == SX_OK);
  return sources;
}

bool OpenStoredSource() {
  int32_t result = SxLoad(nullptr);
  if (result == SX_OK) return true;
  std::string problem;
  if (result == SX_ERR_NO_SOURCE && RegistryStoreProblem(&problem))
    std::fprintf(stderr, "sxscan: no data source could be read from the store: %s\n", problem.c_str());
  else if (result == SX_ERR_NO_SOURCE)
    std::fprintf(stderr,
                 "sxscan: no data source is selected, or the selected one is not installed\n"
                 "        list them with 'sxscan sources' and choose one with 'sxscan select NAME'\n");
  else
    std::fprintf(stderr, "sxscan: cannot open the data source: %s (%d)\n", ResultText(result).c_str(),
                 result);
  return false;
}

bool CurrentSource(SxDataSource* source) {
  std::memset(source, 0, sizeof *source);
  // Any message other than first/next delivers the entry at the cursor.
  return SxGetDS(0, source) == SX_OK;
}

void ReleaseLockedBlock(void* address) {
  if (!address) return;
  SxHandle handle = SxSysGlobalHandle(address);
  if (!handle) return;
  for (int i = 0; i < kMaxUnlocks && SxSysGlobalUnlock(handle) != 0; ++i) {
  }
  SxSysGlobalFree(handle);
}

QueriedList QueryList(const CapabilityInfo& cap) {
  QueriedList out;
  SxValueList* list = nullptr;
  SxQueryData(cap.code, cap.itemType, &list);
  SxHandle listHandle = list ? SxSysGlobalHandle(list) : nullptr;
  if (!listHandle) return out;
  if (SxSysGlobalSize(listHandle) < sizeof(SxValueList)) {
    ReleaseLockedBlock(list);
    return out;
  }
  out.made = true;
  out.count = list->Count;
  void* items = list->Items;
  // Never read past the items block, whatever the count says.
  SxHandle itemsHandle = items ? SxSysGlobalHandle(items) : nullptr;
  size_t size = itemsHandle ? SxSysGlobalSize(itemsHandle) : 0;
  const auto* bytes = static_cast<const uint8_t*>(items);
  if (size) out.items.assign(bytes, bytes + size);
  ReleaseLockedBlock(items);
  ReleaseLockedBlock(list);
  return out;
}

int32_t ReadValue(const CapabilityInfo& cap, Value* value) {
  *value = Value{};
  value->type = cap.getType;
  return SxGetValue(cap.code, cap.getType, value->bytes.data());
}

int32_t WriteValue(const CapabilityInfo& cap, const Value& value) {
  Value copy = value;  // the library takes a writable address
  return SxSetValue(cap.code, copy.type, copy.bytes.data());
}

bool CheckAdmissible(const CapabilityInfo& cap, const Value& value) {
  if (cap.flags & kCapQueryActs) return true;
  const QueriedList list = QueryList(cap);
  if (!list.made || Admissible(cap, value, list.count, list.items.data(), list.items.size())) return true;
  std::fprintf(stderr, "sxscan: %s cannot be %s; the scanner takes %s\n", cap.name,
               FormatValue(value.type, value.bytes.data()).c_str(),
               DescribeList(cap, list.count, list.items.data(), list.items.size()).c_str());
  return false;
}

}  // namespace sx::host
