// The lamp warm-up dialog: held modally while the driver refuses a call
// because its lamp is still warming up; then the caller retries once. It runs
// on the caller's thread (the host's thread, or the read thread when a
// buffered page start is refused) and is the only dialog of that thread
// meanwhile; its state below belongs to that thread.
#pragma once
#include <cstdint>
#include <string>

#include "platform/Dialog.h"
#include "platform/Thread.h"

namespace sx {

inline constexpr int32_t kWarmUpCountdown = 29;  // shown before the last tick
inline constexpr uint32_t kWarmUpTimer = 999;
inline constexpr uint32_t kWarmUpCountdownMs = 1000;
inline constexpr uint32_t kWarmUpPollMs = 3000;
inline constexpr int32_t kWarmUpMaxPolls = 60;

struct WarmUpDialogState {
  int32_t Countdown = 0;  // -1 in lamp-polling mode
  int32_t PollCount = 0;
  plat::EventHandle Pause = nullptr;  // never set: only waited on for the closing pause
  bool Ending = false;                // the first of the two destroy phases has run
  std::string File;                   // the localisation file, or empty
};

extern WarmUpDialogState gWarmUp;

// "langpack.loc" in the current directory, or empty when the path would not
// fit the library's 144-byte path buffer (the defaults then apply).
std::string WarmUpLocalisationFile();

intptr_t WarmUpDialogProc(plat::DialogHandle dialog, uint32_t message, uintptr_t wParam, intptr_t lParam);

// Runs the dialog "WAITDIALOG" modally until the lamp is ready, the wait
// times out or the dialog is cancelled. Answers the dialog's result, which
// callers ignore.
int32_t RunWarmUpDialog();

}  // namespace sx
