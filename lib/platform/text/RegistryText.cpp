#include "platform/text/Text.h"
#include "platform/text/RegistryText.h"

#include <cstdio>

namespace sx::plat {

namespace {

using Kind = RegLine::Kind;

constexpr uint32_t kTypeSz = 1;
constexpr uint32_t kTypeExpandSz = 2;
constexpr uint32_t kTypeBinary = 3;
constexpr uint32_t kTypeDword = 4;


std::string_view NormalizeKey(std::string_view key) {
  key = Trim(key);
  constexpr std::string_view kHive = "HKEY_CURRENT_USER";
  if (StartsNoCase(key, kHive) && (key.size() == kHive.size() || key[kHive.size()] == '\\'))
    key.remove_prefix(kHive.size());
  while (!key.empty() && key.front() == '\\') key.remove_prefix(1);
  while (!key.empty() && key.back() == '\\') key.remove_suffix(1);
  return key;
}

// A quoted text at the start of `s`: `\\` and `\"` are escapes, any other
// backslash stands for itself (hand-written paths keep their separators).
// On success `s` is left after the closing quote.
bool ParseQuoted(std::string_view& s, std::string& out) {
  if (s.empty() || s.front() != '"') return false;
  out.clear();
  for (size_t i = 1; i < s.size(); ++i) {
    char c = s[i];
    if (c == '"') {
      s.remove_prefix(i + 1);
      return true;
    }
    if (c == '\\' && i + 1 < s.size() && (s[i + 1] == '\\' || s[i + 1] == '"')) c = s[++i];
    out.push_back(c);
  }
  return false;
}

// Bytes as "4f,6b" (one or two hex digits each, blanks allowed, a final comma
// tolerated).
bool ParseHexBytes(std::string_view s, std::string& out) {
  out.clear();
  s = Trim(s);
  while (!s.empty()) {
    int hi = HexDigit(s.front());
    if (hi < 0) return false;
    s.remove_prefix(1);
    int value = hi;
    if (!s.empty() && HexDigit(s.front()) >= 0) {
      value = hi * 16 + HexDigit(s.front());
      s.remove_prefix(1);
    }
    out.push_back(static_cast<char>(value));
    s = Trim(s);
    if (s.empty()) break;
    if (s.front() != ',') return false;
    s.remove_prefix(1);
    s = Trim(s);
  }
  return true;
}

bool ParseHexNumber(std::string_view s, size_t maxDigits, uint32_t& out) {
  if (s.empty() || s.size() > maxDigits) return false;
  out = 0;
  for (char c : s) {
    int d = HexDigit(c);
    if (d < 0) return false;
    out = out * 16 + static_cast<uint32_t>(d);
  }
  return true;
}

bool ParseData(std::string_view s, RegValue& value) {
  s = Trim(s);
  if (!s.empty() && s.front() == '"') {
    if (!ParseQuoted(s, value.Data) || !Trim(s).empty()) return false;
    value.Type = kTypeSz;
    value.Data.push_back('\0');
    return true;
  }
  if (StartsNoCase(s, "str(2):")) {
    s.remove_prefix(7);
    if (!ParseQuoted(s, value.Data) || !Trim(s).empty()) return false;
    value.Type = kTypeExpandSz;
    value.Data.push_back('\0');
    return true;
  }
  if (StartsNoCase(s, "dword:")) {
    uint32_t v = 0;
    if (!ParseHexNumber(Trim(s.substr(6)), 8, v)) return false;
    value.Type = kTypeDword;
    value.Data.assign(4, '\0');
    for (int i = 0; i < 4; ++i) value.Data[i] = static_cast<char>((v >> (8 * i)) & 0xFF);
    return true;
  }
  if (StartsNoCase(s, "hex:")) {
    value.Type = kTypeBinary;
    return ParseHexBytes(s.substr(4), value.Data);
  }
  if (StartsNoCase(s, "hex(")) {
    size_t close = s.find("):");
    if (close == std::string_view::npos) return false;
    if (!ParseHexNumber(s.substr(4, close - 4), 8, value.Type)) return false;
    return ParseHexBytes(s.substr(close + 2), value.Data);
  }
  return false;
}

// `"name"=data` or `@=data` (the unnamed value).
bool ParseValueLine(std::string_view line, RegLine& out) {
  std::string_view s = Trim(line);
  if (!s.empty() && s.front() == '@') {
    out.Name.clear();
    s.remove_prefix(1);
  } else if (!ParseQuoted(s, out.Name)) {
    return false;
  }
  s = Trim(s);
  if (s.empty() || s.front() != '=') return false;
  return ParseData(s.substr(1), out.Value);
}

// A hex value may go on over following lines, each earlier one ending in '\'.
bool IsContinuation(std::string_view line) {
  line = Trim(line);
  if (line.empty()) return false;
  for (char c : line)
    if (HexDigit(c) < 0 && c != ',' && c != ' ' && c != '\t' && c != '\\') return false;
  return true;
}

bool EndsWithBackslash(std::string_view line) {
  line = Trim(line);
  return !line.empty() && line.back() == '\\';
}

bool HasHexData(std::string_view line) {
  for (size_t i = 0; i + 4 <= line.size(); ++i)
    if (line[i] == '=' && StartsNoCase(line.substr(i + 1), "hex")) return true;
  return false;
}

std::string Escape(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 2);
  for (char c : text) {
    if (c == '\\' || c == '"') out.push_back('\\');
    out.push_back(c);
  }
  return out;
}

// Text types are written as quoted text only when that gives back exactly the
// same bytes: one terminating NUL, no other NUL, nothing that breaks the line.
bool IsPlainText(std::string_view data) {
  if (data.empty() || data.back() != '\0') return false;
  for (size_t i = 0; i + 1 < data.size(); ++i) {
    char c = data[i];
    if (c == '\0' || c == '\n' || c == '\r') return false;
  }
  return true;
}

std::string HexBytes(std::string_view data) {
  std::string out;
  out.reserve(data.size() * 3);
  char buf[4];
  for (size_t i = 0; i < data.size(); ++i) {
    std::snprintf(buf, sizeof buf, "%02x", static_cast<unsigned>(static_cast<unsigned char>(data[i])));
    if (i) out.push_back(',');
    out += buf;
  }
  return out;
}

RegLine MakeValueLine(std::string_view name, uint32_t type, std::string_view data) {
  RegLine line;
  line.LineKind = Kind::Value;
  line.Name.assign(name);
  line.Value.Type = type;
  line.Value.Data.assign(data);
  line.Raw = FormatRegistryValue(name, type, data);
  return line;
}

RegLine MakeKeyLine(std::string_view key) {
  RegLine line;
  line.LineKind = Kind::Key;
  line.Name.assign(NormalizeKey(key));
  line.Raw = "[" + line.Name + "]";
  return line;
}

}  // namespace

