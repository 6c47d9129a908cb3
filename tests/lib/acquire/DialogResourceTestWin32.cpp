// Windows: the dialog resources compiled into the program are the templates
// the library describes as data, a template without a resource fails as
// documented, and the progress bars keep their fills when the system
// repaints the dialog.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "acquire/DialogResources.h"
#include "platform/win32/Win32.h"
#include "support/UiRecorder.h"

namespace {

namespace plat = sx::plat;

// Reads a dialog resource as the system lays it out: 16-bit words, strings
// of UTF-16 units (ASCII here), DWORD-aligned items.
class TemplateReader {
 public:
  explicit TemplateReader(const void* data) : base_(static_cast<const uint8_t*>(data)), at_(base_) {}
  uint16_t Word() { return Take<uint16_t>(); }
  uint32_t Dword() { return Take<uint32_t>(); }
  int16_t Short() { return static_cast<int16_t>(Word()); }
  uint8_t Byte() { return Take<uint8_t>(); }
  std::string Text() {
    std::string text;
    for (uint16_t unit = Word(); unit != 0; unit = Word()) text += static_cast<char>(unit);
    return text;
  }
  // A name or an ordinal; the predefined control classes by their names.
  std::string NameOrOrdinal() {
    const uint16_t first = Peek();
    if (first == 0) return Word(), "";
    if (first != 0xFFFF) return Text();
    Word();
    switch (const uint16_t ordinal = Word()) {
      case 0x0080: return "BUTTON";
      case 0x0082: return "STATIC";
      default: return "#" + std::to_string(ordinal);
    }
  }
  void AlignDword() { at_ = base_ + ((at_ - base_ + 3) & ~3); }

 private:
  template <typename T>
  T Take() {
    T value;
    std::memcpy(&value, at_, sizeof value);
    at_ += sizeof value;
    return value;
  }
  uint16_t Peek() const {
    uint16_t value;
    std::memcpy(&value, at_, sizeof value);
    return value;
  }
  const uint8_t* base_;
  const uint8_t* at_;
};

const void* LoadDialogResource(const char* name, uint16_t language) {
  HMODULE module = nullptr;
  GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                     reinterpret_cast<LPCSTR>(&sx::FindDialogTemplate), &module);
  HRSRC found = FindResourceExA(module, MAKEINTRESOURCEA(5), name, language);
  return found ? LockResource(LoadResource(module, found)) : nullptr;
}

using Numbers = std::vector<int64_t>;
using Texts = std::vector<std::string>;

// The fields in the order they are read (a braced list reads left to right).
void ExpectControl(TemplateReader& in, bool extended, const plat::DialogControlTemplate& c) {
  SCOPED_TRACE(c.Id);
  in.AlignDword();
  // Help id, extended style and style; the classic item: style, extended style.
  const Numbers head = extended ? Numbers{in.Dword(), in.Dword(), in.Dword()} : Numbers{in.Dword(), in.Dword()};
  EXPECT_EQ(head, (extended ? Numbers{0, 0, c.Style} : Numbers{c.Style, 0}));
  const Numbers place = {in.Short(), in.Short(), in.Short(), in.Short(),
                         extended ? static_cast<int32_t>(in.Dword()) : static_cast<int16_t>(in.Word())};
  EXPECT_EQ(place, (Numbers{c.X, c.Y, c.Cx, c.Cy, c.Id}));
  EXPECT_EQ((Texts{in.NameOrOrdinal(), in.NameOrOrdinal()}), (Texts{c.Class, c.Text}));
  EXPECT_EQ(in.Word(), 0u) << "creation data";
}

