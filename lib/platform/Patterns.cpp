// Windows file-name patterns, matched the same way on every system (the
// library's own folder walk on Linux, tests and tools everywhere).
#include "platform/Paths.h"
#include "platform/text/Text.h"

namespace sx::plat {

namespace {

// Glob matching with '*' and '?', without regard to case; iterative with one
// backtrack point, so hostile patterns stay linear-ish and never recurse.
bool Glob(const char* name, size_t nameLen, const char* pat, size_t patLen) {
  size_t n = 0, p = 0;
  size_t starP = std::string::npos, starN = 0;
  while (n < nameLen) {
    if (p < patLen && (pat[p] == '?' || AsciiLower(pat[p]) == AsciiLower(name[n]))) {
      ++n;
      ++p;
    } else if (p < patLen && pat[p] == '*') {
      starP = p++;
      starN = n;
    } else if (starP != std::string::npos) {
      p = starP + 1;
      n = ++starN;
    } else {
      return false;
    }
  }
  while (p < patLen && pat[p] == '*') ++p;
  return p == patLen;
}

}  // namespace

bool MatchesPattern(const std::string& name, const std::string& pattern) {
  if (Glob(name.data(), name.size(), pattern.data(), pattern.size())) return true;
  // As on the system being stood in for, a trailing ".*" also matches names
  // without any extension ("*.*" matches every name).
  if (pattern.size() >= 2 && pattern.compare(pattern.size() - 2, 2, ".*") == 0)
    return Glob(name.data(), name.size(), pattern.data(), pattern.size() - 2);
  return false;
}

}  // namespace sx::plat
