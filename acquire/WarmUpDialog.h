// The lamp warm-up wait: held while the driver refuses a call because its lamp
// is still warming up, then the caller retries once. Runs modally on the
// caller's thread (the host's thread, or the read thread in buffered mode).
#pragma once
#include <cstdint>
#include <string>

namespace sx {

inline constexpr int32_t kWarmUpCountdown = 29;      // ticks after the first
inline constexpr uint32_t kWarmUpCountdownMs = 1000;
inline constexpr uint32_t kWarmUpPollMs = 3000;
inline constexpr int32_t kWarmUpMaxPolls = 60;

struct WarmUpState {
  int32_t Countdown = 0;   // -1 in lamp-polling mode
  int32_t PollCount = 0;
};

// Reads "WarmUpTime" and chooses countdown or lamp polling.
void WarmUpBegin(WarmUpState& state, const std::string& localisationFile);
// One timer tick; true when the wait is over.
bool WarmUpTick(WarmUpState& state);
// The timer period of the chosen mode, in milliseconds before scaling.
uint32_t WarmUpPeriodMs(const WarmUpState& state);

// "langpack.loc" in the current directory, or empty when the path would not
// fit the library's 144-byte path buffer (the defaults then apply).
std::string WarmUpLocalisationFile();

// Milliseconds scaled by SX_TIME_SCALE (a non-negative factor, default 1).
uint32_t ScaleDialogTime(double milliseconds);

// Runs the whole wait: ticks, then the "DELAYWARMUPTIME" pause. Answers 1,
// the dialog's result, which callers ignore.
int32_t RunWarmUpDialog();

}  // namespace sx
