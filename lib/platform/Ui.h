// Screen metrics and font objects of the headless dialog model (the dialogs
// themselves are in platform/Dialog.h).
#pragma once
#include <cstdint>
#include <string>

namespace sx::plat {

// The emulated screen: 1920 x 1080 at 96 dots per inch unless the host
// declares another (SxSysUiSetScreen).
inline constexpr int32_t kScreenWidth = 1920;
inline constexpr int32_t kScreenHeight = 1080;
inline constexpr int32_t kScreenDpi = 96;

// Vertical logical pixels per inch of a window's display context; one value
// for every window of the screen.
int32_t LogPixelsY(void* window);

struct FontSpec {
  int32_t Height = 0;
  int32_t Width = 0;
  int32_t Escapement = 0;
  int32_t Orientation = 0;
  int32_t Weight = 400;
  uint8_t Italic = 0;
  uint8_t Underline = 0;
  uint8_t StrikeOut = 0;
  uint8_t CharSet = 0;
  uint8_t OutPrecision = 0;
  uint8_t ClipPrecision = 0;
  uint8_t Quality = 0;
  uint8_t PitchAndFamily = 0;
  char FaceName[64] = {};
};

// A screen a host declares (SxSysUiSetScreen) in place of the real one, or
// of the emulated one where there is none; 0 or less declares none, and the
// declared values are then 0.
void DeclareScreen(int32_t width, int32_t dotsPerInch);
int32_t DeclaredScreenWidth();
int32_t DeclaredScreenDpi();

struct Font;
using FontHandle = Font*;

FontHandle CreateFont(const FontSpec& description);
void DeleteFont(FontHandle font);
// The font's description; false for a null or deleted handle.
bool DescribeFont(FontHandle font, FontSpec& out);

}  // namespace sx::plat
