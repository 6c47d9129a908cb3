// Partial files on POSIX: descriptors, positioned reads and writes, and the
// at-once step with calls safe in a signal handler (ftruncate, pwrite,
// rename, unlink).
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "documents/PartialFiles.h"

namespace sx::host {

// A new file gets the permissions any new file gets (the umask's). The
// partial file is opened to read and write (a TIFF's later directories read
// back the earlier ones) and, being new and empty, without truncating it,
// which a file system may answer by writing the whole file out when it closes.
int OpenFileDescriptor(const std::string& name, bool createNew) {
  constexpr mode_t kNewFileMode = 0666;
  if (createNew) return open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kNewFileMode);
  return open(name.c_str(), O_RDWR | O_CLOEXEC);
}

// pwrite until every byte is written; a short write without an error is a
// full disk.
bool WriteAllAt(int descriptor, uint64_t offset, const void* data, size_t bytes) {
  const auto* p = static_cast<const char*>(data);
  while (bytes > 0) {
    const ssize_t n = pwrite(descriptor, p, bytes, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = ENOSPC;
      return false;
    }
    p += n, offset += static_cast<uint64_t>(n), bytes -= static_cast<size_t>(n);
  }
  return true;
}

bool ReadAllAt(int descriptor, uint64_t offset, void* data, size_t bytes) {
  auto* p = static_cast<char*>(data);
  while (bytes > 0) {
    const ssize_t n = pread(descriptor, p, bytes, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;  // past the end: the file is not what was written
      return false;
    }
    p += n, offset += static_cast<uint64_t>(n), bytes -= static_cast<size_t>(n);
  }
  return true;
}

int ResizeFile(int descriptor, uint64_t size) {
  return ftruncate(descriptor, static_cast<off_t>(size)) == 0 ? 0 : (errno ? errno : EIO);
}

int CloseFile(int descriptor) { return close(descriptor); }

// Linux keeps written data in memory for up to half a minute; started early,
// the writing is done by the time the file is renamed, which on ext4 would
// otherwise wait for all of it.
void StartWriteBack(int descriptor, uint64_t offset, uint64_t bytes) {
  sync_file_range(descriptor, static_cast<off_t>(offset), static_cast<off_t>(bytes), SYNC_FILE_RANGE_WRITE);
}

bool KeepFileAtOnce(int descriptor, const char* partial, const char* output, const PageBoundary& boundary) {
  if (descriptor >= 0) {
    if (ftruncate(descriptor, static_cast<off_t>(boundary.length)) != 0) return false;
    if (boundary.patchBytes && !WriteAllAt(descriptor, boundary.patchAt, boundary.patch, boundary.patchBytes))
      return false;
  }
  return rename(partial, output) == 0;
}

void RemoveFileAtOnce(int, const char* partial) { unlink(partial); }

}  // namespace sx::host
