// Design note: as a separate host program this backend uses POSIX itself
// (dlopen, and a pipe for the select descriptor in Transfer).
#include "Library.h"

#include <dlfcn.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace sxsane {

Api g_api;

namespace {

constexpr size_t kMostSources = 4096;
constexpr int kMaxUnlocks = 1 << 16;
constexpr int32_t kFlatbedScanType = 2;

template <typename F>
bool Bind(F* slot, const char* name) {
  *slot = reinterpret_cast<F>(dlsym(g_api.handle, name));
  return *slot != nullptr;
}

std::vector<std::string> ConfigDirs() {
  std::vector<std::string> dirs;
  const char* env = std::getenv("SANE_CONFIG_DIR");
  std::string list = env ? env : "";
  bool defaults = list.empty() || list.back() == ':';
  std::stringstream ss(list);
  for (std::string d; std::getline(ss, d, ':');)
    if (!d.empty()) dirs.push_back(d);
  if (defaults) dirs.push_back("/etc/sane.d");
  return dirs;
}

// sxscan.conf: "root PATH" and "library PATH" lines, '#' comments.
void ReadConfig(std::string* root, std::string* library) {
  for (const auto& dir : ConfigDirs()) {
    std::ifstream in(dir + "/sxscan.conf");
    if (!in) continue;
    for (std::string line; std::getline(in, line);) {
      std::stringstream words(line);
      std::string key, value;
      words >> key;
      std::getline(words >> std::ws, value);
      while (!value.empty() && std::isspace(static_cast<unsigned char>(value.back()))) value.pop_back();
      if (key == "root") *root = value;
      if (key == "library") *library = value;
    }
    return;
  }
}

std::string OwnFolder() {
  Dl_info info{};
  if (!dladdr(reinterpret_cast<void*>(&ConfigDirs), &info) || !info.dli_fname) return "";
  std::string path = info.dli_fname;
  auto slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash + 1);
}

void ReleaseBlock(void* address) {
  void* h = address ? g_api.acquire.globalHandle(address) : nullptr;
  if (!h) return;
  for (int i = 0; i < kMaxUnlocks && g_api.acquire.globalUnlock(h) != 0; ++i) {
  }
  g_api.acquire.globalFree(h);
}

// SxQueryData as 4-byte items (integers or reals): the count and as many
// items as the block holds; both blocks are the host's to free.
template <typename T>
ValueList<T> Query(uint32_t cap, uint32_t type) {
  ValueList<T> out;
  SxValueList* list = nullptr;
  g_api.query(cap, type, &list);
  if (!list) return out;
  out.count = list->Count;
  void* items = list->Items;
  void* h = items ? g_api.acquire.globalHandle(items) : nullptr;
  const size_t n = h ? g_api.acquire.globalSize(h) / sizeof(T) : 0;
  const T* p = static_cast<const T*>(items);
  if (n > 0) out.items.assign(p, p + n);
  ReleaseBlock(items);
  ReleaseBlock(list);
  return out;
}

}  // namespace

bool LoadLibrary() {
  std::string root, library;
  ReadConfig(&root, &library);
  if (!root.empty()) setenv("SX_ROOT", root.c_str(), 1);
  std::vector<std::string> candidates;
  if (!library.empty()) candidates.push_back(library);
  candidates.push_back(OwnFolder() + "libsxscan.so");
  // Installed, the backend lies in the sane folder of the library's folder.
  candidates.push_back(OwnFolder() + "../libsxscan.so.1");
  candidates.push_back("libsxscan.so.1");
  candidates.push_back("libsxscan.so");
  for (const auto& c : candidates)
    if ((g_api.handle = dlopen(c.c_str(), RTLD_NOW | RTLD_LOCAL))) break;
  if (!g_api.handle) return false;
  auto& a = g_api.acquire;
  return Bind(&g_api.load, "SxLoad") && Bind(&g_api.free, "SxFree") && Bind(&g_api.getDS, "SxGetDS") &&
         Bind(&g_api.setDriver, "SxSetDriverById") && Bind(&g_api.setValue, "SxSetValue") &&
         Bind(&g_api.getValue, "SxGetValue") && Bind(&g_api.query, "SxQueryData") &&
         Bind(&a.acquire, "SxAcquire") && Bind(&a.globalHandle, "SxSysGlobalHandle") &&
         Bind(&a.globalSize, "SxSysGlobalSize") && Bind(&a.globalAlloc, "SxSysGlobalAlloc") &&
         Bind(&a.globalLock, "SxSysGlobalLock") && Bind(&a.globalUnlock, "SxSysGlobalUnlock") &&
         Bind(&a.globalFree, "SxSysGlobalFree");
}

void UnloadLibrary() {
  if (g_api.handle) {
    if (g_api.free) g_api.free();
    dlclose(g_api.handle);
  }
  g_api = Api{};
}

std::string Field(const char* f, size_t n) { return std::string(f, strnlen(f, n)); }

// The model in a display name: the port, " - ", the model padded with blanks
// to its field, then the firmware.
std::string ModelOf(const SxDataSource& source) {
  constexpr size_t kModelField = 20;
  const std::string display = Field(source.DisplayName, sizeof source.DisplayName);
  const size_t dash = display.find(" - ");
  std::string model = dash == std::string::npos ? display : display.substr(dash + 3, kModelField);
  while (!model.empty() && model.back() == ' ') model.pop_back();
  return model;
}

std::string DeviceName(const std::vector<SxDataSource>& sources, size_t i) {
  const std::string model = ModelOf(sources[i]);
  const auto same = std::count_if(sources.begin(), sources.end(),
                                  [&](const SxDataSource& other) { return ModelOf(other) == model; });
  if (same == 1 && !model.empty()) return model;
  return Field(sources[i].Directory, sizeof sources[i].Directory) +
         Field(sources[i].FileName, sizeof sources[i].FileName);
}

std::vector<SxDataSource> ListSources() {
  std::vector<SxDataSource> out;
  SxDataSource e{};
  if (g_api.getDS(SX_DS_FIRST, &e) != SX_OK) return out;
  do {
    out.push_back(e);
    std::memset(&e, 0, sizeof e);
  } while (out.size() < kMostSources && g_api.getDS(SX_DS_NEXT, &e) == SX_OK);
  return out;
}

// The library is freed and mapped afresh first: the choice takes effect at
// once, and the worker threads of buffered transfers, which the library
// makes when it is mapped and ends with SxFree, are there again.
int32_t BindSource(const SxDataSource& wanted) {
  UnloadLibrary();
  if (!LoadLibrary()) return SX_ERR_DRIVER;
  ListSources();  // builds the list SxSetDriverById looks in
  SxDataSource copy = wanted;
  return g_api.setDriver(&copy, 0);
}

bool HasFlatbed() {
  const auto types = Listed(LoadedSettings().Integers(CAP_SCANTYPE));
  return std::find(types.begin(), types.end(), kFlatbedScanType) != types.end();
}

int32_t LoadedSettings::Get(uint32_t cap, uint32_t type, void* value) { return g_api.getValue(cap, type, value); }
int32_t LoadedSettings::Set(uint32_t cap, uint32_t type, void* value) { return g_api.setValue(cap, type, value); }
ValueList<int32_t> LoadedSettings::Integers(uint32_t cap) { return Query<int32_t>(cap, TY_INT32); }
ValueList<float> LoadedSettings::Reals(uint32_t cap) { return Query<float>(cap, TY_FLOAT32); }

}  // namespace sxsane
