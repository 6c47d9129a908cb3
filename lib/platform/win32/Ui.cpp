// Fonts and screen metrics of the Windows dialogs: GDI fonts made from the
// library's font descriptions, and the screen's resolution from a device
// context, unless a host has declared a screen of its own.
#include "platform/win32/UiNative.h"

#include <cstring>
#include <mutex>
#include <type_traits>
#include <unordered_set>

namespace sx::plat {

struct Font {
  FontSpec Description;
  HFONT Native = nullptr;
};

namespace {

// Thread contract: Live is guarded by Lock. Trivially destructible because
// the library's detach code may delete its font after the process has begun
// running exit handlers.
struct FontTable {
  TableLock Lock;
  std::unordered_set<Font*>* Live = nullptr;
};
static_assert(std::is_trivially_destructible_v<FontTable>);
constinit FontTable g_fonts;

__attribute__((destructor(101))) void ReleaseFontTable() {
  std::lock_guard<TableLock> guard(g_fonts.Lock);
  if (g_fonts.Live && g_fonts.Live->empty()) {
    delete g_fonts.Live;
    g_fonts.Live = nullptr;
  }
}

LOGFONTA ToLogFont(const FontSpec& description) {
  LOGFONTA font{};
  font.lfHeight = description.Height;
  font.lfWidth = description.Width;
  font.lfEscapement = description.Escapement;
  font.lfOrientation = description.Orientation;
  font.lfWeight = description.Weight;
  font.lfItalic = description.Italic;
  font.lfUnderline = description.Underline;
  font.lfStrikeOut = description.StrikeOut;
  font.lfCharSet = description.CharSet;
  font.lfOutPrecision = description.OutPrecision;
  font.lfClipPrecision = description.ClipPrecision;
  font.lfQuality = description.Quality;
  font.lfPitchAndFamily = description.PitchAndFamily;
  static_assert(sizeof font.lfFaceName <= sizeof description.FaceName);
  std::memcpy(font.lfFaceName, description.FaceName, sizeof font.lfFaceName - 1);
  return font;
}

}  // namespace

FontHandle CreateFont(const FontSpec& description) {
  Font* font = nullptr;
  try {
    font = new Font{description, nullptr};
    font->Description.FaceName[sizeof font->Description.FaceName - 1] = '\0';
    const LOGFONTA logFont = ToLogFont(font->Description);
    font->Native = CreateFontIndirectA(&logFont);
    if (!font->Native) {
      delete font;
      return nullptr;
    }
    std::lock_guard<TableLock> guard(g_fonts.Lock);
    if (!g_fonts.Live) g_fonts.Live = new std::unordered_set<Font*>;
    g_fonts.Live->insert(font);
    return font;
  } catch (...) {
    if (font && font->Native) DeleteObject(font->Native);
    delete font;
    return nullptr;
  }
}

void DeleteFont(FontHandle font) {
  {
    std::lock_guard<TableLock> guard(g_fonts.Lock);
    if (!font || !g_fonts.Live || g_fonts.Live->erase(font) == 0) return;
  }
  DeleteObject(font->Native);
  delete font;
}

bool DescribeFont(FontHandle font, FontSpec& out) {
  std::lock_guard<TableLock> guard(g_fonts.Lock);
  if (!font || !g_fonts.Live || !g_fonts.Live->count(font)) return false;
  out = font->Description;
  return true;
}

HFONT NativeFont(FontHandle font) {
  std::lock_guard<TableLock> guard(g_fonts.Lock);
  if (!font || !g_fonts.Live || !g_fonts.Live->count(font)) return nullptr;
  return font->Native;
}

int32_t LogPixelsY(void* window) {
  if (const int32_t declared = DeclaredScreenDpi()) return declared;
  // A window that is not one (or none) stands for the screen.
  HWND owner = IsWindow(static_cast<HWND>(window)) ? static_cast<HWND>(window) : nullptr;
  HDC dc = GetDC(owner);
  if (!dc) return kScreenDpi;
  const int32_t dpi = GetDeviceCaps(dc, LOGPIXELSY);
  ReleaseDC(owner, dc);
  return dpi > 0 ? dpi : kScreenDpi;
}

}  // namespace sx::plat
