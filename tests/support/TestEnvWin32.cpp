// The test environment on Windows: the system's own Windows directory and
// registry, real version resources and LoadLibrary. The tests run in a
// throw-away prefix (or machine), so they may use <windows>\twain_32 and
// HKEY_CURRENT_USER\Software\Quillmark as a host's user would.
#include "support/TestEnv.h"

#include <windows.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "platform/text/RegistryText.h"
#include "support/VersionResource.h"

namespace sxtest {
namespace {

constexpr char kVendorKey[] = "Software\\Quillmark";
constexpr char kRootPrefix[] = "HKEY_CURRENT_USER\\";
constexpr char kShiftVariable[] = "SX_SHIFT_HELD";
// Where a driver tree found at construction waits until the object ends.
constexpr char kSavedSuffix[] = ".sxtest-saved";
// The language of the version resource a resource compiler gives by default.
constexpr WORD kVersionLanguage = MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US);

constexpr UINT kHungExitCode = 124;  // what timeout(1) reports

std::atomic<int> folderCounter{0};
std::atomic<int> liveRoots{0};

fs::path SystemFolder(UINT(WINAPI* query)(LPWSTR, UINT)) {
  wchar_t buffer[MAX_PATH];
  const UINT n = query(buffer, MAX_PATH);
  if (n == 0 || n >= MAX_PATH) throw std::runtime_error("cannot query a system folder");
  return fs::path(buffer);
}

// The folders of the system a test may add files to, as the library looks
// for modules and profiles there.
std::vector<fs::path> WatchedFolders(const fs::path& system) {
  return {system, system / "spool" / "drivers" / "color"};
}

std::vector<fs::path> Entries(const std::vector<fs::path>& folders) {
  std::vector<fs::path> entries;
  std::error_code ec;
  for (const fs::path& folder : folders)
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) entries.push_back(it->path());
  std::sort(entries.begin(), entries.end());
  return entries;
}

void CALLBACK OnHung(void*, BOOLEAN) {
  std::fputs("the call under test hangs: the watchdog ends the program\n", stderr);
  std::fflush(stderr);
  TerminateProcess(GetCurrentProcess(), kHungExitCode);
}

// The library reads its variables through the C runtime (getenv) or the
// system (GetEnvironmentVariable); each keeps its own copy. The runtime's
// cannot hold an empty value: "" there means unset.
void SetVariable(const char* name, const char* value) {
  _putenv_s(name, value ? value : "");
  SetEnvironmentVariableA(name, value);
}

// The library asks the keyboard itself whether Shift is held, so the
// variable tests use for it on Linux becomes a real key press here.
void PressShift(bool down) {
  INPUT input{};
  input.type = INPUT_KEYBOARD;
  input.ki.wVk = VK_SHIFT;
  input.ki.dwFlags = down ? 0 : KEYEVENTF_KEYUP;
  if (SendInput(1, &input, sizeof input) != 1) ADD_FAILURE() << "SendInput failed: " << GetLastError();
}

void SetOrPress(const char* name, const char* value) {
  SetVariable(name, value);
  if (std::strcmp(name, kShiftVariable) != 0) return;
  const bool held = (GetAsyncKeyState(VK_SHIFT) & 0x8000) != 0, wanted = value && std::strcmp(value, "1") == 0;
  if (held != wanted) PressShift(wanted);
}

void DeleteVendorKey() {
  const LSTATUS status = RegDeleteTreeA(HKEY_CURRENT_USER, kVendorKey);
  if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND)
    ADD_FAILURE() << "cannot delete HKCU\\" << kVendorKey << ": " << status;
}

// The key path under HKEY_CURRENT_USER, without surrounding '\'.
std::string KeyPath(std::string key) {
  if (_strnicmp(key.c_str(), kRootPrefix, sizeof kRootPrefix - 1) == 0) key.erase(0, sizeof kRootPrefix - 1);
  while (!key.empty() && key.front() == '\\') key.erase(0, 1);
  while (!key.empty() && key.back() == '\\') key.pop_back();
  return key;
}

