// Byte-wise text helpers for the platform's parsers. Case is folded for ASCII
// letters only, as the stored names are ASCII and the process locale must not
// change how a name matches.
#pragma once
#include <string_view>

namespace sx::plat {

inline char AsciiLower(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

// Blanks around names and values: spaces, tabs and the CR of a CR LF line end.
inline bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

inline std::string_view Trim(std::string_view s) {
  while (!s.empty() && IsBlank(s.front())) s.remove_prefix(1);
  while (!s.empty() && IsBlank(s.back())) s.remove_suffix(1);
  return s;
}

// The value of a hexadecimal digit of either case; -1 for any other character.
inline int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = AsciiLower(c);
  return (c >= 'a' && c <= 'f') ? c - 'a' + 10 : -1;
}

inline bool EqualNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (AsciiLower(a[i]) != AsciiLower(b[i])) return false;
  return true;
}

inline bool StartsNoCase(std::string_view s, std::string_view prefix) {
  return s.size() >= prefix.size() && EqualNoCase(s.substr(0, prefix.size()), prefix);
}

}  // namespace sx::plat
