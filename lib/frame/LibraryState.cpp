// Library-wide state, process attach and detach, and the dialog font.
#include "frame/LibraryState.h"

#include "frame/HostCall.h"

#include <cstring>
#include <string>

#include "acquire/Workers.h"
#include "frame/RegistryUtil.h"
#include "platform/Profile.h"
#include "platform/System.h"
#include "sources/Aspi.h"
#include "sxscan.h"

namespace sx {

LibraryState gLib;
std::atomic<bool> gInsideLibrary{false};

namespace {

constexpr char kTargetTestValue[] = "TargetTest";
constexpr char kTargetTestText[] = "Ok";
constexpr uint32_t kTargetTestBytes = 2;  // the two letters, no terminator
constexpr char kLocalizeValue[] = "LOCALIZE";
constexpr char kFontSizeKey[] = "FontSize";
constexpr char kFontFaceKey[] = "Font";
constexpr int32_t kDefaultFontPoints = 8;
constexpr char kDefaultFontFace[] = "Arial";
constexpr int32_t kPointsPerInch = 72;
constexpr int32_t kFontWeightNormal = 400;

}  // namespace

void CreateDialogFont() {
  if (gLib.DialogFont) {
    plat::DeleteFont(gLib.DialogFont);
    gLib.DialogFont = nullptr;
  }
  GetLanguageCode(gLib.LanguageSection);
  ReadRegValue(kKeyOptions, kLocalizeValue, gLib.PathBuffer, kKindText, kPathBufferSize);
  // A stored path may fill the buffer without a terminator.
  const std::string profile(gLib.PathBuffer, strnlen(gLib.PathBuffer, kPathBufferSize));
  const int32_t pixelsPerInch = plat::LogPixelsY(gLib.HostWindow);
  const int32_t points =
      plat::ProfileGetInt(gLib.LanguageSection, kFontSizeKey, kDefaultFontPoints, profile);
  plat::ProfileGetString(gLib.LanguageSection, kFontFaceKey, kDefaultFontFace, gLib.TextBuffer,
                         kTextBufferSize, profile);

  plat::FontSpec font;
  font.Height = -plat::MulDiv(points, pixelsPerInch, kPointsPerInch);
  font.Weight = kFontWeightNormal;
  static_assert(sizeof font.FaceName == kTextBufferSize);
  std::memcpy(font.FaceName, gLib.TextBuffer, kTextBufferSize);
  font.FaceName[kTextBufferSize - 1] = '\0';
  gLib.DialogFont = plat::CreateFont(font);
}

// Nothing here is checked for failure: a worker or event that could not be
// made only disables the buffered acquisition that needs it.
void ProcessAttach(void* instance) {
  ResetRegistryState();
  // Proves the registry writable (or switches to the fall-back file) and
  // reads the trace level before anything is traced.
  WriteRegValue(kKeyOptions, kTargetTestValue, kTargetTestText, kKindText, kTargetTestBytes);
  gLib.Instance = instance;
  gLib.ReadThread = plat::CreateSuspendedThread(ReadThreadProc, nullptr);
  gLib.IPThread = plat::CreateSuspendedThread(IPThreadProc, nullptr);
  gLib.PageEvent = plat::CreateEvent(false, false);
  gLib.BlockFreeEvent = plat::CreateEvent(false, false);
  gLib.RawReadyEvent = plat::CreateEvent(false, false);
  gLib.ProcessedEvent = plat::CreateEvent(false, false);
}

void ProcessDetach() {
  ReleaseAspi();
  SxFree();
}

}  // namespace sx
