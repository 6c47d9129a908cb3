#include "kit/StoreChecks.h"

#include <cstdio>

namespace sx::host {

std::string Printable(const std::string& text) {
  constexpr size_t kShown = 80;
  constexpr unsigned char kFirstShown = 0x20, kPastLastShown = 0x7F;
  std::string out;
  for (const char c : text.substr(0, kShown)) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= kFirstShown && byte < kPastLastShown) {
      out += c;
      continue;
    }
    char escaped[8];
    std::snprintf(escaped, sizeof escaped, "\\x%02X", byte);
    out += escaped;
  }
  return text.size() > kShown ? out + "..." : out;
}

}  // namespace sx::host
