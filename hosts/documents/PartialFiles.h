// Files written under a name of their own until they hold a whole document,
// and what becomes of them when a document cannot be finished.
//
// A file is written as a hidden ".<name>.<16 hex digits>.part" beside the
// output, so an interrupted write never leaves a partial file under the
// output's name, and two programs writing the same output never share one
// (the last to finish replaces the output whole).
//
// Design note: after each complete page the writer records the length at
// which the file is a whole, valid document of the pages so far (a
// PageBoundary). Every way a document can end unfinished (an interrupt, a
// second interrupt, a full disk, a scanner error) is then the same step: cut
// the file back to its last boundary and give it the output's name; a file
// without a boundary is removed. A second interrupt takes that step in its
// signal handler (KeepPagesAtOnce) with calls safe there, after keeping the
// program's threads from writing any further byte (WriteTurn); on a full
// disk the cut frees the space the step needs.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

namespace sx::host {

// Where a partial file holds a whole document, and the bytes to write back
// before it is cut there: a TIFF's last directory ends the chain until the
// next page's directory links itself in.
struct PageBoundary {
  uint64_t length = 0;  // 0: the file holds no whole document yet
  uint64_t patchAt = 0;
  uint32_t patchBytes = 0;  // 0: nothing to write back
  uint8_t patch[4] = {};
};

// CreatePartial makes the empty partial file for `path` and records it;
// PublishPartial renames it to the output, DiscardPartial removes it. With
// `replaced`, an output that existed is moved aside under a partial name
// given there (empty when none), for the caller to discard when it likes.
bool CreatePartial(const std::string& path, std::string* partial, std::string* error);
bool PublishPartial(const std::string& partial, const std::string& path, std::string* error,
                    std::string* replaced = nullptr);
void DiscardPartial(const std::string& partial);
// The descriptor the partial file is open under; -1 once it is closed,
// whole at its last boundary.
void PartialDescriptor(const std::string& partial, int descriptor);
// The partial file holds a whole document up to `boundary`.
void PartialWhole(const std::string& partial, const PageBoundary& boundary);
// What KeepPagesAtOnce keeps, as the message goes on after "scan
// cancelled": "; the 2 pages scanned before it are kept in b.tif".
void SetAtOnceNote(const std::string& note);

// Every system call that changes a partial file, and every change of the
// records above, is made in a turn: once KeepPagesAtOnce has begun, no turn
// is given any more (the thread asking waits for the program's end), and a
// turn under way is waited for. Turns nest on one thread.
class WriteTurn {
 public:
  WriteTurn();
  ~WriteTurn();
  WriteTurn(const WriteTurn&) = delete;
  WriteTurn& operator=(const WriteTurn&) = delete;

 private:
  bool nested_;
};

// For an interrupt that ends the program at once; safe in a signal handler
// and on any thread. Cuts each partial file back to its boundary and gives it
// its output's name, removes those without one, and returns the note to say
// (the pages kept, or that they could not be). Null when another thread is
// ending the program already.
const char* KeepPagesAtOnce();

// Partial files by name and their bytes through a descriptor; false (or -1)
// with the system's error (errno values) in *code.
bool CreateNewFile(const std::string& name, int* code);  // fails if it exists
int OpenPartialFile(const std::string& name, int* code);  // -1 when it cannot be
bool WritePartialAt(int descriptor, uint64_t offset, const void* data, size_t bytes, int* code);
bool ReadPartialAt(int descriptor, uint64_t offset, void* data, size_t bytes, int* code);
bool ResizePartial(int descriptor, uint64_t size, int* code);
bool ClosePartialFile(int descriptor, int* code);

// ---- one per system (PartialFilesPosix.cpp, PartialFilesWin32.cpp) ----

// A descriptor for `name`, a new empty file (failing if it exists) or the
// partial file opened to read and write; -1 with errno set when it cannot be.
int OpenFileDescriptor(const std::string& name, bool createNew);
// Every byte from `offset`; false with errno set (ENOSPC for a short write,
// EIO for a read past the end).
bool WriteAllAt(int descriptor, uint64_t offset, const void* data, size_t bytes);
bool ReadAllAt(int descriptor, uint64_t offset, void* data, size_t bytes);
// 0, or the system's error (errno values).
int ResizeFile(int descriptor, uint64_t size);
int CloseFile(int descriptor);  // 0, or -1 with errno set
// Asks the system to start writing `bytes` from `offset` to disk without
// waiting for it; nothing where the system does that by itself.
void StartWriteBack(int descriptor, uint64_t offset, uint64_t bytes);
// Safe in a signal handler: the partial file cut back to `boundary` (through
// `descriptor` when it is open) and renamed to `output`; or removed.
bool KeepFileAtOnce(int descriptor, const char* partial, const char* output, const PageBoundary& boundary);
void RemoveFileAtOnce(int descriptor, const char* partial);

}  // namespace sx::host
