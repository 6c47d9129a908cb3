// What the Windows dialogs share with the font code: the table lock and the
// GDI font behind a font handle.
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

}  // namespace sx::plat
