// What the colour tests compare the colour module with: the colour engine the
// module converts with on this system (Little CMS on Linux, the system's
// colour management on Windows), and the profiles the tests install.
#pragma once
#include <cstdint>
#include <filesystem>
#include <vector>

namespace sxtest::colour {

enum class ProfileKind {
  Scanner,  // the virtual scanner's input profile
  Gray,     // a valid profile that cannot convert colour lines
};

// Writes a profile of that kind to `path`; false when it could not.
bool WriteProfile(ProfileKind kind, const std::filesystem::path& path);

// 8-bit RGB samples converted from the scanner's profile to sRGB,
// perceptually, as the module converts them.
std::vector<uint8_t> ToSrgb(const std::vector<uint8_t>& raster);

}  // namespace sxtest::colour
