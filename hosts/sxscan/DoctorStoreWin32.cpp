// The doctor's system tree and registry store on Windows: the Windows
// directory, and the values under HKEY_CURRENT_USER\Software\Quillmark.
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <algorithm>
#include <cstring>

#include "kit/StoreChecks.h"
#include "sxscan/DoctorReport.h"

namespace sx::host::doctor {

namespace {

constexpr char kKey[] = "Software\\Quillmark";
constexpr char kShownKey[] = "HKEY_CURRENT_USER\\Software\\Quillmark";
constexpr size_t kMaxText = 1024;  // longest registry text the doctor reads

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

}  // namespace

fs::path ReportTree() {
  char path[MAX_PATH] = "";
  const UINT length = GetWindowsDirectoryA(path, sizeof path);
  const std::string windows = length > 0 && length < sizeof path ? std::string(path, length) : std::string();
  std::printf("windows      %s (GetWindowsDirectory)\n", windows.c_str());
  return windows;
}

std::string DriverTreeFix(const fs::path& twain) {
  return "install a driver module under " + twain.string() + "\\<maker>\\<model>\\";
}

void ReportStore() {
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
  const std::string chosen = source.Present ? Printable(source.Text()) : std::string();
  std::printf("  chosen source: %s\n", chosen.empty() ? "none ('sxscan select NAME' chooses one)" : chosen.c_str());
  if (std::string problem; RegistryStoreProblem(&problem)) Problem(problem, StoreWriteBlock().Fix);
  ReportTrace(level.Present ? level.Number() : 0, savePath.Present ? savePath.Text() : "");
}

}  // namespace sx::host::doctor
