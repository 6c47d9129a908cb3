// The library's dialogs as real Windows dialogs: templates from the module's
// own dialog resources (compiled from sxscan.rc), a dialog procedure that
// hands the library's procedures the messages they act on, the system's
// timers and modal loop, and GDI fills for the progress bars. Each change is
// also told to the host's observer (sxsys.h), as the headless model tells it
// on other systems, so that a host (and the tests) see the same events here.
#include "platform/Dialog.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <type_traits>
#include <unordered_set>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/System.h"
#include "platform/win32/UiNative.h"
#include "sxsys.h"

namespace sx::plat {

namespace {

constexpr char kButtonClass[] = "BUTTON";
constexpr char kDefaultBoxCaption[] = "Error";
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

struct Fill {
  RECT Area;
  COLORREF Color;
};

// What the library and a host know of a control: the observer's view,
// which a host's thread may read while the owner thread changes it.
struct Control {
  int32_t Id = 0;
  std::string Class;
  std::string Text;
  bool Visible = false;
  bool Enabled = true;
  std::vector<Fill> Fills;  // drawn again whenever the control repaints
};

}  // namespace

struct Dialog {
  const DialogTemplate* Template = nullptr;
  DialogProc Proc = nullptr;
  intptr_t Param = 0;
  bool Modal = false;
  HWND Window = nullptr;  // set while the window exists
  std::string Caption;
  std::vector<Control> Controls;
  // The owner thread's own: brushes made for the fills (deleted with the
  // dialog) and the real message behind the last one peeked.
  std::vector<std::pair<COLORREF, HBRUSH>> Brushes;
  MSG Taken{};
  bool HasTaken = false;
};

namespace {

// Thread contract: Live and every dialog's caption and controls are guarded
// by Lock, which is never held while a procedure, the observer or a call
// that sends window messages runs. Trivially destructible so that a dialog
// closed by the library's detach code outlives static destruction.
struct DialogTable {
  TableLock Lock;
  std::unordered_set<Dialog*>* Live = nullptr;
  SxUiObserver Observer = nullptr;
  void* Context = nullptr;
};
static_assert(std::is_trivially_destructible_v<DialogTable>);
static_assert(kColorMenu == SX_UI_COLOR_BACKGROUND);
static_assert(kMsgInitDialog == WM_INITDIALOG && kMsgCommand == WM_COMMAND && kMsgTimer == WM_TIMER &&
              kMsgPaint == WM_PAINT && kMsgDestroy == WM_DESTROY);
static_assert(kIdOk == IDOK && kIdCancel == IDCANCEL && kStyleVisible == WS_VISIBLE &&
              kStyleDisabled == WS_DISABLED && kMessageBoxExclamation == MB_ICONEXCLAMATION);
constinit DialogTable g_dialogs;

__attribute__((destructor(101))) void ReleaseDialogTable() {
  std::lock_guard<TableLock> guard(g_dialogs.Lock);
  if (g_dialogs.Live && g_dialogs.Live->empty()) {
    delete g_dialogs.Live;
    g_dialogs.Live = nullptr;
  }
}

bool LiveLocked(Dialog* dialog) { return dialog && g_dialogs.Live && g_dialogs.Live->count(dialog) != 0; }

Control* FindControl(Dialog* dialog, int32_t id) {
  for (Control& control : dialog->Controls) {
    if (control.Id == id) return &control;
  }
  return nullptr;
}

// Tells the observer, outside the lock, on the calling thread. False when
// no observer is installed.
bool Notify(int32_t kind, Dialog* dialog, int32_t control, int32_t value, const char* text,
            const char* name = nullptr, int32_t extent = 0, uint32_t color = 0) {
  SxUiObserver observer;
  void* context;
  {
    std::lock_guard<TableLock> guard(g_dialogs.Lock);
    observer = g_dialogs.Observer;
    context = g_dialogs.Context;
  }
  if (!observer) return false;
  SxUiEvent event{};
  event.Kind = kind;
  event.Control = control;
  event.Value = value;
  event.Extent = extent;
  event.Color = color;
  event.Dialog = dialog;
  event.Text = text;
  event.Name = name;
  observer(&event, context);
  return true;
}

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
  return dialog->Window ? GetDlgItem(dialog->Window, id) : nullptr;
}

// The dialog as the template describes it, before its window exists.
Dialog* NewDialog(const DialogTemplate* t, DialogProc proc, intptr_t param, bool modal) {
  Dialog* dialog = nullptr;
  try {
    dialog = new Dialog;
    dialog->Template = t;
    dialog->Proc = proc;
    dialog->Param = param;
    dialog->Modal = modal;
    dialog->Caption = t->Caption ? t->Caption : "";
    for (size_t i = 0; i < t->ControlCount; ++i) {
      const DialogControlTemplate& c = t->Controls[i];
      Control control;
      control.Id = c.Id;
      control.Class = c.Class ? c.Class : "";
      control.Text = c.Text ? c.Text : "";
      control.Visible = (c.Style & kStyleVisible) != 0;
      control.Enabled = (c.Style & kStyleDisabled) == 0;
      dialog->Controls.push_back(std::move(control));
    }
    return dialog;
  } catch (...) {
    delete dialog;
    return nullptr;
  }
}

// What the window shows once created from the resource: its caption and its
// controls' classes, texts and states.
void ReadWindow(Dialog* dialog) {
  dialog->Caption = WindowText(dialog->Window);
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
  dialog->Window = window;
  try {
    ReadWindow(dialog);
    std::lock_guard<TableLock> guard(g_dialogs.Lock);
    if (!g_dialogs.Live) g_dialogs.Live = new std::unordered_set<Dialog*>;
    g_dialogs.Live->insert(dialog);
  } catch (...) {
    // Without a place in the table the dialog cannot be reached: it closes.
    if (dialog->Modal) {
      EndDialog(window, -1);
    } else {
      DestroyWindow(window);
    }
    return FALSE;
  }
  Notify(SX_UI_OPEN, dialog, 0, dialog->Modal ? 1 : 0, dialog->Caption.c_str(), dialog->Template->Name);
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
      std::lock_guard<TableLock> guard(g_dialogs.Lock);
      dialog->Window = nullptr;
      return FALSE;
    }
    default:
      return FALSE;
  }
}

