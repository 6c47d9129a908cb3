// The progress dialog's commands and state. The dialog itself needs the
// headless dialog model of the platform layer; until that exists no dialog
// opens, so every command answers 0 and an acquisition runs without progress
// display and without a Cancel button.
#include "acquire/ProgressDialog.h"

#include <algorithm>

#include "settings/ScanSettings.h"

namespace sx {

TrackDialogState gTrack;

namespace {

constexpr uint8_t kPixelColor = 2;

void NewPage(uint32_t lines) {
  gTrack.Current = lines;
  gTrack.Total = lines;
  gTrack.BrushMode = kBrushClear;
  gTrack.Current = 0;
}

int32_t Step(uint32_t lines) {
  gTrack.BrushMode = gSettings.PixelType == kPixelColor ? kBrushRgb : kBrushBlack;
  // Unsigned, as the counts are: a step never carries the bars past the page.
  const uint32_t sum = gTrack.Current + lines;
  gTrack.Current = (sum < gTrack.Current || sum > gTrack.Total) ? gTrack.Total : sum;
  PumpTrackMessages();
  return gTrack.Cancel ? 1 : 0;
}

}  // namespace

int32_t CreateTrackDialog(void* /*owner*/) {
  if (gSettings.Indicators == 0 || gTrack.Open) return 0;
  // No dialog can be shown yet (see above); the acquisition goes on without.
  return 0;
}

int32_t TrackDialogCommand(uint32_t command, uintptr_t a, uintptr_t /*b*/, uintptr_t /*c*/) {
  if (!gTrack.Open) return 0;
  switch (command) {
    case TRACK_CLOSE:
      gTrack.Open = false;
      return 1;
    case TRACK_NEWPAGE:
      NewPage(static_cast<uint32_t>(a));
      return 1;
    case TRACK_STEP:
      return Step(static_cast<uint32_t>(a));
    default:
      return 1;
  }
}

int32_t PumpTrackMessages() {
  if (!gTrack.Open) return 1;
  return gTrack.Cancel ? 0 : 1;
}

}  // namespace sx
