// What the Windows dialogs share with the font and screen code: the GDI font
// behind a font handle, and the screen a host may declare in place of the
// real one (SxSysUiSetScreen).
#pragma once
#include <cstdint>

#include "platform/Ui.h"

#include "platform/win32/Win32.h"

namespace sx::plat {

// A lock for the dialog and font tables: a slim reader/writer lock needs no
// constructor or destructor, so the tables stay usable while the process
// runs its exit handlers (std::mutex has both here).
class TableLock {
 public:
  void lock() { AcquireSRWLockExclusive(&lock_); }
  void unlock() { ReleaseSRWLockExclusive(&lock_); }

 private:
  SRWLOCK lock_ = SRWLOCK_INIT;
};

// The font's GDI object; null for a null or deleted handle.
HFONT NativeFont(FontHandle font);

// A declared width or resolution replaces the real screen's; 0 means none
// was declared and the system's own metrics apply.
void DeclareScreen(int32_t width, int32_t dotsPerInch);
int32_t DeclaredScreenWidth();
int32_t DeclaredScreenDpi();

}  // namespace sx::plat
