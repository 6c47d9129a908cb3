// Test environment: a temporary SX_ROOT with its own registry store and module
// tree, copies of the virtual scanner with chosen version records and
// behaviour, and libsxscan.so loaded as a host loads it.
#pragma once
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "sxscan.h"
#include "sxsys.h"

namespace sxtest {

namespace fs = std::filesystem;

// The version record every installed vscan copy gets unless told otherwise.
std::string DefaultVersionText(const std::string& fileVersion = "1, 0, 1, 0",
                               const std::string& company = "Corvane Inc.",
                               const std::string& product = "Virtual Scanner");

// A fresh temporary root, set as SX_ROOT for the life of the object (and the
// previous SX_ROOT restored afterwards). Also clears SX_SHIFT_HELD and
// SX_AVAILABLE_MEMORY.
class TempRoot {
 public:
  TempRoot();
  ~TempRoot();
  TempRoot(const TempRoot&) = delete;
  TempRoot& operator=(const TempRoot&) = delete;

  const fs::path& Path() const { return root_; }
  fs::path Twain() const { return root_ / "windows" / "twain_32"; }
  // Writes <root>/user.reg with the given text.
  void WriteRegistry(const std::string& text) const;
  std::string ReadRegistry() const;
  // Installs a copy of vscan.dll as <twain_32>/<relDir>/<fileName> with the
  // given version record (empty: none) and vscan.ini (empty: none) beside it.
  fs::path InstallVscan(const std::string& relDir, const std::string& iniText = "",
                        const std::string& versionText = DefaultVersionText(),
                        const std::string& fileName = "vscan.dll") const;
  // Copies any built module file with a version record attached.
  fs::path InstallModule(const fs::path& source, const std::string& relDir,
                         const std::string& fileName, const std::string& versionText) const;

 private:
  fs::path root_;
  std::string oldRoot_;
  bool hadRoot_ = false;
};

// Sets an environment variable for the life of the object.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value);  // null value unsets
  ~ScopedEnv();

 private:
  std::string name_, old_;
  bool had_ = false;
};

// libsxscan.so loaded with dlopen (attach) and closed again (detach), with its
// exported functions resolved.
class Library {
 public:
  Library();
  ~Library();
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  bool Loaded() const { return handle_ != nullptr; }
  void* Symbol(const char* name) const;

  decltype(&::SxLoad) Load = nullptr;
  decltype(&::SxFree) Free = nullptr;
  decltype(&::SxGetDS) GetDS = nullptr;
  decltype(&::SxSetDriverById) SetDriverById = nullptr;
  decltype(&::SxSetValue) SetValue = nullptr;
  decltype(&::SxGetValue) GetValue = nullptr;
  decltype(&::SxQueryData) QueryData = nullptr;
  decltype(&::SxAcquire) Acquire = nullptr;
  decltype(&::SxSysGlobalAlloc) GlobalAlloc = nullptr;
  decltype(&::SxSysGlobalLock) GlobalLock = nullptr;
  decltype(&::SxSysGlobalUnlock) GlobalUnlock = nullptr;
  decltype(&::SxSysGlobalFree) GlobalFree = nullptr;
  decltype(&::SxSysGlobalHandle) GlobalHandle = nullptr;
  decltype(&::SxSysGlobalSize) GlobalSize = nullptr;

 private:
  void* handle_ = nullptr;
};

std::string ReadFile(const fs::path& path);
void WriteFile(const fs::path& path, const std::string& text);
std::vector<std::string> ReadLines(const fs::path& path);

}  // namespace sxtest
