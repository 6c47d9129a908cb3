#include "kit/Parse.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace sx::host {
namespace {

// Lower case, blanks trimmed and runs of blanks made one: display names pad
// the model name with blanks, which nobody types.
std::string Loose(std::string_view text) {
  std::string out;
  for (char c : text) {
    if (c == ' ' || c == '\t') {
      if (!out.empty() && out.back() != ' ') out += ' ';
    } else {
      out += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
  }
  while (!out.empty() && out.back() == ' ') out.pop_back();
  return out;
}

}  // namespace

bool ParseInteger(std::string_view text, int64_t min, int64_t max, int64_t* out) {
  std::string s(text);
  if (s.empty() || std::isspace(static_cast<unsigned char>(s[0]))) return false;
  errno = 0;
  char* end = nullptr;
  long long v = std::strtoll(s.c_str(), &end, 0);
  // Base 0 would read a leading zero as octal; values here are decimal.
  size_t digits = (s[0] == '-' || s[0] == '+') ? 1 : 0;
  bool octal = s.size() > digits + 1 && s[digits] == '0' && std::isdigit(static_cast<unsigned char>(s[digits + 1]));
  if (octal || errno != 0 || end != s.c_str() + s.size() || v < min || v > max) return false;
  *out = v;
  return true;
}

bool ParseReal(std::string_view text, float* out) {
  std::string s(text);
  if (s.empty() || std::isspace(static_cast<unsigned char>(s[0]))) return false;
  errno = 0;
  char* end = nullptr;
  float v = std::strtof(s.c_str(), &end);
  if (errno != 0 || end != s.c_str() + s.size() || !std::isfinite(v)) return false;
  *out = v;
  return true;
}

int FindSourceByName(const std::vector<std::string>& names, std::string_view query, std::string* error) {
  for (size_t i = 0; i < names.size(); ++i)
    if (names[i] == query) return static_cast<int>(i);
  std::string want = Loose(query);
  int found = -1;
  int count = 0;
  if (!want.empty()) {
    for (size_t i = 0; i < names.size(); ++i) {
      if (Loose(names[i]).find(want) != std::string::npos) {
        if (found < 0) found = static_cast<int>(i);
        ++count;
      }
    }
  }
  if (count == 1) return found;
  if (count == 0) {
    *error = "no data source matches '" + std::string(query) + "'";
  } else {
    *error = "'" + std::string(query) + "' matches " + std::to_string(count) + " data sources; give more of the name";
  }
  return -1;
}

}  // namespace sx::host
