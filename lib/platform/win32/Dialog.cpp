// The library's dialogs as real Windows dialogs: templates from the module's
// own dialog resources (compiled from sxscan.rc), a dialog procedure that
// hands the library's procedures the messages they act on, the system's
// timers and modal loop, and GDI fills for the progress bars. The table and
// the observer (platform/Dialog.cpp) see the same dialogs as on other
// systems, so a host (and the tests) hear of the same events here.
#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>

#include "platform/DialogTable.h"
#include "platform/System.h"

namespace sx::plat {

namespace {

constexpr int32_t kReferenceDpi = 96;
constexpr int32_t kSystemFontHeight = 16;  // on the reference screen
constexpr WORD kDialogResourceType = 5;    // RT_DIALOG
// The window property that keeps a filled control's own window procedure.
constexpr char kControlProcProperty[] = "sxscan.ControlProc";
// Repaints taken care of before a peek gives up: a window that never
// validates its area must not hold the caller.
constexpr int kMaxPaintsPerPeek = 64;
// Fills kept for repainting one control; a fill covering earlier ones
// replaces them, so the progress bars keep two (the cleared bar and its
// coloured part).
constexpr size_t kMaxFillsPerControl = 16;

static_assert(kMsgInitDialog == WM_INITDIALOG && kMsgCommand == WM_COMMAND && kMsgTimer == WM_TIMER &&
              kMsgPaint == WM_PAINT && kMsgDestroy == WM_DESTROY);
static_assert(kIdOk == IDOK && kIdCancel == IDCANCEL && kStyleVisible == WS_VISIBLE &&
              kStyleDisabled == WS_DISABLED && kMessageBoxExclamation == MB_ICONEXCLAMATION);

// The module this code is linked into: sxscan.dll, or a program that links
// the library statically. Its resources hold the dialog templates.
HMODULE OwnModule() {
  HMODULE module = nullptr;
  GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                     reinterpret_cast<LPCSTR>(&OwnModule), &module);
  return module;
}

// The dialog resource of the template's name and language; null when the
// module has none.
const DLGTEMPLATE* LoadTemplate(const DialogTemplate* t) {
  if (!t || !t->Name) return nullptr;
  HMODULE module = OwnModule();
  HRSRC found = FindResourceExA(module, MAKEINTRESOURCEA(kDialogResourceType), t->Name, t->Language);
  if (!found) return nullptr;
  HGLOBAL loaded = LoadResource(module, found);
  return loaded ? static_cast<const DLGTEMPLATE*>(LockResource(loaded)) : nullptr;
}

std::string WindowText(HWND window) {
  std::string text(static_cast<size_t>(std::max(GetWindowTextLengthA(window), 0)) + 1, '\0');
  text.resize(static_cast<size_t>(std::max(GetWindowTextA(window, text.data(), static_cast<int>(text.size())), 0)));
  return text;
}

std::string WindowClass(HWND window) {
  char name[64] = {};
  GetClassNameA(window, name, sizeof name);
  return name;
}

HWND ControlWindow(Dialog* dialog, int32_t id) {
  return dialog->Native.Window ? GetDlgItem(dialog->Native.Window, id) : nullptr;
}

// What the window shows once created from the resource: its caption and its
// controls' classes, texts and states.
void ReadWindow(Dialog* dialog) {
  dialog->Caption = WindowText(dialog->Native.Window);
  for (Control& control : dialog->Controls) {
    HWND window = ControlWindow(dialog, control.Id);
    if (!window) continue;
    const LONG style = GetWindowLongA(window, GWL_STYLE);
    control.Class = WindowClass(window);
    control.Text = WindowText(window);
    control.Visible = (style & WS_VISIBLE) != 0;
    control.Enabled = (style & WS_DISABLED) == 0;
  }
}

// The window exists: the host may now reach the dialog. The observer hears
// of it before the library's procedure initialises it.
INT_PTR Initialise(HWND window, Dialog* dialog, WPARAM focus) {
  if (!dialog) return FALSE;
  SetWindowLongPtrA(window, DWLP_USER, reinterpret_cast<LONG_PTR>(dialog));
  dialog->Native.Window = window;
  bool announced = false;
  try {
    ReadWindow(dialog);
    announced = AnnounceDialog(dialog);
  } catch (...) {
  }
  if (!announced) {
    // Without a place in the table the dialog cannot be reached: it closes.
    if (dialog->Modal) {
      EndDialog(window, -1);
    } else {
      DestroyWindow(window);
    }
    return FALSE;
  }
  return dialog->Proc(dialog, kMsgInitDialog, focus, dialog->Param);
}

// The real dialog procedure. The library's procedures see the
// initialisation, timer, command and destroy messages; its paint message is
// the library's own request to draw the bars (SendDialogMessage), so the
// system's repaints are not passed on: the controls redraw their fills
// themselves (FilledControlProc).
INT_PTR CALLBACK DialogWindowProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
  if (message == WM_INITDIALOG) return Initialise(window, reinterpret_cast<Dialog*>(lParam), wParam);
  auto* dialog = reinterpret_cast<Dialog*>(GetWindowLongPtrA(window, DWLP_USER));
  if (!dialog) return FALSE;
  switch (message) {
    case WM_TIMER:
      return dialog->Proc(dialog, kMsgTimer, wParam, lParam) != 0;
    case WM_COMMAND:
      return dialog->Proc(dialog, kMsgCommand, wParam, lParam) != 0;
    case WM_DESTROY:
      dialog->Proc(dialog, kMsgDestroy, 0, 0);
      return FALSE;  // the system's own clean-up still runs
    case WM_NCDESTROY: {
      SetWindowLongPtrA(window, DWLP_USER, 0);
      std::lock_guard<DialogLock> guard(g_dialogs.Lock);
      dialog->Native.Window = nullptr;
      return FALSE;
    }
    default:
      return FALSE;
  }
}

