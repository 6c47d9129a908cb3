// The progress ("track") dialog: shown while an acquisition runs when the host
// has set Indicators. The party that reads the raster drives it and must be
// the thread that created it (SxAcquire in direct mode, the read thread in
// buffered mode); the state below belongs to that thread, and the dialog's
// messages (a host's Cancel) are handled only on it, within TRACK_STEP.
#pragma once
#include <cstdint>

#include "platform/Dialog.h"

namespace sx {

// The commands of TrackDialogCommand.
enum TrackCommand : uint32_t { TRACK_CLOSE = 0x8020, TRACK_NEWPAGE, TRACK_STEP, TRACK_MODE };

// Brush modes of the three progress bars: clear, black, or one colour each
// (1 red, 2 green, 3 blue for all three; 4 red, green and blue).
enum BrushMode : int32_t { kBrushClear = -1, kBrushBlack = 0, kBrushRgb = 4 };

inline constexpr uint32_t kColorRed = 0x0000FF;
inline constexpr uint32_t kColorGreen = 0x00FF00;
inline constexpr uint32_t kColorBlue = 0xFF0000;

// The dialog's solid brushes, made with it and dropped when it closes.
struct TrackBrushes {
  bool Made = false;
  uint32_t Red = 0, Green = 0, Blue = 0, Background = 0;
};

struct TrackDialogState {
  plat::DialogHandle Dialog = nullptr;  // the open dialog, or none
  bool Cancel = false;      // the user pressed Cancel; cleared when a dialog initialises
  uint32_t Current = 0;     // lines read so far on the page
  uint32_t Total = 0;       // lines of the page
  int32_t BrushMode = kBrushClear;
  TrackBrushes Brushes;
  int32_t (*Pump)() = nullptr;  // dispatches the dialog's messages
};

extern TrackDialogState gTrack;

// 0, or -7 when the screen is refused. Opens nothing while Indicators is 0 or
// a dialog is already open.
int32_t CreateTrackDialog(void* owner);

// The answer of a command: 0 with no dialog open; else 1, or for TRACK_STEP
// the cancel flag. `c` is ignored.
int32_t TrackDialogCommand(uint32_t command, uintptr_t a, uintptr_t b, uintptr_t c);

// Dispatches the dialog's pending messages. 1 when no dialog is open or
// Cancel was not pressed, else 0.
int32_t PumpTrackMessages();

}  // namespace sx
