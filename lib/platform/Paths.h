// File-system services: the library's system tree under SX_ROOT, folder
// listing in the file system's own order, and Windows file-name patterns.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

// The separator of the paths the library composes: the system's own, so a
// data source's folder reads as the system writes folders. A macro, so that
// fixed path pieces stay string literals.
#if defined(_WIN32)
#define SX_PATH_SEP "\\"
#else
#define SX_PATH_SEP "/"
#endif

namespace sx::plat {

// SX_ROOT, or ${XDG_DATA_HOME:-$HOME/.local/share}/sxscan; no trailing '/'.
std::string RootDirectory();
// Whether SX_ROOT names the root. The default root is made when the store is
// first written; a named one never is, so a mistyped name makes no tree.
bool RootIsNamed();
// <root>/windows: what the library calls the Windows directory.
std::string WindowsDirectory();
// <root>/windows/system32.
std::string SystemDirectory();
// <root>/temp: the registry fall-back folder.
std::string TempDirectory();
// <root>/user.reg.
std::string RegistryStorePath();
// The process's current directory; empty when it cannot be had.
std::string CurrentDirectory();
// The folder holding the shared object that contains this code (no trailing '/').
std::string LibraryDirectory();

// The platform id a version query reports: 2, the NT family.
inline constexpr int32_t kPlatformIdNt = 2;
int32_t PlatformId();

// Creates one folder; an existing folder is no error.
bool MakeDirectory(const std::string& path);
bool IsDirectory(const std::string& path);
bool FileExists(const std::string& path);

// Names in `dir` matching a Windows pattern ("*.*" matches every name, "*.dll"
// names ending in ".dll" without regard to case), in the order the file system
// returns them; "." and ".." are included when the pattern matches them.
std::vector<std::string> FindFiles(const std::string& dir, const std::string& pattern);
bool MatchesPattern(const std::string& name, const std::string& pattern);

// Appends bytes to a file, creating it when missing: one open, write, close.
// False when the file can neither be opened nor created.
bool AppendToFile(const std::string& path, const void* data, size_t size);

}  // namespace sx::plat
