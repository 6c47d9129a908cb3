#include "modules/common/ModuleIni.h"

#include "platform/text/Text.h"

namespace sx::modini {

namespace {

constexpr int kDecimal = 10, kHexadecimal = 16;
// Digits beyond this saturate rather than wrap: an absurd number stays absurd.
constexpr uint64_t kSaturated = uint64_t{1} << 40;

}  // namespace

std::optional<std::string> Find(const Ini& ini, std::string_view section, std::string_view key) {
  std::string value;
  if (!plat::ProfileLookup(ini, section, key, value)) return std::nullopt;
  return value;
}

std::vector<std::string> SectionNames(const Ini& ini) {
  std::vector<std::string> names;
  for (std::string& name : plat::ProfileSectionNames(ini)) {
    bool seen = false;
    for (const std::string& earlier : names) seen = seen || plat::EqualNoCase(earlier, name);
    if (!seen) names.push_back(std::move(name));
  }
  return names;
}

bool ParseIniNumber(std::string_view text, int64_t& value) {
  std::string_view s = plat::Trim(text);
  bool negative = false;
  if (!s.empty() && (s.front() == '-' || s.front() == '+')) {
    negative = s.front() == '-';
    s.remove_prefix(1);
  }
  int base = kDecimal;
  if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
    base = kHexadecimal;
    s.remove_prefix(2);
  }
  uint64_t v = 0;
  size_t digits = 0;
  for (char ch : s) {
    const int d = plat::HexDigit(ch);
    if (d < 0 || d >= base) break;
    v = v > kSaturated ? v : v * base + d;
    ++digits;
  }
  if (digits == 0) return false;
  value = negative ? -static_cast<int64_t>(v) : static_cast<int64_t>(v);
  return true;
}

}  // namespace sx::modini
