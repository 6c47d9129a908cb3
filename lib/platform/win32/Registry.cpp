// The registry of the current user is the system's own on Windows: keys
// under HKEY_CURRENT_USER, opened for each query and change, so that another
// process's (or a person's) change is seen at the next read.
#include <string>

#include "platform/Registry.h"
#include "platform/text/Text.h"
#include "platform/win32/Win32.h"

namespace sx::plat {

namespace {

constexpr int32_t kRegErrorInvalidParameter = 87;  // ERROR_INVALID_PARAMETER
constexpr std::string_view kUserPrefix = "HKEY_CURRENT_USER\\";

// The key below HKEY_CURRENT_USER: the store's names may carry the root's
// name and surrounding separators.
std::string SubKey(std::string_view key) {
  if (StartsNoCase(key, kUserPrefix)) key.remove_prefix(kUserPrefix.size());
  while (!key.empty() && key.front() == '\\') key.remove_prefix(1);
  while (!key.empty() && key.back() == '\\') key.remove_suffix(1);
  return std::string(key);
}

bool HasNul(std::string_view text) { return text.find('\0') != std::string_view::npos; }

class Key {
 public:
  ~Key() {
    if (key_) ::RegCloseKey(key_);
  }
  LONG Open(const std::string& path) {
    return ::RegOpenKeyExA(HKEY_CURRENT_USER, path.c_str(), 0, KEY_QUERY_VALUE, &key_);
  }
  LONG Create(const std::string& path) {
    return ::RegCreateKeyExA(HKEY_CURRENT_USER, path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                             KEY_SET_VALUE, nullptr, &key_, nullptr);
  }
  HKEY Handle() const { return key_; }

 private:
  HKEY key_ = nullptr;
};

}  // namespace

int32_t RegistryQuery(std::string_view key, std::string_view name, uint32_t* type, void* data,
                      uint32_t* size) {
  if (data && !size) return kRegErrorInvalidParameter;
  if (HasNul(key) || HasNul(name)) return kRegErrorNotFound;
  Key opened;
  if (LONG err = opened.Open(SubKey(key)); err != ERROR_SUCCESS) return static_cast<int32_t>(err);
  const std::string valueName(name);
  DWORD storedType = 0;
  DWORD room = size ? *size : 0;
  const LONG err = ::RegQueryValueExA(opened.Handle(), valueName.c_str(), nullptr, &storedType,
                                      static_cast<BYTE*>(data), size ? &room : nullptr);
  if (err == ERROR_SUCCESS || err == ERROR_MORE_DATA) {
    if (type) *type = storedType;
    if (size) *size = room;
  }
  return static_cast<int32_t>(err);
}

int32_t RegistrySet(std::string_view key, std::string_view name, uint32_t type, const void* data,
                    uint32_t size) {
  if (HasNul(key) || HasNul(name) || (!data && size)) return kRegErrorInvalidParameter;
  Key created;
  if (LONG err = created.Create(SubKey(key)); err != ERROR_SUCCESS) return static_cast<int32_t>(err);
  const std::string valueName(name);
  return static_cast<int32_t>(::RegSetValueExA(created.Handle(), valueName.c_str(), 0, type,
                                               static_cast<const BYTE*>(data), size));
}

int32_t RegistryCreateKey(std::string_view key) {
  if (HasNul(key)) return kRegErrorInvalidParameter;
  Key created;
  return static_cast<int32_t>(created.Create(SubKey(key)));
}

// The system's registry has no text to damage.
uint32_t RegistryIgnoredLines() { return 0; }

}  // namespace sx::plat
