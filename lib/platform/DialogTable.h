// The dialog table both systems' dialogs share: what a host's observer and
// its presses see of each open dialog (its caption and its controls' class,
// text, visibility and state), the observer itself, and the one lock that
// guards them. Each system keeps its own part of a dialog beside it (the
// headless model's queue and timers, or the real window) and does what the
// Native... functions below say; the rest of platform/Dialog.h is written
// once, in platform/Dialog.cpp.
//
// Thread contract: Live, the observer and every dialog's caption and
// controls are guarded by Lock, which is never held while a procedure, the
// observer or a call that sends window messages runs. The table is trivially
// destructible so that a dialog closed by the library's detach code outlives
// static destruction.
#pragma once
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "platform/Dialog.h"
#include "sxsys.h"

#ifdef _WIN32
#include "platform/win32/DialogNative.h"
#else
#include "platform/posix/DialogNative.h"
#endif

namespace sx::plat {

struct Control {
  int32_t Id = 0;
  std::string Class;
  std::string Text;
  bool Visible = false;
  bool Enabled = true;
  NativeControl Native;
};

struct Dialog {
  const DialogTemplate* Template = nullptr;
  DialogProc Proc = nullptr;
  intptr_t Param = 0;
  bool Modal = false;
  std::string Caption;
  std::vector<Control> Controls;
  NativeDialog Native;
};

struct DialogTable {
  DialogLock Lock;
  std::unordered_set<Dialog*>* Live = nullptr;
  SxUiObserver Observer = nullptr;
  void* Context = nullptr;
};
extern DialogTable g_dialogs;

bool LiveLocked(Dialog* dialog);
Control* FindControl(Dialog* dialog, int32_t id);

// Tells the observer, outside the lock, on the calling thread. False when
// no observer is installed.
bool Notify(int32_t kind, Dialog* dialog, int32_t control, int32_t value, const char* text,
            const char* name = nullptr, int32_t extent = 0, uint32_t color = 0);

// A dialog as its template describes it, not yet in the table; null when
// memory runs out.
Dialog* NewDialog(const DialogTemplate* dialogTemplate, DialogProc proc, intptr_t param, bool modal);
// Puts the dialog in the table, where a host can reach it, and tells the
// observer it opened. False when it could not be put there.
bool AnnounceDialog(Dialog* dialog);
// Takes the dialog out of the table, telling the observer if it had heard
// of it, and frees it with its native part.
void RetireDialog(Dialog* dialog);

// Runs `change` on a control of an open dialog under the lock; false when
// there is no such dialog or control.
template <typename Change>
bool ChangeControl(Dialog* dialog, int32_t id, Change change) {
  std::lock_guard<DialogLock> guard(g_dialogs.Lock);
  if (!LiveLocked(dialog)) return false;
  Control* control = FindControl(dialog, id);
  if (control) change(*control);
  return control != nullptr;
}

// ---- each system's side (posix/Dialog.cpp, win32/Dialog.cpp), called on
// the dialog's owner thread without the lock unless the name ends in Locked.

// The change the table has just taken, shown on the system's own window.
void NativeCaption(Dialog* dialog, const std::string& caption);
void NativeText(Dialog* dialog, int32_t control, const std::string& text);
void NativeVisible(Dialog* dialog, int32_t control, bool shown);
void NativeEnabled(Dialog* dialog, int32_t control, bool enabled);
// Paints a fill already cut to the control's client area.
void NativeFill(Dialog* dialog, int32_t control, const Rect& area, uint32_t color);
void NativeCursor(CursorShape shape);
// The message box when no observer has taken the user interface over.
int32_t NativeMessageBox(const char* text, const char* caption, uint32_t style);
// Queues a command for the dialog's owner thread, from any thread; 1 when
// queued.
int32_t NativePostLocked(Dialog* dialog, int32_t id);
// Frees what the system holds for a dialog that is out of the table.
void NativeRelease(Dialog* dialog);

}  // namespace sx::plat
