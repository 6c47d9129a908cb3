// The lamp warm-up wait, run headlessly: the dialog's timer ticks become
// pauses of the calling thread. The on-screen texts come with the dialog
// model of the platform layer.
#include "acquire/WarmUpDialog.h"

#include <cmath>
#include <cstdlib>

#include "driver/DriverTable.h"
#include "frame/LibraryState.h"
#include "platform/Paths.h"
#include "platform/Profile.h"
#include "platform/System.h"

namespace sx {

namespace {

constexpr char kNumbersSection[] = "DS";
constexpr char kLocalisationName[] = "/langpack.loc";
constexpr int32_t kDefaultWarmUpTime = 60;
constexpr uint8_t kLampWarming = 2;
constexpr uint8_t kLampWarmingToo = 3;

double TimeScale() {
  const char* text = std::getenv("SX_TIME_SCALE");
  if (text == nullptr || *text == '\0') return 1.0;
  char* end = nullptr;
  const double scale = std::strtod(text, &end);
  // A factor that is not a plain non-negative number leaves times unscaled.
  if (end == text || !std::isfinite(scale) || scale < 0.0) return 1.0;
  return scale;
}

int32_t ReadNumber(const char* key, int32_t def, const std::string& file) {
  if (file.empty()) return def;
  return plat::ProfileGetInt(kNumbersSection, key, def, file);
}

}  // namespace

uint32_t ScaleDialogTime(double milliseconds) {
  const double scaled = milliseconds * TimeScale();
  constexpr double kLongest = 4294967294.0;  // the longest finite wait
  if (!(scaled > 0.0)) return 0;
  return scaled >= kLongest ? static_cast<uint32_t>(kLongest) : static_cast<uint32_t>(scaled);
}

std::string WarmUpLocalisationFile() {
  std::string path = plat::CurrentDirectory();
  if (path.empty()) return {};
  path += kLocalisationName;
  return path.size() < kPathBufferSize ? path : std::string();
}

void WarmUpBegin(WarmUpState& state, const std::string& localisationFile) {
  // Any positive "WarmUpTime" gives the same fixed countdown; the value only
  // chooses between the two ways of waiting.
  if (ReadNumber("WarmUpTime", kDefaultWarmUpTime, localisationFile) > 0) {
    state.Countdown = kWarmUpCountdown;
  } else {
    state.Countdown = -1;
  }
  state.PollCount = 0;
}

uint32_t WarmUpPeriodMs(const WarmUpState& state) {
  return state.Countdown < 0 ? kWarmUpPollMs : kWarmUpCountdownMs;
}

bool WarmUpTick(WarmUpState& state) {
  if (state.Countdown < 0) {
    if (++state.PollCount >= kWarmUpMaxPolls) return true;
    // Design note: a driver without GetLightStatus leaves the state as it
    // is; starting from a value that does not mean "warming" ends the wait
    // at the first poll instead of acting on an undefined byte.
    uint8_t lamp = 0;
    driver::GetLightStatus(&lamp);
    return lamp != kLampWarming && lamp != kLampWarmingToo;
  }
  if (state.Countdown == 0) return true;
  --state.Countdown;
  return false;
}

int32_t RunWarmUpDialog() {
  const std::string file = WarmUpLocalisationFile();
  WarmUpState state;
  WarmUpBegin(state, file);
  const uint32_t period = ScaleDialogTime(WarmUpPeriodMs(state));
  do {
    plat::SleepMs(period);
  } while (!WarmUpTick(state));

  const int32_t delay = ReadNumber("DELAYWARMUPTIME", 0, file);
  if (delay > 0) plat::SleepMs(ScaleDialogTime(delay * 1000.0));
  return 1;
}

}  // namespace sx
