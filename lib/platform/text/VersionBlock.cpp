// The version block: the entries of a version record in one self-describing
// piece of memory that the library copies into a block of its own and queries.
//
//   u32 magic, u32 total size, u32 entry count, then per entry:
//   u32 path length, u32 value length, path bytes, value bytes, padding to 4.
#include <cstring>
#include <string_view>

#include "platform/text/Text.h"
#include "platform/text/VersionRecord.h"

namespace sx::plat {

namespace {

constexpr uint32_t kBlockMagic = 0x42565853;  // "SXVB"
constexpr size_t kHeaderBytes = 12;

// Paths compare without regard to case and to a leading '\'.
bool SamePath(std::string_view a, std::string_view b) {
  if (!a.empty() && a.front() == '\\') a.remove_prefix(1);
  if (!b.empty() && b.front() == '\\') b.remove_prefix(1);
  return EqualNoCase(a, b);
}

// "09 04 b0 04" or "09,04,b0,04": pairs of hex digits between blanks/commas.
bool ParseBytes(std::string_view s, std::string& out) {
  out.clear();
  size_t i = 0;
  while (i < s.size()) {
    char c = s[i];
    if (c == ' ' || c == '\t' || c == ',') {
      ++i;
      continue;
    }
    if (i + 1 >= s.size() || HexDigit(c) < 0 || HexDigit(s[i + 1]) < 0) return false;
    if (i + 2 < s.size() && HexDigit(s[i + 2]) >= 0) return false;  // not a pair
    out.push_back(static_cast<char>(HexDigit(c) * 16 + HexDigit(s[i + 1])));
    i += 2;
  }
  return true;
}

void PutU32(std::string& out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
}

uint32_t GetU32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

size_t Padded(size_t n) { return (n + 3) & ~static_cast<size_t>(3); }

}  // namespace

std::string BuildVersionBlock(const char* text, size_t size) {
  if (!text || size == 0 || size > (1u << 20)) return {};
  try {
    std::string body;
    uint32_t count = 0;
    std::string_view rest(text, size);
    std::string value;
    while (!rest.empty()) {
      size_t nl = rest.find('\n');
      std::string_view line = rest.substr(0, nl);
      rest.remove_prefix(nl == std::string_view::npos ? rest.size() : nl + 1);
      if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
      size_t eq = line.find('=');
      if (eq == std::string_view::npos || eq == 0) continue;
      std::string_view path = line.substr(0, eq);
      std::string_view raw = line.substr(eq + 1);
      if (raw.size() >= 4 && SamePath(raw.substr(0, 4), "hex:")) {
        if (!ParseBytes(raw.substr(4), value)) continue;
      } else {
        value.assign(raw);
        value.push_back('\0');  // text values are delivered terminated
      }
      PutU32(body, static_cast<uint32_t>(path.size()));
      PutU32(body, static_cast<uint32_t>(value.size()));
      body.append(path);
      body.append(value);
      body.resize(Padded(body.size()), '\0');
      ++count;
    }
    if (count == 0) return {};
    std::string block;
    PutU32(block, kBlockMagic);
    PutU32(block, static_cast<uint32_t>(kHeaderBytes + body.size()));
    PutU32(block, count);
    return block + body;
  } catch (...) {
    return {};
  }
}

bool QueryVersionBlock(const void* block, const char* query, const void** value, uint32_t* length) {
  if (!block || !query || !value) return false;
  const auto* p = static_cast<const unsigned char*>(block);
  if (GetU32(p) != kBlockMagic) return false;
  const size_t total = GetU32(p + 4);
  const uint32_t count = GetU32(p + 8);
  size_t at = kHeaderBytes;
  for (uint32_t i = 0; i < count; ++i) {
    if (total < 8 || at > total - 8) return false;
    const size_t pathLen = GetU32(p + at);
    const size_t valueLen = GetU32(p + at + 4);
    const size_t end = at + 8 + pathLen + valueLen;
    if (pathLen > total || valueLen > total || end > total) return false;
    std::string_view path(reinterpret_cast<const char*>(p + at + 8), pathLen);
    if (SamePath(path, query)) {
      *value = p + at + 8 + pathLen;
      if (length) *length = static_cast<uint32_t>(valueLen);
      return true;
    }
    at = Padded(end);
  }
  return false;
}

}  // namespace sx::plat
