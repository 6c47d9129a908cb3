// sxscan doctor: why the library finds what it finds. It reports the system
// tree and the registry store, every module of the driver tree with its
// version record and whether the library offers it, the ASPI module, the
// colour module and the profiles the drivers name; each problem with its fix
// in one line. It reads the files itself, by the library's own parsers, and
// asks the library only for its list of data sources, so it explains a
// set-up without changing it.
//
// One file per thing checked; what differs between the systems (where the
// tree is, the store, how a module is opened and its version record read)
// sits behind the functions a *Posix.cpp / *Win32.cpp pair defines.
#pragma once
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "sxscan.h"

namespace sx::host::doctor {

namespace fs = std::filesystem;

constexpr char kMakerPrefix[] = "corvane";  // what CompanyName or ProductName must begin with
// The library composes the log path in a 144-byte buffer.
constexpr size_t kMaxTracePath = 143;
constexpr char kTraceFile[] = "scandiag.txt";

// The words of each system's conventions that the shared reports use.
struct SystemWords {
  char pathSeparator;
  const char* makeFolder;  // the command that makes a folder with its parents
  const char* removeFile;
  const char* traceLevelHint;  // how the store is asked for a trace of every call
  // Around a "SAVEPATH" value to make it a line of the store.
  const char* savePathBefore;
  const char* savePathAfter;
  // A module's version record: what it is called, its form, how to add one.
  const char* record;
  const char* recordForm;
  const char* recordFix;
  const char* aspiFix;  // for an ASPI module the library cannot use
};

constexpr SystemWords kWindowsWords = {
    .pathSeparator = '\\', .makeFolder = "mkdir ", .removeFile = "del ",
    .traceLevelHint = "\"DEBUGLEVEL\" as REG_DWORD 2", .savePathBefore = "", .savePathAfter = "",
    .record = "version resource", .recordForm = "VS_VERSIONINFO",
    .recordFix = "rebuild the module with its VERSIONINFO resource",
    .aspiFix = "replace it with an ASPI module built for this system"};

constexpr SystemWords kPosixWords = {
    .pathSeparator = '/', .makeFolder = "mkdir -p ", .removeFile = "rm ",
    .traceLevelHint = "\"DEBUGLEVEL\"=dword:00000002", .savePathBefore = "\"SAVEPATH\"=str(2):\"",
    .savePathAfter = "\"", .record = "version record", .recordForm = "ELF section .sxversion",
    .recordFix = "rebuild the module with its version record attached",
    .aspiFix = "replace it with the Linux ASPI module of the build (modules/aspisg/wnaspi32.dll)"};

#ifdef _WIN32
inline constexpr const SystemWords& kWords = kWindowsWords;
#else
inline constexpr const SystemWords& kWords = kPosixWords;
#endif

// ---- the report (Doctor.cpp)

inline int gProblems = 0;

// Frees the library's state whichever way the command leaves.
struct LibrarySession {
  ~LibrarySession() { SxFree(); }
};

inline void Problem(const std::string& what, const std::string& fix) {
  ++gProblems;
  std::printf("  problem: %s\n  fix:     %s\n", what.c_str(), fix.c_str());
}

inline std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string Field(const char* text, size_t size);
fs::path ModulePath(const SxDataSource& s);
bool IsModuleName(const fs::path& file);
std::string Bytes(uint64_t n);

// Where trace lines go: "SAVEPATH" with the file name glued to it, so a
// folder needs its final separator, and without "SAVEPATH" the host
// program's current directory.
void ReportTrace(uint32_t level, const std::string& savePath);

// ---- the tree and the store (DoctorStorePosix.cpp, DoctorStoreWin32.cpp)

// Prints where the system tree is and why; its Windows folder.
fs::path ReportTree();
// The registry store (or key): readable, whole, writable, the chosen source
// and the trace settings.
void ReportStore();
// How to make a missing driver tree.
std::string DriverTreeFix(const fs::path& twain);

// ---- modules as the system has them (DoctorModulesPosix.cpp, DoctorModulesWin32.cpp)

// What keeps a module file from being loaded at all, from its own bytes:
// empty when nothing does that the loader would not say itself.
std::string ModuleFileFault(const fs::path& file);
// The module's version block as the library reads it; empty without one.
std::string VersionBlockOf(const fs::path& file);
bool QueryVersion(const std::string& block, const char* query, const void** value, uint32_t* length);

// Opens a module as the library would; null with the reason in `error`.
void* OpenModule(const fs::path& file, std::string& error);
void* ModuleEntry(void* module, const char* name);
void CloseModule(void* module);
// The folder of the library the program runs on.
fs::path LibraryFolder();

// The library's discovery over a tree that holds `file` alone (with the
// other files of its folder): whether the module makes a data source of its
// own, or CannotTell where the system's tree cannot be moved.
enum class Alone { Refused, Offered, CannotTell };
Alone DiscoverAlone(const fs::path& twain, const fs::path& file, SxDataSource* alone);

// ---- the checks on every system (DoctorDrivers.cpp, DoctorScsi.cpp, DoctorColour.cpp)

// A module file that cannot be loaded, named with its fix; true when it was.
bool ReportModuleFileFault(const fs::path& file);
void ReportDrivers(const fs::path& windows);
void ReportAspi(const fs::path& aspi);
void ReportColour(const fs::path& windows);

}  // namespace sx::host::doctor
