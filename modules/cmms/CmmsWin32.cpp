// sxcmms.dll on Windows: the colour-management module on the system's own
// colour management (ICM, mscms.dll).
//
// Design note: why the system's colour management and not Little CMS built
// for Windows. The five entry points need only what ICM offers: open an ICC
// profile, build a transform from it to an sRGB output, and convert lines of
// 8- or 16-bit RGB samples. ICM is on every Windows system and under Wine
// (which implements it on its own copy of Little CMS), so the module is a
// small DLL that needs nothing beside it and converts with the same engine
// as every other colour-managed program on the machine. Little CMS would
// have to be built from source for two targets (there is no MinGW package
// of it) only to duplicate that engine. The price: ICM's results may differ
// by a level here and there from the Linux module's, whose 8-bit conversion
// takes Little CMS's own 8-bit path; the colour tests therefore compare the
// module with ICM applied to the plain scan, as the Linux tests compare it
// with Little CMS.
//
// The rest behaves as the Linux module (Cmms.cpp): the library names only
// the input profile; the output profile is "sRGB.icc" in the same folder
// when that file is a usable RGB profile, else the system's standard sRGB
// profile. The rendering intent is perceptual; the second argument of
// SX_Icc_SetIntent selects 8 (0) or 16 (1) bits per sample. The tone tables
// of SX_Icc_Adjust apply to a line before its conversion.
//
// Profiles are read into memory and handed to ICM from there, so no profile
// file stays open (and locked) while the module is loaded.
//
// Thread contract: SetProfile runs on the host's thread, SetIntent, Adjust
// and Initial in the parameter check, Convert2 on whichever thread processes
// blocks; the library never calls two of them at the same time.
#include <windows.h>
#include <icm.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "modules/cmms/Answers.h"
#include "modules/cmms/ToneStage.h"

#define CMMS_EXPORT extern "C" __declspec(dllexport)

namespace {

using namespace sx::cmms;
constexpr DWORD kStandardSrgb = 0x73524742;  // LCS_sRGB ('sRGB')
constexpr DWORD kRgbSpace = 0x52474220;      // SPACE_RGB ('RGB ')
constexpr size_t kLargestProfile = 64u << 20;  // a profile file this large is not one

// One opened profile and the bytes ICM reads it from.
struct Profile {
  std::vector<char> Bytes;
  HPROFILE Handle = nullptr;

  void Close() {
    if (Handle) CloseColorProfile(Handle);
    Handle = nullptr;
    Bytes.clear();
  }
};

struct Module {
  Profile Input;
  Profile Output;
  HTRANSFORM Transform = nullptr;
  bool Deep = false;
  sx::cmms::ToneStage Tone;
  size_t Pixels = 0;               // the prepared line length
  std::vector<uint8_t> Toned;      // one toned line, the conversion's input
  std::vector<uint8_t> Converted;  // one converted line

  void Reset() {
    if (Transform) DeleteColorTransform(Transform);
    Transform = nullptr;
    Input.Close();
    Output.Close();
  }
  ~Module() { Reset(); }
};
Module gModule;

bool ReadWholeFile(const std::string& path, std::vector<char>& bytes) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !bytes.empty() && bytes.size() <= kLargestProfile;
}

// An RGB profile from a file; false (and nothing open) when it is missing,
// unreadable or of another colour space.
bool OpenRgbProfile(const std::string& path, Profile& profile) {
  profile.Close();
  if (!ReadWholeFile(path, profile.Bytes)) return false;
  PROFILE source{PROFILE_MEMBUFFER, profile.Bytes.data(), static_cast<DWORD>(profile.Bytes.size())};
  profile.Handle = OpenColorProfileA(&source, PROFILE_READ, FILE_SHARE_READ, OPEN_EXISTING);
  PROFILEHEADER header{};
  if (!profile.Handle || !GetColorProfileHeader(profile.Handle, &header) || header.phDataColorSpace != kRgbSpace) {
    profile.Close();
    return false;
  }
  return true;
}

