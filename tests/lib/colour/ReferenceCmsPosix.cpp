// The reference on Little CMS, as the module on POSIX systems converts,
// which also makes the profiles.
#include "modules/cmms/Profiles.h"
#include "ReferenceCms.h"

namespace sxtest::colour {

bool WriteProfile(ProfileKind kind, const std::filesystem::path& path) {
  cmsHPROFILE profile =
      kind == ProfileKind::Scanner ? sx::cmms::CreateScannerProfile() : sx::cmms::CreateGrayProfile();
  return sx::cmms::SaveProfile(profile, path.string());
}

std::vector<uint8_t> ToSrgb(const std::vector<uint8_t>& raster) {
  cmsHPROFILE in = sx::cmms::CreateScannerProfile(), out = cmsCreate_sRGBProfile();
  cmsHTRANSFORM t = cmsCreateTransform(in, TYPE_RGB_8, out, TYPE_RGB_8, INTENT_PERCEPTUAL, 0);
  std::vector<uint8_t> converted(raster.size());
  cmsDoTransform(t, raster.data(), converted.data(), static_cast<cmsUInt32Number>(raster.size() / 3));
  cmsDeleteTransform(t);
  cmsCloseProfile(in);
  cmsCloseProfile(out);
  return converted;
}

}  // namespace sxtest::colour
