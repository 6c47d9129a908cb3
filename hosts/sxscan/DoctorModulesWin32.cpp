// Modules as the doctor finds them on Windows: the system's DLLs, opened
// with LoadLibrary, and their VS_VERSIONINFO resources read by the system's
// version functions, as the library reads them.
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include "sxscan/DoctorReport.h"

namespace sx::host::doctor {

namespace {

constexpr char kLibraryFile[] = "sxscan.dll";

}  // namespace

// The system's loader names what it cannot load; nothing is read ahead.
std::string ModuleFileFault(const fs::path&) { return {}; }

std::string VersionBlockOf(const fs::path& file) {
  DWORD ignored = 0;
  const std::string path = file.string();
  const DWORD size = GetFileVersionInfoSizeA(path.c_str(), &ignored);
  if (size == 0) return {};
  std::string block(size, '\0');
  return GetFileVersionInfoA(path.c_str(), 0, size, block.data()) ? block : std::string();
}

bool QueryVersion(const std::string& block, const char* query, const void** value, uint32_t* length) {
  void* found = nullptr;
  UINT size = 0;
  if (block.empty() || !VerQueryValueA(block.data(), query, &found, &size) || !found) return false;
  *value = found;
  *length = size;
  return true;
}

void* OpenModule(const fs::path& file, std::string& error) {
  HMODULE module = LoadLibraryA(file.string().c_str());
  if (!module) error = "error " + std::to_string(GetLastError());
  return reinterpret_cast<void*>(module);
}

void* ModuleEntry(void* module, const char* name) {
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(module), name));
}

void CloseModule(void* module) { FreeLibrary(static_cast<HMODULE>(module)); }

fs::path LibraryFolder() {
  char path[MAX_PATH];
  const DWORD length = GetModuleFileNameA(GetModuleHandleA(kLibraryFile), path, sizeof path);
  if (length == 0 || length >= sizeof path) return {};
  return fs::path(std::string(path, length)).parent_path();
}

// The Windows directory cannot be moved for one search.
Alone DiscoverAlone(const fs::path&, const fs::path&, SxDataSource*) { return Alone::CannotTell; }

}  // namespace sx::host::doctor
