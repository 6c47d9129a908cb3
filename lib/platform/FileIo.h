// File helpers shared by the registry store and the profile files: bounded
// whole-file reads and atomic replacement (temporary file in the same folder,
// flushed to disk, renamed over the target), so a crash leaves either the old
// or the new content, never a torn file.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace sx::plat {

// The largest store or profile file the library reads; anything bigger is
// treated as unreadable rather than allocated.
inline constexpr size_t kMaxTextFileBytes = 16u * 1024u * 1024u;

enum class ReadResult { Ok, Missing, Failed };

// What tells one version of a file from another without reading it.
struct FileStamp {
  uint64_t Device = 0;
  uint64_t Inode = 0;
  int64_t Size = -1;
  int64_t ModifiedNs = 0;
  int64_t ChangedNs = 0;
  bool operator==(const FileStamp&) const = default;
};

// False when the file cannot be looked at (missing, no access).
bool StampOf(const std::string& path, FileStamp& stamp);

// Reads a whole regular file of at most `cap` bytes into `out`. Missing when
// the file does not exist; Failed when it cannot be read, is not a regular
// file, or is larger than `cap`. `stamp`, when given, describes the version
// that was read.
ReadResult ReadWholeFile(const std::string& path, size_t cap, std::string& out,
                         FileStamp* stamp = nullptr);

// Creates a folder and any missing parents; an existing folder is no error.
bool MakeFolders(const std::string& path);

// Replaces `path` with `content` atomically. Returns 0 or the errno of the
// step that failed; on failure the old file is untouched and no temporary
// file is left behind.
int ReplaceFileAtomically(const std::string& path, std::string_view content);

// An exclusive advisory lock held for the life of the object, on a lock file
// (created when missing) or on an existing folder. Locked() is false when the
// lock could not be taken.
class FileLock {
 public:
  enum class On { File, Folder };
  FileLock(const std::string& lockPath, On on);
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  bool Locked() const { return fd_ >= 0; }
  int Error() const { return error_; }

 private:
  int fd_ = -1;
  int error_ = 0;
};

// The folder part of a path ("." when it has none).
std::string ParentFolder(const std::string& path);

}  // namespace sx::plat
