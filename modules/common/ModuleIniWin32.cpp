// The module's own folder on Windows: the module that holds this code, found
// from one of its addresses, and its file name.
#include <windows.h>

#include "modules/common/ModuleIni.h"

namespace sx::modini {

std::string ModuleFolder() {
  HMODULE self = nullptr;
  // No reference is taken: the folder is asked for from inside the module,
  // which stays loaded for the call.
  const DWORD flags = GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
  if (!GetModuleHandleExA(flags, reinterpret_cast<LPCSTR>(&ModuleFolder), &self)) return ".";
  char path[MAX_PATH];
  const DWORD length = GetModuleFileNameA(self, path, sizeof path);
  // A name cut to the buffer has no usable folder.
  if (length == 0 || length >= sizeof path) return ".";
  const std::string name(path, length);
  const size_t separator = name.find_last_of("\\/");
  // Callers add "/" and a name, so a module at a drive's root gives "C:".
  return separator == std::string::npos ? "." : name.substr(0, separator);
}

// "C:\x", "C:/x", "\x", "\\server\share\x": a drive or a root. ("C:x" is
// relative to the drive's current folder, which a module cannot rely on.)
bool IsAbsolutePath(std::string_view path) {
  if (!path.empty() && (path.front() == '\\' || path.front() == '/')) return true;
  return path.size() >= 3 && path[1] == ':' && (path[2] == '\\' || path[2] == '/');
}

}  // namespace sx::modini
