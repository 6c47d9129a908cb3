// The two readers of a candidate's version record: the maker check and the
// file-version reader. Both read the record into a movable global block and
// name their queries by the record's one translation.
#include <cstdio>
#include <cstring>

#include "frame/Trace.h"
#include "platform/Memory.h"
#include "platform/Module.h"
#include "sources/Discovery.h"

namespace sx {

namespace {

constexpr char kTranslationQuery[] = "\\VarFileInfo\\Translation";
constexpr char kMakerPrefix[] = "corvane";
constexpr size_t kMakerPrefixLength = sizeof(kMakerPrefix) - 1;
constexpr char kMakerTraceLabel[] = "VerifyCorvane";
// One translation: a 16-bit language and a 16-bit code page.
constexpr uint32_t kTranslationBytes = 4;

// A file's version record held in a locked movable block for the life of
// the object.
class VersionBlock {
 public:
  explicit VersionBlock(const std::string& path) {
    const uint32_t size = plat::FileVersionInfoSize(path);
    if (size == 0) return;
    handle_ = SxSysGlobalAlloc(plat::kGmemMoveable, size);
    if (!handle_) return;
    data_ = SxSysGlobalLock(handle_);
    if (data_ && !plat::FileVersionInfo(path, size, data_)) data_ = nullptr;
  }
  ~VersionBlock() { plat::GlobalUnlockAndFree(handle_); }
  VersionBlock(const VersionBlock&) = delete;
  VersionBlock& operator=(const VersionBlock&) = delete;

  bool Usable() const { return data_ != nullptr; }

  // The text value of `query`, bounded by its delivered length (a value
  // given as bytes need not be terminated). False when missing.
  bool Text(const char* query, std::string& out) const {
    const void* value = nullptr;
    uint32_t length = 0;
    if (!plat::VersionQueryValue(data_, query, &value, &length) || !value) return false;
    const char* text = static_cast<const char*>(value);
    out.assign(text, strnlen(text, length));
    return true;
  }

  // The "\StringFileInfo\<translation>\" prefix of the string queries. Only
  // a record with exactly one translation names a usable block; with any
  // other the prefix is empty and every string query fails.
  std::string StringPrefix() const {
    const void* value = nullptr;
    uint32_t length = 0;
    if (!plat::VersionQueryValue(data_, kTranslationQuery, &value, &length) || !value) return {};
    if (length != kTranslationBytes) return {};
    const uint8_t* b = static_cast<const uint8_t*>(value);
    // Each 16-bit half is little-endian: high byte first gives 040904B0.
    char text[9];
    std::snprintf(text, sizeof text, "%02X%02X%02X%02X", b[1], b[0], b[3], b[2]);
    return std::string("\\StringFileInfo\\") + text + "\\";
  }

 private:
  SxHandle handle_ = nullptr;
  void* data_ = nullptr;
};

bool NamesMaker(const std::string& value) {
  return EqualNoCase(value.c_str(), kMakerPrefix, kMakerPrefixLength);
}

}  // namespace

int32_t VerifyMaker(const std::string& path) {
  VersionBlock record(path);
  if (!record.Usable()) return 0;
  const std::string prefix = record.StringPrefix();
  if (prefix.empty()) return 0;
  std::string value;
  if (!record.Text((prefix + "CompanyName").c_str(), value)) return 0;
  int32_t result = NamesMaker(value) ? 1 : 0;
  if (!result) {
    // Another maker's company may still ship this maker's product.
    std::string product;
    if (record.Text((prefix + "ProductName").c_str(), product)) {
      value = product;
      result = NamesMaker(value) ? 1 : 0;
    }
  }
  TraceLog(kTraceFile, kMakerTraceLabel, kTagDetail, 1, reinterpret_cast<intptr_t>(value.c_str()),
           kKindText, 2);
  return result;
}

// Design note: a record without a file version gives the empty text, which
// never compares above an entry's version, so such a candidate is never
// listed. A version longer than the field is cut: it only orders copies.
std::string ReadFileVersion(const std::string& path) {
  VersionBlock record(path);
  if (!record.Usable()) return {};
  const std::string prefix = record.StringPrefix();
  std::string value;
  if (prefix.empty() || !record.Text((prefix + "FileVersion").c_str(), value)) return {};
  std::string version;
  for (char c : value) {
    if (c != ' ') version.push_back(c);
  }
  if (version.size() > kFileVersionField - 1) version.resize(kFileVersionField - 1);
  return version;
}

}  // namespace sx
