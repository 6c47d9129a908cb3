// The headless dialog model: dialogs built from templates held as data,
// nothing drawn. A modal dialog runs its own message loop over the commands
// a host queues and the timers the library starts; the observer hears of
// every change (platform/Dialog.cpp).
#include <algorithm>
#include <condition_variable>
#include <mutex>

#include "platform/DialogTable.h"
#include "platform/System.h"

namespace sx::plat {

namespace {

using Clock = DialogClock;

// Design note: dialog units become pixels through the base units of the
// dialogs' "System" font on a 96-dpi screen (8 by 16 pixels), scaled by the
// screen's resolution: x pixels = x units * 8 / 4, y pixels = y units * 16 / 8.
constexpr int32_t kBaseUnitX = 8, kUnitsPerBaseX = 4;
constexpr int32_t kBaseUnitY = 16, kUnitsPerBaseY = 8;
constexpr int32_t kReferenceDpi = 96;
constexpr int32_t kSystemFontHeight = 16;  // on the reference screen

// Wakes a modal loop when a message is queued or its dialog ends. Guarded
// by the dialog table's lock; freed with the table (below).
constinit std::condition_variable* g_changed = nullptr;

__attribute__((destructor(101))) void ReleaseChanged() {
  std::lock_guard<DialogLock> guard(g_dialogs.Lock);
  if (!g_dialogs.Live || g_dialogs.Live->empty()) {
    delete g_changed;
    g_changed = nullptr;
  }
}

int32_t ScreenDpi() {
  const int32_t declared = DeclaredScreenDpi();
  return declared ? declared : kScreenDpi;
}

int32_t Scale(int32_t units, int32_t base, int32_t divisor) {
  return MulDiv(MulDiv(units, base, divisor), ScreenDpi(), kReferenceDpi);
}

// The dialog with its controls placed in pixels, and the wake-up its modal
// loop waits on.
Dialog* Build(const DialogTemplate* t, DialogProc proc, intptr_t param, bool modal) {
  Dialog* dialog = NewDialog(t, proc, param, modal);
  if (!dialog) return nullptr;
  try {
    std::lock_guard<DialogLock> guard(g_dialogs.Lock);
    if (!g_changed) g_changed = new std::condition_variable;
  } catch (...) {
    delete dialog;
    return nullptr;
  }
  for (size_t i = 0; i < t->ControlCount; ++i) {
    const DialogControlTemplate& c = t->Controls[i];
    dialog->Controls[i].Native.Bounds = {Scale(c.X, kBaseUnitX, kUnitsPerBaseX), Scale(c.Y, kBaseUnitY, kUnitsPerBaseY),
                                         Scale(c.X + c.Cx, kBaseUnitX, kUnitsPerBaseX),
                                         Scale(c.Y + c.Cy, kBaseUnitY, kUnitsPerBaseY)};
  }
  return dialog;
}

// Shows the dialog (the observer learns of it with the template's texts),
// then lets its procedure initialise it.
Dialog* Open(const DialogTemplate* t, DialogProc proc, intptr_t param, bool modal) {
  if (!t || !proc) return nullptr;
  Dialog* dialog = Build(t, proc, param, modal);
  if (!dialog) return nullptr;
  if (!AnnounceDialog(dialog)) {
    RetireDialog(dialog);
    return nullptr;
  }
  proc(dialog, kMsgInitDialog, 0, param);
  return dialog;
}

// The next message of a modal loop: a queued one, else the earliest timer
// once due. False when the dialog has ended.
bool NextModalMessage(Dialog* dialog, DialogMessage& out) {
  std::unique_lock<DialogLock> lock(g_dialogs.Lock);
  NativeDialog& native = dialog->Native;
  for (;;) {
    if (native.Ended) return false;
    if (!native.Queue.empty()) {
      out = native.Queue.front();
      native.Queue.pop_front();
      return true;
    }
    auto earliest = std::min_element(native.Timers.begin(), native.Timers.end(),
                                     [](const DialogTimer& a, const DialogTimer& b) { return a.Due < b.Due; });
    if (earliest == native.Timers.end()) {
      g_changed->wait(lock);
      continue;
    }
    const Clock::time_point now = Clock::now();
    if (earliest->Due <= now) {
      // A late tick is not made up for: the next one is a period away.
      earliest->Due = now + earliest->Period;
      out = {dialog, kMsgTimer, earliest->Id, 0};
      return true;
    }
    g_changed->wait_until(lock, earliest->Due);
  }
}

void DropTimer(std::vector<DialogTimer>& timers, uint32_t timer) {
  timers.erase(std::remove_if(timers.begin(), timers.end(), [&](const DialogTimer& t) { return t.Id == timer; }),
               timers.end());
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
  const intptr_t result = dialog->Native.Result;
  DestroyDialog(dialog);
  return result;
}

void EndModalDialog(DialogHandle dialog, intptr_t result) {
  std::lock_guard<DialogLock> guard(g_dialogs.Lock);
  if (!LiveLocked(dialog) || !dialog->Modal) return;
  dialog->Native.Ended = true;
  dialog->Native.Result = result;
  g_changed->notify_all();
}

void DestroyDialog(DialogHandle dialog) {
  if (!IsDialogOpen(dialog)) return;
  dialog->Proc(dialog, kMsgDestroy, 0, 0);
  RetireDialog(dialog);
}

bool PeekDialogMessage(DialogHandle dialog, DialogMessage& out) {
  std::lock_guard<DialogLock> guard(g_dialogs.Lock);
  if (!LiveLocked(dialog) || dialog->Native.Queue.empty()) return false;
  out = dialog->Native.Queue.front();
  dialog->Native.Queue.pop_front();
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

void SetControlFont(DialogHandle dialog, int32_t control, FontHandle font) {
  ChangeControl(dialog, control, [&](Control& c) { c.Native.Font = font; });
}

bool ControlClientRect(DialogHandle dialog, int32_t control, Rect& out) {
  return ChangeControl(dialog, control, [&](Control& c) {
    const Rect& b = c.Native.Bounds;
    out = {0, 0, b.Right - b.Left, b.Bottom - b.Top};
  });
}

void StartDialogTimer(DialogHandle dialog, uint32_t timer, uint32_t periodMs) {
  const Clock::duration period = std::chrono::milliseconds(ScaleDialogTime(periodMs));
  std::lock_guard<DialogLock> guard(g_dialogs.Lock);
  if (!LiveLocked(dialog)) return;
  DropTimer(dialog->Native.Timers, timer);
  dialog->Native.Timers.push_back({timer, period, Clock::now() + period});
  g_changed->notify_all();
}

void StopDialogTimer(DialogHandle dialog, uint32_t timer) {
  std::lock_guard<DialogLock> guard(g_dialogs.Lock);
  if (LiveLocked(dialog)) DropTimer(dialog->Native.Timers, timer);
}

int32_t FullScreenClientWidth() {
  const int32_t declared = DeclaredScreenWidth();
  return declared ? declared : kScreenWidth;
}

int32_t ScreenFontHeight() { return MulDiv(kSystemFontHeight, ScreenDpi(), kReferenceDpi); }

int32_t LogPixelsY(void*) { return ScreenDpi(); }

// Nothing is drawn: the table and the observer are the whole dialog.
void NativeCaption(Dialog*, const std::string&) {}
void NativeText(Dialog*, int32_t, const std::string&) {}
void NativeVisible(Dialog*, int32_t, bool) {}
void NativeEnabled(Dialog*, int32_t, bool) {}
void NativeFill(Dialog*, int32_t, const Rect&, uint32_t) {}
void NativeCursor(CursorShape) {}
void NativeRelease(Dialog*) {}

// Design note: nobody can answer a headless message box, so it is answered
// at once with OK.
int32_t NativeMessageBox(const char*, const char*, uint32_t) { return kIdOk; }

int32_t NativePostLocked(Dialog* dialog, int32_t id) {
  try {
    dialog->Native.Queue.push_back({dialog, kMsgCommand, static_cast<uint32_t>(id), 0});
  } catch (...) {
    return 0;
  }
  g_changed->notify_all();
  return 1;
}

}  // namespace sx::plat