// Forgets a dialog whose window is gone (or never came), telling the
// observer if it had heard of it.
void Retire(Dialog* dialog) {
  bool wasOpen = false;
  {
    std::lock_guard<TableLock> guard(g_dialogs.Lock);
    wasOpen = g_dialogs.Live && g_dialogs.Live->erase(dialog) != 0;
  }
  for (const auto& brush : dialog->Brushes) DeleteObject(brush.second);
  if (wasOpen) Notify(SX_UI_CLOSE, dialog, 0, 0, nullptr);
  delete dialog;
}

HBRUSH BrushFor(Dialog* dialog, COLORREF color) {
  for (const auto& brush : dialog->Brushes) {
    if (brush.first == color) return brush.second;
  }
  HBRUSH brush = CreateSolidBrush(color);
  if (!brush) return nullptr;
  try {
    dialog->Brushes.emplace_back(color, brush);
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
    std::lock_guard<TableLock> guard(g_dialogs.Lock);
    if (!LiveLocked(dialog)) return result;
    if (const Control* c = FindControl(dialog, GetDlgCtrlID(control))) fills = c->Fills;
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
  std::lock_guard<TableLock> guard(g_dialogs.Lock);
  Control* control = LiveLocked(dialog) ? FindControl(dialog, id) : nullptr;
  if (!control) return;
  auto& fills = control->Fills;
  fills.erase(std::remove_if(fills.begin(), fills.end(), [&](const Fill& f) { return Contains(fill.Area, f.Area); }),
              fills.end());
  if (fills.size() >= kMaxFillsPerControl) fills.erase(fills.begin());
  try {
    fills.push_back(fill);
  } catch (...) {
  }
}

// The real message behind a message the library took with PeekDialogMessage
// (a child control's click keeps its window); one it made up goes to the
// dialog.
MSG NativeMessage(Dialog* dialog, const DialogMessage& message) {
  const MSG& taken = dialog->Taken;
  if (dialog->HasTaken && taken.message == message.Id && taken.wParam == message.WParam &&
      taken.lParam == message.LParam) {
    return taken;
  }
  MSG made{};
  made.hwnd = dialog->Window;
  made.message = message.Id;
  made.wParam = message.WParam;
  made.lParam = message.LParam;
  made.time = static_cast<DWORD>(GetMessageTime());
  return made;
}

// Posts a command to an open dialog, as a click or the Escape key does.
// `buttonOnly`: as a click, which reaches only a visible, enabled button.
int32_t PostCommand(Dialog* dialog, int32_t id, bool buttonOnly) {
  std::lock_guard<TableLock> guard(g_dialogs.Lock);
  if (!LiveLocked(dialog) || !dialog->Window) return 0;
  if (buttonOnly) {
    const Control* control = FindControl(dialog, id);
    if (!control || lstrcmpiA(control->Class.c_str(), kButtonClass) != 0 || !control->Visible ||
        !control->Enabled) {
      return 0;
    }
  }
  const WPARAM command = MAKEWPARAM(static_cast<WORD>(id), BN_CLICKED);
  const auto from = reinterpret_cast<LPARAM>(GetDlgItem(dialog->Window, id));
  return PostMessageA(dialog->Window, WM_COMMAND, command, from) ? 1 : 0;
}

template <typename Change>
bool ChangeControl(Dialog* dialog, int32_t id, Change change) {
  std::lock_guard<TableLock> guard(g_dialogs.Lock);
  if (!LiveLocked(dialog)) return false;
  Control* control = FindControl(dialog, id);
  return control && change(*control);
}

}  // namespace

