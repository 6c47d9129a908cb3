// The registry store on Windows: the system's own registry, under
// HKEY_CURRENT_USER\Software\Quillmark. It is never damaged as a text store
// can be; what keeps a choice from it is a key the user may not write, whose
// values then go to the library's fall-back profile unseen.
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include "kit/StoreChecks.h"

namespace sx::host {

namespace {

constexpr char kKey[] = "Software\\Quillmark";
constexpr char kShownKey[] = "HKEY_CURRENT_USER\\Software\\Quillmark";
constexpr char kFallbackFile[] = "c:\\temp\\scandiag.ini";

}  // namespace

StoreBlock StoreWriteBlock() {
  HKEY key = nullptr;
  const LONG opened = RegOpenKeyExA(HKEY_CURRENT_USER, kKey, 0, KEY_SET_VALUE, &key);
  if (opened == ERROR_SUCCESS) RegCloseKey(key);
  // A missing key is made by the first write.
  if (opened == ERROR_SUCCESS || opened == ERROR_FILE_NOT_FOUND) return {};
  return {"error " + std::to_string(opened), "give the user write access to the key"};
}

bool RegistryStoreProblem(std::string* message) {
  const StoreBlock block = StoreWriteBlock();
  if (block.Cause.empty()) return false;
  *message = std::string("the registry key ") + kShownKey + " cannot be written (" + block.Cause +
             "): the chosen source would go to " + kFallbackFile + " instead";
  return true;
}

// The registry of the system serves every read and write: no store of its
// own is ever set aside.
bool UnwritableStoreChoice(std::string*) { return false; }

}  // namespace sx::host