bool UnderVendorKey(const std::string& key) {
  const size_t n = sizeof kVendorKey - 1;
  return _strnicmp(key.c_str(), kVendorKey, n) == 0 && (key.size() == n || key[n] == '\\');
}

HKEY CreateKey(const std::string& path) {
  HKEY key = nullptr;
  const LSTATUS status = RegCreateKeyExA(HKEY_CURRENT_USER, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS,
                                         nullptr, &key, nullptr);
  if (status != ERROR_SUCCESS) ADD_FAILURE() << "cannot create HKCU\\" << path << ": " << status;
  return status == ERROR_SUCCESS ? key : nullptr;
}

constexpr WORD kVersionType = 16;  // RT_VERSION

// Replaces the file's resources with the version resource the text
// describes (none for an empty text). A single resource cannot be deleted
// everywhere (Wine keeps it), so all are; the modules tests install carry
// no other.
void SetVersionResource(const fs::path& file, const std::string& versionText) {
  const std::string block = versionText.empty() ? std::string() : BuildVersionResource(versionText);
  if (!versionText.empty() && block.empty()) ADD_FAILURE() << "no usable line in the version record";
  HANDLE update = BeginUpdateResourceW(file.c_str(), TRUE);
  if (!update) {
    ADD_FAILURE() << "BeginUpdateResource failed for " << file << ": " << GetLastError();
    return;
  }
  const bool ok = block.empty() ||
                  UpdateResourceW(update, MAKEINTRESOURCEW(kVersionType), MAKEINTRESOURCEW(VS_VERSION_INFO),
                                  kVersionLanguage, const_cast<char*>(block.data()),
                                  static_cast<DWORD>(block.size())) != FALSE;
  if (!ok) ADD_FAILURE() << "UpdateResource failed for " << file << ": " << GetLastError();
  if (!EndUpdateResourceW(update, ok ? FALSE : TRUE))
    ADD_FAILURE() << "EndUpdateResource failed for " << file << ": " << GetLastError();
}

}  // namespace

fs::path MakeTempFolder(const std::string& prefix) {
  wchar_t buffer[MAX_PATH];
  const DWORD n = GetTempPathW(MAX_PATH, buffer);
  if (n == 0 || n >= MAX_PATH) throw std::runtime_error("GetTempPath failed");
  const fs::path dir = fs::path(buffer) / (prefix + std::to_string(GetCurrentProcessId()) + "-" +
                                           std::to_string(folderCounter++));
  std::error_code ec;
  fs::remove_all(dir, ec);  // left by an earlier process of the same id
  fs::create_directories(dir);
  return dir;
}

std::string NativePath(std::string path) {
  std::replace(path.begin(), path.end(), '/', '\\');
  return path;
}

void HangWatchdog(unsigned seconds) {
  static HANDLE timer = nullptr;
  if (timer) DeleteTimerQueueTimer(nullptr, timer, nullptr);
  timer = nullptr;
  if (seconds && !CreateTimerQueueTimer(&timer, nullptr, OnHung, nullptr, seconds * 1000, 0, WT_EXECUTEONLYONCE))
    ADD_FAILURE() << "CreateTimerQueueTimer failed: " << GetLastError();
}

