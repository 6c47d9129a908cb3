#include "platform/Profile.h"

#include <cstring>
#include <string_view>

#include "platform/FileIo.h"
#include "platform/Paths.h"
#include "platform/text/ProfileText.h"

namespace sx::plat {

namespace {

// A bare file name lives in the Windows directory, as the profile functions
// of the system being stood in for have it.
std::string ResolveProfilePath(const std::string& file) {
  if (file.find('/') != std::string::npos) return file;
  return WindowsDirectory() + "/" + file;
}

bool ReadProfile(const std::string& file, std::string& text) {
  return ReadWholeFile(ResolveProfilePath(file), kMaxTextFileBytes, text) == ReadResult::Ok;
}

uint32_t CopyCut(std::string_view text, char* out, uint32_t size) {
  uint32_t n = text.size() < size ? static_cast<uint32_t>(text.size()) : size - 1;
  std::memcpy(out, text.data(), n);
  out[n] = '\0';
  return n;
}

// The enumeration forms: each name followed by a NUL and one NUL more at the
// end; when the room is too small the list is cut and still ends in two NULs,
// and the result is size - 2.
uint32_t CopyNameList(const std::vector<std::string>& names, char* out, uint32_t size) {
  if (size < 2) {
    out[0] = '\0';
    return 0;
  }
  uint32_t pos = 0;
  for (const std::string& name : names) {
    if (pos + name.size() + 2 > size) {
      uint32_t room = size - 2 - pos;
      std::memcpy(out + pos, name.data(), room);
      out[size - 2] = '\0';
      out[size - 1] = '\0';
      return size - 2;
    }
    std::memcpy(out + pos, name.data(), name.size());
    pos += static_cast<uint32_t>(name.size());
    out[pos++] = '\0';
  }
  out[pos] = '\0';
  return pos;
}

bool OneLine(const char* text) {
  return !text || std::strpbrk(text, "\r\n") == nullptr;
}

}  // namespace

uint32_t ProfileGetString(const char* section, const char* key, const char* def, char* out,
                          uint32_t size, const std::string& file) {
  if (!out || size == 0) return 0;
  try {
    std::string text;
    bool haveFile = ReadProfile(file, text);
    if (!section) return CopyNameList(haveFile ? ProfileSectionNames(text) : std::vector<std::string>{}, out, size);
    if (!key) return CopyNameList(haveFile ? ProfileKeyNames(text, section) : std::vector<std::string>{}, out, size);
    std::string value;
    if (haveFile && ProfileLookup(text, section, key, value)) return CopyCut(value, out, size);
  } catch (...) {
    // Out of memory: fall through to the default.
  }
  // Trailing blanks of the default are dropped, as the profile functions do.
  std::string_view d = def ? def : "";
  while (!d.empty() && (d.back() == ' ' || d.back() == '\t')) d.remove_suffix(1);
  return CopyCut(d, out, size);
}

int32_t ProfileGetInt(const char* section, const char* key, int32_t def, const std::string& file) {
  if (!section || !key) return def;
  try {
    std::string text, value;
    if (!ReadProfile(file, text) || !ProfileLookup(text, section, key, value)) return def;
    return ProfileParseInt(value, def);
  } catch (...) {
    return def;
  }
}

bool ProfileWriteString(const char* section, const char* key, const char* value,
                        const std::string& file) {
  if (!section || !OneLine(section) || !OneLine(key) || !OneLine(value)) return false;
  try {
    const std::string path = ResolveProfilePath(file);
    // Writers in one folder take turns; the folder must already exist.
    FileLock lock(ParentFolder(path), FileLock::On::Folder);
    if (!lock.Locked()) return false;
    std::string text;
    if (ReadWholeFile(path, kMaxTextFileBytes, text) == ReadResult::Failed) return false;
    std::optional<std::string_view> k, v;
    if (key) k = key;
    if (value) v = value;
    std::string updated = ProfileUpdate(text, section, k, v);
    if (updated == text && FileExists(path)) return true;
    return ReplaceFileAtomically(path, updated) == 0;
  } catch (...) {
    return false;
  }
}

}  // namespace sx::plat
