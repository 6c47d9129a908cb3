// The progress dialog's commands, procedure and message pump.
#include "acquire/ProgressDialog.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "acquire/DialogResources.h"
#include "frame/LibraryState.h"
#include "frame/RegistryUtil.h"
#include "platform/Profile.h"
#include "platform/System.h"
#include "settings/ScanSettings.h"
#include "sxscan.h"

namespace sx {

TrackDialogState gTrack;

namespace {

constexpr int32_t kLargeScreenWidth = 1024;
constexpr int32_t kDensestSmallScreenDpi = 120;
constexpr int32_t kLargestSmallScreenFont = 16;
constexpr char kScreenRefused[] = "Please change the screen setting to 800*600!";
constexpr char kLocalizeValue[] = "LOCALIZE";

// A text of the localisation file: its key, and what stands when it is missing.
struct LocalText {
  const char* Key;
  const char* Default;
};
constexpr LocalText kTitle{"TRACKBARTITLE", "Scanning"};
constexpr LocalText kCancelText{"Cancel", "Cancel"};
constexpr LocalText kModeLabel{"TRANSFERMODETEXT", "Transfer Mode :"};

// Design note: the localisation path and the texts are read into buffers of
// the dialog's own, of the sizes of the library's shared scratch buffers (so
// the same texts are cut the same way), because in buffered mode the read
// thread drives this dialog while the host's thread is inside SxAcquire.
struct Localisation {
  std::string File;
  std::string Text(const LocalText& wanted) const {
    char text[kTextBufferSize] = {};
    plat::ProfileGetString(gLib.LanguageSection, wanted.Key, wanted.Default, text, sizeof text, File);
    return text;
  }
};

Localisation ReadLocalisation() {
  char path[kPathBufferSize] = {};
  ReadRegValue(kKeyOptions, kLocalizeValue, path, kKindText, sizeof path);
  return {std::string(path, strnlen(path, sizeof path))};
}

// "Page<n>" and four blanks, then the localised title: at most 63 characters.
void SetPageCaption(const Localisation& texts, uint32_t page) {
  char caption[kTextBufferSize];
  std::snprintf(caption, sizeof caption, "Page%u    ", page);
  std::strncat(caption, texts.Text(kTitle).c_str(),
               sizeof caption - 1 - std::strlen(caption));
  plat::SetDialogCaption(gTrack.Dialog, caption);
}

uint32_t BrushColor(int32_t mode, const TrackBrushes& b) {
  switch (mode) {
    case 1: return b.Red;
    case 2: return b.Green;
    case 3: return b.Blue;
    case kBrushBlack: return plat::kColorBlack;
    default: return b.Background;
  }
}

// Design note: a page of no lines has its bars filled over their full width;
// its percentage reads "100" to match them.
int32_t Percentage() {
  if (gTrack.Total == 0) return 100;
  return static_cast<int32_t>(static_cast<double>(gTrack.Current) / gTrack.Total * 100.0);
}

void PaintBars(plat::DialogHandle dialog) {
  const uint32_t rgb[3] = {gTrack.Brushes.Red, gTrack.Brushes.Green, gTrack.Brushes.Blue};
  for (int bar = 0; bar < 3; ++bar) {
    const uint32_t color = gTrack.BrushMode == kBrushRgb ? rgb[bar] : BrushColor(gTrack.BrushMode, gTrack.Brushes);
    plat::Rect area;
    if (!plat::ControlClientRect(dialog, kTrackBarIds[bar], area)) continue;
    if (gTrack.Total > 0) {
      area.Right = area.Left + plat::MulDiv(static_cast<int32_t>(gTrack.Current), area.Right - area.Left,
                                            static_cast<int32_t>(gTrack.Total));
    }
    plat::FillControlRect(dialog, kTrackBarIds[bar], area, color);
    plat::SetControlText(dialog, kTrackPercentId, std::to_string(Percentage()).c_str());
  }
}

intptr_t TrackDialogProc(plat::DialogHandle dialog, uint32_t message, uintptr_t wParam, intptr_t) {
  switch (message) {
    case plat::kMsgInitDialog:
      gTrack.Cancel = false;
      return 0;
    case plat::kMsgCommand:
      if ((wParam & 0xFFFF) == static_cast<uintptr_t>(plat::kIdCancel)) {
        gTrack.Cancel = true;
        plat::SetCursorShape(plat::CursorShape::Wait);
      }
      return 1;
    case plat::kMsgPaint:
      if (!gTrack.Dialog) return 0;
      PaintBars(dialog);
      // Not handled, so that the dialog's own painting still takes place.
      return 0;
    default:
      return 0;
  }
}

// The template for the screen, which may be none (a name no resource has).
// -7 when the screen is refused, after telling the user so.
int32_t ChooseTemplate(const plat::DialogTemplate*& chosen) {
  chosen = nullptr;
  if (plat::FullScreenClientWidth() >= kLargeScreenWidth) {
    chosen = FindDialogTemplate(kTrackLargeName);
    return 0;
  }
  if (plat::LogPixelsY(nullptr) > kDensestSmallScreenDpi) {
    plat::ShowMessageBox(kScreenRefused, nullptr, plat::kMessageBoxExclamation);
    return SX_ERR_UNSUPPORTED;
  }
  chosen = FindDialogTemplate(plat::ScreenFontHeight() > kLargestSmallScreenFont ? kTrackSpecialName
                                                                                  : kTrackSmallName);
  return 0;
}

void NewPage(uint32_t lines, uint32_t page) {
  gTrack.Current = lines;
  gTrack.Total = lines;
  gTrack.BrushMode = kBrushClear;
  plat::SendDialogMessage(gTrack.Dialog, plat::kMsgPaint, 0, 0);
  plat::SetControlFont(gTrack.Dialog, kTrackPercentId, gLib.DialogFont);
  const Localisation texts = ReadLocalisation();
  plat::SetControlText(gTrack.Dialog, kTrackPercentId, "0");
  SetPageCaption(texts, page);
  gTrack.Current = 0;
}

int32_t Step(uint32_t lines) {
  gTrack.BrushMode = gSettings.PixelType == kPixelColor ? kBrushRgb : kBrushBlack;
  // Unsigned, as the counts are: a step never carries the bars past the page.
  const uint32_t sum = gTrack.Current + lines;
  gTrack.Current = (sum < gTrack.Current || sum > gTrack.Total) ? gTrack.Total : sum;
  plat::SendDialogMessage(gTrack.Dialog, plat::kMsgPaint, 0, 0);
  gTrack.Pump();
  return gTrack.Cancel ? 1 : 0;
}

void ShowMode(uint32_t mode) {
  plat::SetControlFont(gTrack.Dialog, kTrackModeLabelId, gLib.DialogFont);
  plat::SetControlFont(gTrack.Dialog, kTrackModeNameId, gLib.DialogFont);
  const Localisation texts = ReadLocalisation();
  plat::SetControlText(gTrack.Dialog, kTrackModeLabelId, texts.Text(kModeLabel).c_str());
  char key[kTextBufferSize];
  std::snprintf(key, sizeof key, "TRANSFERMODE%d", static_cast<int32_t>(mode));
  plat::SetControlText(gTrack.Dialog, kTrackModeNameId, texts.Text({key, ""}).c_str());
}

void Close() {
  gTrack.Brushes = TrackBrushes{};
  plat::DialogHandle dialog = gTrack.Dialog;
  gTrack.Dialog = nullptr;
  plat::DestroyDialog(dialog);
}

}  // namespace

int32_t CreateTrackDialog(void* /*owner*/) {
  if (gSettings.Indicators == 0 || gTrack.Dialog) return 0;
  gTrack.Pump = PumpTrackMessages;
  const plat::DialogTemplate* chosen = nullptr;
  if (ChooseTemplate(chosen) != 0) return SX_ERR_UNSUPPORTED;
  gTrack.Dialog = plat::CreateDialogFrom(chosen, TrackDialogProc, 0);
  // Without a dialog the acquisition goes on without progress display.
  if (!gTrack.Dialog) return 0;

  const Localisation texts = ReadLocalisation();
  SetPageCaption(texts, 1);
  plat::SetControlFont(gTrack.Dialog, plat::kIdCancel, gLib.DialogFont);
  plat::SetControlText(gTrack.Dialog, plat::kIdCancel, texts.Text(kCancelText).c_str());
  plat::SetControlFont(gTrack.Dialog, kTrackPercentSignId, gLib.DialogFont);
  plat::SetControlText(gTrack.Dialog, kTrackPercentSignId, "%");

  gTrack.Brushes = {true, kColorRed, kColorGreen, kColorBlue, plat::kColorMenu};
  // Updating the new window paints its bars with the counts held now (those
  // the previous acquisition left); the page's announcement clears them.
  plat::SendDialogMessage(gTrack.Dialog, plat::kMsgPaint, 0, 0);
  // The first message the new window receives is dropped unhandled.
  plat::DialogMessage dropped;
  plat::PeekDialogMessage(gTrack.Dialog, dropped);
  return 0;
}

int32_t TrackDialogCommand(uint32_t command, uintptr_t a, uintptr_t b, uintptr_t /*c*/) {
  if (!gTrack.Dialog) return 0;
  switch (command) {
    case TRACK_CLOSE:
      Close();
      return 1;
    case TRACK_NEWPAGE:
      NewPage(static_cast<uint32_t>(a), static_cast<uint32_t>(b));
      return 1;
    case TRACK_STEP:
      return Step(static_cast<uint32_t>(a));
    case TRACK_MODE:
      ShowMode(static_cast<uint32_t>(a));
      return 1;
    default:
      return 1;
  }
}

int32_t PumpTrackMessages() {
  if (!gTrack.Dialog) return 1;
  if (gTrack.Cancel) return 0;
  plat::DialogMessage message;
  while (!gTrack.Cancel && plat::PeekDialogMessage(gTrack.Dialog, message)) {
    if (!plat::HandleDialogMessage(gTrack.Dialog, message)) plat::DispatchDialogMessage(message);
  }
  return gTrack.Cancel ? 0 : 1;
}

}  // namespace sx
