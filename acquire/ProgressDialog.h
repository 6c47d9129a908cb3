// The progress ("track") dialog: shown while an acquisition runs when the host
// has set Indicators. The party that reads the raster drives it and must be
// the thread that created it (SxAcquire in direct mode, the read thread in
// buffered mode); the state below belongs to that thread.
#pragma once
#include <cstdint>

namespace sx {

inline constexpr uint32_t TRACK_CLOSE = 0x8020;
inline constexpr uint32_t TRACK_NEWPAGE = 0x8021;
inline constexpr uint32_t TRACK_STEP = 0x8022;
inline constexpr uint32_t TRACK_MODE = 0x8023;

// Brush modes of the three progress bars.
inline constexpr int32_t kBrushClear = -1;
inline constexpr int32_t kBrushBlack = 0;
inline constexpr int32_t kBrushRgb = 4;

struct TrackDialogState {
  bool Open = false;        // a dialog is on screen
  bool Cancel = false;      // the user pressed Cancel; cleared when a dialog initialises
  uint32_t Current = 0;     // lines read so far on the page
  uint32_t Total = 0;       // lines of the page
  int32_t BrushMode = kBrushClear;
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
