// The words a person types for a choice ("color", "Flatbed", "ADF"): one
// lookup for every program, matching whole words without regard to ASCII
// letter case (the process locale must not change what matches).
#pragma once
#include <cstddef>
#include <string_view>

namespace sx::host {

template <typename T>
struct Keyword {
  const char* word;
  T value;
};

inline bool SameWordNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    if (lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

// The entry whose word is `text`, or null.
template <typename T, size_t N>
const Keyword<T>* FindKeyword(const Keyword<T> (&table)[N], std::string_view text) {
  for (const auto& k : table) {
    if (SameWordNoCase(k.word, text)) return &k;
  }
  return nullptr;
}

// The word of the first entry for `value` (a table with synonyms lists the
// one to show first), or `fallback`.
template <typename T, size_t N>
const char* WordOf(const Keyword<T> (&table)[N], T value, const char* fallback) {
  for (const auto& k : table) {
    if (k.value == value) return k.word;
  }
  return fallback;
}

}  // namespace sx::host
