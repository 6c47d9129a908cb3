// The dialogs' observer on every system: the dialog table, the changes the
// library makes to its dialogs (each told to the host's observer), the
// presses and text queries a host makes, and the SxSysUi* exports. Each
// system's own dialogs (the headless model, or real windows) sit behind the
// Native... functions (platform/DialogTable.h).
#include "platform/DialogTable.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <type_traits>

#include "platform/System.h"
#include "platform/text/Text.h"

namespace sx::plat {

namespace {

constexpr char kButtonClass[] = "BUTTON";
constexpr char kDefaultBoxCaption[] = "Error";
// The longest finite wait a timer can have.
constexpr double kLongestWait = 4294967294.0;

static_assert(std::is_trivially_destructible_v<DialogTable>);
static_assert(kColorMenu == SX_UI_COLOR_BACKGROUND);

// A screen a host declared (SxSysUiSetScreen); 0 where it declared none.
std::atomic<int32_t> g_declaredWidth{0};
std::atomic<int32_t> g_declaredDpi{0};

// Frees the table when the library is unloaded with no dialog left open (a
// dialog still open keeps it, as the detach code may yet close it).
__attribute__((destructor(101))) void ReleaseDialogTable() {
  std::lock_guard<DialogLock> guard(g_dialogs.Lock);
  if (g_dialogs.Live && g_dialogs.Live->empty()) {
    delete g_dialogs.Live;
    g_dialogs.Live = nullptr;
  }
}

// Queues a command for the dialog, as a click or the Escape key does.
// `buttonOnly`: as a click, which reaches only a visible, enabled button.
int32_t QueueCommand(Dialog* dialog, int32_t id, bool buttonOnly) {
  std::lock_guard<DialogLock> guard(g_dialogs.Lock);
  if (!LiveLocked(dialog)) return 0;
  if (buttonOnly) {
    const Control* control = FindControl(dialog, id);
    if (!control || !EqualNoCase(control->Class, kButtonClass) || !control->Visible || !control->Enabled) return 0;
  }
  return NativePostLocked(dialog, id);
}

// A control shown or enabled: the table first, the system's window after
// (whether or not it changed), and the observer when it changed.
void SetControlState(Dialog* dialog, int32_t control, bool Control::*state, bool on,
                     void (*native)(Dialog*, int32_t, bool), int32_t kind) {
  bool changed = false;
  if (!ChangeControl(dialog, control, [&](Control& c) {
        changed = c.*state != on;
        c.*state = on;
      }))
    return;
  native(dialog, control, on);
  if (changed) Notify(kind, dialog, control, on ? 1 : 0, nullptr);
}

}  // namespace

constinit DialogTable g_dialogs;

bool LiveLocked(Dialog* dialog) { return dialog && g_dialogs.Live && g_dialogs.Live->count(dialog) != 0; }

Control* FindControl(Dialog* dialog, int32_t id) {
  for (Control& control : dialog->Controls) {
    if (control.Id == id) return &control;
  }
  return nullptr;
}

bool Notify(int32_t kind, Dialog* dialog, int32_t control, int32_t value, const char* text, const char* name,
            int32_t extent, uint32_t color) {
  SxUiObserver observer;
  void* context;
  {
    std::lock_guard<DialogLock> guard(g_dialogs.Lock);
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

bool AnnounceDialog(Dialog* dialog) {
  try {
    std::lock_guard<DialogLock> guard(g_dialogs.Lock);
    if (!g_dialogs.Live) g_dialogs.Live = new std::unordered_set<Dialog*>;
    g_dialogs.Live->insert(dialog);
  } catch (...) {
    return false;
  }
  Notify(SX_UI_OPEN, dialog, 0, dialog->Modal ? 1 : 0, dialog->Caption.c_str(), dialog->Template->Name);
  return true;
}

void RetireDialog(Dialog* dialog) {
  bool wasOpen = false;
  {
    std::lock_guard<DialogLock> guard(g_dialogs.Lock);
    wasOpen = g_dialogs.Live && g_dialogs.Live->erase(dialog) != 0;
  }
  NativeRelease(dialog);
  if (wasOpen) Notify(SX_UI_CLOSE, dialog, 0, 0, nullptr);
  delete dialog;
}

bool IsDialogOpen(DialogHandle dialog) {
  std::lock_guard<DialogLock> guard(g_dialogs.Lock);
  return LiveLocked(dialog);
}

intptr_t SendDialogMessage(DialogHandle dialog, uint32_t message, uintptr_t wParam, intptr_t lParam) {
  if (!IsDialogOpen(dialog)) return 0;
  return dialog->Proc(dialog, message, wParam, lParam);
}

void SetDialogCaption(DialogHandle dialog, const char* text) {
  std::string caption = text ? text : "";
  {
    std::lock_guard<DialogLock> guard(g_dialogs.Lock);
    // Design note: the observer hears of changes; setting the same text
    // again is none.
    if (!LiveLocked(dialog) || dialog->Caption == caption) return;
    dialog->Caption = caption;
  }
  NativeCaption(dialog, caption);
  Notify(SX_UI_CAPTION, dialog, 0, 0, caption.c_str());
}

void SetControlText(DialogHandle dialog, int32_t control, const char* text) {
  std::string value = text ? text : "";
  bool changed = false;
  ChangeControl(dialog, control, [&](Control& c) {
    changed = c.Text != value;
    if (changed) c.Text = value;
  });
  if (!changed) return;
  NativeText(dialog, control, value);
  Notify(SX_UI_TEXT, dialog, control, 0, value.c_str());
}

void ShowControl(DialogHandle dialog, int32_t control, bool shown) {
  SetControlState(dialog, control, &Control::Visible, shown, NativeVisible, SX_UI_SHOW);
}

void EnableControl(DialogHandle dialog, int32_t control, bool enabled) {
  SetControlState(dialog, control, &Control::Enabled, enabled, NativeEnabled, SX_UI_ENABLE);
}

void FillControlRect(DialogHandle dialog, int32_t control, const Rect& area, uint32_t color) {
  Rect client;
  if (!ControlClientRect(dialog, control, client)) return;
  Rect cut;
  cut.Right = std::clamp(area.Right, client.Left, client.Right);
  cut.Left = std::clamp(area.Left, client.Left, cut.Right);
  cut.Bottom = std::clamp(area.Bottom, client.Top, client.Bottom);
  cut.Top = std::clamp(area.Top, client.Top, cut.Bottom);
  NativeFill(dialog, control, cut, color);
  Notify(SX_UI_FILL, dialog, control, cut.Right - cut.Left, nullptr, nullptr, client.Right - client.Left, color);
}

void SetCursorShape(CursorShape shape) {
  NativeCursor(shape);
  Notify(SX_UI_CURSOR, nullptr, 0, shape == CursorShape::Wait ? SX_UI_CURSOR_WAIT : SX_UI_CURSOR_ARROW, nullptr);
}

// Design note: a host that installs an observer has taken the user
// interface over: it is told of the box, which is answered at once with OK.
// Without one, the system's own box is shown where there is one.
int32_t ShowMessageBox(const char* text, const char* caption, uint32_t style) {
  if (Notify(SX_UI_MESSAGEBOX, nullptr, 0, static_cast<int32_t>(style), text ? text : "",
             caption ? caption : kDefaultBoxCaption))
    return kIdOk;
  return NativeMessageBox(text ? text : "", caption ? caption : kDefaultBoxCaption, style);
}

uint32_t ScaleDialogTime(double milliseconds) {
  const double scaled = milliseconds * TimeScale();
  if (!(scaled > 0.0)) return 0;
  return scaled >= kLongestWait ? static_cast<uint32_t>(kLongestWait) : static_cast<uint32_t>(scaled);
}

void DeclareScreen(int32_t width, int32_t dotsPerInch) {
  g_declaredWidth.store(width > 0 ? width : 0);
  g_declaredDpi.store(dotsPerInch > 0 ? dotsPerInch : 0);
}

int32_t DeclaredScreenWidth() { return g_declaredWidth.load(); }

int32_t DeclaredScreenDpi() { return g_declaredDpi.load(); }

}  // namespace sx::plat

using sx::plat::Dialog;

SX_EXPORT void SX_API SxSysUiSetObserver(SxUiObserver observer, void* context) {
  std::lock_guard<sx::plat::DialogLock> guard(sx::plat::g_dialogs.Lock);
  sx::plat::g_dialogs.Observer = observer;
  sx::plat::g_dialogs.Context = context;
}

SX_EXPORT int32_t SX_API SxSysUiPress(SxDialog dialog, int32_t control) {
  return sx::plat::QueueCommand(static_cast<Dialog*>(dialog), control, true);
}

SX_EXPORT int32_t SX_API SxSysUiEscape(SxDialog dialog) {
  return sx::plat::QueueCommand(static_cast<Dialog*>(dialog), sx::plat::kIdCancel, false);
}

SX_EXPORT int32_t SX_API SxSysUiGetText(SxDialog handle, int32_t control, char* text, uint32_t size) {
  std::lock_guard<sx::plat::DialogLock> guard(sx::plat::g_dialogs.Lock);
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