// Two pages taken, then only the first kept: the second is free address
// space, which faults for the process and for the system's memory services
// alike.
FaultingPage::FaultingPage() {
  SYSTEM_INFO info{};
  GetSystemInfo(&info);
  Size = info.dwPageSize;
  void* pair = VirtualAlloc(nullptr, 2 * Size, MEM_RESERVE, PAGE_NOACCESS);
  if (!pair || !VirtualFree(pair, 0, MEM_RELEASE)) throw std::runtime_error("VirtualAlloc failed");
  Base = static_cast<uint8_t*>(VirtualAlloc(pair, Size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
  if (!Base) throw std::runtime_error("VirtualAlloc failed");
}

FaultingPage::~FaultingPage() { VirtualFree(Base, 0, MEM_RELEASE); }

ScopedEnv::ScopedEnv(const char* name, const char* value) : name_(name) {
  if (const char* old = std::getenv(name)) {
    had_ = true;
    old_ = old;
  }
  SetOrPress(name, value);
}

ScopedEnv::~ScopedEnv() { SetOrPress(name_.c_str(), had_ ? old_.c_str() : nullptr); }

TempRoot::TempRoot()
    : root_(MakeTempFolder("sxtest-")),
      windows_(SystemFolder(GetWindowsDirectoryW)),
      system_(SystemFolder(GetSystemDirectoryW)),
      systemFiles_(Entries(WatchedFolders(system_))) {
  // The system has one Windows directory and one registry: one root at a time.
  if (liveRoots++ != 0) ADD_FAILURE() << "a second TempRoot while one is alive";
  const fs::path twain = Twain(), saved = twain.string() + kSavedSuffix;
  std::error_code ec;
  // A tree found here is kept aside and put back afterwards; with one kept
  // aside already, it is what a test that never finished left.
  if (fs::exists(saved, ec)) fs::remove_all(twain, ec);
  else if (fs::exists(twain, ec)) fs::rename(twain, saved);
  fs::create_directories(twain);
  DeleteVendorKey();
  SetOrPress(kShiftVariable, nullptr);
  SetVariable("SX_AVAILABLE_MEMORY", nullptr);
}

TempRoot::~TempRoot() {
  const fs::path twain = Twain(), saved = twain.string() + kSavedSuffix;
  std::error_code ec;
  fs::remove_all(twain, ec);
  if (fs::exists(saved, ec)) fs::rename(saved, twain, ec);
  DeleteVendorKey();
  for (const fs::path& entry : Entries(WatchedFolders(system_)))
    if (!std::binary_search(systemFiles_.begin(), systemFiles_.end(), entry)) fs::remove_all(entry, ec);
  fs::remove_all(root_, ec);
  --liveRoots;
}

// The text's keys must lie under Software\Quillmark: that key is what each
// test starts without, so nothing else of the user's registry is touched.
void TempRoot::WriteRegistry(const std::string& text) const {
  DeleteVendorKey();
  const sx::plat::RegDocument doc = sx::plat::ParseRegistryText(text);
  HKEY key = nullptr;
  for (const sx::plat::RegLine& line : doc.Lines) {
    if (line.LineKind == sx::plat::RegLine::Kind::Key) {
      if (key) RegCloseKey(key);
      key = nullptr;
      const std::string path = KeyPath(line.Name);
      if (UnderVendorKey(path)) key = CreateKey(path);
      else ADD_FAILURE() << "registry key outside HKCU\\" << kVendorKey << ": " << line.Name;
    } else if (line.LineKind == sx::plat::RegLine::Kind::Value && key) {
      const std::string& data = line.Value.Data;
      const LSTATUS status = RegSetValueExA(key, line.Name.c_str(), 0, line.Value.Type,
                                            reinterpret_cast<const BYTE*>(data.data()),
                                            static_cast<DWORD>(data.size()));
      if (status != ERROR_SUCCESS) ADD_FAILURE() << "cannot set " << line.Name << ": " << status;
    }
  }
  if (key) RegCloseKey(key);
}

fs::path TempRoot::InstallModule(const fs::path& source, const std::string& relDir,
                                 const std::string& fileName,
                                 const std::string& versionText) const {
  const fs::path dir = relDir.empty() ? Twain() : Twain() / fs::path(relDir).make_preferred();
  fs::create_directories(dir);
  const fs::path target = dir / fileName;
  fs::copy_file(source, target, fs::copy_options::overwrite_existing);
  SetVersionResource(target, versionText);
  return target;
}

Library::Library() {
  HMODULE module = LoadLibraryA(SX_TEST_LIBSXSCAN);
  if (!module) {
    ADD_FAILURE() << "cannot load " << SX_TEST_LIBSXSCAN << ": error " << GetLastError();
    return;
  }
  handle_ = module;
  ResolveExports();
}

Library::~Library() {
  if (handle_) FreeLibrary(static_cast<HMODULE>(handle_));
}

void* Library::Symbol(const char* name) const {
  void* p = handle_ ? reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(handle_), name)) : nullptr;
  if (!p) ADD_FAILURE() << "missing export " << name;
  return p;
}

}  // namespace sxtest
