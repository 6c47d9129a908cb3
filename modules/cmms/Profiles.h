// The ICC profiles of a system tree's colour folder, made with Little CMS:
// a scanner input profile and an sRGB output profile. Used by the sxprofile
// tool and by tests, which make their own profiles rather than carry files
// (the Windows tests carry the files this tool made: tests/data/colour).
#pragma once
#include <lcms2.h>

#include <string>

namespace sx::cmms {

// The virtual scanner's input profile: its own primaries (wider greens and a
// warmer red than sRGB), a D50 white and a 1.8 tone curve, so a conversion
// to sRGB visibly changes the colours.
inline cmsHPROFILE CreateScannerProfile() {
  const cmsCIExyY white = {0.3457, 0.3585, 1.0};
  const cmsCIExyYTRIPLE primaries = {{0.6600, 0.3300, 1.0}, {0.2500, 0.6900, 1.0}, {0.1500, 0.0600, 1.0}};
  cmsToneCurve* curve = cmsBuildGamma(nullptr, 1.8);
  cmsToneCurve* curves[3] = {curve, curve, curve};
  cmsHPROFILE profile = cmsCreateRGBProfile(&white, &primaries, curves);
  cmsFreeToneCurve(curve);
  return profile;
}

// A grey profile (D50 white, 2.2 tone curve): a valid profile that cannot
// convert colour lines.
inline cmsHPROFILE CreateGrayProfile() {
  cmsToneCurve* curve = cmsBuildGamma(nullptr, 2.2);
  cmsHPROFILE profile = cmsCreateGrayProfile(cmsD50_xyY(), curve);
  cmsFreeToneCurve(curve);
  return profile;
}

// Writes the profile to `path` and closes it. False when it could not be made
// or written.
inline bool SaveProfile(cmsHPROFILE profile, const std::string& path) {
  if (!profile) return false;
  const bool saved = cmsSaveProfileToFile(profile, path.c_str()) != 0;
  cmsCloseProfile(profile);
  return saved;
}

}  // namespace sx::cmms
