#include "acquire/DialogResources.h"

#include <cstring>
#include <iterator>

namespace sx {

namespace {

constexpr uint16_t kLanguageTraditionalChinese = 0x0404;
constexpr uint32_t kStaticLeft = 0x50000000;        // child, visible, left
constexpr uint32_t kStaticGroupLeft = 0x50020000;   // child, visible, group, left
constexpr uint32_t kStaticRight = 0x50000002;       // child, visible, right-aligned
constexpr uint32_t kStaticBlackFrame = 0x50000007;  // child, visible, black frame
constexpr uint32_t kPushButton = 0x50010300;        // child, visible, tab stop, centred push button

// Design note: the warm-up procedure writes its countdown to control 1003,
// which the classic template lacks; it is added here, between the two text
// lines and the hidden Cancel button, so that the countdown can be seen. It
// is hidden in lamp-polling mode as the procedure intends.
constexpr plat::DialogControlTemplate kWaitControls[] = {
    {plat::kIdCancel, "BUTTON", "Cancel", kPushButton, 112, 45, 40, 12},
    {kWaitMessageId, "STATIC", "Scanner lamp is warming up", kStaticLeft, 8, 2, 156, 24},
    {kWaitSecondLineId, "STATIC", "Please wait ...", kStaticLeft, 9, 25, 155, 19},
    {kWaitCountdownId, "STATIC", "", kStaticLeft, 9, 45, 60, 10},
};

constexpr plat::DialogTemplate kWaitDialog = {
    kWaitDialogName, kLanguageTraditionalChinese, false, 0x90C008C4, 0x00000009, 0, 0, 164, 58,
    "Scanner warm up...", "System", 10, 0, 0, 0, kWaitControls, std::size(kWaitControls)};

// Both track templates have the same content; the screen chooses the name.
constexpr plat::DialogControlTemplate kTrackControls[] = {
    {kTrackModeNameId, "STATIC", "", kStaticGroupLeft, 63, 6, 102, 8},
    {plat::kIdCancel, "BUTTON", "Cancel", kPushButton, 63, 40, 40, 12},
    {kTrackModeLabelId, "STATIC", "Transfer Mode :", kStaticGroupLeft, 3, 6, 57, 8},
    {kTrackBarIds[0], "STATIC", "", kStaticGroupLeft, 11, 24, 133, 2},
    {-1, "STATIC", "", kStaticBlackFrame, 7, 21, 142, 12},
    {kTrackBarIds[1], "STATIC", "", kStaticGroupLeft, 11, 26, 133, 2},
    {kTrackBarIds[2], "STATIC", "", kStaticGroupLeft, 11, 28, 133, 2},
    {kTrackPercentId, "STATIC", "0", kStaticRight, 149, 22, 11, 10},
    {kTrackPercentSignId, "STATIC", "%", kStaticLeft, 160, 22, 6, 8},
};

constexpr uint32_t kTrackStyle = 0x90C00AC4;
constexpr uint32_t kTrackExStyle = 0x00000009;

constexpr plat::DialogTemplate kTrackLarge = {
    kTrackLargeName, kLanguageTraditionalChinese, true, kTrackStyle, kTrackExStyle, 0, 0, 166, 55,
    "Track Dialog Box", "System", 8, 0, 0, 1, kTrackControls, std::size(kTrackControls)};
constexpr plat::DialogTemplate kTrackSmall = {
    kTrackSmallName, kLanguageTraditionalChinese, true, kTrackStyle, kTrackExStyle, 0, 0, 166, 55,
    "Track Dialog Box", "System", 8, 0, 0, 1, kTrackControls, std::size(kTrackControls)};

constexpr const plat::DialogTemplate* kTemplates[] = {&kWaitDialog, &kTrackLarge, &kTrackSmall};

}  // namespace

const plat::DialogTemplate* FindDialogTemplate(const char* name) {
  if (!name) return nullptr;
  for (const plat::DialogTemplate* t : kTemplates) {
    if (std::strcmp(t->Name, name) == 0) return t;
  }
  return nullptr;
}

}  // namespace sx