HBRUSH BrushFor(Dialog* dialog, COLORREF color) {
  auto& brushes = dialog->Native.Brushes;
  for (const auto& brush : brushes) {
    if (brush.first == color) return brush.second;
  }
  HBRUSH brush = CreateSolidBrush(color);
  if (!brush) return nullptr;
  try {
    brushes.emplace_back(color, brush);
  } catch (...) {
    DeleteObject(brush);
    return nullptr;
  }
  return brush;
}

void PaintFills(Dialog* dialog, HWND control, const Fill* fills, size_t count) {
  HDC dc = GetDC(control);
  if (!dc) return;
  for (size_t i = 0; i < count; ++i) {
    if (HBRUSH brush = BrushFor(dialog, fills[i].Color)) FillRect(dc, &fills[i].Area, brush);
  }
  ReleaseDC(control, dc);
}

// A control with fills: its own painting first (a static control clears its
// area), then the fills over it, so the bars survive being covered.
LRESULT CALLBACK FilledControlProc(HWND control, UINT message, WPARAM wParam, LPARAM lParam) {
  auto original = reinterpret_cast<WNDPROC>(GetPropA(control, kControlProcProperty));
  if (!original) return DefWindowProcA(control, message, wParam, lParam);
  if (message == WM_NCDESTROY) {
    SetWindowLongPtrA(control, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(original));
    RemovePropA(control, kControlProcProperty);
    return CallWindowProcA(original, control, message, wParam, lParam);
  }
  const LRESULT result = CallWindowProcA(original, control, message, wParam, lParam);
  if (message != WM_PAINT) return result;
  auto* dialog = reinterpret_cast<Dialog*>(GetWindowLongPtrA(GetParent(control), DWLP_USER));
  std::vector<Fill> fills;
  try {
    std::lock_guard<DialogLock> guard(g_dialogs.Lock);
    if (!LiveLocked(dialog)) return result;
    if (const Control* c = FindControl(dialog, GetDlgCtrlID(control))) fills = c->Native.Fills;
  } catch (...) {
    return result;
  }
  PaintFills(dialog, control, fills.data(), fills.size());
  return result;
}

void KeepPaintingFills(HWND control) {
  if (GetPropA(control, kControlProcProperty)) return;
  const LONG_PTR original = GetWindowLongPtrA(control, GWLP_WNDPROC);
  if (!original || !SetPropA(control, kControlProcProperty, reinterpret_cast<HANDLE>(original))) return;
  SetWindowLongPtrA(control, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(&FilledControlProc));
}

bool Contains(const RECT& outer, const RECT& inner) {
  return outer.left <= inner.left && outer.top <= inner.top && outer.right >= inner.right &&
         outer.bottom >= inner.bottom;
}

