#include "platform/Dialog.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <type_traits>
#include <unordered_set>
#include <vector>

#include "platform/System.h"
#include "sxsys.h"

namespace sx::plat {

namespace {

using Clock = std::chrono::steady_clock;

// Design note: dialog units become pixels through the base units of the
// dialogs' "System" font on a 96-dpi screen (8 by 16 pixels), scaled by the
// screen's resolution: x pixels = x units * 8 / 4, y pixels = y units * 16 / 8.
constexpr int32_t kBaseUnitX = 8;
constexpr int32_t kBaseUnitY = 16;
constexpr int32_t kReferenceDpi = 96;
constexpr int32_t kSystemFontHeight = 16;  // on the reference screen
constexpr char kButtonClass[] = "BUTTON";
constexpr char kDefaultBoxCaption[] = "Error";

struct Control {
  int32_t Id = 0;
  std::string Class;
  std::string Text;
  Rect Bounds;  // pixels, in the dialog
  bool Visible = false;
  bool Enabled = true;
  FontHandle Font = nullptr;
};

struct Timer {
  uint32_t Id = 0;
  Clock::duration Period{};
  Clock::time_point Due{};
};

}  // namespace

struct Dialog {
  const DialogTemplate* Template = nullptr;
  DialogProc Proc = nullptr;
  bool Modal = false;
  std::string Caption;
  std::vector<Control> Controls;
  std::deque<DialogMessage> Queue;
  std::vector<Timer> Timers;
  bool Ended = false;
  intptr_t Result = 0;
};

namespace {

// Thread contract: every field is guarded by Lock; Changed wakes a modal loop
// when a message is queued or the dialog ends. Trivially destructible so that
// a dialog closed by the library's detach code outlives static destruction.
struct DialogTable {
  std::mutex Lock;
  std::condition_variable* Changed = nullptr;
  std::unordered_set<Dialog*>* Live = nullptr;
  SxUiObserver Observer = nullptr;
  void* Context = nullptr;
};
static_assert(std::is_trivially_destructible_v<DialogTable>);
static_assert(kColorMenu == SX_UI_COLOR_BACKGROUND);
constinit DialogTable g_dialogs;

std::atomic<int32_t> g_screenWidth{kScreenWidth};
std::atomic<int32_t> g_screenDpi{kScreenDpi};

// Frees the table when the library is unloaded with no dialog left open (a
// dialog still open keeps it, as the detach code may yet close it).
__attribute__((destructor(101))) void ReleaseDialogTable() {
  std::lock_guard<std::mutex> guard(g_dialogs.Lock);
  if (g_dialogs.Live && g_dialogs.Live->empty()) {
    delete g_dialogs.Live;
    g_dialogs.Live = nullptr;
    delete g_dialogs.Changed;
    g_dialogs.Changed = nullptr;
  }
}

void EnsureTable() {
  if (!g_dialogs.Live) g_dialogs.Live = new std::unordered_set<Dialog*>;
  if (!g_dialogs.Changed) g_dialogs.Changed = new std::condition_variable;
}

bool LiveLocked(Dialog* dialog) {
  return dialog && g_dialogs.Live && g_dialogs.Live->count(dialog) != 0;
}

Control* FindControl(Dialog* dialog, int32_t id) {
  for (Control& control : dialog->Controls) {
    if (control.Id == id) return &control;
  }
  return nullptr;
}

// Tells the observer, outside the lock, on the calling thread.
void Notify(int32_t kind, Dialog* dialog, int32_t control, int32_t value, const char* text,
            const char* name = nullptr, int32_t extent = 0, uint32_t color = 0) {
  SxUiObserver observer;
  void* context;
  {
    std::lock_guard<std::mutex> guard(g_dialogs.Lock);
    observer = g_dialogs.Observer;
    context = g_dialogs.Context;
  }
  if (!observer) return;
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
}

int32_t Scale(int32_t units, int32_t base, int32_t divisor) {
  return MulDiv(MulDiv(units, base, divisor), g_screenDpi.load(), kReferenceDpi);
}

Dialog* Build(const DialogTemplate* t, DialogProc proc, bool modal) {
  auto* dialog = new Dialog;
  dialog->Template = t;
  dialog->Proc = proc;
  dialog->Modal = modal;
  dialog->Caption = t->Caption ? t->Caption : "";
  for (size_t i = 0; i < t->ControlCount; ++i) {
    const DialogControlTemplate& c = t->Controls[i];
    Control control;
    control.Id = c.Id;
    control.Class = c.Class ? c.Class : "";
    control.Text = c.Text ? c.Text : "";
    control.Bounds = {Scale(c.X, kBaseUnitX, 4), Scale(c.Y, kBaseUnitY, 8),
                      Scale(c.X + c.Cx, kBaseUnitX, 4), Scale(c.Y + c.Cy, kBaseUnitY, 8)};
    control.Visible = (c.Style & kStyleVisible) != 0;
    control.Enabled = (c.Style & kStyleDisabled) == 0;
    dialog->Controls.push_back(std::move(control));
  }
  return dialog;
}

// Shows the dialog (the observer learns of it with the template's texts),
// then lets its procedure initialise it.
Dialog* Open(const DialogTemplate* t, DialogProc proc, intptr_t param, bool modal) {
  if (!t || !proc) return nullptr;
  Dialog* dialog = nullptr;
  try {
    dialog = Build(t, proc, modal);
    std::lock_guard<std::mutex> guard(g_dialogs.Lock);
    EnsureTable();
    g_dialogs.Live->insert(dialog);
  } catch (...) {
    delete dialog;
    return nullptr;
  }
  Notify(SX_UI_OPEN, dialog, 0, modal ? 1 : 0, dialog->Caption.c_str(), t->Name);
  proc(dialog, kMsgInitDialog, 0, param);
  return dialog;
}

// The next message of a modal loop: a queued one, else the earliest timer
// once due. False when the dialog has ended.
bool NextModalMessage(Dialog* dialog, DialogMessage& out) {
  std::unique_lock<std::mutex> lock(g_dialogs.Lock);
  for (;;) {
    if (dialog->Ended) return false;
    if (!dialog->Queue.empty()) {
      out = dialog->Queue.front();
      dialog->Queue.pop_front();
      return true;
    }
    auto earliest = std::min_element(dialog->Timers.begin(), dialog->Timers.end(),
                                     [](const Timer& a, const Timer& b) { return a.Due < b.Due; });
    if (earliest == dialog->Timers.end()) {
      g_dialogs.Changed->wait(lock);
      continue;
    }
    const Clock::time_point now = Clock::now();
    if (earliest->Due <= now) {
      // A late tick is not made up for: the next one is a period away.
      earliest->Due = now + earliest->Period;
      out = {dialog, kMsgTimer, earliest->Id, 0};
      return true;
    }
    g_dialogs.Changed->wait_until(lock, earliest->Due);
  }
}

template <typename Change>
void ChangeControl(Dialog* dialog, int32_t id, Change change) {
  std::lock_guard<std::mutex> guard(g_dialogs.Lock);
  if (!LiveLocked(dialog)) return;
  if (Control* control = FindControl(dialog, id)) change(*control);
}

// Queues a command for the dialog. `buttonOnly`: as a click, which reaches
// only a visible, enabled button.
int32_t QueueCommand(Dialog* dialog, int32_t id, bool buttonOnly) {
  std::lock_guard<std::mutex> guard(g_dialogs.Lock);
  if (!LiveLocked(dialog)) return 0;
  if (buttonOnly) {
    const Control* control = FindControl(dialog, id);
    if (!control || control->Class != kButtonClass || !control->Visible || !control->Enabled) {
      return 0;
    }
  }
  try {
    dialog->Queue.push_back({dialog, kMsgCommand, static_cast<uint32_t>(id), 0});
  } catch (...) {
    return 0;
  }
  g_dialogs.Changed->notify_all();
  return 1;
}

}  // namespace

DialogHandle CreateDialogFrom(const DialogTemplate* t, DialogProc proc, intptr_t param) {
  return Open(t, proc, param, false);
}

intptr_t RunModalDialog(const DialogTemplate* t, DialogProc proc, intptr_t param) {
  Dialog* dialog = Open(t, proc, param, true);
  if (!dialog) return -1;
  DialogMessage message;
  while (NextModalMessage(dialog, message)) DispatchDialogMessage(message);
  const intptr_t result = dialog->Result;
  DestroyDialog(dialog);
  return result;
}

void EndModalDialog(DialogHandle dialog, intptr_t result) {
  std::lock_guard<std::mutex> guard(g_dialogs.Lock);
  if (!LiveLocked(dialog) || !dialog->Modal) return;
  dialog->Ended = true;
  dialog->Result = result;
  g_dialogs.Changed->notify_all();
}

void DestroyDialog(DialogHandle dialog) {
  if (!IsDialogOpen(dialog)) return;
  dialog->Proc(dialog, kMsgDestroy, 0, 0);
  {
    std::lock_guard<std::mutex> guard(g_dialogs.Lock);
    g_dialogs.Live->erase(dialog);
  }
  Notify(SX_UI_CLOSE, dialog, 0, 0, nullptr);
  delete dialog;
}

bool IsDialogOpen(DialogHandle dialog) {
  std::lock_guard<std::mutex> guard(g_dialogs.Lock);
  return LiveLocked(dialog);
}

intptr_t SendDialogMessage(DialogHandle dialog, uint32_t message, uintptr_t wParam, intptr_t lParam) {
  if (!IsDialogOpen(dialog)) return 0;
  return dialog->Proc(dialog, message, wParam, lParam);
}

bool PeekDialogMessage(DialogHandle dialog, DialogMessage& out) {
  std::lock_guard<std::mutex> guard(g_dialogs.Lock);
  if (!LiveLocked(dialog) || dialog->Queue.empty()) return false;
  out = dialog->Queue.front();
  dialog->Queue.pop_front();
  return true;
}

bool HandleDialogMessage(DialogHandle dialog, const DialogMessage& message) {
  if (message.Window != dialog || !IsDialogOpen(dialog)) return false;
  dialog->Proc(dialog, message.Id, message.WParam, message.LParam);
  return true;
}

void DispatchDialogMessage(const DialogMessage& message) {
  SendDialogMessage(message.Window, message.Id, message.WParam, message.LParam);
}

void SetDialogCaption(DialogHandle dialog, const char* text) {
  std::string caption = text ? text : "";
  {
    std::lock_guard<std::mutex> guard(g_dialogs.Lock);
    // Design note: the observer hears of changes; setting the same text
    // again is none.
    if (!LiveLocked(dialog) || dialog->Caption == caption) return;
    dialog->Caption = caption;
  }
  Notify(SX_UI_CAPTION, dialog, 0, 0, caption.c_str());
}

void SetControlText(DialogHandle dialog, int32_t control, const char* text) {
  std::string value = text ? text : "";
  bool changed = false;
  ChangeControl(dialog, control, [&](Control& c) {
    changed = c.Text != value;
    if (changed) c.Text = value;
  });
  if (changed) Notify(SX_UI_TEXT, dialog, control, 0, value.c_str());
}

void ShowControl(DialogHandle dialog, int32_t control, bool shown) {
  bool changed = false;
  ChangeControl(dialog, control, [&](Control& c) {
    changed = c.Visible != shown;
    c.Visible = shown;
  });
  if (changed) Notify(SX_UI_SHOW, dialog, control, shown ? 1 : 0, nullptr);
}

void EnableControl(DialogHandle dialog, int32_t control, bool enabled) {
  bool changed = false;
  ChangeControl(dialog, control, [&](Control& c) {
    changed = c.Enabled != enabled;
    c.Enabled = enabled;
  });
  if (changed) Notify(SX_UI_ENABLE, dialog, control, enabled ? 1 : 0, nullptr);
}

void SetControlFont(DialogHandle dialog, int32_t control, FontHandle font) {
  ChangeControl(dialog, control, [&](Control& c) { c.Font = font; });
}

bool ControlClientRect(DialogHandle dialog, int32_t control, Rect& out) {
  bool found = false;
  ChangeControl(dialog, control, [&](Control& c) {
    out = {0, 0, c.Bounds.Right - c.Bounds.Left, c.Bounds.Bottom - c.Bounds.Top};
    found = true;
  });
  return found;
}

void FillControlRect(DialogHandle dialog, int32_t control, const Rect& area, uint32_t color) {
  Rect client;
  if (!ControlClientRect(dialog, control, client)) return;
  const int32_t right = std::clamp(area.Right, client.Left, client.Right);
  const int32_t left = std::clamp(area.Left, client.Left, right);
  Notify(SX_UI_FILL, dialog, control, right - left, nullptr, nullptr, client.Right - client.Left,
         color);
}

void StartDialogTimer(DialogHandle dialog, uint32_t timer, uint32_t periodMs) {
  const Clock::duration period = std::chrono::milliseconds(ScaleDialogTime(periodMs));
  std::lock_guard<std::mutex> guard(g_dialogs.Lock);
  if (!LiveLocked(dialog)) return;
  auto& timers = dialog->Timers;
  timers.erase(std::remove_if(timers.begin(), timers.end(), [&](const Timer& t) { return t.Id == timer; }),
               timers.end());
  timers.push_back({timer, period, Clock::now() + period});
  g_dialogs.Changed->notify_all();
}

void StopDialogTimer(DialogHandle dialog, uint32_t timer) {
  std::lock_guard<std::mutex> guard(g_dialogs.Lock);
  if (!LiveLocked(dialog)) return;
  auto& timers = dialog->Timers;
  timers.erase(std::remove_if(timers.begin(), timers.end(), [&](const Timer& t) { return t.Id == timer; }),
               timers.end());
}

void SetCursorShape(CursorShape shape) {
  Notify(SX_UI_CURSOR, nullptr, 0, shape == CursorShape::Wait ? SX_UI_CURSOR_WAIT : SX_UI_CURSOR_ARROW,
         nullptr);
}

int32_t ShowMessageBox(const char* text, const char* caption, uint32_t style) {
  Notify(SX_UI_MESSAGEBOX, nullptr, 0, static_cast<int32_t>(style), text ? text : "",
         caption ? caption : kDefaultBoxCaption);
  return kIdOk;
}

int32_t FullScreenClientWidth() { return g_screenWidth.load(); }

int32_t ScreenFontHeight() { return MulDiv(kSystemFontHeight, g_screenDpi.load(), kReferenceDpi); }

int32_t LogPixelsY(void*) { return g_screenDpi.load(); }

uint32_t ScaleDialogTime(double milliseconds) {
  const double scaled = milliseconds * TimeScale();
  constexpr double kLongest = 4294967294.0;  // the longest finite wait
  if (!(scaled > 0.0)) return 0;
  return scaled >= kLongest ? static_cast<uint32_t>(kLongest) : static_cast<uint32_t>(scaled);
}

}  // namespace sx::plat

using sx::plat::Dialog;

SX_EXPORT void SX_API SxSysUiSetObserver(SxUiObserver observer, void* context) {
  std::lock_guard<std::mutex> guard(sx::plat::g_dialogs.Lock);
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
  std::lock_guard<std::mutex> guard(sx::plat::g_dialogs.Lock);
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
  sx::plat::g_screenWidth.store(width > 0 ? width : sx::plat::kScreenWidth);
  sx::plat::g_screenDpi.store(dotsPerInch > 0 ? dotsPerInch : sx::plat::kScreenDpi);
}
