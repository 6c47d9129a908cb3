// sxscan doctor on Windows: why the library finds what it finds. It reports
// the Windows directory, the registry key with the chosen source and the
// trace settings, every module of the twain_32 tree with its version
// resource and whether the library offers it, and the ASPI and
// colour-management modules; each problem with the fix in one line. It reads
// the files and the registry itself and asks the library only for its list of
// data sources, so it explains a set-up without changing it.
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "sxscan/Commands.h"
#include "sxscan/DoctorReport.h"
#include "kit/Session.h"
#include "sxscan.h"

namespace sx::host {

namespace {

using namespace doctor;
namespace fs = std::filesystem;

constexpr char kKey[] = "Software\\Quillmark";
constexpr char kShownKey[] = "HKEY_CURRENT_USER\\Software\\Quillmark";
constexpr char kTraceFile[] = "scandiag.txt";
constexpr char kFallbackFile[] = "c:\\temp\\scandiag.ini";
constexpr size_t kMaxText = 1024;  // longest registry text the doctor reads

bool IsMakers(const std::string& name) { return Lower(name).rfind(kMakerPrefix, 0) == 0; }

std::string WindowsDirectory() {
  char path[MAX_PATH] = "";
  const UINT length = GetWindowsDirectoryA(path, sizeof path);
  return length > 0 && length < sizeof path ? std::string(path, length) : std::string();
}

// ------------------------------------------------------------------------
// The registry key.

struct RegistryValue {
  bool Present = false;
  DWORD Type = REG_NONE;
  std::vector<char> Data;
  std::string Text() const { return std::string(Data.data(), strnlen(Data.data(), Data.size())); }
  // As the library reads a number: the first four bytes, zeros after
  // whatever fewer were stored.
  DWORD Number() const {
    DWORD n = 0;
    std::memcpy(&n, Data.data(), std::min(sizeof n, Data.size() - 1));
    return n;
  }
};

RegistryValue ReadValue(HKEY key, const char* name) {
  RegistryValue value;
  DWORD size = kMaxText;
  value.Data.assign(kMaxText + 1, '\0');
  if (RegQueryValueExA(key, name, nullptr, &value.Type, reinterpret_cast<BYTE*>(value.Data.data()), &size) ==
      ERROR_SUCCESS) {
    value.Present = true;
    value.Data.resize(size + 1);  // a NUL after whatever was stored
  }
  return value;
}

// The library reads a value's bytes whatever its registry type: a number
// stored as text, or a text stored as a number, means something else to it.
void ExpectType(const char* name, const RegistryValue& value, bool text) {
  if (!value.Present) return;
  const bool fits = text ? value.Type == REG_SZ || value.Type == REG_EXPAND_SZ : value.Type == REG_DWORD;
  if (fits) return;
  Problem(std::string("\"") + name + "\" is of registry type " + std::to_string(value.Type) + ", not " +
              (text ? "a text (REG_SZ or REG_EXPAND_SZ)" : "a number (REG_DWORD)") +
              ", and the library reads its bytes as they are",
          std::string("reg delete \"") + kShownKey + "\" /v " + name + " /f" +
              (text ? ", then choose again with 'sxscan select NAME'" : ""));
}

// Trace lines go to "SAVEPATH" with the file name glued to it, so a folder
// needs its trailing backslash; without "SAVEPATH", to the host program's
// current directory.
void ReportTrace(DWORD level, const std::string& savePath) {
  if (level == 0) {
    std::printf("  trace level 0 (no trace log; \"DEBUGLEVEL\" as REG_DWORD 2 traces every call)\n");
    return;
  }
  char current[MAX_PATH] = "";
  GetCurrentDirectoryA(sizeof current, current);
  const std::string log = savePath.empty() ? std::string(current) + "\\" + kTraceFile : savePath + kTraceFile;
  std::printf("  trace level %lu, log %s%s\n", static_cast<unsigned long>(level), log.c_str(),
              savePath.empty() ? " (no \"SAVEPATH\": the host program's current directory)" : "");
  if (savePath.empty()) return;
  if (savePath.back() != '\\' && savePath.back() != '/') {
    Problem("\"SAVEPATH\" does not end with '\\', so the file name is glued to its last folder name",
            "end \"SAVEPATH\" with a backslash: " + savePath + "\\");
  }
  std::error_code ec;
  const fs::path folder = fs::path(log).parent_path();
  if (log.size() > kMaxTracePath) {
    Problem("the log path is longer than " + std::to_string(kMaxTracePath) + " characters: trace lines are lost",
            "choose a shorter \"SAVEPATH\"");
  } else if (!fs::is_directory(folder, ec)) {
    Problem("the log folder " + folder.string() + " does not exist: trace lines are lost", "mkdir " + folder.string());
  }
}

void ReportRegistry() {
  std::printf("registry     %s\n", kShownKey);
  HKEY key = nullptr;
  LONG opened = RegOpenKeyExA(HKEY_CURRENT_USER, kKey, 0, KEY_READ, &key);
  if (opened == ERROR_FILE_NOT_FOUND) {
    std::printf("  absent: read as empty; 'sxscan select' creates it\n");
    ReportTrace(0, "");
    return;
  }
  if (opened != ERROR_SUCCESS) {
    Problem("the key cannot be read (error " + std::to_string(opened) + ")", "give the user access to the key");
    return;
  }
  DWORD values = 0;
  RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &values, nullptr, nullptr, nullptr,
                   nullptr);
  std::printf("  %lu value(s)\n", static_cast<unsigned long>(values));
  const RegistryValue source = ReadValue(key, "SOURCENAME");
  const RegistryValue level = ReadValue(key, "DEBUGLEVEL");
  const RegistryValue savePath = ReadValue(key, "SAVEPATH");
  RegCloseKey(key);
  ExpectType("SOURCENAME", source, true);
  ExpectType("DEBUGLEVEL", level, false);
  ExpectType("SAVEPATH", savePath, true);
  std::printf("  chosen source: %s\n",
              source.Present && !source.Text().empty() ? source.Text().c_str()
                                                       : "none ('sxscan select NAME' chooses one)");
  if (std::string problem; RegistryStoreProblem(&problem)) Problem(problem, "give the user write access to the key");
  ReportTrace(level.Present ? level.Number() : 0, savePath.Present ? savePath.Text() : "");
}

// ------------------------------------------------------------------------
// Driver modules and their version resources.

struct VersionResource {
  bool Present = false;
  std::string Company, Product, FileVersion;
};

// The texts the library's maker check reads, under the one translation it
// accepts (a Translation value of exactly four bytes).
std::string VersionText(const void* block, const std::string& language, const char* name) {
  const char* value = nullptr;
  UINT length = 0;
  const std::string query = "\\StringFileInfo\\" + language + "\\" + name;
  if (!VerQueryValueA(block, query.c_str(), reinterpret_cast<void**>(const_cast<char**>(&value)), &length) ||
      !value || length == 0)
    return "";
  return std::string(value, strnlen(value, length));
}

VersionResource ReadVersionResource(const std::string& path) {
  VersionResource out;
  DWORD ignored = 0;
  const DWORD size = GetFileVersionInfoSizeA(path.c_str(), &ignored);
  if (size == 0) return out;
  std::vector<char> block(size);
  if (!GetFileVersionInfoA(path.c_str(), 0, size, block.data())) return out;
  out.Present = true;
  const BYTE* translation = nullptr;
  UINT length = 0;
  if (!VerQueryValueA(block.data(), "\\VarFileInfo\\Translation",
                      reinterpret_cast<void**>(const_cast<BYTE**>(&translation)), &length) ||
      length != 4)
    return out;
  char language[9];
  std::snprintf(language, sizeof language, "%02X%02X%02X%02X", translation[1], translation[0], translation[3],
                translation[2]);
  out.Company = VersionText(block.data(), language, "CompanyName");
  out.Product = VersionText(block.data(), language, "ProductName");
  for (char c : VersionText(block.data(), language, "FileVersion")) {
    if (c != ' ') out.FileVersion += c;  // as the library shows it: 1,0,1,0
  }
  return out;
}

std::string Field(const char* text, size_t size) { return std::string(text, strnlen(text, size)); }

std::string ModulePath(const SxDataSource& s) {
  return Lower(Field(s.Directory, sizeof s.Directory) + Field(s.FileName, sizeof s.FileName));
}

std::string Folder(const std::string& lowerPath) { return lowerPath.substr(0, lowerPath.find_last_of('\\') + 1); }

void ReportModule(const fs::path& twain, const fs::path& file, const std::vector<SxDataSource>& listed) {
  const std::string path = file.string();
  const std::string shown = fs::relative(file, twain).string();
  for (const SxDataSource& s : listed) {
    if (ModulePath(s) != Lower(path)) continue;
    std::printf("  %s: offered as \"%s\", version %s\n", shown.c_str(), Field(s.DisplayName, sizeof s.DisplayName).c_str(),
                Field(s.FileVersion, sizeof s.FileVersion).c_str());
    return;
  }
  const VersionResource version = ReadVersionResource(path);
  if (!version.Present) {
    std::printf("  %s: not offered\n", shown.c_str());
    Problem("it carries no version resource (VS_VERSIONINFO)", "rebuild the module with its VERSIONINFO resource");
  } else if (!IsMakers(version.Company) && !IsMakers(version.Product)) {
    std::printf("  %s: not offered (maker \"%s\")\n", shown.c_str(), version.Company.c_str());
    Problem("its version resource names another maker (CompanyName and ProductName)",
            "remove it from the driver tree; only the maker's drivers are offered");
  } else if (version.FileVersion.empty()) {
    std::printf("  %s: not offered\n", shown.c_str());
    Problem("its version resource has no FileVersion", "add FileVersion to the module's VERSIONINFO resource");
  } else {
    for (const SxDataSource& s : listed) {
      if (file.parent_path() == twain || Folder(ModulePath(s)) != Folder(Lower(path))) continue;
      std::printf("  %s: version %s, not offered: not tried\n", shown.c_str(), version.FileVersion.c_str());
      Problem("the library takes one module per folder and accepted " + Field(s.FileName, sizeof s.FileName) +
                  " there first",
              "give each driver module a model folder of its own");
      return;
    }
    std::printf("  %s: version %s, not offered: refused, or the same scanner is offered from another copy\n",
                shown.c_str(), version.FileVersion.c_str());
    Problem("the library loaded it but an entry point is missing, its initialisation failed, it reported no "
            "model, or a copy with a newer or equal version names the same scanner",
            "connect and power the scanner, remove older copies; \"DEBUGLEVEL\" 2 traces the calls");
  }
}

bool IsModuleName(const fs::path& file) {
  const std::string name = Lower(file.filename().string());
  return name.size() >= 4 && name.compare(name.size() - 3, 3, "dll") == 0;
}

void ReportDrivers(const std::string& windows) {
  const fs::path twain = fs::path(windows) / "twain_32";
  std::printf("drivers      %s\n", twain.string().c_str());
  std::error_code ec;
  if (!fs::is_directory(twain, ec)) {
    Problem("the driver tree does not exist", "install a driver module under " + twain.string() + "\\<maker>\\<model>\\");
    return;
  }
  int32_t result = 0;
  const std::vector<SxDataSource> listed = ListSources(&result);
  int modules = 0;
  for (auto it = fs::recursive_directory_iterator(twain, ec); !ec && it != fs::recursive_directory_iterator();
       it.increment(ec)) {
    if (!it->is_regular_file(ec) || !IsModuleName(it->path())) continue;
    ++modules;
    ReportModule(twain, it->path(), listed);
  }
  if (modules == 0) Problem("no module (*.dll) in the driver tree", "install a driver module, e.g. the virtual scanner vscan.dll");
  std::printf("  %zu data source(s) offered\n", listed.size());
}

// ------------------------------------------------------------------------
// System modules.

// Loads the ASPI module as the library would and asks it for its adapters.
void ReportAspi(const std::string& aspi) {
  if (GetFileAttributesA(aspi.c_str()) == INVALID_FILE_ATTRIBUTES) {
    std::printf("ASPI         %s: absent (SCSI scanners are not looked for)\n", aspi.c_str());
    return;
  }
  HMODULE module = LoadLibraryA(aspi.c_str());
  using SupportInfo = uint32_t (*)();
  const auto info =
      module ? reinterpret_cast<SupportInfo>(reinterpret_cast<void*>(GetProcAddress(module, "GetASPI32SupportInfo")))
             : nullptr;
  const bool send = module && GetProcAddress(module, "SendASPI32Command") != nullptr;
  if (info && send) {
    std::printf("ASPI         %s: %u host adapter(s)\n", aspi.c_str(), info() & 0xFFu);
  } else {
    std::printf("ASPI         %s: present\n", aspi.c_str());
    if (!module)
      Problem("it cannot be loaded (error " + std::to_string(GetLastError()) + ")",
              "replace it with an ASPI module built for this system");
    else
      Problem("it lacks GetASPI32SupportInfo or SendASPI32Command, so SCSI scanners are not looked for",
              "replace it with a complete ASPI module");
  }
  if (module) FreeLibrary(module);
}

void ReportSystemModules(const std::string& windows) {
  const std::string system = windows + "\\system32";
  ReportAspi(system + "\\wnaspi32.dll");
  const std::string cmms = system + "\\sxcmms.dll";
  const bool present = GetFileAttributesA(cmms.c_str()) != INVALID_FILE_ATTRIBUTES;
  std::printf("colour       %s\n", present ? cmms.c_str() : "sxcmms.dll from the library's own folder, if installed there");
  const fs::path color = fs::path(system) / "spool" / "drivers" / "color";
  int profiles = 0;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(color, ec)) {
    const std::string ext = Lower(entry.path().extension().string());
    profiles += ext == ".icc" || ext == ".icm";
  }
  std::printf("  %d profile(s) in %s\n", profiles, color.string().c_str());
  if (profiles == 0) {
    std::printf("  colour matching is not offered without the model's profile; cmatch.ini beside the "
                "driver names it\n");
  }
}

}  // namespace

