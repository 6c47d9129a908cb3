// File-system services on Windows: the real Windows, system and current
// directories, folder search through the system's own pattern matching.
#include "platform/Paths.h"
#include "platform/win32/Win32.h"

namespace sx::plat {

namespace {

// The buffer-size protocol of the directory queries: a first call with room
// for MAX_PATH, a second with what the first reported.
template <typename Query>
std::string QueryPath(Query query) {
  std::string buf(MAX_PATH, '\0');
  for (int tries = 0; tries < 2; ++tries) {
    const DWORD n = query(buf.data(), static_cast<DWORD>(buf.size()));
    if (n == 0) return {};
    if (n < buf.size()) {
      buf.resize(n);
      return buf;
    }
    buf.assign(n + 1, '\0');
  }
  return {};
}

std::string ModuleFileName(HMODULE module) {
  std::string buf(MAX_PATH, '\0');
  for (int tries = 0; tries < 6; ++tries) {
    const DWORD n = ::GetModuleFileNameA(module, buf.data(), static_cast<DWORD>(buf.size()));
    if (n == 0) return {};
    if (n < buf.size()) {
      buf.resize(n);
      return buf;
    }
    buf.resize(buf.size() * 2);
  }
  return {};
}

}  // namespace

std::string WindowsDirectory() {
  std::string dir = QueryPath([](char* b, DWORD n) { return ::GetWindowsDirectoryA(b, n); });
  // Only a drive's root ends in a separator; composed paths add their own.
  if (!dir.empty() && dir.back() == '\\') dir.pop_back();
  return dir;
}

std::string SystemDirectory() {
  std::string dir = QueryPath([](char* b, DWORD n) { return ::GetSystemDirectoryA(b, n); });
  if (!dir.empty() && dir.back() == '\\') dir.pop_back();
  return dir;
}

// The drive the Windows directory is on: what SX_ROOT stands for elsewhere.
std::string RootDirectory() {
  const std::string windows = WindowsDirectory();
  return windows.size() >= 2 && windows[1] == ':' ? windows.substr(0, 2) : windows;
}

// The folder the registry fall-back profile lives in, as the system names it.
std::string TempDirectory() { return "c:\\temp"; }

// There is no store file: the registry is the store. Reports name its key.
std::string RegistryStorePath() { return "HKEY_CURRENT_USER\\Software\\Quillmark"; }

std::string CurrentDirectory() {
  return QueryPath([](char* b, DWORD n) { return ::GetCurrentDirectoryA(n, b); });
}

std::string LibraryDirectory() {
  HMODULE self = nullptr;
  if (!::GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                                GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            reinterpret_cast<LPCSTR>(&LibraryDirectory), &self))
    return CurrentDirectory();
  const std::string file = ModuleFileName(self);
  const size_t sep = file.find_last_of("\\/");
  return sep == std::string::npos ? CurrentDirectory() : file.substr(0, sep);
}

int32_t PlatformId() {
  OSVERSIONINFOA info{};
  info.dwOSVersionInfoSize = sizeof info;
  if (!::GetVersionExA(&info)) return kPlatformIdNt;
  return static_cast<int32_t>(info.dwPlatformId);
}

bool MakeDirectory(const std::string& path) {
  if (path.empty()) return false;
  if (::CreateDirectoryA(path.c_str(), nullptr)) return true;
  return ::GetLastError() == ERROR_ALREADY_EXISTS && IsDirectory(path);
}

bool IsDirectory(const std::string& path) {
  if (path.empty()) return false;
  const DWORD attributes = ::GetFileAttributesA(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

bool FileExists(const std::string& path) {
  return !path.empty() && ::GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::vector<std::string> FindFiles(const std::string& dir, const std::string& pattern) {
  std::vector<std::string> names;
  std::string query = dir.empty() ? std::string(".") : dir;
  if (query.back() != '\\' && query.back() != '/') query += '\\';
  query += pattern;
  WIN32_FIND_DATAA found{};
  HANDLE search = ::FindFirstFileA(query.c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) return names;
  try {
    do {
      names.emplace_back(found.cFileName);
    } while (::FindNextFileA(search, &found));
  } catch (...) {
    names.clear();
  }
  ::FindClose(search);
  return names;
}

bool AppendToFile(const std::string& path, const void* data, size_t size) {
  HANDLE file = ::CreateFileA(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE,
                              nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return false;
  const char* p = static_cast<const char*>(data);
  bool ok = true;
  while (ok && size > 0) {
    const DWORD chunk = size > 0x40000000u ? 0x40000000u : static_cast<DWORD>(size);
    DWORD written = 0;
    ok = ::WriteFile(file, p, chunk, &written, nullptr) && written > 0;
    p += written;
    size -= written;
  }
  if (!::CloseHandle(file)) ok = false;
  return ok;
}

}  // namespace sx::plat
