#include "platform/Ui.h"

#include <mutex>
#include <new>
#include <type_traits>
#include <unordered_set>

namespace sx::plat {

struct Font {
  FontSpec Description;
};

namespace {

// Thread contract: Live is guarded by Lock. Trivially destructible for the
// same reason as the other platform tables: the library's detach code may
// delete its font after the process has begun running exit handlers.
struct FontTable {
  std::mutex Lock;
  std::unordered_set<Font*>* Live = nullptr;
};
static_assert(std::is_trivially_destructible_v<FontTable>);
constinit FontTable g_fonts;

__attribute__((destructor(101))) void ReleaseFontTable() {
  std::lock_guard<std::mutex> guard(g_fonts.Lock);
  if (g_fonts.Live && g_fonts.Live->empty()) {
    delete g_fonts.Live;
    g_fonts.Live = nullptr;
  }
}

}  // namespace

FontHandle CreateFont(const FontSpec& description) {
  std::lock_guard<std::mutex> guard(g_fonts.Lock);
  Font* font = nullptr;
  try {
    if (!g_fonts.Live) g_fonts.Live = new std::unordered_set<Font*>;
    font = new Font{description};
    font->Description.FaceName[sizeof font->Description.FaceName - 1] = '\0';
    g_fonts.Live->insert(font);
    return font;
  } catch (...) {
    delete font;
    return nullptr;
  }
}

void DeleteFont(FontHandle font) {
  std::lock_guard<std::mutex> guard(g_fonts.Lock);
  if (!font || !g_fonts.Live || g_fonts.Live->erase(font) == 0) return;
  delete font;
}

bool DescribeFont(FontHandle font, FontSpec& out) {
  std::lock_guard<std::mutex> guard(g_fonts.Lock);
  if (!font || !g_fonts.Live || !g_fonts.Live->count(font)) return false;
  out = font->Description;
  return true;
}

}  // namespace sx::plat
