#include "kit/Progress.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace sx::host {

namespace {

constexpr char kWarmUpTemplate[] = "WAITDIALOG";
constexpr int32_t kBarControls[3] = {1303, 1304, 1305};
constexpr int32_t kPercentControl = 1306;
constexpr int32_t kModeLabelControl = 1302;
constexpr int32_t kModeNameControl = 1301;
constexpr int32_t kWarmUpMessage = 1000;
constexpr int32_t kWarmUpSecondLine = 1001;
constexpr int32_t kWarmUpCountdown = 1003;
constexpr int kShortestBar = 10;
constexpr int kLongestBar = 30;

// Runs of blanks as one, no blanks at the ends: the dialog lays texts out in
// fields, a line does not.
std::string Squeeze(const std::string& text) {
  std::string out;
  for (char c : text) {
    const bool blank = c == ' ' || c == '\t';
    if (blank && (out.empty() || out.back() == ' ')) continue;
    out += blank ? ' ' : c;
  }
  if (!out.empty() && out.back() == ' ') out.pop_back();
  return out;
}

void AppendPart(std::string& line, const std::string& part) {
  if (part.empty()) return;
  if (!line.empty()) line += "  ";
  line += part;
}

}  // namespace

// True only where the dialog reaches a state worth showing: a paint of the
// bars ends with the third bar, and the percentage follows the bars.
bool DialogView::Apply(const SxUiEvent& e) {
  const std::string text = e.Text ? e.Text : "";
  switch (e.Kind) {
    case SX_UI_OPEN:
      *this = DialogView{};
      dialog_ = e.Dialog;
      template_ = e.Name ? e.Name : "";
      caption_ = text;
      return IsWarmUp();  // the track dialog's caption follows at once
    case SX_UI_CLOSE:
      if (e.Dialog == dialog_) *this = DialogView{};
      return false;
    default:
      break;
  }
  if (!dialog_ || e.Dialog != dialog_) return false;
  switch (e.Kind) {
    case SX_UI_CAPTION:
      caption_ = text;
      return true;
    case SX_UI_TEXT:
      texts_[e.Control] = text;
      return e.Control != kPercentControl;
    case SX_UI_SHOW:
      // A hidden control shows nothing on the line either.
      if (e.Value == 0) texts_[e.Control].clear();
      return e.Value == 0;
    case SX_UI_FILL:
      for (int bar = 0; bar < 3; ++bar) {
        if (kBarControls[bar] != e.Control) continue;
        // Clearing the bars starts a page, which its caption shows.
        const bool clearing = e.Color == SX_UI_COLOR_BACKGROUND;
        bars_[bar] = {clearing ? 0 : e.Value, e.Extent};
        return bar == 2 && !clearing;
      }
      return false;
    default:
      return false;
  }
}

bool DialogView::IsWarmUp() const { return template_ == kWarmUpTemplate; }

int DialogView::BarPercent(int bar) const {
  const Fill& f = bars_[std::clamp(bar, 0, 2)];
  if (f.Extent <= 0) return 0;
  return static_cast<int>(static_cast<int64_t>(std::clamp(f.Filled, 0, f.Extent)) * 100 / f.Extent);
}

std::string DialogView::Text(int32_t control) const {
  auto found = texts_.find(control);
  return found == texts_.end() ? std::string() : Squeeze(found->second);
}

std::string DialogView::RenderWarmUp() const {
  std::string line;
  AppendPart(line, Squeeze(caption_));
  AppendPart(line, Text(kWarmUpMessage));
  AppendPart(line, Text(kWarmUpSecondLine));
  AppendPart(line, Text(kWarmUpCountdown));
  return line;
}

// "Page2 Scanning  Transfer Mode : Normal  [#####     ] 50%  R/G/B 50/24/10"
std::string DialogView::RenderTrack(int width) const {
  std::string line = Squeeze(caption_);
  // The mode's label alone says nothing.
  const std::string name = Text(kModeNameControl);
  if (!name.empty()) AppendPart(line, Squeeze(Text(kModeLabelControl) + " " + name));
  const std::string percent = Text(kPercentControl);
  // The three bars are the colour channels; they part only in a colour
  // scan, and only then is each one worth its own number.
  const bool apart = BarPercent(0) != BarPercent(1) || BarPercent(1) != BarPercent(2);
  const std::string each = "  R/G/B " + std::to_string(BarPercent(0)) + "/" + std::to_string(BarPercent(1)) +
                           "/" + std::to_string(BarPercent(2));
  const std::string tail = (percent.empty() ? std::string("0") : percent) + "%" + (apart ? each : "");
  int bar = kLongestBar;
  if (width > 0) bar = std::min(bar, width - static_cast<int>(line.size() + tail.size()) - 5);
  if (bar >= kShortestBar) {
    const int filled = BarPercent(0) * bar / 100;
    AppendPart(line, "[" + std::string(filled, '#') + std::string(bar - filled, ' ') + "] " + tail);
  } else {
    AppendPart(line, tail);
  }
  return line;
}

std::string DialogView::Render(int width) const {
  if (!IsOpen()) return {};
  std::string line = IsWarmUp() ? RenderWarmUp() : RenderTrack(width);
  if (width > 0 && static_cast<int>(line.size()) > width) line.resize(width);
  return line;
}

std::string RenderProgress(const ProgressState& s, int width) {
  char head[48];
  if (s.pagesExpected > 0)
    std::snprintf(head, sizeof head, "page %d of %d ", s.page, s.pagesExpected);
  else
    std::snprintf(head, sizeof head, "page %d ", s.page);
  uint64_t done = s.bytesExpected ? std::min(s.bytesDone, s.bytesExpected) : s.bytesDone;
  int percent = s.bytesExpected ? static_cast<int>(done * 100 / s.bytesExpected) : 0;
  char tail[64];
  constexpr double kMiB = 1024.0 * 1024.0;
  if (s.bytesExpected)
    std::snprintf(tail, sizeof tail, " %3d%%  %.1f of %.1f MiB", percent, done / kMiB,
                  s.bytesExpected / kMiB);
  else
    std::snprintf(tail, sizeof tail, "  %.1f MiB", done / kMiB);
  std::string line = head;
  int bar = width - static_cast<int>(line.size()) - static_cast<int>(std::string(tail).size()) - 2;
  if (bar >= 4 && s.bytesExpected) {
    int filled = static_cast<int>(static_cast<int64_t>(bar) * percent / 100);
    line += '[' + std::string(filled, '#') + std::string(bar - filled, ' ') + ']';
  }
  line += tail;
  if (width > 0 && static_cast<int>(line.size()) > width) line.resize(width);
  return line;
}

}  // namespace sx::host
