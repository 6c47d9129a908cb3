// sxprofile: writes the ICC profiles a system tree's colour folder needs.
//
//   sxprofile scanner FILE     the virtual scanner's input profile
//   sxprofile srgb FILE        the sRGB output profile
#include <cstdio>
#include <cstring>

#include "modules/cmms/Profiles.h"

int main(int argc, char** argv) {
  if (argc != 3 || (std::strcmp(argv[1], "scanner") != 0 && std::strcmp(argv[1], "srgb") != 0)) {
    std::fprintf(stderr, "usage: sxprofile scanner|srgb FILE\n");
    return 2;
  }
  const bool scanner = std::strcmp(argv[1], "scanner") == 0;
  cmsHPROFILE profile = scanner ? sx::cmms::CreateScannerProfile() : cmsCreate_sRGBProfile();
  if (!sx::cmms::SaveProfile(profile, argv[2])) {
    std::fprintf(stderr, "sxprofile: cannot write %s\n", argv[2]);
    return 1;
  }
  return 0;
}