// Every field of the three templates, control by control: the resource
// script and the library's data cannot drift apart unnoticed.
TEST(DialogResources, MatchTheLibrarysTemplates) {
  for (const char* name : {sx::kWaitDialogName, sx::kTrackLargeName, sx::kTrackSmallName}) {
    SCOPED_TRACE(name);
    const plat::DialogTemplate* t = sx::FindDialogTemplate(name);
    ASSERT_NE(t, nullptr);
    const void* resource = LoadDialogResource(name, t->Language);
    ASSERT_NE(resource, nullptr) << "no resource of that name and language";
    TemplateReader in(resource);
    // Version, signature, help id, extended style and style; the classic
    // template: style and extended style.
    const Numbers head = t->Extended ? Numbers{in.Word(), in.Word(), in.Dword(), in.Dword(), in.Dword()}
                                     : Numbers{in.Dword(), in.Dword()};
    EXPECT_EQ(head, (t->Extended ? Numbers{1, 0xFFFF, 0, t->ExStyle, t->Style} : Numbers{t->Style, t->ExStyle}));
    EXPECT_EQ((Numbers{in.Word(), in.Short(), in.Short(), in.Short(), in.Short()}),
              (Numbers{static_cast<int64_t>(t->ControlCount), t->X, t->Y, t->Cx, t->Cy}));
    EXPECT_EQ((Texts{in.NameOrOrdinal(), in.NameOrOrdinal(), in.Text()}), (Texts{"", "", t->Caption}))
        << "menu, class, caption";
    ASSERT_TRUE(head[t->Extended ? 4 : 0] & DS_SETFONT);
    const Numbers font = t->Extended ? Numbers{in.Short(), in.Short(), in.Byte(), in.Byte()} : Numbers{in.Short()};
    EXPECT_EQ(font, (t->Extended ? Numbers{t->FontPoints, t->FontWeight, t->FontItalic, t->FontCharSet}
                                 : Numbers{t->FontPoints}));
    EXPECT_EQ(in.Text(), t->FontFace);
    for (size_t i = 0; i < t->ControlCount; ++i) ExpectControl(in, t->Extended, t->Controls[i]);
  }
}

intptr_t Quiet(plat::DialogHandle, uint32_t, uintptr_t, intptr_t) { return 0; }

// A template whose resource is missing (or in another language): no window,
// the documented failure, and nothing for the observer.
TEST(DialogResources, MissingResourceFailsWithoutAWindow) {
  sxtest::UiRecorder ui{::SxSysUiSetObserver, ::SxSysUiPress, ::SxSysUiEscape};
  plat::DialogTemplate missing = *sx::FindDialogTemplate(sx::kWaitDialogName);
  missing.Name = "NO_SUCH_DIALOG";
  EXPECT_EQ(plat::CreateDialogFrom(&missing, Quiet, 0), nullptr);
  EXPECT_EQ(plat::RunModalDialog(&missing, Quiet, 0), -1);
  missing = *sx::FindDialogTemplate(sx::kTrackLargeName);
  missing.Language = 0x0409;
  EXPECT_EQ(plat::CreateDialogFrom(&missing, Quiet, 0), nullptr);
  EXPECT_EQ(plat::RunModalDialog(nullptr, Quiet, 0), -1);
  EXPECT_TRUE(ui.Lines().empty());
}

// A bar's fill is on screen at once and still there after the system has
// repainted the dialog and its controls (a static control clears its area
// when it paints).
TEST(DialogResources, BarFillsSurviveRepaints) {
  plat::DialogHandle dialog = plat::CreateDialogFrom(sx::FindDialogTemplate(sx::kTrackLargeName), Quiet, 0);
  ASSERT_NE(dialog, nullptr);
  HWND window = FindWindowA(nullptr, "Track Dialog Box");
  ASSERT_NE(window, nullptr);
  HWND bar = GetDlgItem(window, sx::kTrackBarIds[0]);
  plat::Rect area;
  ASSERT_TRUE(plat::ControlClientRect(dialog, sx::kTrackBarIds[0], area));
  const int32_t width = area.Right;
  area.Right = width / 2;
  plat::FillControlRect(dialog, sx::kTrackBarIds[0], area, 0x0000FF);
  auto pixel = [&](int32_t x) {
    HDC dc = GetDC(bar);
    const COLORREF color = GetPixel(dc, x, 0);
    ReleaseDC(bar, dc);
    return color;
  };
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round ? "after a repaint" : "at once");
    EXPECT_EQ(pixel(0), 0x0000FFu);
    EXPECT_EQ(pixel(width / 2 - 1), 0x0000FFu);
    EXPECT_NE(pixel(width / 2 + 1), 0x0000FFu);
    RedrawWindow(window, nullptr, nullptr, RDW_INVALIDATE | RDW_ERASE | RDW_ALLCHILDREN | RDW_UPDATENOW);
  }
  plat::DestroyDialog(dialog);
  EXPECT_FALSE(IsWindow(window));
}

}  // namespace