bool SameRegistryKey(std::string_view a, std::string_view b) {
  return EqualNoCase(NormalizeKey(a), NormalizeKey(b));
}

RegDocument ParseRegistryText(std::string_view text) {
  RegDocument doc;
  std::vector<std::string_view> raw;
  while (!text.empty()) {
    size_t nl = text.find('\n');
    if (nl == std::string_view::npos) {
      raw.push_back(text);
      break;
    }
    raw.push_back(text.substr(0, nl));
    text.remove_prefix(nl + 1);
  }
  doc.Lines.reserve(raw.size());
  bool inKey = false;
  for (size_t i = 0; i < raw.size(); ++i) {
    RegLine line;
    line.Raw.assign(raw[i]);
    std::string_view t = Trim(raw[i]);
    if (t.empty() || t.front() == ';' || t.front() == '#') {
      doc.Lines.push_back(std::move(line));
      continue;
    }
    if (t.front() == '[' && t.back() == ']' && t.size() >= 2) {
      line.LineKind = Kind::Key;
      line.Name.assign(NormalizeKey(t.substr(1, t.size() - 2)));
      inKey = true;
      doc.Lines.push_back(std::move(line));
      continue;
    }
    std::string joined(t);
    while (EndsWithBackslash(joined) && HasHexData(joined) && i + 1 < raw.size() && IsContinuation(raw[i + 1])) {
      joined.pop_back();
      joined += Trim(raw[++i]);
      line.Raw.push_back('\n');
      line.Raw.append(raw[i]);
    }
    // Values before the first key belong to no key and are only kept.
    if (inKey && ParseValueLine(joined, line)) line.LineKind = Kind::Value;
    else line.Name.clear();
    doc.Lines.push_back(std::move(line));
  }
  return doc;
}

