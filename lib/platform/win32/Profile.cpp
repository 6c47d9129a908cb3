// Profile (INI) files on Windows go through the system's own profile
// functions, which define the semantics the Linux implementation imitates.
#include "platform/Profile.h"
#include "platform/win32/Win32.h"

namespace sx::plat {

uint32_t ProfileGetString(const char* section, const char* key, const char* def, char* out,
                          uint32_t size, const std::string& file) {
  if (!out || size == 0) return 0;
  return ::GetPrivateProfileStringA(section, key, def ? def : "", out, size, file.c_str());
}

int32_t ProfileGetInt(const char* section, const char* key, int32_t def, const std::string& file) {
  if (!section || !key) return def;
  return static_cast<int32_t>(::GetPrivateProfileIntA(section, key, def, file.c_str()));
}

bool ProfileWriteString(const char* section, const char* key, const char* value,
                        const std::string& file) {
  if (!section) return false;
  return ::WritePrivateProfileStringA(section, key, value, file.c_str()) != 0;
}

}  // namespace sx::plat
