// The headless dialog model of POSIX systems lays the templates out at 96 dpi,
// two pixels a dialog unit: the progress bars, 133 units wide, are 266
// pixels, the extent every bar fill reports to the host.
#include <gtest/gtest.h>

#include "acquire/DialogResources.h"

namespace {

TEST(HeadlessDialog, BarsAreTwoPixelsADialogUnit) {
  auto proc = [](sx::plat::DialogHandle, uint32_t, uintptr_t, intptr_t) -> intptr_t { return 0; };
  sx::plat::DialogHandle dialog = sx::plat::CreateDialogFrom(sx::FindDialogTemplate(sx::kTrackLargeName), proc, 0);
  ASSERT_NE(dialog, nullptr);
  sx::plat::Rect area;
  EXPECT_TRUE(sx::plat::ControlClientRect(dialog, sx::kTrackBarIds[0], area));
  EXPECT_EQ(area.Right, 266);
  sx::plat::DestroyDialog(dialog);
}

}  // namespace
