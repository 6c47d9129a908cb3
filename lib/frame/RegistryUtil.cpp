// The library's persistent values: registry of the current user first, the
// profile file "<temp>/scandiag.ini" while the registry refuses writes.
#include "frame/RegistryUtil.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "platform/Paths.h"
#include "platform/Profile.h"
#include "platform/Registry.h"
#include "platform/System.h"

namespace sx {

std::atomic<uint32_t> gTraceLevel{0};

namespace {

constexpr char kFallbackSection[] = "Options";
constexpr char kFallbackFileName[] = SX_PATH_SEP "scandiag.ini";
constexpr char kDebugLevelName[] = "DEBUGLEVEL";
constexpr char kLanguageName[] = "LANGUAGE";
// The fall-back path and a text read from the fall-back file both live in
// 60-byte fields.
constexpr uint32_t kFallbackTextSize = 60;

// Thread contract: the flag and the path are written only by WriteRegValue on
// the host's thread; ReadRegValue (through TraceLog) reads them from the
// worker threads too. The path is published before the flag (release), and a
// path that is already right is never rewritten, so a reader that sees the
// flag set also sees a stable path.
std::atomic<int32_t> gFallbackFlag{0};
char gFallbackPath[kFallbackTextSize] = {};

// Composes "<temp>/scandiag.ini" into the 60-byte field. Design note: a root
// so long that the name does not fit leaves the field empty; the fall-back
// file is then unusable (writes to it are lost, reads give the defaults)
// rather than a cut name pointing somewhere unintended.
void SetFallbackPath(const std::string& tempDir) {
  std::string path = tempDir + kFallbackFileName;
  if (path.size() >= kFallbackTextSize) path.clear();
  if (path == gFallbackPath) return;
  std::memset(gFallbackPath, 0, sizeof gFallbackPath);
  std::memcpy(gFallbackPath, path.data(), path.size());
}

// The data of a write as profile text. Text stops at the first NUL or after
// `size` bytes (the library writes "Ok" with two bytes and no terminator).
// Design note: a number (kind 0) is written as its unsigned decimal, so that
// a later number read from the file gives it back.
std::string FallbackText(const void* data, uint32_t kind, uint32_t size) {
  if (!data || size == 0) return {};
  if (kind == kKindNumber) {
    uint32_t number = 0;
    std::memcpy(&number, data, size < sizeof number ? size : sizeof number);
    return std::to_string(number);
  }
  const char* text = static_cast<const char*>(data);
  return std::string(text, strnlen(text, size));
}

void ReadFallback(const char* valueName, void* buffer, uint32_t kind, uint32_t size) {
  if (!buffer || size == 0) return;
  const std::string file = gFallbackPath;
  if (kind == kKindNumber) {
    int32_t number = file.empty() ? 0 : plat::ProfileGetInt(kFallbackSection, valueName, 0, file);
    std::memcpy(buffer, &number, size < sizeof number ? size : sizeof number);
    return;
  }
  // Design note: a text missing from the file reads as empty text, which is
  // how every caller treats a missing value. The text never exceeds the
  // caller's buffer, which may be smaller than the 60-byte field.
  uint32_t room = size < kFallbackTextSize ? size : kFallbackTextSize;
  char* out = static_cast<char*>(buffer);
  if (file.empty()) {
    out[0] = '\0';
    return;
  }
  plat::ProfileGetString(kFallbackSection, valueName, "", out, room, file);
}

}  // namespace

int32_t ReadRegValue(const char* keyPath, const char* valueName, void* buffer, uint32_t kind,
                     uint32_t size) {
  kind &= 0xFFu;
  if (buffer && size) std::memset(buffer, 0, size);
  if (!keyPath || !valueName) return plat::kRegErrorNotFound;
  // The key is opened with create semantics; a store that cannot be written
  // still reads, so a failure here does not matter.
  plat::RegistryCreateKey(keyPath);
  uint32_t type = 0;
  uint32_t got = buffer ? size : 0;
  int32_t status = plat::RegistryQuery(keyPath, valueName, &type, buffer, &got);
  if (gFallbackFlag.load(std::memory_order_acquire) == 1) {
    ReadFallback(valueName, buffer, kind, size);
  }
  return status;
}

int32_t WriteRegValue(const char* keyPath, const char* valueName, const void* data, uint32_t kind,
                      uint32_t size) {
  kind &= 0xFFu;
  const uint32_t type = kind == kKindNumber ? plat::kRegDword : plat::kRegExpandSz;
  int32_t status = plat::kRegErrorWrite;
  if (keyPath && valueName && (data || size == 0)) {
    status = plat::RegistrySet(keyPath, valueName, type, data, size);
  }
  if (status != plat::kRegOk && valueName) {
    const std::string tempDir = plat::TempDirectory();
    SetFallbackPath(tempDir);
    gFallbackFlag.store(1, std::memory_order_release);
    plat::MakeDirectory(tempDir);
    if (gFallbackPath[0]) {
      plat::ProfileWriteString(kFallbackSection, valueName,
                               FallbackText(data, kind, size).c_str(), gFallbackPath);
    }
  } else if (status == plat::kRegOk) {
    gFallbackFlag.store(0, std::memory_order_release);
  }
  // The only place the trace level is read: every write refreshes it.
  uint32_t level = 0;
  ReadRegValue(kKeyOptions, kDebugLevelName, &level, kKindNumber, sizeof level);
  gTraceLevel.store(level, std::memory_order_relaxed);
  return gFallbackFlag.load(std::memory_order_relaxed) == 0 ? 1 : 0;
}

void GetLanguageCode(char* out) {
  if (!out) return;
  uint32_t choice = 0;
  // A value that only the fall-back file supplied does not count.
  if (ReadRegValue(kKeyScanData, kLanguageName, &choice, kKindNumber, sizeof choice) != 0) {
    choice = 0;
  }
  static constexpr uint32_t kChoiceIds[] = {0, 0x0409, 0x0404, 0x0804};
  uint32_t id = choice;
  if (choice == 0) {
    id = plat::SystemLanguageId();
  } else if (choice < sizeof kChoiceIds / sizeof kChoiceIds[0]) {
    id = kChoiceIds[choice];
  }
  // At most eight digits and the terminator: the nine bytes callers provide.
  std::snprintf(out, 9, "%04X", id);
}

bool RegistryFallbackActive() { return gFallbackFlag.load(std::memory_order_acquire) == 1; }

const char* RegistryFallbackPath() { return gFallbackPath; }

void ResetRegistryState() {
  gFallbackFlag.store(0, std::memory_order_release);
  std::memset(gFallbackPath, 0, sizeof gFallbackPath);
  gTraceLevel.store(0, std::memory_order_relaxed);
}

}  // namespace sx
