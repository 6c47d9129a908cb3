// libsxscan.so as the backend uses it: found through sxscan.conf, mapped with
// dlopen after the system tree is named (so that the library's attach
// already works in that tree), its exports looked up; the data sources it
// lists, and the settings calls the option model makes. The library is
// process-wide: one device is open at a time.
#pragma once
#include <string>
#include <vector>

#include "Options.h"
#include "Transfer.h"
#include "sxscan.h"

namespace sxsane {

struct Api {
  void* handle = nullptr;
  decltype(&SxLoad) load = nullptr;
  decltype(&SxFree) free = nullptr;
  decltype(&SxGetDS) getDS = nullptr;
  decltype(&SxSetDriverById) setDriver = nullptr;
  decltype(&SxSetValue) setValue = nullptr;
  decltype(&SxGetValue) getValue = nullptr;
  decltype(&SxQueryData) query = nullptr;
  AcquireApi acquire;
};
extern Api g_api;

bool LoadLibrary();
void UnloadLibrary();

std::vector<SxDataSource> ListSources();
// The name a person types after "sxscan:": the model, or where two sources
// share it, the driver module's file. Both stay the same from run to run.
std::string DeviceName(const std::vector<SxDataSource>& sources, size_t i);
std::string ModelOf(const SxDataSource& source);
std::string Field(const char* field, size_t size);
// Binds the named source, the library mapped afresh.
int32_t BindSource(const SxDataSource& wanted);
bool HasFlatbed();

// The option model's calls, to the loaded library.
class LoadedSettings : public LibrarySettings {
 public:
  int32_t Get(uint32_t cap, uint32_t type, void* value) override;
  int32_t Set(uint32_t cap, uint32_t type, void* value) override;
  ValueList<int32_t> Integers(uint32_t cap) override;
  ValueList<float> Reals(uint32_t cap) override;
};

}  // namespace sxsane
