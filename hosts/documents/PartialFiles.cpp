#include "documents/PartialFiles.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <system_error>
#include <thread>

namespace sx::host {
namespace {

// Enough for any folder a user scans into; a longer name is written all the
// same, only not kept or removed by an interrupt that ends the program at once.
constexpr size_t kNameBytes = 4096;
// Names tried before giving up: each is new with near certainty.
constexpr int kPartialAttempts = 16;
// Files at once: a page's file, a PNG's page while its TIFF takes over, and
// the earlier outputs they replace, moved aside until removed.
constexpr int kSlots = 6;
// The longest note: a few of a JPEG batch's names.
constexpr size_t kNoteBytes = 3 * kNameBytes;
// How long an interrupt that ends the program waits for a write under way:
// one buffer's bytes, which a working disk takes in milliseconds.
constexpr auto kTurnWait = std::chrono::seconds(2);

// Thread contract: a slot is filled and changed by one thread at a time,
// inside a WriteTurn (the scan's encoder thread; the host's thread before it
// starts and after it ends), and read by KeepPagesAtOnce, which may run at any
// moment: the names are complete before the slot is marked used, a boundary
// is written into the record not in use before it becomes the current one,
// and the marks are lock-free atomics.
struct Slot {
  std::atomic<bool> used{false};
  char partial[kNameBytes];
  char output[kNameBytes];
  std::atomic<int> descriptor{-1};
  PageBoundary boundaries[2];
  std::atomic<int> current{0};
};
Slot g_slots[kSlots];
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

// The note KeepPagesAtOnce returns, kept the same way: written into the
// buffer not in use, then made current.
char g_notes[2][kNoteBytes];
std::atomic<int> g_note{0};
constexpr char kNotKept[] = "; the pages scanned before it could not be kept";

// The write gate: open, held by one turn, or closed for good.
enum Gate : int { kOpen, kHeld, kClosed };
std::atomic<int> g_gate{kOpen};
std::atomic<bool> g_ending{false};
// The turns this thread holds: an interrupt handler that runs inside one on
// the same thread does not wait for it (it never ends before the program does).
thread_local int t_turns = 0;

[[noreturn]] void WaitForTheEnd() {
  for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
}

void CloseGate() {
  if (t_turns > 0) {
    g_gate.store(kClosed);
    return;
  }
  const auto start = std::chrono::steady_clock::now();
  for (;;) {
    int open = kOpen;
    if (g_gate.compare_exchange_strong(open, kClosed) || open == kClosed) return;
    // A disk that hangs: what was whole is kept all the same.
    if (std::chrono::steady_clock::now() - start > kTurnWait) {
      g_gate.store(kClosed);
      return;
    }
    std::this_thread::yield();
  }
}

Slot* FindSlot(const std::string& partial) {
  for (Slot& slot : g_slots) {
    if (slot.used.load() && partial == slot.partial) return &slot;
  }
  return nullptr;
}

void Remember(const std::string& partial, const std::string& output) {
  if (partial.size() >= kNameBytes || output.size() >= kNameBytes) return;
  for (Slot& slot : g_slots) {
    if (slot.used.load()) continue;
    std::memcpy(slot.partial, partial.c_str(), partial.size() + 1);
    std::memcpy(slot.output, output.c_str(), output.size() + 1);
    slot.descriptor.store(-1);
    slot.boundaries[slot.current.load()] = PageBoundary{};
    slot.used.store(true);
    return;
  }
}

void Forget(const std::string& partial) {
  if (Slot* slot = FindSlot(partial)) slot->used.store(false);
}

// ".<name>.<16 hex digits>.part" beside the output.
std::string PartialCandidate(const std::string& path) {
  static std::mt19937_64 random = [] {
    std::random_device device;
    // The clock and an address vary the seed where the device does not.
    const uint64_t clock = static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    std::seed_seq seed{device(), device(), static_cast<unsigned>(clock), static_cast<unsigned>(clock >> 32),
                       static_cast<unsigned>(reinterpret_cast<uintptr_t>(&device))};
    return std::mt19937_64(seed);
  }();
  // Windows also separates folders with a backslash; elsewhere it is part of a name.
  constexpr char kSeparators[] = {'/', static_cast<char>(std::filesystem::path::preferred_separator), '\0'};
  const size_t slash = path.find_last_of(kSeparators);
  const size_t name = slash == std::string::npos ? 0 : slash + 1;
  char tag[24];
  std::snprintf(tag, sizeof tag, ".%016llx", static_cast<unsigned long long>(random()));
  return path.substr(0, name) + "." + path.substr(name) + tag + ".part";
}

bool Failed(int* code) {
  *code = errno ? errno : EIO;
  return false;
}

}  // namespace

bool CreateNewFile(const std::string& name, int* code) {
  const int fd = OpenFileDescriptor(name, true);
  if (fd < 0) return Failed(code);
  CloseFile(fd);
  return true;
}

int OpenPartialFile(const std::string& name, int* code) {
  const int fd = OpenFileDescriptor(name, false);
  if (fd < 0) Failed(code);
  return fd;
}

bool WritePartialAt(int descriptor, uint64_t offset, const void* data, size_t bytes, int* code) {
  errno = 0;
  return WriteAllAt(descriptor, offset, data, bytes) || Failed(code);
}

bool ReadPartialAt(int descriptor, uint64_t offset, void* data, size_t bytes, int* code) {
  errno = 0;
  return ReadAllAt(descriptor, offset, data, bytes) || Failed(code);
}

bool ResizePartial(int descriptor, uint64_t size, int* code) {
  const int result = ResizeFile(descriptor, size);
  if (result == 0) return true;
  *code = result;
  return false;
}

bool ClosePartialFile(int descriptor, int* code) { return CloseFile(descriptor) == 0 || Failed(code); }

WriteTurn::WriteTurn() : nested_(t_turns > 0) {
  ++t_turns;
  if (nested_) return;
  for (int open = kOpen; !g_gate.compare_exchange_weak(open, kHeld); open = kOpen) {
    if (open == kClosed) WaitForTheEnd();
    std::this_thread::yield();
  }
}

WriteTurn::~WriteTurn() {
  --t_turns;
  int held = kHeld;
  if (!nested_ && !g_gate.compare_exchange_strong(held, kOpen)) WaitForTheEnd();
}

bool CreatePartial(const std::string& path, std::string* partial, std::string* error) {
  WriteTurn turn;
  int code = 0;
  for (int attempt = 0; attempt < kPartialAttempts; ++attempt) {
    *partial = PartialCandidate(path);
    // Recorded first, so that no moment exists where the file is there and
    // an interrupt would not remove it; a name taken already is never
    // created, and the chance of its removal meanwhile is nil.
    Remember(*partial, path);
    if (CreateNewFile(*partial, &code)) return true;
    Forget(*partial);
    if (code != EEXIST) break;
  }
  const std::string folder = std::filesystem::path(path).parent_path().string();
  *error = "cannot create a file in the folder " + (folder.empty() ? std::string(".") : folder) + ": " +
           std::error_code(code, std::generic_category()).message();
  partial->clear();
  return false;
}

bool PublishPartial(const std::string& partial, const std::string& path, std::string* error,
                    std::string* replaced) {
  WriteTurn turn;
  std::error_code ec;
  // The file replaced is first moved aside under a partial name of its own:
  // removing a large file whose pages the system still caches takes tens of
  // milliseconds, which the new file need not wait for to take its name.
  std::string aside;
  if (replaced && std::filesystem::is_regular_file(path, ec)) {
    aside = PartialCandidate(path);
    Remember(aside, path);
    std::filesystem::rename(path, aside, ec);
    if (ec) {
      Forget(aside);
      aside.clear();
    }
  }
  // The filesystem library replaces an existing output on every system
  // (std::rename does not on Windows).
  std::filesystem::rename(partial, path, ec);
  Forget(partial);
  if (!ec) {
    if (replaced) *replaced = aside;
    return true;
  }
  *error = "cannot write " + path + ": " + ec.message();
  std::remove(partial.c_str());
  if (!aside.empty()) {
    std::error_code ignored;
    std::filesystem::rename(aside, path, ignored);
    Forget(aside);
  }
  return false;
}

void DiscardPartial(const std::string& partial) {
  if (partial.empty()) return;
  WriteTurn turn;
  std::remove(partial.c_str());
  Forget(partial);
}

void PartialDescriptor(const std::string& partial, int descriptor) {
  WriteTurn turn;
  if (Slot* slot = FindSlot(partial)) slot->descriptor.store(descriptor);
}

void PartialWhole(const std::string& partial, const PageBoundary& boundary) {
  WriteTurn turn;
  Slot* slot = FindSlot(partial);
  if (!slot) return;
  const int next = 1 - slot->current.load();
  slot->boundaries[next] = boundary;
  slot->current.store(next);
}

void SetAtOnceNote(const std::string& note) {
  WriteTurn turn;
  const int next = 1 - g_note.load();
  std::snprintf(g_notes[next], kNoteBytes, "%s", note.c_str());
  g_note.store(next);
}

const char* KeepPagesAtOnce() {
  if (g_ending.exchange(true)) return nullptr;
  CloseGate();
  bool kept = true;
  for (Slot& slot : g_slots) {
    if (!slot.used.load()) continue;
    const PageBoundary& boundary = slot.boundaries[slot.current.load()];
    const int descriptor = slot.descriptor.load();
    if (boundary.length)
      kept = KeepFileAtOnce(descriptor, slot.partial, slot.output, boundary) && kept;
    else
      RemoveFileAtOnce(descriptor, slot.partial);
  }
  return kept ? g_notes[g_note.load()] : kNotKept;
}

}  // namespace sx::host
