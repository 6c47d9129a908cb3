#include "modules/common/ModuleIni.h"

#include <algorithm>
#include <cctype>

namespace sx::modini {

std::string_view Trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t' || s.front() == '\r')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.remove_suffix(1);
  return s;
}

bool SameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
         });
}

std::vector<IniSection> ParseIni(const std::string& text) {
  std::vector<IniSection> sections;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string_view line = Trim(std::string_view(text).substr(start, end - start));
    start = end + 1;
    if (line.empty() || line.front() == ';' || line.front() == '#') continue;
    if (line.front() == '[') {
      size_t close = line.find(']');
      if (close != std::string_view::npos) sections.push_back({std::string(Trim(line.substr(1, close - 1))), {}});
      continue;
    }
    size_t eq = line.find('=');
    if (eq == std::string_view::npos || sections.empty()) continue;
    std::string_view value = Trim(line.substr(eq + 1));
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front())
      value = value.substr(1, value.size() - 2);
    sections.back().Values.emplace_back(std::string(Trim(line.substr(0, eq))), std::string(value));
  }
  return sections;
}

const std::string* FindIn(const IniSection& section, std::string_view key) {
  for (const auto& kv : section.Values)
    if (SameName(kv.first, key)) return &kv.second;
  return nullptr;
}

const std::string* Find(const std::vector<IniSection>& ini, std::string_view section, std::string_view key) {
  for (const IniSection& s : ini) {
    if (!SameName(s.Name, section)) continue;
    if (const std::string* value = FindIn(s, key)) return value;
  }
  return nullptr;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool ParseIniNumber(const std::string& text, int64_t& value) {
  std::string_view s = Trim(text);
  bool negative = false;
  if (!s.empty() && (s.front() == '-' || s.front() == '+')) {
    negative = s.front() == '-';
    s.remove_prefix(1);
  }
  int base = 10;
  if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
    base = 16;
    s.remove_prefix(2);
  }
  uint64_t v = 0;
  size_t digits = 0;
  for (char ch : s) {
    const int d = HexDigit(ch);
    if (d < 0 || d >= base) break;
    // Saturate rather than wrap: an absurd number stays absurd.
    v = v > (uint64_t{1} << 40) ? v : v * base + d;
    ++digits;
  }
  if (digits == 0) return false;
  value = negative ? -static_cast<int64_t>(v) : static_cast<int64_t>(v);
  return true;
}

}  // namespace sx::modini
