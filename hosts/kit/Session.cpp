#include "kit/Session.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "kit/LibraryCalls.h"
// The store checks, shared with the doctor, which defines them.
#include "kit/StoreChecks.h"
#include "sxsys.h"

namespace sx::host {
namespace {
// More entries than any tree holds: a bound on the walk, should the list
// never report its end.
constexpr int kMaxSources = 4096;
}  // namespace

const LibraryCalls& LinkedLibrary() {
  // Not a constant: an imported function's address is known once loaded.
  static const LibraryCalls calls = {SxAcquire,       SxSysGlobalAlloc, SxSysGlobalLock,  SxSysGlobalUnlock,
                                     SxSysGlobalFree, SxSysGlobalSize,  SxSysGlobalHandle};
  return calls;
}

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

namespace {
// Binds the listed source whose display name is `name`.
bool BindSourceNamed(const std::string& name) {
  int32_t listed = 0;
  for (SxDataSource source : ListSources(&listed)) {
    if (FieldText(source.DisplayName, sizeof source.DisplayName) == name)
      return SxSetDriverById(&source, 0) == SX_OK;
  }
  return false;
}
}  // namespace

bool OpenStoredSource() {
  int32_t result = SxLoad(nullptr);
  if (result == SX_OK) return true;
  // A store that cannot be written is set aside by the library, choice and
  // all; the choice in it is still the person's, so it is used.
  if (std::string stored; result == SX_ERR_NO_SOURCE && UnwritableStoreChoice(&stored)) {
    if (BindSourceNamed(stored)) {
      std::fprintf(stderr, "sxscan: the registry store cannot be written ('sxscan doctor' says why); using the "
                           "source chosen in it, %s\n", stored.c_str());
      return true;
    }
  }
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

bool OpenSourceForScan() {
  const int32_t loaded = SxLoad(nullptr);
  if (loaded == SX_OK) return true;
  int32_t result = 0;
  std::vector<SxDataSource> sources;
  if (loaded == SX_ERR_NO_SOURCE) sources = ListSources(&result);
  std::string problem;
  if (sources.size() == 1 && !RegistryStoreProblem(&problem)) {
    SxDataSource only = sources[0];
    if (SxSetDriverById(&only, 0) == SX_OK) {
      std::fprintf(stderr, "sxscan: no source was chosen; using the only one installed, %s (now the chosen one)\n",
                   FieldText(only.DisplayName, sizeof only.DisplayName).c_str());
      return true;
    }
  }
  return OpenStoredSource();  // says why not, and what to do
}

QueriedList QueryList(const CapabilityInfo& cap) {
  QueriedList out;
  SxValueList* list = nullptr;
  SxQueryData(cap.code, cap.itemType, &list);
  SxHandle listHandle = list ? SxSysGlobalHandle(list) : nullptr;
  if (!listHandle) return out;
  if (SxSysGlobalSize(listHandle) < sizeof(SxValueList)) {
    ReleaseLockedBlock(LinkedLibrary(), list);
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
  ReleaseLockedBlock(LinkedLibrary(), items);
  ReleaseLockedBlock(LinkedLibrary(), list);
  return out;
}

namespace {

int32_t ReadRaw(const CapabilityInfo& cap, Value* value) {
  *value = Value{};
  value->type = cap.getType;
  return SxGetValue(cap.code, cap.getType, value->bytes.data());
}

int32_t WriteRaw(const CapabilityInfo& cap, const Value& value) {
  Value copy = value;  // the library takes a writable address
  return SxSetValue(cap.code, copy.type, copy.bytes.data());
}

// A one-byte setting, or `fallback` when it cannot be read.
uint8_t ReadByte(uint16_t code, uint8_t fallback = 0) {
  uint8_t bytes[4] = {};
  return SxGetValue(code, TY_UINT8, bytes) == SX_OK ? bytes[0] : fallback;
}

int32_t WriteByte(uint16_t code, uint8_t v) {
  uint8_t bytes[4] = {v};
  return SxSetValue(code, TY_UINT8, bytes);
}

// The element that shapes the image: grey and line art taken from one colour
// use that colour's element alone.
int ImageElement() {
  constexpr uint8_t kColourPixels = 2;
  const uint8_t filter = ReadByte(CAP_FILTER);
  return ReadByte(CAP_PIXELTYPE) < kColourPixels && filter >= 1 && filter <= kColourElements ? filter : kWholeImage;
}

// Runs `access` with CAP_FILTER choosing `element`, then restores the filter.
template <typename Access>
int32_t WithElement(int element, Access access) {
  if (element < kWholeImage || element > kColourElements) return SX_ERR_UNSUPPORTED;
  const uint8_t filter = ReadByte(CAP_FILTER);
  int32_t result = WriteByte(CAP_FILTER, static_cast<uint8_t>(element));
  if (result == SX_OK) result = access();
  const int32_t restored = WriteByte(CAP_FILTER, filter);
  return result != SX_OK ? result : restored;
}

// The list's items as numbers: 32-bit integers or reals, as the capability
// table asks them.
template <typename T>
std::vector<T> ListedNumbers(uint16_t code) {
  for (const auto& cap : AllCapabilities()) {
    if (cap.code != code || ValueTypeBytes(cap.itemType) != 4) continue;
    QueriedList list = QueryList(cap);
    size_t n = list.count > 0 ? std::min<size_t>(list.count, list.items.size() / 4) : 0;
    std::vector<T> out(n);
    for (size_t i = 0; i < n; ++i) {
      if (cap.itemType == TY_FLOAT32) {
        float v;
        std::memcpy(&v, &list.items[i * 4], 4);
        out[i] = static_cast<T>(v);
      } else {
        int32_t v;
        std::memcpy(&v, &list.items[i * 4], 4);
        out[i] = static_cast<T>(v);
      }
    }
    return out;
  }
  return {};
}

}  // namespace

SourceFacts ReadSourceFacts() {
  SourceFacts facts;
  facts.sources = ListedNumbers<int>(CAP_SCANTYPE);
  facts.maxWidths = ListedNumbers<float>(CAP_MAXWIDTHS);
  facts.maxLengths = ListedNumbers<float>(CAP_MAXLENGTHS);
  facts.units = ReadByte(CAP_UNITS, static_cast<uint8_t>(facts.units));
  facts.feederLoaded = ReadByte(CAP_FEEDERLOADED) != 0;
  return facts;
}

int32_t ReadElement(const CapabilityInfo& cap, int element, Value* value) {
  return WithElement(element, [&] { return ReadRaw(cap, value); });
}

int32_t WriteElement(const CapabilityInfo& cap, int element, const Value& value) {
  return WithElement(element, [&] { return WriteRaw(cap, value); });
}

int32_t ReadValue(const CapabilityInfo& cap, Value* value) {
  if (IsToneCapability(cap.code)) return ReadElement(cap, kWholeImage, value);
  return ReadRaw(cap, value);
}

int32_t WriteValue(const CapabilityInfo& cap, const Value& value) {
  if (IsToneCapability(cap.code)) return WriteElement(cap, kWholeImage, value);
  return WriteRaw(cap, value);
}

int32_t ReadSetting(const NamedSetting& setting, Value* value) {
  if (setting.element == kNoElement) return ReadValue(*setting.cap, value);
  return ReadElement(*setting.cap, setting.element, value);
}

int32_t WriteSetting(const NamedSetting& setting, const Value& value) {
  if (setting.element == kNoElement) return WriteValue(*setting.cap, value);
  return WriteElement(*setting.cap, setting.element, value);
}

std::string Inadmissible(const CapabilityInfo& cap, const Value& value) {
  if (cap.flags & kCapQueryActs) return {};
  const QueriedList list = QueryList(cap);
  if (!list.made || Admissible(cap, value, list.count, list.items.data(), list.items.size())) return {};
  return std::string(cap.name) + " cannot be " + FormatValue(value.type, value.bytes.data()) + "; the scanner takes " +
         DescribeList(cap, list.count, list.items.data(), list.items.size());
}

bool CheckAdmissible(const CapabilityInfo& cap, const Value& value) {
  const std::string refusal = Inadmissible(cap, value);
  if (!refusal.empty()) std::fprintf(stderr, "sxscan: %s\n", refusal.c_str());
  return refusal.empty();
}

namespace {

// The whole-image tone values given, for the element that shapes a grey or
// line-art image taken from one colour: a later value of that colour's own
// wins.
std::vector<SettingChange> WholeImageTones(const std::vector<SettingChange>& changes, int element) {
  std::vector<SettingChange> out;
  for (const auto& change : changes) {
    if (!IsToneCapability(change.cap->code) || (change.element != kNoElement && change.element != element)) continue;
    std::erase_if(out, [&](const SettingChange& given) { return given.cap == change.cap; });
    if (change.element == kNoElement) out.push_back({change.cap, change.value, element});
  }
  return out;
}

SettingsOutcome Write(const std::vector<SettingChange>& changes, std::string* why) {
  for (const auto& change : changes) {
    const int32_t result = WriteSetting({change.cap, change.element}, change.value);
    if (result != SX_OK) {
      *why = "cannot set " + SettingName({change.cap, change.element}) + ": " + ResultText(result) + " (" +
             std::to_string(result) + ")";
      return SettingsOutcome::Failed;
    }
  }
  return SettingsOutcome::Applied;
}

}  // namespace

SettingsOutcome ApplySettings(const std::vector<SettingChange>& changes, std::string* why) {
  for (const auto& change : changes) {
    *why = Inadmissible(*change.cap, change.value);
    if (!why->empty()) return SettingsOutcome::Refused;
  }
  const SettingsOutcome written = Write(changes, why);
  if (written != SettingsOutcome::Applied) return written;
  const int image = ImageElement();
  return image == kWholeImage ? written : Write(WholeImageTones(changes, image), why);
}

}  // namespace sx::host
