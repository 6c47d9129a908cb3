// sxprofile: writes the ICC profiles a system tree's colour folder needs.
//
//   sxprofile scanner FILE     the virtual scanner's input profile
//   sxprofile srgb FILE        the sRGB output profile
//   sxprofile gray FILE        a grey profile, which the colour module refuses
#include <cstdio>
#include <cstring>

#include "modules/cmms/Profiles.h"

int main(int argc, char** argv) {
  const char* kind = argc == 3 ? argv[1] : "";
  cmsHPROFILE profile = nullptr;
  if (std::strcmp(kind, "scanner") == 0) {
    profile = sx::cmms::CreateScannerProfile();
  } else if (std::strcmp(kind, "srgb") == 0) {
    profile = cmsCreate_sRGBProfile();
  } else if (std::strcmp(kind, "gray") == 0) {
    profile = sx::cmms::CreateGrayProfile();
  } else {
    std::fprintf(stderr, "usage: sxprofile scanner|srgb|gray FILE\n");
    return 2;
  }
  if (!sx::cmms::SaveProfile(profile, argv[2])) {
    std::fprintf(stderr, "sxprofile: cannot write %s\n", argv[2]);
    return 1;
  }
  return 0;
}
