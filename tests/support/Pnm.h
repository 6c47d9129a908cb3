// The PNM pages scanning front ends write, read back.
#pragma once
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <string>
#include <vector>

namespace sxtest {

// The pixel bytes of a binary PNM page (P4, P5 or P6), and its size.
inline std::vector<uint8_t> PnmPixels(const std::string& pnm, int* width, int* height) {
  const size_t wanted = pnm.compare(0, 2, "P4") == 0 ? 3 : 4;  // a bitmap has no maximum value
  std::vector<std::string> fields;
  size_t pos = 0;
  while (fields.size() < wanted && pos < pnm.size()) {
    if (pnm[pos] == '#') {
      pos = pnm.find('\n', pos);
    } else if (std::isspace(static_cast<unsigned char>(pnm[pos]))) {
      ++pos;
    } else {
      const size_t end = std::min(pnm.find_first_of(" \t\r\n", pos), pnm.size());
      fields.push_back(pnm.substr(pos, end - pos));
      pos = end;
    }
  }
  if (fields.size() < wanted || pos >= pnm.size()) return {};
  *width = std::stoi(fields[1]);
  *height = std::stoi(fields[2]);
  return std::vector<uint8_t>(pnm.begin() + static_cast<long>(pos) + 1, pnm.end());
}

}  // namespace sxtest
