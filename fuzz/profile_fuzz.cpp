// Profile text: lookups and updates never fault, and a value written under
// plain section and key names is read back as written (trimmed, unquoted).
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/text/ProfileText.h"

using namespace sx::plat;

namespace {

bool Plain(const std::string& s) {
  if (s.empty()) return false;
  for (char c : s)
    if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'))) return false;
  return true;
}

std::string Expected(std::string v) {
  while (!v.empty() && (v.front() == ' ' || v.front() == '\t')) v.erase(0, 1);
  while (!v.empty() && (v.back() == ' ' || v.back() == '\t')) v.pop_back();
  if (v.size() >= 2 && (v.front() == '"' || v.front() == '\'') && v.back() == v.front())
    v = v.substr(1, v.size() - 2);
  return v;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Layout: section, key and value separated by NUL bytes, then the file text.
  const std::string input(reinterpret_cast<const char*>(data), size);
  size_t a = input.find('\0');
  size_t b = a == std::string::npos ? a : input.find('\0', a + 1);
  size_t c = b == std::string::npos ? b : input.find('\0', b + 1);
  if (c == std::string::npos) {
    std::string v;
    ProfileLookup(input, "Options", "Name", v);
    ProfileParseInt(v, 0);
    ProfileSectionNames(input);
    return 0;
  }
  const std::string section = input.substr(0, a), key = input.substr(a + 1, b - a - 1);
  const std::string value = input.substr(b + 1, c - b - 1), text = input.substr(c + 1);

  std::string v;
  ProfileLookup(text, section, key, v);
  ProfileParseInt(v, 7);
  ProfileKeyNames(text, section);
  const std::string deletedKey = ProfileUpdate(text, section, key, std::nullopt);
  const std::string deletedSection = ProfileUpdate(text, section, std::nullopt, std::nullopt);
  (void)deletedKey;
  (void)deletedSection;

  if (!Plain(section) || !Plain(key) || value.find_first_of("\r\n") != std::string::npos) return 0;
  const std::string updated = ProfileUpdate(text, section, key, value);
  std::string got;
  if (!ProfileLookup(updated, section, key, got) || got != Expected(value)) __builtin_trap();
  return 0;
}
