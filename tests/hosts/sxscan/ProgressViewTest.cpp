// The progress line as sxscan draws it from the library's dialog notifications.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include "kit/Progress.h"

namespace sx::host {
namespace {

int g_track = 0, g_other = 0;  // their addresses stand for two dialogs

SxUiEvent Event(int32_t kind, void* dialog, int32_t control = 0, const char* text = nullptr, int32_t value = 0,
                uint32_t color = 0) {
  SxUiEvent e{};
  e.Kind = kind, e.Dialog = dialog, e.Control = control, e.Text = text, e.Value = value, e.Extent = 266;
  e.Color = color;
  if (kind == SX_UI_OPEN) e.Name = text, e.Text = "Track Dialog Box";
  return e;
}

// Redraws come when a paint of the bars is complete, not for each bar or for
// the clearing at a page start; another dialog's notifications change nothing.
TEST(HostProgressLine, TrackDialogPagesBarsAndMode) {
  DialogView view;
  EXPECT_FALSE(view.Apply(Event(SX_UI_OPEN, &g_track, 0, "TRACK_1024_768")));
  EXPECT_TRUE(view.Apply(Event(SX_UI_CAPTION, &g_track, 0, "Page2    Lesen")));
  EXPECT_TRUE(view.Apply(Event(SX_UI_TEXT, &g_track, 1302, "Modus:")));
  EXPECT_TRUE(view.Apply(Event(SX_UI_TEXT, &g_track, 1301, "Gepuffert")));
  const bool redraws[] = {view.Apply(Event(SX_UI_FILL, &g_track, 1303, nullptr, 266, SX_UI_COLOR_BACKGROUND)),
                          view.Apply(Event(SX_UI_FILL, &g_track, 1305, nullptr, 266, SX_UI_COLOR_BACKGROUND)),
                          view.Apply(Event(SX_UI_FILL, &g_track, 1303, nullptr, 133, 0x0000FF)),
                          view.Apply(Event(SX_UI_TEXT, &g_track, 1306, "50")),
                          view.Apply(Event(SX_UI_FILL, &g_track, 1304, nullptr, 66, 0x00FF00)),
                          view.Apply(Event(SX_UI_FILL, &g_track, 1305, nullptr, 266, 0xFF0000)),
                          view.Apply(Event(SX_UI_CAPTION, &g_other, 0, "Page9"))};
  EXPECT_EQ(std::vector<bool>(std::begin(redraws), std::end(redraws)),
            (std::vector<bool>{false, false, false, false, false, true, false}));
  EXPECT_EQ(view.Render(0), "Page2 Lesen  Modus: Gepuffert  [###############               ] 50%  R/G/B 50/24/100");
  EXPECT_EQ(view.Render(30).size(), 30u);
  EXPECT_EQ(view.Render(66), "Page2 Lesen  Modus: Gepuffert  [######      ] 50%  R/G/B 50/24/100") << "a shorter bar";
  // Channels that agree (a grey scan, a page's end) need no numbers each.
  view.Apply(Event(SX_UI_FILL, &g_track, 1303, nullptr, 266, 0x0000FF));
  view.Apply(Event(SX_UI_FILL, &g_track, 1304, nullptr, 266, 0x00FF00));
  view.Apply(Event(SX_UI_TEXT, &g_track, 1306, "100"));
  EXPECT_EQ(view.Render(0).substr(view.Render(0).size() - 7), "#] 100%");
  view.Apply(Event(SX_UI_CLOSE, &g_other));
  EXPECT_TRUE(view.IsOpen());
  view.Apply(Event(SX_UI_CLOSE, &g_track));
  EXPECT_FALSE(view.IsOpen());
  EXPECT_EQ(view.Render(80), "");
}

// The warm-up wait: its texts as they stood at opening, then the countdown,
// which disappears when the control is hidden.
TEST(HostProgressLine, WarmUpCountdown) {
  DialogView view;
  SxUiEvent open = Event(SX_UI_OPEN, &g_track, 0, "WAITDIALOG");
  open.Text = "Scanner warm up...";
  EXPECT_TRUE(view.Apply(open));
  view.Seed(1000, "Scanner lamp is warming up");
  view.Seed(1001, "Please wait ...");
  EXPECT_TRUE(view.IsWarmUp());
  EXPECT_TRUE(view.Apply(Event(SX_UI_TEXT, &g_track, 1003, "12")));
  EXPECT_EQ(view.Render(0), "Scanner warm up...  Scanner lamp is warming up  Please wait ...  12");
  EXPECT_TRUE(view.Apply(Event(SX_UI_SHOW, &g_track, 1003, nullptr, 0)));
  EXPECT_EQ(view.Render(0), "Scanner warm up...  Scanner lamp is warming up  Please wait ...");
}

}  // namespace
}  // namespace sx::host
#endif
