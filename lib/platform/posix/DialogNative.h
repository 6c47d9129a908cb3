// The headless model's part of a dialog: nothing is drawn, so a dialog is
// its message queue, its timers run by a modal dialog's own loop, and the
// controls' places in pixels and fonts. Guarded by the dialog table's lock.
#pragma once
#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

#include "platform/Dialog.h"

namespace sx::plat {

using DialogLock = std::mutex;
using DialogClock = std::chrono::steady_clock;

struct DialogTimer {
  uint32_t Id = 0;
  DialogClock::duration Period{};
  DialogClock::time_point Due{};
};

struct NativeControl {
  Rect Bounds;  // pixels, in the dialog
  FontHandle Font = nullptr;
};

struct NativeDialog {
  std::deque<DialogMessage> Queue;
  std::vector<DialogTimer> Timers;
  bool Ended = false;
  intptr_t Result = 0;
};

}  // namespace sx::plat