DialogHandle CreateDialogFrom(const DialogTemplate* t, DialogProc proc, intptr_t param) {
  if (!proc) return nullptr;
  const DLGTEMPLATE* resource = LoadTemplate(t);
  if (!resource) return nullptr;
  Dialog* dialog = NewDialog(t, proc, param, false);
  if (!dialog) return nullptr;
  if (!CreateDialogIndirectParamA(OwnModule(), resource, nullptr, DialogWindowProc,
                                  reinterpret_cast<LPARAM>(dialog))) {
    Retire(dialog);
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
  Retire(dialog);
  return result;
}

void EndModalDialog(DialogHandle dialog, intptr_t result) {
  HWND window = nullptr;
  {
    std::lock_guard<TableLock> guard(g_dialogs.Lock);
    if (!LiveLocked(dialog) || !dialog->Modal) return;
    window = dialog->Window;
  }
  if (window) EndDialog(window, result);
}

void DestroyDialog(DialogHandle dialog) {
  if (!IsDialogOpen(dialog)) return;
  // Only the owner thread can destroy the window; from any other the window
  // is cut off from the dialog before the dialog is freed.
  if (HWND window = dialog->Window; window && !DestroyWindow(window)) {
    SetWindowLongPtrA(window, DWLP_USER, 0);
  }
  Retire(dialog);
}

bool IsDialogOpen(DialogHandle dialog) {
  std::lock_guard<TableLock> guard(g_dialogs.Lock);
  return LiveLocked(dialog);
}

intptr_t SendDialogMessage(DialogHandle dialog, uint32_t message, uintptr_t wParam, intptr_t lParam) {
  if (!IsDialogOpen(dialog)) return 0;
  return dialog->Proc(dialog, message, wParam, lParam);
}

// Repaints are handled here rather than handed out: they keep the window
// drawn while only the library's pump runs, and the library acts on none.
bool PeekDialogMessage(DialogHandle dialog, DialogMessage& out) {
  if (!IsDialogOpen(dialog) || !dialog->Window) return false;
  for (int repaint = 0; repaint < kMaxPaintsPerPeek; ++repaint) {
    MSG message;
    if (!PeekMessageA(&message, dialog->Window, 0, 0, PM_REMOVE)) return false;
    if (message.message != WM_PAINT) {
      dialog->Taken = message;
      dialog->HasTaken = true;
      out = {dialog, message.message, message.wParam, message.lParam};
      return true;
    }
    DispatchMessageA(&message);
    if (!IsDialogOpen(dialog) || !dialog->Window) return false;
  }
  return false;
}

bool HandleDialogMessage(DialogHandle dialog, const DialogMessage& message) {
  if (message.Window != dialog || !IsDialogOpen(dialog) || !dialog->Window) return false;
  MSG native = NativeMessage(dialog, message);
  return IsDialogMessageA(dialog->Window, &native) != FALSE;
}

void DispatchDialogMessage(const DialogMessage& message) {
  Dialog* dialog = message.Window;
  if (!IsDialogOpen(dialog) || !dialog->Window) return;
  MSG native = NativeMessage(dialog, message);
  TranslateMessage(&native);
  DispatchMessageA(&native);
}

void SetDialogCaption(DialogHandle dialog, const char* text) {
  std::string caption = text ? text : "";
  HWND window = nullptr;
  {
    std::lock_guard<TableLock> guard(g_dialogs.Lock);
    // Design note: the observer hears of changes; setting the same text
    // again is none.
    if (!LiveLocked(dialog) || dialog->Caption == caption) return;
    dialog->Caption = caption;
    window = dialog->Window;
  }
  if (window) SetWindowTextA(window, caption.c_str());
  Notify(SX_UI_CAPTION, dialog, 0, 0, caption.c_str());
}

void SetControlText(DialogHandle dialog, int32_t control, const char* text) {
  std::string value = text ? text : "";
  const bool changed = ChangeControl(dialog, control, [&](Control& c) {
    if (c.Text == value) return false;
    c.Text = value;
    return true;
  });
  if (!changed) return;
  if (HWND window = ControlWindow(dialog, control)) SetWindowTextA(window, value.c_str());
  Notify(SX_UI_TEXT, dialog, control, 0, value.c_str());
}

void ShowControl(DialogHandle dialog, int32_t control, bool shown) {
  bool changed = false;
  if (!ChangeControl(dialog, control, [&](Control& c) {
        changed = c.Visible != shown;
        c.Visible = shown;
        return true;
      })) {
    return;
  }
  if (HWND window = ControlWindow(dialog, control)) ShowWindow(window, shown ? SW_SHOWNA : SW_HIDE);
  if (changed) Notify(SX_UI_SHOW, dialog, control, shown ? 1 : 0, nullptr);
}

void EnableControl(DialogHandle dialog, int32_t control, bool enabled) {
  bool changed = false;
  if (!ChangeControl(dialog, control, [&](Control& c) {
        changed = c.Enabled != enabled;
        c.Enabled = enabled;
        return true;
      })) {
    return;
  }
  if (HWND window = ControlWindow(dialog, control)) EnableWindow(window, enabled);
  if (changed) Notify(SX_UI_ENABLE, dialog, control, enabled ? 1 : 0, nullptr);
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

void FillControlRect(DialogHandle dialog, int32_t control, const Rect& area, uint32_t color) {
  Rect client;
  if (!ControlClientRect(dialog, control, client)) return;
  const int32_t right = std::clamp(area.Right, client.Left, client.Right);
  const int32_t left = std::clamp(area.Left, client.Left, right);
  const int32_t bottom = std::clamp(area.Bottom, client.Top, client.Bottom);
  const int32_t top = std::clamp(area.Top, client.Top, bottom);
  // The library's background colour stands for the system's menu colour,
  // which the user's colour scheme sets.
  const COLORREF painted = color == kColorMenu ? GetSysColor(COLOR_MENU) : static_cast<COLORREF>(color);
  const Fill fill{{left, top, right, bottom}, painted};
  HWND window = ControlWindow(dialog, control);
  RecordFill(dialog, control, fill);
  KeepPaintingFills(window);
  PaintFills(dialog, window, &fill, 1);
  Notify(SX_UI_FILL, dialog, control, right - left, nullptr, nullptr, client.Right - client.Left, color);
}

void StartDialogTimer(DialogHandle dialog, uint32_t timer, uint32_t periodMs) {
  if (!IsDialogOpen(dialog) || !dialog->Window) return;
  SetTimer(dialog->Window, timer, ScaleDialogTime(periodMs), nullptr);
}

void StopDialogTimer(DialogHandle dialog, uint32_t timer) {
  if (!IsDialogOpen(dialog) || !dialog->Window) return;
  KillTimer(dialog->Window, timer);
}

void SetCursorShape(CursorShape shape) {
  SetCursor(LoadCursor(nullptr, shape == CursorShape::Wait ? IDC_WAIT : IDC_ARROW));
  Notify(SX_UI_CURSOR, nullptr, 0, shape == CursorShape::Wait ? SX_UI_CURSOR_WAIT : SX_UI_CURSOR_ARROW,
         nullptr);
}

// Design note: a real message box waits for a user, and on a machine nobody
// sits at it would hold the scan for ever. A host that installs an observer
// has taken the user interface over: it is told of the box, which is
// answered at once with OK. Without an observer the user sees the real box.
int32_t ShowMessageBox(const char* text, const char* caption, uint32_t style) {
  if (Notify(SX_UI_MESSAGEBOX, nullptr, 0, static_cast<int32_t>(style), text ? text : "",
             caption ? caption : kDefaultBoxCaption)) {
    return kIdOk;
  }
  return MessageBoxA(nullptr, text ? text : "", caption, style);
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

uint32_t ScaleDialogTime(double milliseconds) {
  const double scaled = milliseconds * TimeScale();
  constexpr double kLongest = 4294967294.0;  // the longest finite wait
  if (!(scaled > 0.0)) return 0;
  return scaled >= kLongest ? static_cast<uint32_t>(kLongest) : static_cast<uint32_t>(scaled);
}

}  // namespace sx::plat

using sx::plat::Dialog;

SX_EXPORT void SX_API SxSysUiSetObserver(SxUiObserver observer, void* context) {
  std::lock_guard<sx::plat::TableLock> guard(sx::plat::g_dialogs.Lock);
  sx::plat::g_dialogs.Observer = observer;
  sx::plat::g_dialogs.Context = context;
}

SX_EXPORT int32_t SX_API SxSysUiPress(SxDialog dialog, int32_t control) {
  return sx::plat::PostCommand(static_cast<Dialog*>(dialog), control, true);
}

SX_EXPORT int32_t SX_API SxSysUiEscape(SxDialog dialog) {
  return sx::plat::PostCommand(static_cast<Dialog*>(dialog), sx::plat::kIdCancel, false);
}

SX_EXPORT int32_t SX_API SxSysUiGetText(SxDialog handle, int32_t control, char* text, uint32_t size) {
  std::lock_guard<sx::plat::TableLock> guard(sx::plat::g_dialogs.Lock);
  auto* dialog = static_cast<Dialog*>(handle);
  if (!sx::plat::LiveLocked(dialog)) return -1;
  const std::string* value = &dialog->Caption;
  if (control != SX_UI_CAPTION_ID) {
    const sx::plat::Control* found = sx::plat::FindControl(dialog, control);
    if (!found) return -1;
    value = &found->Text;
  }
  if (text && size > 0) {
    const size_t n = std::min<size_t>(value->size(), size - 1);
    std::memcpy(text, value->data(), n);
    text[n] = '\0';
  }
  return static_cast<int32_t>(value->size());
}

SX_EXPORT void SX_API SxSysUiSetScreen(int32_t width, int32_t /*height*/, int32_t dotsPerInch) {
  sx::plat::DeclareScreen(width, dotsPerInch);
}
