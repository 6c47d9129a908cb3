// What both systems' doctors share: the problem count and its report lines,
// the library session that is closed whichever way a check leaves, and the
// facts of the library they check against.
#pragma once
#include <cctype>
#include <cstddef>
#include <cstdio>
#include <string>

#include "sxscan.h"

namespace sx::host::doctor {

constexpr char kMakerPrefix[] = "corvane";  // what CompanyName or ProductName must begin with
// The library composes the log path in a 144-byte buffer.
constexpr size_t kMaxTracePath = 143;

inline int gProblems = 0;

// Frees the library's state whichever way the command leaves.
struct LibrarySession {
  ~LibrarySession() { SxFree(); }
};

inline void Problem(const std::string& what, const std::string& fix) {
  ++gProblems;
  std::printf("  problem: %s\n  fix:     %s\n", what.c_str(), fix.c_str());
}

inline std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

}  // namespace sx::host::doctor
