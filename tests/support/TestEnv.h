// Test environment: a fresh module tree and registry, copies of the virtual
// scanner with chosen version records and behaviour, and the library loaded
// as a host loads it.
//
// On Linux all of it lives under a temporary SX_ROOT (user.reg, the
// .sxversion section, dlopen). On Windows it is the system's own: the real
// <windows>\twain_32 folder, HKEY_CURRENT_USER\Software\Quillmark, version
// resources and LoadLibrary; Path() is then a temporary folder for the test's
// own files.
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
// SX_AVAILABLE_MEMORY. On Windows: an empty <windows>\twain_32 and no
// Software\Quillmark key for the life of the object (what was there before
// is put back afterwards).
class TempRoot {
 public:
  TempRoot();
  ~TempRoot();
  TempRoot(const TempRoot&) = delete;
  TempRoot& operator=(const TempRoot&) = delete;

  const fs::path& Path() const { return root_; }
  // What the library calls the Windows and system directories, and its
  // driver tree. On Windows, what a test adds to the system directory (or
  // its colour profile folder) is removed with the object.
  const fs::path& Windows() const { return windows_; }
  const fs::path& System() const { return system_; }
  fs::path Twain() const { return windows_ / "twain_32"; }
  // Replaces the registry with the given text in the store's text form
  // (Linux: <root>/user.reg; Windows: the values under Software\Quillmark).
  void WriteRegistry(const std::string& text) const;
  // The registry store's file, user.reg ("" when there is none); POSIX
  // systems only.
  std::string ReadRegistry() const;
  // Installs a copy of vscan.dll as <twain_32>/<relDir>/<fileName> with the
  // given version record (empty: none) and vscan.ini (empty: none) beside it.
  // A record is text lines "<path>=<text>" or "<path>=hex:<bytes>"; on
  // Windows it becomes the copy's VS_VERSIONINFO resource.
  fs::path InstallVscan(const std::string& relDir, const std::string& iniText = "",
                        const std::string& versionText = DefaultVersionText(),
                        const std::string& fileName = "vscan.dll") const;
  // Copies any built module file with a version record attached (on
  // Windows its only resource).
  fs::path InstallModule(const fs::path& source, const std::string& relDir,
                         const std::string& fileName, const std::string& versionText) const;

 private:
  fs::path root_, windows_, system_;
  std::vector<fs::path> systemFiles_;  // Windows: what the system folders held before
  std::string oldRoot_;
  bool hadRoot_ = false;
};

// Sets an environment variable for the life of the object.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value);  // null value unsets
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;  // a copy would restore the variable twice
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_, old_;
  bool had_ = false;
};

// The library's exported functions a host calls, as (member, export).
#define SXTEST_EXPORTS(X)                                                                            \
  X(Load, SxLoad) X(Free, SxFree) X(GetDS, SxGetDS) X(SetDriverById, SxSetDriverById)                \
  X(SetValue, SxSetValue) X(GetValue, SxGetValue) X(QueryData, SxQueryData) X(Acquire, SxAcquire)    \
  X(GlobalAlloc, SxSysGlobalAlloc) X(GlobalLock, SxSysGlobalLock) X(GlobalUnlock, SxSysGlobalUnlock) \
  X(GlobalFree, SxSysGlobalFree) X(GlobalHandle, SxSysGlobalHandle) X(GlobalSize, SxSysGlobalSize)

// The library (libsxscan.so with dlopen, sxscan.dll with LoadLibrary) loaded
// (attach) and freed again (detach), with its exported functions resolved.
class Library {
 public:
  Library();
  ~Library();
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  bool Loaded() const { return handle_ != nullptr; }
  void* Symbol(const char* name) const;

#define SXTEST_MEMBER(member, name) decltype(&::name) member = nullptr;
  SXTEST_EXPORTS(SXTEST_MEMBER)
#undef SXTEST_MEMBER

  // SxAcquire under the hang watchdog.
  int32_t WatchedAcquire(SxTransferCallback callback, void* buffer, unsigned seconds = 60) const;
  // Releases a list SxQueryData returned, both its blocks, as a host does.
  void FreeList(SxValueList* list) const;

 private:
  void ResolveExports();
  void* handle_ = nullptr;
};

// A host's transfer buffer: a locked global block of the library's, unlocked
// and freed with the object (which must go before the library is freed).
class HostBuffer {
 public:
  HostBuffer(const Library& lib, size_t bytes)
      : lib_(lib), handle_(lib.GlobalAlloc(SX_GHND, bytes)), data_(lib.GlobalLock(handle_)) {}
  ~HostBuffer() {
    lib_.GlobalUnlock(handle_);
    lib_.GlobalFree(handle_);
  }
  HostBuffer(const HostBuffer&) = delete;
  HostBuffer& operator=(const HostBuffer&) = delete;
  SxHandle Handle() const { return handle_; }
  void* Data() const { return data_; }

 private:
  const Library& lib_;
  SxHandle handle_;
  void* data_;
};

// The virtual scanner as a QM7110V on USB with firmware 1.00 (the scanner
// section of its vscan.ini), and the registry that has it chosen: `scanData`
// holds value lines of the ScanData key, `options` of Software\Quillmark.
extern const char kQm7110Ini[];
std::string Qm7110Registry(const std::string& scanData = "", const std::string& options = "");

// One readable page followed by one that faults on any access.
class FaultingPage {
 public:
  FaultingPage();
  ~FaultingPage();
  FaultingPage(const FaultingPage&) = delete;
  FaultingPage& operator=(const FaultingPage&) = delete;

  size_t Size = 0;  // of one page
  uint8_t* Base = nullptr;
  void* Bad() const { return Base + Size; }
  uint8_t* LastBytes(size_t n) const { return Base + Size - n; }
};

// Ends the test program when a call under test hangs: armed for `seconds`
// from now (0 disarms), as alarm() does.
void HangWatchdog(unsigned seconds);

// A new empty folder in the system's temporary folder, named <prefix>...;
// the caller removes it.
fs::path MakeTempFolder(const std::string& prefix);

// A path written with '/' in the system's own form (Windows: '\\').
std::string NativePath(std::string path);

std::string ReadFile(const fs::path& path);
void WriteFile(const fs::path& path, const std::string& text);
std::vector<std::string> ReadLines(const fs::path& path);

}  // namespace sxtest
