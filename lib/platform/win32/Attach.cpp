// Process attach and detach of sxscan.dll: the DLL entry point's two
// notifications. Declared with plain types so that no Windows header enters
// the library's own layers.
#include <cstdint>

#include "frame/LibraryState.h"

namespace {
constexpr uint32_t kProcessDetach = 0;
constexpr uint32_t kProcessAttach = 1;
}  // namespace

// Nothing may escape a loader notification: the process would end.
extern "C" int __stdcall DllMain(void* instance, uint32_t reason, void* /*reserved*/) {
  try {
    if (reason == kProcessAttach) sx::ProcessAttach(instance);
    if (reason == kProcessDetach) sx::ProcessDetach();
  } catch (...) {
  }
  return 1;
}
