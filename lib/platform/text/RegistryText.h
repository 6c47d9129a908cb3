// The text form of the registry store: parsing, lookup, change and writing
// back. Pure functions over text, so the store's grammar can be exercised
// without files (and fuzzed).
//
//   [Software\Quillmark]                 a key under HKEY_CURRENT_USER
//   "DEBUGLEVEL"=dword:00000002          type 4, four bytes
//   "NAME"="text"                        type 1, the text and a NUL
//   "SAVEPATH"=str(2):"/tmp/logs/"       type 2, the text and a NUL
//   "RAW"=hex:01,02                      type 3, the bytes as given
//   "TargetTest"=hex(2):4f,6b            type N (hexadecimal), the bytes as given
//   ; or # at the start of a line: a comment
//
// Lines that are not understood are kept verbatim and otherwise ignored.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace sx::plat {

struct RegValue {
  uint32_t Type = 0;
  std::string Data;  // the stored bytes
};

struct RegLine {
  enum class Kind : uint8_t { Other, Key, Value };
  Kind LineKind = Kind::Other;
  std::string Raw;   // the line(s) as read, without the final line break
  std::string Name;  // key path (Key) or value name (Value)
  RegValue Value;    // Value lines only
};

// A parsed store. Value lines belong to the nearest Key line above them.
struct RegDocument {
  std::vector<RegLine> Lines;
};

// Never fails: whatever is not understood becomes an Other line.
RegDocument ParseRegistryText(std::string_view text);
// The lines a reader skips although they are neither blank nor comments:
// what a damaged or half-written store leaves. Every intact value still
// counts. The first one is named by its line number in the text (from 1)
// and its first line, trimmed.
struct RegistryDamage {
  uint32_t Lines = 0;
  size_t FirstLine = 0;
  std::string FirstText;
};
RegistryDamage FindRegistryDamage(const RegDocument& doc);

// Every line followed by '\n'.
std::string WriteRegistryText(const RegDocument& doc);

// The text of one value line in the form that gives back exactly these bytes.
std::string FormatRegistryValue(std::string_view name, uint32_t type, std::string_view data);

// Key paths compare without regard to case and to surrounding '\' and an
// optional "HKEY_CURRENT_USER\" prefix.
bool SameRegistryKey(std::string_view a, std::string_view b);

bool HasRegistryKey(const RegDocument& doc, std::string_view key);
// The value as the store holds it; when a name repeats, the last one counts.
const RegValue* FindRegistryValue(const RegDocument& doc, std::string_view key,
                                  std::string_view name);
// Changes the value in place (its last occurrence), or adds it at the end of
// the key's last section, or adds the key at the end of the store.
void SetRegistryValue(RegDocument& doc, std::string_view key, std::string_view name, uint32_t type,
                      std::string_view data);
// Adds an empty key at the end of the store when it is missing.
void AddRegistryKey(RegDocument& doc, std::string_view key);

}  // namespace sx::plat
