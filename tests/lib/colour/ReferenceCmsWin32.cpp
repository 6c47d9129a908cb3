// The reference on the system's colour management. Windows has no way to
// make a profile, so the scanner's and the grey profile are files that
// sxprofile made once (tests/data/colour); sRGB, the module's output
// profile, is the system's own.
#include <windows.h>
#include <icm.h>

#include "ReferenceCms.h"

namespace sxtest::colour {
namespace {

namespace fs = std::filesystem;

constexpr DWORD kStandardSrgb = 0x73524742;  // LCS_sRGB ('sRGB')

fs::path DataFile(const char* name) { return fs::path(SX_TEST_SOURCE_DIR) / "tests" / "data" / "colour" / name; }

fs::path StandardSrgb() {
  char path[MAX_PATH];
  DWORD size = sizeof path;
  return GetStandardColorSpaceProfileA(nullptr, kStandardSrgb, path, &size) ? fs::path(path) : fs::path();
}

HPROFILE Open(const fs::path& file) {
  const std::string name = file.string();
  PROFILE profile{PROFILE_FILENAME, const_cast<char*>(name.c_str()), static_cast<DWORD>(name.size() + 1)};
  return OpenColorProfileA(&profile, PROFILE_READ, FILE_SHARE_READ, OPEN_EXISTING);
}

}  // namespace

bool WriteProfile(ProfileKind kind, const fs::path& path) {
  const fs::path source = DataFile(kind == ProfileKind::Scanner ? "scanner.icc" : "gray.icc");
  std::error_code ec;
  return fs::copy_file(source, path, fs::copy_options::overwrite_existing, ec);
}

std::vector<uint8_t> ToSrgb(const std::vector<uint8_t>& raster) {
  std::vector<uint8_t> converted(raster.size());
  HPROFILE profiles[2] = {Open(DataFile("scanner.icc")), Open(StandardSrgb())};
  DWORD intents[2] = {INTENT_PERCEPTUAL, INTENT_PERCEPTUAL};
  HTRANSFORM t = profiles[0] && profiles[1]
                     ? CreateMultiProfileTransform(profiles, 2, intents, 2, BEST_MODE, INDEX_DONT_CARE)
                     : nullptr;
  if (!t || !TranslateBitmapBits(t, const_cast<uint8_t*>(raster.data()), BM_BGRTRIPLETS,
                                 static_cast<DWORD>(raster.size() / 3), 1, 0, converted.data(), BM_BGRTRIPLETS, 0,
                                 nullptr, 0))
    converted.clear();  // no reference: every comparison fails
  if (t) DeleteColorTransform(t);
  for (HPROFILE p : profiles)
    if (p) CloseColorProfile(p);
  return converted;
}

}  // namespace sxtest::colour
