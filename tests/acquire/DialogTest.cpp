// The lamp warm-up wait: its two ways of waiting and its time scale.
#include <chrono>
#include <filesystem>

#include "FakeScanner.h"
#include "acquire/WarmUpDialog.h"

namespace acqtest {
namespace {

namespace fs = std::filesystem;

// Runs in a temporary current directory, where "langpack.loc" is looked for.
class WarmUp : public ScannerTest {
 protected:
  void SetUp() override {
    ScannerTest::SetUp();
    old_ = fs::current_path();
    fs::current_path(root_.Path());
  }
  void TearDown() override { fs::current_path(old_); }
  fs::path old_;
};

TEST_F(WarmUp, CountdownOrLampPolling) {
  struct Row {
    const char* Localisation;  // the "DS" section; null: no file
    int WarmPolls;
    uint8_t WarmState;
    int Ticks, LampQueries;
  };
  const Row rows[] = {
      {nullptr, 0, 2, 30, 0},               // countdown: ends at the thirtieth tick
      {"WarmUpTime=5\n", 0, 2, 30, 0},      // any positive time gives the same countdown
      {"WarmUpTime=0\n", 3, 2, 4, 4},       // polls until the lamp is ready
      {"WarmUpTime=-1\n", 2, 3, 3, 3},      // state 3 also means warming
      {"WarmUpTime=0\n", 1000, 2, 60, 59},  // gives up after 60 polls
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.Localisation ? r.Localisation : "no file");
    InstallFakeScanner();
    fs::remove(root_.Path() / "langpack.loc");
    if (r.Localisation) {
      sxtest::WriteFile(root_.Path() / "langpack.loc", std::string("[DS]\n") + r.Localisation);
    }
    Fake().LampWarmPolls = r.WarmPolls;
    Fake().LampWarmState = r.WarmState;
    sx::WarmUpState state;
    sx::WarmUpBegin(state, sx::WarmUpLocalisationFile());
    EXPECT_EQ(sx::WarmUpPeriodMs(state), r.LampQueries ? 3000u : 1000u);
    int ticks = 1;
    while (!sx::WarmUpTick(state) && ticks < 1000) ++ticks;
    EXPECT_EQ(ticks, r.Ticks);
    EXPECT_EQ(Fake().Count("GetLightStatus"), r.LampQueries);
  }
  // Without GetLightStatus the lamp state never reads as warming.
  sx::gDriver.GetLightStatus = nullptr;
  sx::WarmUpState state;
  sx::WarmUpBegin(state, sx::WarmUpLocalisationFile());
  EXPECT_TRUE(sx::WarmUpTick(state));
}

// 30 countdown ticks of 1 s and a 4 s pause, scaled by 0.002: at least 68 ms.
TEST_F(WarmUp, TimesFollowTheScaleFactor) {
  sxtest::WriteFile(root_.Path() / "langpack.loc", "[DS]\nWarmUpTime=9\nDELAYWARMUPTIME=4\n");
  sxtest::ScopedEnv scale("SX_TIME_SCALE", "0.002");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(sx::RunWarmUpDialog(), 1);
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_GE(elapsed, std::chrono::milliseconds(68));
  EXPECT_LT(elapsed, std::chrono::seconds(5));

  const std::pair<const char*, uint32_t> factors[] = {
      {"0.5", 500}, {"0", 0}, {"-2", 1000}, {"abc", 1000}, {"1e12", 4294967294u}};
  for (const auto& [factor, scaled] : factors) {
    sxtest::ScopedEnv other("SX_TIME_SCALE", factor);
    EXPECT_EQ(sx::ScaleDialogTime(1000), scaled) << factor;
  }
}

}  // namespace
}  // namespace acqtest
