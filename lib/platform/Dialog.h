// The headless dialog model: dialogs built from templates held as data, with
// controls that carry text, visibility and a font, a caption, a message queue,
// timers run by a modal dialog's own message loop, cursors, a message box and
// the screen's metrics. Nothing is drawn; a host's observer (sxsys.h) is told
// of every change and may press buttons.
//
// Thread contract: a dialog belongs to the thread that creates it. Only that
// thread calls the functions below on it, and its dialog procedure and every
// notification about it run on that thread. Presses and text queries from a
// host may come from any thread; one lock guards every dialog's state and is
// never held while a procedure or the observer runs.
#pragma once
#include <cstddef>
#include <cstdint>

#include "platform/Ui.h"

namespace sx::plat {

// Window messages the dialog procedures see.
enum WindowMessage : uint32_t {
  kMsgDestroy = 0x0002, kMsgPaint = 0x000F, kMsgInitDialog = 0x0110, kMsgCommand = 0x0111, kMsgTimer = 0x0113
};

inline constexpr int32_t kIdCancel = 2;
inline constexpr int32_t kIdOk = 1;
inline constexpr uint32_t kStyleVisible = 0x10000000;
inline constexpr uint32_t kStyleDisabled = 0x08000000;
inline constexpr uint32_t kMessageBoxExclamation = 0x30;

struct DialogControlTemplate {
  int32_t Id;
  const char* Class;
  const char* Text;
  uint32_t Style;
  int16_t X, Y, Cx, Cy;  // dialog units
};

struct DialogTemplate {
  const char* Name;
  uint16_t Language;
  bool Extended;
  uint32_t Style;
  uint32_t ExStyle;
  int16_t X, Y, Cx, Cy;  // dialog units
  const char* Caption;
  const char* FontFace;
  int16_t FontPoints;
  int16_t FontWeight;
  uint8_t FontItalic;
  uint8_t FontCharSet;
  const DialogControlTemplate* Controls;
  size_t ControlCount;
};

struct Dialog;
using DialogHandle = Dialog*;
using DialogProc = intptr_t (*)(DialogHandle dialog, uint32_t message, uintptr_t wParam,
                                intptr_t lParam);

struct DialogMessage {
  DialogHandle Window = nullptr;
  uint32_t Id = 0;
  uintptr_t WParam = 0;
  intptr_t LParam = 0;
};

struct Rect {
  int32_t Left = 0, Top = 0, Right = 0, Bottom = 0;
};

// A modeless dialog: shown, then initialised with `param`. Null without a
// template.
DialogHandle CreateDialogFrom(const DialogTemplate* dialogTemplate, DialogProc proc,
                              intptr_t param);
// A modal dialog: runs its message loop (queued commands and due timers) on
// the calling thread until EndModalDialog, then destroys it. Its result, or
// -1 without a template.
intptr_t RunModalDialog(const DialogTemplate* dialogTemplate, DialogProc proc, intptr_t param);
void EndModalDialog(DialogHandle dialog, intptr_t result);
// Sends the destroy message and forgets the dialog. A dialog that is not
// open is left alone.
void DestroyDialog(DialogHandle dialog);
bool IsDialogOpen(DialogHandle dialog);

intptr_t SendDialogMessage(DialogHandle dialog, uint32_t message, uintptr_t wParam, intptr_t lParam);
// Takes the oldest queued message of the dialog; false when there is none.
bool PeekDialogMessage(DialogHandle dialog, DialogMessage& out);
// Handles a message meant for this dialog (true), else leaves it (false).
bool HandleDialogMessage(DialogHandle dialog, const DialogMessage& message);
void DispatchDialogMessage(const DialogMessage& message);

void SetDialogCaption(DialogHandle dialog, const char* text);
void SetControlText(DialogHandle dialog, int32_t control, const char* text);
void ShowControl(DialogHandle dialog, int32_t control, bool shown);
void EnableControl(DialogHandle dialog, int32_t control, bool enabled);
void SetControlFont(DialogHandle dialog, int32_t control, FontHandle font);
// The control's client rectangle in pixels; false for no such control.
bool ControlClientRect(DialogHandle dialog, int32_t control, Rect& out);
// Fills part of a control's client area with a solid colour (0x00BBGGRR).
void FillControlRect(DialogHandle dialog, int32_t control, const Rect& area, uint32_t color);

// A timer of the dialog; its period is scaled by SX_TIME_SCALE. Starting a
// timer again replaces it.
void StartDialogTimer(DialogHandle dialog, uint32_t timer, uint32_t periodMs);
void StopDialogTimer(DialogHandle dialog, uint32_t timer);

enum class CursorShape { Arrow, Wait };
void SetCursorShape(CursorShape shape);
// Design note: nobody can answer a headless message box, so it is answered
// at once with OK after the observer has been told of it.
int32_t ShowMessageBox(const char* text, const char* caption, uint32_t style);

// Screen facts: the client width of a maximised window, and the height of the
// system font's characters on the screen.
int32_t FullScreenClientWidth();
int32_t ScreenFontHeight();
// The colours of solid brushes the dialogs use (0x00BBGGRR).
inline constexpr uint32_t kColorBlack = 0x000000;
inline constexpr uint32_t kColorMenu = 0xF0F0F0;  // the system's menu colour, the background

// Milliseconds scaled by SX_TIME_SCALE (a non-negative factor, default 1).
uint32_t ScaleDialogTime(double milliseconds);

}  // namespace sx::plat