void RecordFill(Dialog* dialog, int32_t id, const Fill& fill) {
  ChangeControl(dialog, id, [&](Control& control) {
    auto& fills = control.Native.Fills;
    fills.erase(std::remove_if(fills.begin(), fills.end(), [&](const Fill& f) { return Contains(fill.Area, f.Area); }),
                fills.end());
    if (fills.size() >= kMaxFillsPerControl) fills.erase(fills.begin());
    try {
      fills.push_back(fill);
    } catch (...) {
    }
  });
}

// The real message behind a message the library took with PeekDialogMessage
// (a child control's click keeps its window); one it made up goes to the
// dialog.
MSG NativeMessage(Dialog* dialog, const DialogMessage& message) {
  const MSG& taken = dialog->Native.Taken;
  if (dialog->Native.HasTaken && taken.message == message.Id && taken.wParam == message.WParam &&
      taken.lParam == message.LParam) {
    return taken;
  }
  MSG made{};
  made.hwnd = dialog->Native.Window;
  made.message = message.Id;
  made.wParam = message.WParam;
  made.lParam = message.LParam;
  made.time = static_cast<DWORD>(GetMessageTime());
  return made;
}

bool HasWindow(Dialog* dialog) { return IsDialogOpen(dialog) && dialog->Native.Window; }

}  // namespace

DialogHandle CreateDialogFrom(const DialogTemplate* t, DialogProc proc, intptr_t param) {
  if (!proc) return nullptr;
  const DLGTEMPLATE* resource = LoadTemplate(t);
  if (!resource) return nullptr;
  Dialog* dialog = NewDialog(t, proc, param, false);
  if (!dialog) return nullptr;
  if (!CreateDialogIndirectParamA(OwnModule(), resource, nullptr, DialogWindowProc,
                                  reinterpret_cast<LPARAM>(dialog))) {
    RetireDialog(dialog);
    return nullptr;
  }
  return dialog;
}

intptr_t RunModalDialog(const DialogTemplate* t, DialogProc proc, intptr_t param) {
  constexpr intptr_t kFailed = -1;
  if (!proc) return kFailed;
  const DLGTEMPLATE* resource = LoadTemplate(t);
  if (!resource) return kFailed;
  Dialog* dialog = NewDialog(t, proc, param, true);
  if (!dialog) return kFailed;
  // The system's modal loop: the dialog's timers, posted commands and the
  // Escape key all reach DialogWindowProc until EndModalDialog.
  const INT_PTR result = DialogBoxIndirectParamA(OwnModule(), resource, nullptr, DialogWindowProc,
                                                 reinterpret_cast<LPARAM>(dialog));
  RetireDialog(dialog);
  return result;
}

void EndModalDialog(DialogHandle dialog, intptr_t result) {
  HWND window = nullptr;
  {
    std::lock_guard<DialogLock> guard(g_dialogs.Lock);
    if (!LiveLocked(dialog) || !dialog->Modal) return;
    window = dialog->Native.Window;
  }
  if (window) EndDialog(window, result);
}

void DestroyDialog(DialogHandle dialog) {
  if (!IsDialogOpen(dialog)) return;
  // Only the owner thread can destroy the window; from any other the window
  // is cut off from the dialog before the dialog is freed.
  if (HWND window = dialog->Native.Window; window && !DestroyWindow(window)) {
    SetWindowLongPtrA(window, DWLP_USER, 0);
  }
  RetireDialog(dialog);
}

// Repaints are handled here rather than handed out: they keep the window
// drawn while only the library's pump runs, and the library acts on none.
bool PeekDialogMessage(DialogHandle dialog, DialogMessage& out) {
  if (!HasWindow(dialog)) return false;
  for (int repaint = 0; repaint < kMaxPaintsPerPeek; ++repaint) {
    MSG message;
    if (!PeekMessageA(&message, dialog->Native.Window, 0, 0, PM_REMOVE)) return false;
    if (message.message != WM_PAINT) {
      dialog->Native.Taken = message;
      dialog->Native.HasTaken = true;
      out = {dialog, message.message, message.wParam, message.lParam};
      return true;
    }
    DispatchMessageA(&message);
    if (!HasWindow(dialog)) return false;
  }
  return false;
}

bool HandleDialogMessage(DialogHandle dialog, const DialogMessage& message) {
  if (message.Window != dialog || !HasWindow(dialog)) return false;
  MSG native = NativeMessage(dialog, message);
  return IsDialogMessageA(dialog->Native.Window, &native) != FALSE;
}

void DispatchDialogMessage(const DialogMessage& message) {
  Dialog* dialog = message.Window;
  if (!HasWindow(dialog)) return;
  MSG native = NativeMessage(dialog, message);
  TranslateMessage(&native);
  DispatchMessageA(&native);
}

