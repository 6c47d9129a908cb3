// The lamp warm-up wait: its two ways of waiting and its time scale.
#include <filesystem>

#include "FakeScanner.h"
#include "acquire/WarmUpDialog.h"

namespace acqtest {
namespace {

namespace fs = std::filesystem;
using WarmUp = ScannerTest;

// Runs in a temporary current directory, where "langpack.loc" is looked for.
TEST_F(WarmUp, CountsDownOrPollsTheLampOnTheDialogsTimeScale) {
  const fs::path old = fs::current_path();
  fs::current_path(root_.Path());
  // {"DS" section of the localisation file, polls the lamp stays warming, its state then, ticks, lamp queries}
  const std::tuple<const char*, int, uint8_t, int, int> rows[] = {
      {nullptr, 0, 2, 30, 0},               // countdown: ends at the thirtieth tick
      {"WarmUpTime=5\n", 0, 2, 30, 0},      // any positive time gives the same countdown
      {"WarmUpTime=0\n", 3, 2, 4, 4},       // polls until the lamp is ready
      {"WarmUpTime=-1\n", 2, 3, 3, 3},      // state 3 also means warming
      {"WarmUpTime=0\n", 1000, 2, 60, 59},  // gives up after 60 polls
  };
  for (const auto& [localisation, polls, state, ticks, queries] : rows) {
    SCOPED_TRACE(localisation ? localisation : "no file");
    InstallFakeScanner();
    fs::remove(root_.Path() / "langpack.loc");
    if (localisation) sxtest::WriteFile(root_.Path() / "langpack.loc", std::string("[DS]\n") + localisation);
    Fake().LampWarmPolls = polls, Fake().LampWarmState = state;
    sx::WarmUpState warmUp;
    sx::WarmUpBegin(warmUp, sx::WarmUpLocalisationFile());
    EXPECT_EQ(sx::WarmUpPeriodMs(warmUp), queries ? 3000u : 1000u);
    int tick = 1;
    while (!sx::WarmUpTick(warmUp) && tick < 1000) ++tick;
    EXPECT_EQ(tick, ticks);
    EXPECT_EQ(Fake().Count("GetLightStatus"), queries);
  }
  fs::current_path(old);
  for (const auto& [factor, scaled] : {std::pair{"0.5", 500u}, {"-2", 1000u}, {"1e12", 4294967294u}}) {
    sxtest::ScopedEnv scale("SX_TIME_SCALE", factor);
    EXPECT_EQ(sx::ScaleDialogTime(1000), scaled) << factor;
  }
}

}  // namespace
}  // namespace acqtest
