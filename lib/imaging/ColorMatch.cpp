// Colour matching through the maker's colour-management module. The module
// is loaded on the first query of the ColorMatch values, prepared once per
// acquisition and applied to every block; SxFree unloads it.
//
// Thread contract: OpenCMatch and CloseCMatch run on the host's thread and
// are the only writers of the module state; InitialCMatch runs in the
// parameter check and ConvertBlock on the thread that processes blocks, both
// only while an acquisition runs, when the host may not call the library.
#include "imaging/ColorMatch.h"

#include <cstring>
#include <string>

#include "frame/Trace.h"
#include "platform/Module.h"
#include "platform/Paths.h"
#include "platform/Profile.h"
#include "sources/DataSourceList.h"

namespace sx {

namespace {

using PFN_SetProfile = int32_t(SX_CMMSAPI*)(const char* profilePath, int32_t, int32_t, int32_t,
                                            int32_t);
using PFN_SetIntent = int32_t(SX_CMMSAPI*)(int32_t, int32_t, int32_t);
using PFN_Adjust = int32_t(SX_CMMSAPI*)(int32_t, int32_t, int32_t, int32_t, int32_t, int32_t,
                                        uint8_t* red, uint8_t* green, uint8_t* blue,
                                        int32_t entries);
using PFN_Initial = int32_t(SX_CMMSAPI*)(int32_t pixelsPerLine);
using PFN_Convert2 = int32_t(SX_CMMSAPI*)(uint8_t* source, uint8_t* dest, int32_t pixels);

struct ColorModule {
  plat::ModuleHandle Handle = nullptr;
  PFN_SetProfile SetProfile = nullptr;
  PFN_Convert2 Convert2 = nullptr;
  PFN_Initial Initial = nullptr;
  PFN_Adjust Adjust = nullptr;
  PFN_SetIntent SetIntent = nullptr;
};
ColorModule gModule;

constexpr char kModuleName[] = "sxcmms.dll";
constexpr char kIniName[] = "cmatch.ini";
constexpr char kModelSection[] = "Model";
constexpr uint32_t kProfileNameSize = 64;
constexpr size_t kProfilePathSize = 144;
constexpr char kColorFolderNt[] = SX_PATH_SEP "system32" SX_PATH_SEP "SPOOL" SX_PATH_SEP "DRIVERS" SX_PATH_SEP "COLOR" SX_PATH_SEP;
constexpr char kColorFolderOther[] = SX_PATH_SEP "system" SX_PATH_SEP "color" SX_PATH_SEP;

// What the module's SetProfile answers when it cannot take the profile; the
// library uses the same answer when it cannot even ask.
constexpr int32_t kProfileRefused = 14;
constexpr int32_t kProfileFlags = 10;
constexpr int32_t kIntentDeep = 1, kIntentDeepFlags = 11;
constexpr int32_t kIntentNormal = 0, kIntentNormalFlags = 10;
constexpr uint8_t kDeepBitsPerPixel = 48;
constexpr uint8_t kColorMatchOn = 1;
constexpr int32_t kAdjustEntries = 256;

template <typename Fn>
Fn Lookup(const char* name) {
  return reinterpret_cast<Fn>(plat::ModuleSymbol(gModule.Handle, name));
}

void LoadColorModule() {
  gModule.Handle = plat::LoadModule(kModuleName);
  if (!gModule.Handle) return;  // the next OpenCMatch tries again
  gModule.SetProfile = Lookup<PFN_SetProfile>("SX_Icc_SetProfile");
  gModule.Convert2 = Lookup<PFN_Convert2>("SX_Icc_Convert2");
  gModule.Initial = Lookup<PFN_Initial>("SX_Icc_Initial");
  gModule.Adjust = Lookup<PFN_Adjust>("SX_Icc_Adjust");
  gModule.SetIntent = Lookup<PFN_SetIntent>("SX_Icc_SetIntent");
}

// The profile path for `modelName` from the source's "cmatch.ini"; false when
// it does not fit its 144 bytes (it is refused, never cut).
bool ProfilePath(const DataSourceEntry& source, const char* modelName, std::string& path) {
  const char* directory = source.Host.Directory;
  const std::string ini =
      std::string(directory, strnlen(directory, sizeof source.Host.Directory)) + kIniName;
  char profile[kProfileNameSize] = {};
  plat::ProfileGetString(kModelSection, modelName, "", profile, kProfileNameSize, ini);
  path = plat::WindowsDirectory();
  path += plat::PlatformId() == plat::kPlatformIdNt ? kColorFolderNt : kColorFolderOther;
  path += profile;
  return path.size() + 1 <= kProfilePathSize;
}

}  // namespace

int32_t OpenCMatch(const char* modelName) {
  const DataSourceEntry* source = CurrentDataSource();
  if (!source) return SX_ERR_UNSUPPORTED;
  TraceIn("OpenCMatch", 0);
  if (!gModule.Handle) LoadColorModule();
  int32_t r = kProfileRefused;
  std::string path;
  if (ProfilePath(*source, modelName ? modelName : "", path) && gModule.SetProfile)
    r = gModule.SetProfile(path.c_str(), 0, 0, 0, kProfileFlags);
  TraceOut("OpenCMatch", 1, r);
  return r == kProfileRefused ? SX_ERR_UNSUPPORTED : SX_OK;
}

int32_t CloseCMatch() {
  TraceIn("CloseCMatch", 0);
  // Design note: the entry points are forgotten with the module, so a block
  // processed after unloading (ColorMatch set by the host without a
  // successful OpenCMatch) calls nothing.
  if (gModule.Handle) plat::FreeModule(gModule.Handle);
  gModule = ColorModule{};
  TraceOut("CloseCMatch", 1, 0);
  return 0;
}

int32_t InitialCMatch(ScanSettings& settings) {
  if (settings.ColorMatch != kColorMatchOn) return 0;
  TraceIn("InitialCMatch", 0);
  if (gModule.SetIntent) {
    if (settings.BitsPerPixel == kDeepBitsPerPixel)
      gModule.SetIntent(0, kIntentDeep, kIntentDeepFlags);
    else
      gModule.SetIntent(0, kIntentNormal, kIntentNormalFlags);
  }
  // The per-channel tables go to the module as built, not composed with the
  // master table.
  if (gModule.Adjust)
    gModule.Adjust(0, 0, 0, 0, 0, 0, settings.ToneTables[1], settings.ToneTables[2],
                   settings.ToneTables[3], kAdjustEntries);
  if (gModule.Initial) gModule.Initial(settings.OutputPixels);
  TraceOut("InitialCMatch", 1, 0);
  return 0;
}

int32_t ConvertBlock(uint8_t* block, ScanSettings& settings, int32_t lines) {
  if (settings.ColorMatch != kColorMatchOn || !gModule.Convert2 || !block) return 0;
  const PFN_Convert2 convert = gModule.Convert2;
  const ptrdiff_t stride = settings.OutputBytesPerLine;
  for (int32_t i = 0; i < lines; ++i) {
    uint8_t* line = block + i * stride;
    convert(line, line, settings.OutputPixels);
  }
  return 0;
}

}  // namespace sx
