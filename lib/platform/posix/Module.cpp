#include "platform/Module.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/Paths.h"
#include "platform/text/VersionRecord.h"

namespace sx::plat {

namespace {

bool FileRead(void* context, uint64_t offset, void* dst, size_t count) {
  const int fd = *static_cast<int*>(context);
  auto* out = static_cast<char*>(dst);
  while (count > 0) {
    ssize_t n = ::pread(fd, out, count, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;  // the file shrank under us
    out += n;
    offset += static_cast<uint64_t>(n);
    count -= static_cast<size_t>(n);
  }
  return true;
}

// Calls `use` with the bytes of a regular file; false when it cannot be read.
template <typename Use>
bool WithFileBytes(const std::string& path, Use&& use) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st {};
  bool result = false;
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
    ByteSource src;
    src.Size = static_cast<uint64_t>(st.st_size);
    src.Read = &FileRead;
    src.Context = &fd;
    result = use(src);
  }
  ::close(fd);
  return result;
}

std::string VersionBlockOfFile(const std::string& path) {
  std::string section;
  if (!WithFileBytes(path, [&](const ByteSource& src) { return ExtractVersionSectionFrom(src, section); }))
    return {};
  return BuildVersionBlock(section.data(), section.size());
}

}  // namespace

ModuleHandle LoadModule(const std::string& pathOrName) {
  if (pathOrName.empty()) return nullptr;
  std::string path = pathOrName;
  if (pathOrName.find('/') == std::string::npos) {
    // A bare name must not reach the dynamic loader's own search.
    path = SystemDirectory() + "/" + pathOrName;
    if (!FileExists(path)) path = LibraryDirectory() + "/" + pathOrName;
    if (!FileExists(path)) return nullptr;
  }
  // A module cut short would fault inside the loader: refused first. (What
  // cannot be read or is not a regular file is left to the loader.)
  bool intact = true;
  WithFileBytes(path, [&](const ByteSource& src) { return intact = ElfSegmentsInFile(src); });
  if (!intact) return nullptr;
  return ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
}

void* ModuleSymbol(ModuleHandle module, const char* name) {
  if (!module || !name) return nullptr;
  return ::dlsym(module, name);
}

void FreeModule(ModuleHandle module) {
  if (module) ::dlclose(module);
}

uint32_t FileVersionInfoSize(const std::string& path) {
  try {
    return static_cast<uint32_t>(VersionBlockOfFile(path).size());
  } catch (...) {
    return 0;
  }
}

bool FileVersionInfo(const std::string& path, uint32_t size, void* block) {
  if (!block) return false;
  try {
    std::string built = VersionBlockOfFile(path);
    if (built.empty() || size < built.size()) return false;
    std::memcpy(block, built.data(), built.size());
    return true;
  } catch (...) {
    return false;
  }
}

bool VersionQueryValue(const void* block, const char* query, const void** value,
                       uint32_t* length) {
  return QueryVersionBlock(block, query, value, length);
}

}  // namespace sx::plat
