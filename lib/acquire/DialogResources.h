// The library's dialog templates, held as data and found by name as the
// library's dialog resources are.
#pragma once
#include "platform/Dialog.h"

namespace sx {

inline constexpr char kWaitDialogName[] = "WAITDIALOG";
inline constexpr char kTrackLargeName[] = "TRACK_1024_768";
inline constexpr char kTrackSmallName[] = "TRACK_800_600";
// Asked for on small screens with large fonts; no such resource exists.
inline constexpr char kTrackSpecialName[] = "TRACK_800_600_SPECIAL";

// Control identifiers of the warm-up dialog.
inline constexpr int32_t kWaitMessageId = 1000;
inline constexpr int32_t kWaitSecondLineId = 1001;
inline constexpr int32_t kWaitCountdownId = 1003;

// Control identifiers of the track dialog.
inline constexpr int32_t kTrackModeNameId = 1301;
inline constexpr int32_t kTrackModeLabelId = 1302;
inline constexpr int32_t kTrackBarIds[3] = {1303, 1304, 1305};
inline constexpr int32_t kTrackPercentId = 1306;
inline constexpr int32_t kTrackPercentSignId = 1307;

// The template of that name, or null when the library has none.
const plat::DialogTemplate* FindDialogTemplate(const char* name);

}  // namespace sx
