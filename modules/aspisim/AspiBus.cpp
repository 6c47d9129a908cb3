#include "modules/aspisim/AspiBus.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <string_view>

#include "modules/common/ModuleIni.h"
#include "platform/text/Text.h"

namespace sx::aspisim {

namespace {

// One section of the bus file.
struct Section {
  const modini::Ini& Lines;
  std::string_view Name;
  std::optional<std::string> Find(std::string_view key) const { return modini::Find(Lines, Name, key); }
};

constexpr uint8_t kDefaultType = 6;  // a scanner
constexpr size_t kVendorAt = 8, kVendorBytes = 8;
constexpr size_t kProductAt = 16, kProductBytes = 16;
constexpr size_t kRevisionAt = 32, kRevisionBytes = 4;
constexpr size_t kOwnCommandSetByte = 39;
constexpr uint8_t kStandardAdditionalLength = 31;
constexpr uint8_t kAnsiVersion = 2, kResponseFormat = 2;

// "Adapter<n>" or "Adapter<n> Target<t>": false for any other name.
bool ParseSectionName(std::string_view name, size_t& adapter, size_t& target, bool& isTarget) {
  auto number = [](std::string_view& s, std::string_view word, size_t limit, size_t& out) {
    if (s.size() <= word.size() || !plat::EqualNoCase(s.substr(0, word.size()), word)) return false;
    s.remove_prefix(word.size());
    size_t digits = 0;
    out = 0;
    while (digits < s.size() && s[digits] >= '0' && s[digits] <= '9' && out < limit) {
      out = out * 10 + static_cast<size_t>(s[digits] - '0');
      ++digits;
    }
    s.remove_prefix(digits);
    return digits > 0 && out < limit;
  };
  if (!number(name, "Adapter", kMaxAdapters, adapter)) return false;
  name = plat::Trim(name);
  isTarget = !name.empty();
  return !isTarget || (number(name, "Target", kTargetsPerAdapter, target) && name.empty());
}

template <class T>
void ReadNumber(const Section& s, std::string_view key, T& out) {
  int64_t v = 0;
  if (const auto text = s.Find(key); text && modini::ParseIniNumber(*text, v))
    out = static_cast<T>(std::clamp<int64_t>(v, 0, static_cast<int64_t>(static_cast<T>(~T{}))));
}

void PutText(std::array<uint8_t, kInquiryBytes>& data, size_t at, size_t bytes, const std::optional<std::string>& text) {
  std::memset(data.data() + at, ' ', bytes);
  if (text) std::memcpy(data.data() + at, text->data(), std::min(bytes, text->size()));
}

// "06 00 02 ..." (blanks or commas between pairs): the bytes that parse.
size_t ParseHex(const std::string& text, std::array<uint8_t, kInquiryBytes>& data) {
  size_t n = 0;
  int high = -1;
  for (char c : text) {
    const int d = plat::HexDigit(c);
    if (d < 0) {
      high = -1;
      continue;
    }
    if (high < 0) {
      high = d;
      continue;
    }
    if (n == data.size()) break;
    data[n++] = static_cast<uint8_t>(high * 16 + d);
    high = -1;
  }
  return n;
}

Target ParseTarget(const Section& s) {
  Target t;
  t.Present = true;
  if (const auto hex = s.Find("Inquiry")) {
    t.InquiryLength = ParseHex(*hex, t.Inquiry);
  } else {
    uint8_t type = kDefaultType, flags = 0;
    ReadNumber(s, "Type", type);
    ReadNumber(s, "Byte39", flags);
    t.Inquiry[0] = type;
    t.Inquiry[2] = kAnsiVersion;
    t.Inquiry[3] = kResponseFormat;
    t.Inquiry[4] = kStandardAdditionalLength;
    PutText(t.Inquiry, kVendorAt, kVendorBytes, s.Find("Vendor"));
    PutText(t.Inquiry, kProductAt, kProductBytes, s.Find("Product"));
    PutText(t.Inquiry, kRevisionAt, kRevisionBytes, s.Find("Revision"));
    t.Inquiry[kOwnCommandSetByte] = flags;
    t.InquiryLength = kInquiryBytes;
  }
  ReadNumber(s, "Status", t.Status);
  ReadNumber(s, "DelayMs", t.DelayMs);
  uint8_t silent = 0;
  ReadNumber(s, "Silent", silent);
  t.Silent = silent != 0;
  return t;
}

}  // namespace

Bus ParseBus(const std::string& text) {
  Bus bus;
  const modini::Ini ini = modini::ParseIni(text);
  for (const std::string& name : modini::SectionNames(ini)) {
    const Section s{ini, name};
    size_t a = 0, t = 0;
    bool isTarget = false;
    if (!ParseSectionName(name, a, t, isTarget)) continue;
    if (bus.Adapters.size() <= a) bus.Adapters.resize(a + 1);
    Adapter& adapter = bus.Adapters[a];
    if (isTarget) {
      adapter.Targets[t] = ParseTarget(s);
      continue;
    }
    adapter.Present = true;
    if (const auto id = s.Find("Identifier")) adapter.Identifier = id->substr(0, 16);
    ReadNumber(s, "Status", adapter.Status);
  }
  return bus;
}

}  // namespace sx::aspisim
