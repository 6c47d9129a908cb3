// A Windows dialog's own part: its window, the fills its controls repaint,
// the brushes made for them and the real message behind the last one the
// library peeked. The window and the fills are guarded by the dialog
// table's lock; the brushes and the peeked message belong to the owner
// thread alone.
#pragma once
#include <utility>
#include <vector>

#include "platform/win32/UiNative.h"

namespace sx::plat {

using DialogLock = TableLock;

struct Fill {
  RECT Area;
  COLORREF Color;
};

struct NativeControl {
  std::vector<Fill> Fills;  // drawn again whenever the control repaints
};

struct NativeDialog {
  HWND Window = nullptr;  // set while the window exists
  std::vector<std::pair<COLORREF, HBRUSH>> Brushes;
  MSG Taken{};
  bool HasTaken = false;
};

}  // namespace sx::plat