RegistryDamage FindRegistryDamage(const RegDocument& doc) {
  RegistryDamage damage;
  size_t number = 1;
  for (const RegLine& line : doc.Lines) {
    const std::string_view first = Trim(std::string_view(line.Raw).substr(0, line.Raw.find('\n')));
    if (line.LineKind == Kind::Other && !first.empty() && first.front() != ';' && first.front() != '#' &&
        damage.Lines++ == 0) {
      damage.FirstLine = number;
      damage.FirstText.assign(first);
    }
    for (char c : line.Raw) number += c == '\n' ? 1 : 0;
    ++number;
  }
  return damage;
}

std::string WriteRegistryText(const RegDocument& doc) {
  size_t total = 0;
  for (const RegLine& line : doc.Lines) total += line.Raw.size() + 1;
  std::string out;
  out.reserve(total);
  for (const RegLine& line : doc.Lines) {
    out += line.Raw;
    out.push_back('\n');
  }
  return out;
}

std::string FormatRegistryValue(std::string_view name, uint32_t type, std::string_view data) {
  std::string out = "\"" + Escape(name) + "\"=";
  if (type == kTypeDword && data.size() == 4) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(data[i]);
    char buf[16];
    std::snprintf(buf, sizeof buf, "dword:%08x", static_cast<unsigned>(v));
    return out + buf;
  }
  if ((type == kTypeSz || type == kTypeExpandSz) && IsPlainText(data)) {
    if (type == kTypeExpandSz) out += "str(2):";
    return out + "\"" + Escape(data.substr(0, data.size() - 1)) + "\"";
  }
  if (type == kTypeBinary) return out + "hex:" + HexBytes(data);
  char buf[24];
  std::snprintf(buf, sizeof buf, "hex(%x):", static_cast<unsigned>(type));
  return out + buf + HexBytes(data);
}

bool HasRegistryKey(const RegDocument& doc, std::string_view key) {
  for (const RegLine& line : doc.Lines)
    if (line.LineKind == Kind::Key && SameRegistryKey(line.Name, key)) return true;
  return false;
}

const RegValue* FindRegistryValue(const RegDocument& doc, std::string_view key,
                                  std::string_view name) {
  const RegValue* found = nullptr;
  bool inKey = false;
  for (const RegLine& line : doc.Lines) {
    if (line.LineKind == Kind::Key) inKey = SameRegistryKey(line.Name, key);
    else if (inKey && line.LineKind == Kind::Value && EqualNoCase(line.Name, name))
      found = &line.Value;
  }
  return found;
}

void SetRegistryValue(RegDocument& doc, std::string_view key, std::string_view name, uint32_t type,
                      std::string_view data) {
  size_t existing = SIZE_MAX;  // last occurrence of the value
  size_t insertAt = SIZE_MAX;  // after the last line that belongs to the key's last section
  bool inKey = false;
  for (size_t i = 0; i < doc.Lines.size(); ++i) {
    const RegLine& line = doc.Lines[i];
    if (line.LineKind == Kind::Key) {
      inKey = SameRegistryKey(line.Name, key);
      if (inKey) insertAt = i + 1;
    } else if (inKey && line.LineKind == Kind::Value) {
      insertAt = i + 1;
      if (EqualNoCase(line.Name, name)) existing = i;
    }
  }
  if (existing != SIZE_MAX) {
    // Keep the spelling of the name the store already uses.
    std::string stored = doc.Lines[existing].Name;
    doc.Lines[existing] = MakeValueLine(stored, type, data);
    return;
  }
  if (insertAt != SIZE_MAX) {
    doc.Lines.insert(doc.Lines.begin() + static_cast<std::ptrdiff_t>(insertAt),
                     MakeValueLine(name, type, data));
    return;
  }
  AddRegistryKey(doc, key);
  doc.Lines.push_back(MakeValueLine(name, type, data));
}

void AddRegistryKey(RegDocument& doc, std::string_view key) {
  if (HasRegistryKey(doc, key)) return;
  if (!doc.Lines.empty() && !Trim(doc.Lines.back().Raw).empty()) doc.Lines.push_back(RegLine{});
  doc.Lines.push_back(MakeKeyLine(key));
}

}  // namespace sx::plat
