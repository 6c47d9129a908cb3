#include "platform/Registry.h"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <type_traits>

#include "platform/FileIo.h"
#include "platform/Paths.h"
#include "platform/text/RegistryText.h"

namespace sx::plat {

namespace {

constexpr int32_t kRegErrorInvalidParameter = 87;  // ERROR_INVALID_PARAMETER
constexpr int32_t kRegErrorPathNotFound = 3;       // ERROR_PATH_NOT_FOUND

// The last store that was read, kept while its file stamp is unchanged: the
// trace writer reads a value for every line it writes.
struct CachedStore {
  std::string Path;
  FileStamp Stamp;
  RegDocument Doc;
};

// Thread contract: every field is guarded by Lock. The record is trivially
// destructible so that it outlives the library's own detach code, whatever
// order the process runs its exit handlers in; the cached document is freed by
// a late destructor (below).
struct StoreState {
  std::mutex Lock;
  CachedStore* Cache = nullptr;
};
static_assert(std::is_trivially_destructible_v<std::mutex>);
constinit StoreState g_store;

void DropCache() {
  std::lock_guard<std::mutex> guard(g_store.Lock);
  delete g_store.Cache;
  g_store.Cache = nullptr;
}

__attribute__((destructor(101))) void FreeStoreCache() { DropCache(); }

// Calls `use` with the current content of the store (an empty document when
// the store is missing or unreadable).
template <typename Use>
auto WithStore(Use&& use) {
  const std::string path = RegistryStorePath();
  std::lock_guard<std::mutex> guard(g_store.Lock);
  FileStamp stamp;
  if (!StampOf(path, stamp)) return use(RegDocument{});
  CachedStore* cache = g_store.Cache;
  if (cache && cache->Path == path && cache->Stamp == stamp) return use(cache->Doc);
  std::string text;
  FileStamp readStamp;
  if (ReadWholeFile(path, kMaxTextFileBytes, text, &readStamp) != ReadResult::Ok)
    return use(RegDocument{});
  if (!cache) cache = g_store.Cache = new CachedStore;
  cache->Path = path;
  cache->Stamp = readStamp;
  cache->Doc = ParseRegistryText(text);
  return use(cache->Doc);
}

int32_t CodeForErrno(int err) {
  return (err == EACCES || err == EPERM || err == EROFS || err == EISDIR) ? kRegErrorAccess
                                                                          : kRegErrorWrite;
}

// Re-reads the store under the store's lock, lets `change` edit it and
// replaces the store with the result.
template <typename Change>
int32_t ModifyStore(Change&& change) {
  const std::string path = RegistryStorePath();
  const std::string folder = ParentFolder(path);
  if (RootIsNamed() && !IsDirectory(folder)) return kRegErrorPathNotFound;
  if (!MakeFolders(folder)) return kRegErrorAccess;
  FileLock lock(path + ".lock", FileLock::On::File);
  if (!lock.Locked()) return CodeForErrno(lock.Error());
  std::string text;
  switch (ReadWholeFile(path, kMaxTextFileBytes, text)) {
    case ReadResult::Ok:
    case ReadResult::Missing:
      break;
    case ReadResult::Failed:
      // Never replace what could not be read: it may be a store we would lose.
      return kRegErrorAccess;
  }
  RegDocument doc = ParseRegistryText(text);
  change(doc);
  int err = ReplaceFileAtomically(path, WriteRegistryText(doc));
  DropCache();
  return err == 0 ? kRegOk : CodeForErrno(err);
}

// Names and keys live on one line of the store.
bool Writable(std::string_view text) {
  return text.find_first_of(std::string_view("\n\r\0", 3)) == std::string_view::npos;
}

}  // namespace

int32_t RegistryQuery(std::string_view key, std::string_view name, uint32_t* type, void* data,
                      uint32_t* size) {
  if (data && !size) return kRegErrorInvalidParameter;
  try {
    return WithStore([&](const RegDocument& doc) -> int32_t {
      const RegValue* value = FindRegistryValue(doc, key, name);
      if (!value) return kRegErrorNotFound;
      const uint32_t stored = static_cast<uint32_t>(value->Data.size());
      if (type) *type = value->Type;
      if (!data) {
        if (size) *size = stored;
        return kRegOk;
      }
      if (*size < stored) {
        *size = stored;
        return kRegErrorMoreData;
      }
      if (stored) std::memcpy(data, value->Data.data(), stored);
      *size = stored;
      return kRegOk;
    });
  } catch (...) {
    return kRegErrorNotFound;
  }
}

int32_t RegistrySet(std::string_view key, std::string_view name, uint32_t type, const void* data,
                    uint32_t size) {
  if (!Writable(key) || !Writable(name) || (!data && size)) return kRegErrorInvalidParameter;
  try {
    std::string_view bytes(static_cast<const char*>(data), data ? size : 0);
    return ModifyStore(
        [&](RegDocument& doc) { SetRegistryValue(doc, key, name, type, bytes); });
  } catch (...) {
    return kRegErrorWrite;
  }
}

int32_t RegistryCreateKey(std::string_view key) {
  if (!Writable(key)) return kRegErrorInvalidParameter;
  try {
    // Opening a key happens before every read; only a missing key costs a write.
    if (WithStore([&](const RegDocument& doc) { return HasRegistryKey(doc, key); })) return kRegOk;
    return ModifyStore([&](RegDocument& doc) { AddRegistryKey(doc, key); });
  } catch (...) {
    return kRegErrorWrite;
  }
}

uint32_t RegistryIgnoredLines() {
  try {
    return WithStore([](const RegDocument& doc) { return FindRegistryDamage(doc).Lines; });
  } catch (...) {
    return 0;
  }
}

}  // namespace sx::plat