std::string StandardSrgbPath() {
  char path[MAX_PATH];
  DWORD size = sizeof path;
  if (!GetStandardColorSpaceProfileA(nullptr, kStandardSrgb, path, &size)) return {};
  return path;
}

std::string FolderOf(const std::string& path) {
  const size_t separator = path.find_last_of("\\/");
  return separator == std::string::npos ? std::string() : path.substr(0, separator + 1);
}

// The perceptual transform from the input to the output profile; null when
// ICM cannot build one (a profile that cannot serve its direction).
HTRANSFORM CreateTransform(HPROFILE input, HPROFILE output) {
  HPROFILE profiles[2] = {input, output};
  DWORD intents[2] = {INTENT_PERCEPTUAL, INTENT_PERCEPTUAL};
  return CreateMultiProfileTransform(profiles, 2, intents, 2, BEST_MODE, INDEX_DONT_CARE);
}

// The output beside the input when it makes a transform, else the system's sRGB.
bool OpenOutput(const std::string& inputPath) {
  if (OpenRgbProfile(FolderOf(inputPath) + kOutputProfileName, gModule.Output)) {
    gModule.Transform = CreateTransform(gModule.Input.Handle, gModule.Output.Handle);
    if (gModule.Transform) return true;
  }
  const std::string standard = StandardSrgbPath();
  if (standard.empty() || !OpenRgbProfile(standard, gModule.Output)) return false;
  gModule.Transform = CreateTransform(gModule.Input.Handle, gModule.Output.Handle);
  return gModule.Transform != nullptr;
}

}  // namespace

CMMS_EXPORT int32_t __cdecl SX_Icc_SetProfile(const char* path, int32_t, int32_t, int32_t, int32_t) {
  gModule.Reset();
  if (!path || !*path || !OpenRgbProfile(path, gModule.Input) || !OpenOutput(path)) {
    gModule.Reset();
    return kRefused;
  }
  return kAccepted;
}

CMMS_EXPORT int32_t __cdecl SX_Icc_SetIntent(int32_t, int32_t depth, int32_t) {
  gModule.Deep = depth == kDeepSamples;
  return kDone;
}

CMMS_EXPORT int32_t __cdecl SX_Icc_Adjust(int32_t, int32_t, int32_t, int32_t, int32_t, int32_t, uint8_t* red,
                                          uint8_t* green, uint8_t* blue, int32_t entries) {
  gModule.Tone.Set(red, green, blue, entries);
  return kDone;
}

CMMS_EXPORT int32_t __cdecl SX_Icc_Initial(int32_t pixels) {
  gModule.Pixels = pixels > 0 ? static_cast<size_t>(pixels) : 0;
  const size_t bytes = gModule.Pixels * (gModule.Deep ? 6 : 3);
  gModule.Toned.assign(bytes, 0);
  gModule.Converted.assign(bytes, 0);
  return kDone;
}

// The converted line goes through a scratch line, since ICM does not promise
// to convert in place and the library passes one line as both.
CMMS_EXPORT int32_t __cdecl SX_Icc_Convert2(uint8_t* source, uint8_t* dest, int32_t pixels) {
  if (!gModule.Transform || !source || !dest || pixels <= 0) return kDone;
  // A longer line than announced is converted as far as the prepared length.
  const size_t count = std::min(static_cast<size_t>(pixels), gModule.Pixels);
  if (count == 0) return kDone;
  const BMFORMAT format = gModule.Deep ? BM_16b_RGB : BM_BGRTRIPLETS;  // both: R, G, B in memory order
  const uint8_t* input = source;
  if (gModule.Tone.Active) {
    gModule.Tone.Apply(source, gModule.Toned.data(), count, gModule.Deep);
    input = gModule.Toned.data();
  }
  if (TranslateBitmapBits(gModule.Transform, const_cast<uint8_t*>(input), format, static_cast<DWORD>(count), 1, 0,
                          gModule.Converted.data(), format, 0, nullptr, 0))
    std::memcpy(dest, gModule.Converted.data(), count * (gModule.Deep ? 6 : 3));
  return kDone;
}
