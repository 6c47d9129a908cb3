// The lamp warm-up dialog's procedure: a countdown or lamp polling on its
// timer, then an optional pause before it closes.
#include "acquire/WarmUpDialog.h"

#include <string>

#include "acquire/DialogResources.h"
#include "driver/DriverTable.h"
#include "frame/LibraryState.h"
#include "frame/RegistryUtil.h"
#include "platform/Paths.h"
#include "platform/Profile.h"

namespace sx {

WarmUpDialogState gWarmUp;

namespace {

constexpr char kNumbersSection[] = "DS";
constexpr char kLocalisationName[] = SX_PATH_SEP "langpack.loc";
constexpr int32_t kDefaultWarmUpTime = 60;
constexpr uint32_t kTextSize = 250;
constexpr uint8_t kLampWarming = 2;
constexpr uint8_t kLampWarmingToo = 3;
constexpr uint32_t kMsPerSecond = 1000;

int32_t ReadNumber(const char* key, int32_t def) {
  if (gWarmUp.File.empty()) return def;
  return plat::ProfileGetInt(kNumbersSection, key, def, gWarmUp.File);
}

std::string ReadText(const char* section, const char* key, const char* def) {
  char text[kTextSize] = {};
  if (gWarmUp.File.empty()) return def;
  plat::ProfileGetString(section, key, def, text, sizeof text, gWarmUp.File);
  return text;
}

// The procedure ends the wait by sending itself the destroy message.
void EndWait(plat::DialogHandle dialog) { plat::SendDialogMessage(dialog, plat::kMsgDestroy, 0, 0); }

// Design note: the path and the section name are kept by the dialog rather
// than in the library's shared scratch buffers, as the read thread may run
// this dialog while the host's thread is inside SxAcquire.
void Initialise(plat::DialogHandle dialog) {
  gWarmUp.File = WarmUpLocalisationFile();
  char section[kLanguageSectionSize] = {};
  GetLanguageCode(section);
  plat::SetControlText(dialog, kWaitSecondLineId, ReadText(section, "WAIT", "Please wait ...").c_str());
  plat::SetControlText(dialog, kWaitMessageId,
                       ReadText(section, "LAMPWARMUP", "Scanner lamp is warming up").c_str());
  plat::SetDialogCaption(dialog, ReadText(section, "WARMUPTITLE", "Scanner warm up...").c_str());
  // Any positive "WarmUpTime" gives the same fixed countdown; the value only
  // chooses between the two ways of waiting.
  if (ReadNumber("WarmUpTime", kDefaultWarmUpTime) > 0) {
    gWarmUp.Countdown = kWarmUpCountdown;
    plat::StartDialogTimer(dialog, kWarmUpTimer, kWarmUpCountdownMs);
  } else {
    gWarmUp.Countdown = -1;
    plat::StartDialogTimer(dialog, kWarmUpTimer, kWarmUpPollMs);
    plat::EnableControl(dialog, kWaitCountdownId, false);
    plat::ShowControl(dialog, kWaitCountdownId, false);
    gWarmUp.PollCount = 0;
  }
  plat::ShowControl(dialog, plat::kIdCancel, false);
  plat::SetCursorShape(plat::CursorShape::Wait);
  gWarmUp.Pause = plat::CreateEvent(true, false);
  gWarmUp.Ending = false;
}

// True while the lamp still warms up.
bool LampStillWarming() {
  // Design note: a driver without GetLightStatus leaves the state as it
  // is; starting from a value that does not mean "warming" ends the wait at
  // the first poll instead of acting on an undefined byte.
  uint8_t lamp = 0;
  driver::GetLightStatus(&lamp);
  return lamp == kLampWarming || lamp == kLampWarmingToo;
}

void Tick(plat::DialogHandle dialog) {
  if (gWarmUp.Countdown < 0) {
    if (++gWarmUp.PollCount == kWarmUpMaxPolls || !LampStillWarming()) EndWait(dialog);
  } else if (gWarmUp.Countdown == 0) {
    EndWait(dialog);
  } else {
    plat::SetControlText(dialog, kWaitCountdownId, std::to_string(gWarmUp.Countdown).c_str());
    --gWarmUp.Countdown;
  }
}

void Destroy(plat::DialogHandle dialog) {
  plat::StopDialogTimer(dialog, kWarmUpTimer);
  if (gWarmUp.Ending) {
    // The second phase: the dialog is going away.
    plat::CloseEvent(gWarmUp.Pause);
    gWarmUp.Pause = nullptr;
    return;
  }
  gWarmUp.Ending = true;
  const int32_t delay = ReadNumber("DELAYWARMUPTIME", 0);
  if (delay > 0) {
    plat::WaitEvent(gWarmUp.Pause, plat::ScaleDialogTime(static_cast<double>(delay) * kMsPerSecond));
  }
  plat::SetCursorShape(plat::CursorShape::Arrow);
  plat::EndModalDialog(dialog, 1);
}

}  // namespace

std::string WarmUpLocalisationFile() {
  std::string path = plat::CurrentDirectory();
  if (path.empty()) return {};
  path += kLocalisationName;
  return path.size() < kPathBufferSize ? path : std::string();
}

intptr_t WarmUpDialogProc(plat::DialogHandle dialog, uint32_t message, uintptr_t wParam, intptr_t) {
  switch (message) {
    case plat::kMsgInitDialog:
      Initialise(dialog);
      return 1;
    case plat::kMsgTimer:
      if (wParam == kWarmUpTimer) Tick(dialog);
      return 1;
    case plat::kMsgCommand:
      if ((wParam & 0xFFFF) == static_cast<uintptr_t>(plat::kIdCancel)) EndWait(dialog);
      return 1;
    case plat::kMsgDestroy:
      Destroy(dialog);
      return 1;
    default:
      return 0;
  }
}

int32_t RunWarmUpDialog() {
  return static_cast<int32_t>(plat::RunModalDialog(FindDialogTemplate(kWaitDialogName), WarmUpDialogProc, 0));
}

}  // namespace sx
