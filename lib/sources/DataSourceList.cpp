// The data-source list: built by walking twain_32 three folder levels deep in
// the file system's own order, then kept until SxFree.
#include "sources/DataSourceList.h"

#include <cstring>
#include <new>

#include "platform/Paths.h"
#include "sources/Aspi.h"
#include "sources/Discovery.h"

namespace sx {

DataSourceEntry* gSourceHead = nullptr;
DataSourceEntry* gSourceCursor = nullptr;

namespace {

constexpr char kAllFiles[] = "*.*";
constexpr char kDriverFiles[] = "*.dll";

// The walk's state: the waiting tail (an empty entry that the next accepted
// candidate fills) and whether the tail could be renewed.
struct Walk {
  DataSourceEntry* Tail = nullptr;
  bool OutOfMemory = false;
};

DataSourceEntry* NewEntry() { return new (std::nothrow) DataSourceEntry{}; }

bool HasDot(const std::string& name) { return name.find('.') != std::string::npos; }

// Tries one file; an accepted candidate fills the tail and a fresh one is
// appended. True when the candidate was accepted.
bool TryCandidate(Walk& walk, const std::string& maker, const std::string& model,
                  const std::string& fileName) {
  if (walk.OutOfMemory || VerifyDriver(maker, model, fileName, *walk.Tail) != 1) return false;
  DataSourceEntry* next = NewEntry();
  if (!next) {
    // The filled tail stays as the last entry; nothing more can be listed.
    walk.OutOfMemory = true;
    return true;
  }
  walk.Tail->Next = next;
  walk.Tail = next;
  return true;
}

void WalkModelFolder(Walk& walk, const std::string& maker, const std::string& model) {
  for (const std::string& name : plat::FindFiles(TwainDirectory() + maker + model, kDriverFiles)) {
    if (TryCandidate(walk, maker, model, name)) return;  // one driver per model folder
  }
}

void WalkMakerFolder(Walk& walk, const std::string& maker) {
  for (const std::string& name : plat::FindFiles(TwainDirectory() + maker, kAllFiles)) {
    if (HasDot(name)) {
      // A driver lying directly in the maker folder serves the whole folder.
      if (TryCandidate(walk, maker, "", name)) return;
    } else {
      WalkModelFolder(walk, maker, name + SX_PATH_SEP);
    }
  }
}

void WalkTwainFolder(Walk& walk) {
  for (const std::string& name : plat::FindFiles(TwainDirectory(), kAllFiles)) {
    if (HasDot(name)) {
      TryCandidate(walk, "", "", name);
    } else {
      WalkMakerFolder(walk, name + SX_PATH_SEP);
    }
  }
}

// Removes the waiting tail: the entry that no candidate filled.
void CutEmptyTail(const Walk& walk) {
  if (walk.OutOfMemory) return;  // the last entry is a filled one
  if (gSourceHead == walk.Tail) {
    gSourceHead = nullptr;
  } else {
    DataSourceEntry* p = gSourceHead;
    while (p->Next != walk.Tail) p = p->Next;
    p->Next = nullptr;
  }
  delete walk.Tail;
}

}  // namespace

void BuildDataSourceList() {
  if (gSourceHead) return;
  Walk walk;
  walk.Tail = NewEntry();
  if (!walk.Tail) return;
  // The list is published while it grows: duplicate resolution walks it.
  gSourceHead = walk.Tail;
  AddScsiSources(walk.Tail);
  WalkTwainFolder(walk);
  CutEmptyTail(walk);
  ReleaseAspi();
}

void FreeDataSourceList() {
  DataSourceEntry* p = gSourceHead;
  while (p) {
    DataSourceEntry* next = p->Next;
    delete p;
    p = next;
  }
  gSourceHead = nullptr;
  gSourceCursor = nullptr;
}

DataSourceEntry* CreateSampleEntry() {
  DataSourceEntry* entry = NewEntry();
  if (!entry) return nullptr;
  SxDataSource& s = entry->Host;
  std::strcpy(s.FileVersion, "0.00");
  // The root folder: the built-in source has no module file of its own.
  std::strcpy(s.Directory, SX_PATH_SEP);
  std::strcpy(s.FileName, kSampleFileName);
  std::strcpy(s.DisplayName, kSampleDisplayName);
  std::strcpy(s.Vendor, "Corvane Inc.");
  std::strcpy(s.PortName, "Sample");
  return entry;
}

}  // namespace sx