// The registry itself is never damaged as a text store can be; what keeps a
// choice from it is a key the user may not write, whose values then go to
// the fall-back profile unseen.
// The registry of the system serves every read and write: no store of its
// own is ever set aside.
bool UnwritableStoreChoice(std::string*) { return false; }

bool RegistryStoreProblem(std::string* message) {
  HKEY key = nullptr;
  const LONG opened = RegOpenKeyExA(HKEY_CURRENT_USER, kKey, 0, KEY_SET_VALUE, &key);
  if (opened == ERROR_SUCCESS) RegCloseKey(key);
  if (opened == ERROR_SUCCESS || opened == ERROR_FILE_NOT_FOUND) return false;
  *message = std::string("the registry key ") + kShownKey + " cannot be written (error " + std::to_string(opened) +
             "): the chosen source would go to " + kFallbackFile + " instead";
  return true;
}

int RunDoctor() {
  LibrarySession session;
  gProblems = 0;
  const std::string windows = WindowsDirectory();
  std::printf("windows      %s (GetWindowsDirectory)\n", windows.c_str());
  ReportRegistry();
  ReportDrivers(windows);
  ReportSystemModules(windows);
  std::printf(gProblems == 0 ? "no problem found\n" : "%d problem(s) found\n", gProblems);
  return gProblems == 0 ? kExitOk : kExitFailed;
}

}  // namespace sx::host
