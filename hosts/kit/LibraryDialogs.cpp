// The observer that shows the library's dialogs on stderr and presses their
// Cancel on an interrupt.
#include <mutex>

#include "kit/Console.h"
#include "kit/Progress.h"
#include "sxscan.h"

namespace sx::host {

namespace {

// Thread contract: notifications arrive on the host's thread or the library's
// read thread, and PressCancelIfInterrupted may be called on either; Lock
// serialises them. The flag is only read.
struct Watch {
  std::mutex Lock;
  const std::atomic<bool>* Interrupted = nullptr;
  bool Show = false;
  bool Terminal = false;
  DialogView View;
  std::string LastLogged;  // the coarse state last written to a log
  SxDialog Pressed = nullptr;
};
Watch g_watch;

// Under g_watch.Lock. The Escape key for the warm-up wait, whose Cancel is
// hidden; the button for the track dialog. Once per dialog.
bool PressLocked() {
  Watch& w = g_watch;
  if (!w.Interrupted || !w.Interrupted->load() || !w.View.IsOpen() || w.Pressed == w.View.Dialog()) {
    return false;
  }
  w.Pressed = w.View.Dialog();
  return (w.View.IsWarmUp() ? SxSysUiEscape(w.Pressed) : SxSysUiPress(w.Pressed, SX_UI_CANCEL_ID)) == 1;
}

// A terminal gets every change redrawn in place; a log gets a line when the
// page, the wait's countdown or the tenth of the page changes.
void DrawLocked() {
  Watch& w = g_watch;
  if (!w.Show || !w.View.IsOpen()) return;
  if (w.Terminal) {
    DrawProgressLine(w.View.Render(TerminalWidth() - 1));
    return;
  }
  const std::string line = w.View.Render(0);
  const std::string coarse = w.View.IsWarmUp() ? line : line.substr(0, line.find('[')) +
                                                            std::to_string(w.View.BarPercent(0) / 10);
  if (coarse == w.LastLogged) return;
  w.LastLogged = coarse;
  DrawProgressLine(line);
}

void SX_API Observe(const SxUiEvent* event, void*) {
  std::lock_guard<std::mutex> guard(g_watch.Lock);
  const bool changed = g_watch.View.Apply(*event);
  // Seeded whether or not the opening is worth a line: a text the library
  // sets to what the template holds already (the transfer mode's label, in
  // English) is never reported as a change.
  if (event->Kind == SX_UI_OPEN) {
    char text[256];
    for (int32_t control : kShownControls) {
      if (SxSysUiGetText(event->Dialog, control, text, sizeof text) >= 0) g_watch.View.Seed(control, text);
    }
  }
  if (!changed) return;
  PressLocked();
  DrawLocked();
}

}  // namespace

LibraryDialogs::LibraryDialogs(const std::atomic<bool>& interrupted, bool show) {
  {
    std::lock_guard<std::mutex> guard(g_watch.Lock);
    g_watch.Interrupted = &interrupted;
    g_watch.Show = show;
    g_watch.Terminal = StderrIsTerminal();
    g_watch.View = DialogView{};
    g_watch.LastLogged.clear();
    g_watch.Pressed = nullptr;
  }
  uint8_t on = 1;
  SxSetValue(CAP_INDICATORS, TY_UINT8, &on);
  SxSysUiSetObserver(Observe, nullptr);
}

LibraryDialogs::~LibraryDialogs() {
  SxSysUiSetObserver(nullptr, nullptr);
  std::lock_guard<std::mutex> guard(g_watch.Lock);
  g_watch.Interrupted = nullptr;
}

bool PressCancelIfInterrupted() {
  std::lock_guard<std::mutex> guard(g_watch.Lock);
  return PressLocked();
}

}  // namespace sx::host