void SetControlFont(DialogHandle dialog, int32_t control, FontHandle font) {
  if (!IsDialogOpen(dialog)) return;
  if (HWND window = ControlWindow(dialog, control)) {
    SendMessageA(window, WM_SETFONT, reinterpret_cast<WPARAM>(NativeFont(font)), TRUE);
  }
}

bool ControlClientRect(DialogHandle dialog, int32_t control, Rect& out) {
  if (!IsDialogOpen(dialog)) return false;
  HWND window = ControlWindow(dialog, control);
  RECT client;
  if (!window || !GetClientRect(window, &client)) return false;
  out = {client.left, client.top, client.right, client.bottom};
  return true;
}

void StartDialogTimer(DialogHandle dialog, uint32_t timer, uint32_t periodMs) {
  if (HasWindow(dialog)) SetTimer(dialog->Native.Window, timer, ScaleDialogTime(periodMs), nullptr);
}

void StopDialogTimer(DialogHandle dialog, uint32_t timer) {
  if (HasWindow(dialog)) KillTimer(dialog->Native.Window, timer);
}

int32_t FullScreenClientWidth() {
  if (const int32_t declared = DeclaredScreenWidth()) return declared;
  return GetSystemMetrics(SM_CXFULLSCREEN);
}

// The height of the screen's system font: measured on a screen context,
// or, for a declared screen, the reference height at its resolution.
int32_t ScreenFontHeight() {
  if (const int32_t dpi = DeclaredScreenDpi()) return MulDiv(kSystemFontHeight, dpi, kReferenceDpi);
  HDC dc = GetDC(nullptr);
  if (!dc) return kSystemFontHeight;
  TEXTMETRICA metrics{};
  const bool measured = GetTextMetricsA(dc, &metrics) != FALSE;
  ReleaseDC(nullptr, dc);
  return measured ? metrics.tmHeight : kSystemFontHeight;
}

void NativeCaption(Dialog* dialog, const std::string& caption) {
  if (HWND window = dialog->Native.Window) SetWindowTextA(window, caption.c_str());
}

void NativeText(Dialog* dialog, int32_t control, const std::string& text) {
  if (HWND window = ControlWindow(dialog, control)) SetWindowTextA(window, text.c_str());
}

void NativeVisible(Dialog* dialog, int32_t control, bool shown) {
  if (HWND window = ControlWindow(dialog, control)) ShowWindow(window, shown ? SW_SHOWNA : SW_HIDE);
}

void NativeEnabled(Dialog* dialog, int32_t control, bool enabled) {
  if (HWND window = ControlWindow(dialog, control)) EnableWindow(window, enabled);
}

// The library's background colour stands for the system's menu colour,
// which the user's colour scheme sets. The fill is kept, so the control
// paints it again whenever it repaints.
void NativeFill(Dialog* dialog, int32_t control, const Rect& area, uint32_t color) {
  const COLORREF painted = color == kColorMenu ? GetSysColor(COLOR_MENU) : static_cast<COLORREF>(color);
  const Fill fill{{area.Left, area.Top, area.Right, area.Bottom}, painted};
  HWND window = ControlWindow(dialog, control);
  RecordFill(dialog, control, fill);
  KeepPaintingFills(window);
  PaintFills(dialog, window, &fill, 1);
}

void NativeCursor(CursorShape shape) {
  SetCursor(LoadCursor(nullptr, shape == CursorShape::Wait ? IDC_WAIT : IDC_ARROW));
}

// A real message box waits for a user: shown only where no observer has
// taken the user interface over.
int32_t NativeMessageBox(const char* text, const char* caption, uint32_t style) {
  return MessageBoxA(nullptr, text, caption, style);
}

// Posted as a click or the Escape key posts it, to an open window.
int32_t NativePostLocked(Dialog* dialog, int32_t id) {
  if (!dialog->Native.Window) return 0;
  const WPARAM command = MAKEWPARAM(static_cast<WORD>(id), BN_CLICKED);
  const auto from = reinterpret_cast<LPARAM>(GetDlgItem(dialog->Native.Window, id));
  return PostMessageA(dialog->Native.Window, WM_COMMAND, command, from) ? 1 : 0;
}

void NativeRelease(Dialog* dialog) {
  for (const auto& brush : dialog->Native.Brushes) DeleteObject(brush.second);
}

}  // namespace sx::plat
