#include "platform/FileIo.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace sx::plat {

namespace {

int WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    if (n == 0) return EIO;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return 0;
}

// A symbolic link to the store stays a link: the new content replaces the
// file it points at.
std::string ResolveTarget(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
    if (char* real = ::realpath(path.c_str(), nullptr)) {
      std::string resolved(real);
      std::free(real);
      return resolved;
    }
  }
  return path;
}

void SyncFolder(const std::string& folder) {
  int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);  // best effort: the rename itself is already atomic
  ::close(fd);
}

FileStamp StampFromStat(const struct stat& st) {
  FileStamp s;
  s.Device = static_cast<uint64_t>(st.st_dev);
  s.Inode = static_cast<uint64_t>(st.st_ino);
  s.Size = static_cast<int64_t>(st.st_size);
  s.ModifiedNs = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  s.ChangedNs = static_cast<int64_t>(st.st_ctim.tv_sec) * 1000000000 + st.st_ctim.tv_nsec;
  return s;
}

}  // namespace

bool StampOf(const std::string& path, FileStamp& stamp) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return false;
  stamp = StampFromStat(st);
  return true;
}

bool MakeFolders(const std::string& path) {
  if (path.empty()) return false;
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
  std::string parent = ParentFolder(path);
  if (parent != path && parent != "." && parent != "/" && !MakeFolders(parent)) return false;
  if (::mkdir(path.c_str(), 0755) == 0) return true;
  return errno == EEXIST && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string ParentFolder(const std::string& path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

ReadResult ReadWholeFile(const std::string& path, size_t cap, std::string& out,
                         FileStamp* stamp) {
  out.clear();
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT || errno == ENOTDIR ? ReadResult::Missing : ReadResult::Failed;
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || static_cast<uint64_t>(st.st_size) > cap) {
    ::close(fd);
    return ReadResult::Failed;
  }
  if (stamp) *stamp = StampFromStat(st);
  try {
    out.reserve(static_cast<size_t>(st.st_size));
    char chunk[8192];
    for (;;) {
      ssize_t n = ::read(fd, chunk, sizeof chunk);
      if (n < 0) {
        if (errno == EINTR) continue;
        ::close(fd);
        return ReadResult::Failed;
      }
      if (n == 0) break;
      // The file may grow while being read; the cap still holds.
      if (out.size() + static_cast<size_t>(n) > cap) {
        ::close(fd);
        return ReadResult::Failed;
      }
      out.append(chunk, static_cast<size_t>(n));
    }
  } catch (...) {
    ::close(fd);
    out.clear();
    return ReadResult::Failed;
  }
  ::close(fd);
  return ReadResult::Ok;
}

int ReplaceFileAtomically(const std::string& path, std::string_view content) {
  const std::string target = ResolveTarget(path);
  const std::string folder = ParentFolder(target);
  struct stat old {};
  mode_t mode = 0644;
  if (::stat(target.c_str(), &old) == 0) {
    // Renaming over a folder would fail late; refuse before writing anything.
    if (S_ISDIR(old.st_mode)) return EISDIR;
    mode = old.st_mode & 07777;
  }
  std::string tmp = folder + "/.sxtmp-XXXXXX";
  int fd = ::mkstemp(tmp.data());
  if (fd < 0) return errno;
  int err = WriteAll(fd, content.data(), content.size());
  if (err == 0 && ::fchmod(fd, mode) != 0) err = errno;
  if (err == 0 && ::fsync(fd) != 0) err = errno;
  if (::close(fd) != 0 && err == 0) err = errno;
  if (err == 0 && ::rename(tmp.c_str(), target.c_str()) != 0) err = errno;
  if (err != 0) {
    ::unlink(tmp.c_str());
    return err;
  }
  SyncFolder(folder);
  return 0;
}

FileLock::FileLock(const std::string& lockPath, On on) {
  fd_ = on == On::Folder ? ::open(lockPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)
               : ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd_ < 0) {
    error_ = errno;
    return;
  }
  while (::flock(fd_, LOCK_EX) != 0) {
    if (errno == EINTR) continue;
    error_ = errno;
    ::close(fd_);
    fd_ = -1;
    return;
  }
}

FileLock::~FileLock() {
  if (fd_ >= 0) {
    ::flock(fd_, LOCK_UN);
    ::close(fd_);
  }
}

}  // namespace sx::plat
