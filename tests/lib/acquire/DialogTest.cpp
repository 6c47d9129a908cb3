// The lamp warm-up dialog as a host sees it through the dialog observer: its
// two ways of waiting, its texts, its closing pause and its hidden Cancel.
#include <chrono>
#include <filesystem>

#include "FakeScanner.h"
#include "acquire/DialogResources.h"
#include "acquire/WarmUpDialog.h"
#include "support/UiRecorder.h"

namespace acqtest {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

class WarmUp : public ScannerTest {
 protected:
  void SetUp() override {
    ScannerTest::SetUp();
    old_ = fs::current_path();
    fs::current_path(root_.Path());  // where "langpack.loc" is looked for
  }
  void TearDown() override { fs::current_path(old_); }

  // Runs the dialog with the given localisation file (none when empty).
  Lines Run(const std::string& localisation) {
    fs::remove(root_.Path() / "langpack.loc");
    if (!localisation.empty()) sxtest::WriteFile(root_.Path() / "langpack.loc", localisation);
    ui_.Clear();
    EXPECT_EQ(sx::RunWarmUpDialog(), 1);
    return ui_.Lines();
  }

  sxtest::ScopedEnv fast_{"SX_TIME_SCALE", "0.001"};
  sxtest::UiRecorder ui_{::SxSysUiSetObserver, ::SxSysUiPress, ::SxSysUiEscape};
  fs::path old_;
};

Lines Countdown(int from, int to) {
  Lines lines;
  for (int n = from; n >= to; --n) lines.push_back("text 1003 " + std::to_string(n));
  return lines;
}

Lines Join(std::initializer_list<Lines> parts) {
  Lines all;
  for (const Lines& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

// Any positive "WarmUpTime" (and no file at all) gives the 29-step countdown,
// ending at the thirtieth tick without asking the lamp. Otherwise the lamp
// is polled: the wait ends at the first state other than 2 or 3, after 60
// polls at the latest, and at once for a driver that cannot report its lamp.
TEST_F(WarmUp, CountsDownOrPollsTheLamp) {
  const Lines countdown = Join({{"open WAITDIALOG Scanner warm up...", "show 2 0", "cursor wait"},
                                Countdown(29, 1),
                                {"cursor arrow", "close"}});
  const Lines polling = {"open WAITDIALOG Scanner warm up...", "enable 1003 0", "show 1003 0", "show 2 0",
                         "cursor wait", "cursor arrow", "close"};
  // {localisation file, polls the lamp stays warming, its state then, lamp queries}
  const std::tuple<std::string, int, uint8_t, int> rows[] = {
      {"", 3, 2, 0}, {"[DS]\nWarmUpTime=5\n", 3, 2, 0}, {"[DS]\nWarmUpTime=0\n", 3, 2, 4},
      {"[DS]\nWarmUpTime=-1\n", 2, 3, 3}, {"[DS]\nWarmUpTime=0\n", 1000, 2, 59}};
  for (const auto& [localisation, polls, state, queries] : rows) {
    SCOPED_TRACE(localisation + std::to_string(polls));
    InstallFakeScanner();
    Fake().LampWarmPolls = polls, Fake().LampWarmState = state;
    EXPECT_EQ(Run(localisation), queries ? polling : countdown);
    EXPECT_EQ(Fake().Count("GetLightStatus"), queries);
  }
  InstallFakeScanner();
  Fake().LampWarmPolls = 1000;
  sx::gDriver.GetLightStatus = nullptr;
  EXPECT_EQ(Run("[DS]\nWarmUpTime=0\n"), polling);
}

// Texts from the language section, the closing pause (which keeps the wait
// cursor), and Cancel: hidden, so a click is refused, yet the Escape key's
// command 2 still ends the wait early.
TEST_F(WarmUp, LocalisedTextsClosingPauseAndEscape) {
  root_.WriteRegistry("[Software\\Quillmark\\ScanData]\n\"LANGUAGE\"=dword:00000002\n");
  int refusedClicks = 0;
  ui_.OnEvent = [&](const std::string& line, SxDialog dialog) {
    if (line != "text 1003 27") return;
    refusedClicks += ui_.Press(dialog, 2) == 0;
    EXPECT_EQ(ui_.Escape(dialog), 1);
  };
  const auto start = std::chrono::steady_clock::now();
  const Lines lines = Run("[0404]\nWAIT=Bitte warten\nLAMPWARMUP=Lampe heizt auf\nWARMUPTITLE=Aufwaermen\n"
                          "[DS]\nDELAYWARMUPTIME=4\n");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(4));
  EXPECT_EQ(lines, Join({{"open WAITDIALOG Scanner warm up...", "text 1001 Bitte warten", "text 1000 Lampe heizt auf",
                          "caption Aufwaermen", "show 2 0", "cursor wait"},
                         Countdown(29, 27),
                         {"cursor arrow", "close"}}));
  EXPECT_EQ(refusedClicks, 1);
}

// What a host may do with a dialog handle: read texts, click visible buttons
// only; once the dialog is gone (or for a handle that never was one) every
// request is refused rather than reaching freed memory.
TEST(DialogHandles, HostRequestsAreCheckedAgainstOpenDialogs) {
  auto proc = [](sx::plat::DialogHandle, uint32_t, uintptr_t, intptr_t) -> intptr_t { return 0; };
  sx::plat::DialogHandle dialog = sx::plat::CreateDialogFrom(sx::FindDialogTemplate("TRACK_800_600"), proc, 0);
  ASSERT_NE(dialog, nullptr);
  char text[8];
  EXPECT_EQ(::SxSysUiGetText(dialog, SX_UI_CAPTION_ID, text, sizeof text), 16);
  EXPECT_STREQ(text, "Track D");
  EXPECT_EQ(::SxSysUiGetText(dialog, 1302, nullptr, 0), 15);
  EXPECT_EQ(::SxSysUiGetText(dialog, 4242, text, sizeof text), -1);
  EXPECT_EQ(::SxSysUiPress(dialog, 1302), 0) << "a static text is no button";
  EXPECT_EQ(::SxSysUiPress(dialog, 2), 1);
  sx::plat::DialogMessage message;
  ASSERT_TRUE(sx::plat::PeekDialogMessage(dialog, message));
  EXPECT_EQ(message.Id, sx::plat::kMsgCommand);
  EXPECT_EQ(message.WParam, 2u);
  EXPECT_FALSE(sx::plat::PeekDialogMessage(dialog, message));
  sx::plat::DestroyDialog(dialog);
  int notADialog = 0;
  for (void* handle : {static_cast<void*>(dialog), static_cast<void*>(&notADialog), static_cast<void*>(nullptr)}) {
    EXPECT_EQ(::SxSysUiPress(handle, 2) + ::SxSysUiEscape(handle), 0);
    EXPECT_EQ(::SxSysUiGetText(handle, SX_UI_CAPTION_ID, text, sizeof text), -1);
  }
  EXPECT_EQ(sx::FindDialogTemplate("TRACK_800_600_SPECIAL"), nullptr);
}

}  // namespace
}  // namespace acqtest
