// The progress line: the library's own dialogs, as the dialog observer
// reports them (sxsys.h), rendered as one line of text. The track dialog
// shows its caption (page and title), the transfer mode, its bar and the
// fill of each of its three bars; the warm-up wait shows its texts and
// countdown.
#pragma once
#include <atomic>
#include <cstdint>
#include <map>
#include <string>

#include "sxsys.h"

namespace sx::host {

// One library dialog as last reported. Not thread-safe: its owner serialises
// the notifications it applies.
class DialogView {
 public:
  // Takes one notification about the dialog; true when the line changed.
  bool Apply(const SxUiEvent& event);
  // A control's text as it stood when the dialog opened (the observer is told
  // only of later changes).
  void Seed(int32_t control, const std::string& text) { texts_[control] = text; }

  bool IsOpen() const { return dialog_ != nullptr; }
  bool IsWarmUp() const;
  SxDialog Dialog() const { return dialog_; }
  // The fill of bar 0, 1 or 2 in percent of its width.
  int BarPercent(int bar) const;
  // The line for a terminal `width` characters wide (0: no limit); empty
  // while no dialog is open.
  std::string Render(int width) const;

 private:
  std::string Text(int32_t control) const;
  std::string RenderTrack(int width) const;
  std::string RenderWarmUp() const;

  struct Fill {
    int32_t Filled = 0;
    int32_t Extent = 0;
  };
  SxDialog dialog_ = nullptr;
  std::string template_;
  std::string caption_;
  std::map<int32_t, std::string> texts_;
  Fill bars_[3];
};

// The byte counts of a transfer, for a host that draws its own line.
struct ProgressState {
  int page = 0;               // 1-based page being transferred
  int pagesExpected = 0;      // 0: as many as the feeder holds
  uint64_t bytesDone = 0;     // of the current page
  uint64_t bytesExpected = 0; // of the current page; 0: unknown
};

// One line of `width` characters at most, e.g.
// "page 1 of 3 [##########          ]  50%  1.2 of 2.4 MiB".
std::string RenderProgress(const ProgressState& state, int width);

// The controls of the library's dialogs whose texts the line shows.
inline constexpr int32_t kShownControls[] = {1000, 1001, 1003, 1301, 1302, 1306};

// Shows the library's dialogs on stderr for the life of the object and turns
// an interrupt into a press of the open dialog's Cancel (for the warm-up
// wait, whose Cancel is hidden, the Escape key). Sets the library's
// Indicators so that its dialogs exist. Notifications come on the library's
// read thread in buffered mode: everything here is serialised by one lock.
class LibraryDialogs {
 public:
  LibraryDialogs(const std::atomic<bool>& interrupted, bool show);
  ~LibraryDialogs();
  LibraryDialogs(const LibraryDialogs&) = delete;
  LibraryDialogs& operator=(const LibraryDialogs&) = delete;
};

// Presses Cancel in the open library dialog when the interrupt flag given to
// LibraryDialogs is set. Safe from any thread except a signal handler; true
// when a press was queued.
bool PressCancelIfInterrupted();

}  // namespace sx::host
