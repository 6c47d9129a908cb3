// Partial files on Windows, through the C library's descriptors. The at-once
// step runs on the console's control thread, once the writing thread waits:
// the file is cut through its descriptor and closed, since an open file
// cannot be renamed.
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>

#include "documents/PartialFiles.h"

namespace sx::host {
namespace {

// The C library's calls take at most an int of bytes at a time.
constexpr size_t kLargestCall = INT_MAX / 2;

bool Seek(int descriptor, uint64_t offset) {
  return _lseeki64(descriptor, static_cast<long long>(offset), SEEK_SET) == static_cast<long long>(offset);
}

}  // namespace

// Exclusive creation, as the C library of the system offers it.
int OpenFileDescriptor(const std::string& name, bool createNew) {
  if (createNew) return _open(name.c_str(), _O_WRONLY | _O_CREAT | _O_EXCL | _O_BINARY, _S_IREAD | _S_IWRITE);
  return _open(name.c_str(), _O_RDWR | _O_BINARY | _O_NOINHERIT);
}

bool WriteAllAt(int descriptor, uint64_t offset, const void* data, size_t bytes) {
  if (!Seek(descriptor, offset)) return false;
  const auto* p = static_cast<const char*>(data);
  while (bytes > 0) {
    const int n = _write(descriptor, p, static_cast<unsigned>(bytes < kLargestCall ? bytes : kLargestCall));
    if (n <= 0) {
      if (n == 0) errno = ENOSPC;
      return false;
    }
    p += n, bytes -= static_cast<size_t>(n);
  }
  return true;
}

bool ReadAllAt(int descriptor, uint64_t offset, void* data, size_t bytes) {
  if (!Seek(descriptor, offset)) return false;
  auto* p = static_cast<char*>(data);
  while (bytes > 0) {
    const int n = _read(descriptor, p, static_cast<unsigned>(bytes < kLargestCall ? bytes : kLargestCall));
    if (n <= 0) {
      if (n == 0) errno = EIO;  // past the end: the file is not what was written
      return false;
    }
    p += n, bytes -= static_cast<size_t>(n);
  }
  return true;
}

int ResizeFile(int descriptor, uint64_t size) { return _chsize_s(descriptor, static_cast<long long>(size)); }

int CloseFile(int descriptor) { return _close(descriptor); }

// Windows' cache manager writes dirty pages out steadily by itself.
void StartWriteBack(int, uint64_t, uint64_t) {}

bool KeepFileAtOnce(int descriptor, const char* partial, const char* output, const PageBoundary& boundary) {
  if (descriptor >= 0) {
    const bool cut = _chsize_s(descriptor, static_cast<long long>(boundary.length)) == 0 &&
                     (!boundary.patchBytes || WriteAllAt(descriptor, boundary.patchAt, boundary.patch,
                                                        boundary.patchBytes));
    _close(descriptor);
    if (!cut) return false;
  }
  return MoveFileExA(partial, output, MOVEFILE_REPLACE_EXISTING) != 0;
}

void RemoveFileAtOnce(int descriptor, const char* partial) {
  if (descriptor >= 0) _close(descriptor);
  DeleteFileA(partial);
}

}  // namespace sx::host
