// sxcmms.dll: the colour-management module, on Little CMS 2.
//
// The library selects the scanner's input profile (SX_Icc_SetProfile), the
// sample depth (SX_Icc_SetIntent), hands over the per-channel tone tables the
// scanner did not apply (SX_Icc_Adjust), prepares the line length once per
// acquisition (SX_Icc_Initial) and converts every line in place
// (SX_Icc_Convert2). A line is first mapped through the tone tables, then
// converted from the input profile to the output profile.
//
// Design note: the library names only the input profile. The output profile
// is "sRGB.icc" in the same folder when that file is a usable RGB profile, and
// Little CMS's own sRGB otherwise, so a colour folder can carry its own
// output space while a bare installation still converts to sRGB.
//
// Design note: the rendering intent is perceptual, the one meant for
// photographic scans; the second argument of SX_Icc_SetIntent selects the
// sample depth (0: 8 bits per sample, 1: 16 bits per sample for 48-bit
// colour), as the library sends it.
//
// Thread contract: SetProfile runs on the host's thread, SetIntent, Adjust
// and Initial in the parameter check, Convert2 on whichever thread processes
// blocks; the library never calls two of them at the same time.
#include <lcms2.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "modules/cmms/Answers.h"
#include "modules/cmms/ToneStage.h"

#if defined(__i386__)
#define CMMS_API __attribute__((cdecl))
#else
#define CMMS_API
#endif
#define CMMS_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

using namespace sx::cmms;

struct Module {
  cmsHPROFILE Input = nullptr;
  cmsHPROFILE Output = nullptr;
  cmsHTRANSFORM Transform = nullptr;
  bool Deep = false;
  sx::cmms::ToneStage Tone;
  std::vector<uint8_t> Scratch;  // one toned line, the transform's input
};
Module gModule;

void DropTransform() {
  if (gModule.Transform) cmsDeleteTransform(gModule.Transform);
  gModule.Transform = nullptr;
}

void CloseProfile(cmsHPROFILE& profile) {
  if (profile) cmsCloseProfile(profile);
  profile = nullptr;
}

// An RGB profile that can serve as the given direction of a transform.
cmsHPROFILE OpenRgbProfile(const std::string& path, cmsUInt32Number direction) {
  cmsHPROFILE profile = cmsOpenProfileFromFile(path.c_str(), "r");
  if (!profile) return nullptr;
  if (cmsGetColorSpace(profile) != cmsSigRgbData ||
      !cmsIsIntentSupported(profile, INTENT_PERCEPTUAL, direction)) {
    cmsCloseProfile(profile);
    return nullptr;
  }
  return profile;
}

std::string FolderOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

// Little CMS reports problems through a handler; the library learns of a
// refused profile from the result alone.
void Quiet(cmsContext, cmsUInt32Number, const char*) {}

}  // namespace

CMMS_EXPORT int32_t CMMS_API SX_Icc_SetProfile(const char* path, int32_t, int32_t, int32_t,
                                               int32_t) {
  cmsSetLogErrorHandler(Quiet);
  DropTransform();
  CloseProfile(gModule.Input);
  CloseProfile(gModule.Output);
  if (!path || !*path) return kRefused;
  gModule.Input = OpenRgbProfile(path, LCMS_USED_AS_INPUT);
  if (!gModule.Input) return kRefused;
  gModule.Output = OpenRgbProfile(FolderOf(path) + kOutputProfileName, LCMS_USED_AS_OUTPUT);
  if (!gModule.Output) gModule.Output = cmsCreate_sRGBProfile();
  if (!gModule.Output) {
    CloseProfile(gModule.Input);
    return kRefused;
  }
  return kAccepted;
}

CMMS_EXPORT int32_t CMMS_API SX_Icc_SetIntent(int32_t, int32_t depth, int32_t) {
  gModule.Deep = depth == kDeepSamples;
  return kDone;
}

CMMS_EXPORT int32_t CMMS_API SX_Icc_Adjust(int32_t, int32_t, int32_t, int32_t, int32_t, int32_t,
                                           uint8_t* red, uint8_t* green, uint8_t* blue,
                                           int32_t entries) {
  gModule.Tone.Set(red, green, blue, entries);
  return kDone;
}

CMMS_EXPORT int32_t CMMS_API SX_Icc_Initial(int32_t pixels) {
  DropTransform();
  if (!gModule.Input || !gModule.Output || pixels <= 0) return kDone;
  const cmsUInt32Number format = gModule.Deep ? TYPE_RGB_16 : TYPE_RGB_8;
  gModule.Transform = cmsCreateTransform(gModule.Input, format, gModule.Output, format,
                                         INTENT_PERCEPTUAL, 0);
  gModule.Scratch.assign(static_cast<size_t>(pixels) * (gModule.Deep ? 6 : 3), 0);
  return kDone;
}

CMMS_EXPORT int32_t CMMS_API SX_Icc_Convert2(uint8_t* source, uint8_t* dest, int32_t pixels) {
  if (!gModule.Transform || !source || !dest || pixels <= 0) return kDone;
  const size_t bytesPerPixel = gModule.Deep ? 6 : 3;
  // A longer line than announced is converted as far as the prepared length.
  const size_t count = std::min(static_cast<size_t>(pixels), gModule.Scratch.size() / bytesPerPixel);
  // Input and output have the same layout, which Little CMS converts in
  // place; only toned samples need the scratch line.
  const uint8_t* input = source;
  if (gModule.Tone.Active) {
    gModule.Tone.Apply(source, gModule.Scratch.data(), count, gModule.Deep);
    input = gModule.Scratch.data();
  }
  cmsDoTransform(gModule.Transform, input, dest, static_cast<cmsUInt32Number>(count));
  return kDone;
}

// Released when the library unloads the module.
__attribute__((destructor)) static void ReleaseModule() {
  DropTransform();
  CloseProfile(gModule.Input);
  CloseProfile(gModule.Output);
}
