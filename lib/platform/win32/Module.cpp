// Modules on Windows are the system's DLLs: loaded with LoadLibraryEx so that
// a maker's driver finds the DLLs it depends on in its own folder, and their
// version records are the VS_VERSIONINFO resources the system reads without
// running the module.
#include <cstring>

#include "platform/Module.h"
#include "platform/Paths.h"
#include "platform/win32/Win32.h"

namespace sx::plat {

namespace {

bool HasSeparator(const std::string& path) {
  return path.find_first_of("\\/:") != std::string::npos;
}

// A damaged or foreign file must give a failed load, never a system message
// box waiting for a user who is not there.
class QuietErrors {
 public:
  QuietErrors() { ::SetThreadErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX, &old_); }
  ~QuietErrors() { ::SetThreadErrorMode(old_, nullptr); }
  QuietErrors(const QuietErrors&) = delete;
  QuietErrors& operator=(const QuietErrors&) = delete;

 private:
  DWORD old_ = 0;
};

bool IsStringQuery(const char* query) {
  return std::strncmp(query, "\\StringFileInfo", 15) == 0 ||
         _strnicmp(query, "\\StringFileInfo", 15) == 0;
}

}  // namespace

ModuleHandle LoadModule(const std::string& pathOrName) {
  if (pathOrName.empty()) return nullptr;
  std::string path = pathOrName;
  if (!HasSeparator(pathOrName)) {
    // A bare name is looked for where the library keeps its modules, not
    // along the loader's search path (the current directory among others).
    path = SystemDirectory() + SX_PATH_SEP + pathOrName;
    if (!FileExists(path)) path = LibraryDirectory() + SX_PATH_SEP + pathOrName;
    if (!FileExists(path)) return nullptr;
  }
  QuietErrors quiet;
  return ::LoadLibraryExA(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
}

void* ModuleSymbol(ModuleHandle module, const char* name) {
  if (!module || !name) return nullptr;
  return reinterpret_cast<void*>(::GetProcAddress(static_cast<HMODULE>(module), name));
}

void FreeModule(ModuleHandle module) {
  if (module) ::FreeLibrary(static_cast<HMODULE>(module));
}

uint32_t FileVersionInfoSize(const std::string& path) {
  DWORD ignored = 0;
  QuietErrors quiet;
  return ::GetFileVersionInfoSizeA(path.c_str(), &ignored);
}

bool FileVersionInfo(const std::string& path, uint32_t size, void* block) {
  if (!block || size == 0) return false;
  QuietErrors quiet;
  return ::GetFileVersionInfoA(path.c_str(), 0, size, block) != 0;
}

bool VersionQueryValue(const void* block, const char* query, const void** value,
                       uint32_t* length) {
  if (!block || !query || !value || !length) return false;
  void* found = nullptr;
  UINT size = 0;
  if (!::VerQueryValueA(block, query, &found, &size) || !found) return false;
  *value = found;
  // Text values count their characters with the terminator, whatever the
  // system reports for the converted text.
  *length = IsStringQuery(query) ? static_cast<uint32_t>(std::strlen(static_cast<const char*>(found)) + 1)
                                 : size;
  return true;
}

}  // namespace sx::plat
