#include "platform/Paths.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace sx::plat {

std::string WindowsDirectory() { return RootDirectory() + "/windows"; }
std::string SystemDirectory() { return WindowsDirectory() + "/system32"; }
std::string TempDirectory() { return RootDirectory() + "/temp"; }
std::string RegistryStorePath() { return RootDirectory() + "/user.reg"; }

std::string CurrentDirectory() {
  std::string buf(256, '\0');
  for (int tries = 0; tries < 8; ++tries) {
    if (::getcwd(buf.data(), buf.size())) {
      buf.resize(std::char_traits<char>::length(buf.c_str()));
      return buf;
    }
    if (errno != ERANGE) return {};
    buf.resize(buf.size() * 4);
  }
  return {};
}

std::string LibraryDirectory() {
  Dl_info info{};
  std::string file;
  if (::dladdr(reinterpret_cast<void*>(&LibraryDirectory), &info) && info.dli_fname)
    file = info.dli_fname;
  // The main program's own entry carries no usable path; ask the kernel.
  if (file.find('/') == std::string::npos) {
    char exe[4096];
    ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0) return CurrentDirectory();
    file.assign(exe, static_cast<size_t>(n));
  }
  size_t slash = file.find_last_of('/');
  if (slash == 0) return "/";
  return file.substr(0, slash);
}

int32_t PlatformId() { return kPlatformIdNt; }

bool MakeDirectory(const std::string& path) {
  if (path.empty()) return false;
  if (::mkdir(path.c_str(), 0755) == 0) return true;
  return errno == EEXIST && IsDirectory(path);
}

bool IsDirectory(const std::string& path) {
  struct stat st {};
  return !path.empty() && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool FileExists(const std::string& path) {
  struct stat st {};
  return !path.empty() && ::stat(path.c_str(), &st) == 0;
}

std::vector<std::string> FindFiles(const std::string& dir, const std::string& pattern) {
  std::vector<std::string> names;
  DIR* d = ::opendir(dir.empty() ? "." : dir.c_str());
  if (!d) return names;
  try {
    while (struct dirent* e = ::readdir(d)) {
      std::string name(e->d_name);
      if (MatchesPattern(name, pattern)) names.push_back(std::move(name));
    }
  } catch (...) {
    names.clear();
  }
  ::closedir(d);
  return names;
}

bool AppendToFile(const std::string& path, const void* data, size_t size) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const char* p = static_cast<const char*>(data);
  bool ok = true;
  while (size > 0) {
    ssize_t n = ::write(fd, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ok = false;
      break;
    }
    p += n;
    size -= static_cast<size_t>(n);
  }
  if (::close(fd) != 0) ok = false;
  return ok;
}

}  // namespace sx::plat
