// Shows the library's progress dialog part-way through a colour page, with
// the transfer mode named, and keeps it on screen (its messages handled) for
// a while, so that it can be photographed: tools/screenshot-dialog.sh. The
// dialog is driven by the commands an acquisition gives it.
//
// Usage: dialog-preview [percent] [seconds]   (defaults 40 and 30)
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "acquire/ProgressDialog.h"
#include "frame/LibraryState.h"
#include "frame/RegistryUtil.h"
#include "platform/System.h"
#include "settings/ScanSettings.h"

namespace {

constexpr uint32_t kPageLines = 1000;
constexpr uint32_t kBufferedMode = 1;
constexpr uint8_t kColourPixels = 2;
constexpr uint32_t kPumpMs = 50;
constexpr int kDefaultPercent = 40;
constexpr int kDefaultSeconds = 30;

// The localisation file a host names in the registry, with the dialog's
// texts in the user's language section.
void WriteTexts() {
  char section[sx::kLanguageSectionSize] = {};
  sx::GetLanguageCode(section);
  const std::string path = std::filesystem::absolute("dialog-preview.ini").string();
  std::ofstream(path) << "[" << section << "]\nTRACKBARTITLE=Scanning\nCancel=Cancel\n"
                      << "TRANSFERMODETEXT=Transfer Mode :\nTRANSFERMODE1=Buffered\n";
  sx::WriteRegValue(sx::kKeyOptions, "LOCALIZE", path.c_str(), sx::kKindText,
                    static_cast<uint32_t>(path.size() + 1));
}

}  // namespace

int main(int argc, char** argv) {
  const int percent = argc > 1 ? std::atoi(argv[1]) : kDefaultPercent;
  const int seconds = argc > 2 ? std::atoi(argv[2]) : kDefaultSeconds;
  WriteTexts();
  sx::CreateDialogFont();
  sx::gSettings.Indicators = 1;
  sx::gSettings.PixelType = kColourPixels;
  if (sx::CreateTrackDialog(nullptr) != 0 || !sx::gTrack.Dialog) {
    std::fprintf(stderr, "dialog-preview: the progress dialog did not open\n");
    return 1;
  }
  sx::TrackDialogCommand(sx::TRACK_MODE, kBufferedMode, 0, 0);
  sx::TrackDialogCommand(sx::TRACK_NEWPAGE, kPageLines, 1, 0);
  sx::TrackDialogCommand(sx::TRACK_STEP, kPageLines * static_cast<uint32_t>(percent) / 100, 0, 0);
  std::printf("shown\n");
  std::fflush(stdout);
  const uint32_t shownMs = static_cast<uint32_t>(seconds) * 1000;
  for (uint32_t waited = 0; waited < shownMs && sx::PumpTrackMessages() == 1; waited += kPumpMs) {
    sx::plat::SleepMs(kPumpMs);
  }
  sx::TrackDialogCommand(sx::TRACK_CLOSE, 0, 0, 0);
  return 0;
}
