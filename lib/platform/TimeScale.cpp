// The dialogs' time scale: read from the environment on every system.
#include <cmath>
#include <cstdlib>

#include "platform/System.h"

namespace sx::plat {

double TimeScale() {
  const char* text = std::getenv("SX_TIME_SCALE");
  if (text == nullptr || *text == '\0') return 1.0;
  char* end = nullptr;
  const double scale = std::strtod(text, &end);
  // A factor that is not a plain non-negative number leaves times unscaled.
  if (end == text || !std::isfinite(scale) || scale < 0.0) return 1.0;
  return scale;
}

}  // namespace sx::plat
