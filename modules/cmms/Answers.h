// What the colour module's entry points answer the library, and the file it
// looks for beside the input profile, the same on every system.
#pragma once
#include <cstdint>

namespace sx::cmms {

inline constexpr int32_t kRefused = 14;
inline constexpr int32_t kAccepted = 0;
inline constexpr int32_t kDone = 1;
// SX_Icc_SetIntent's depth argument for 16 bits per sample.
inline constexpr int32_t kDeepSamples = 1;
inline constexpr char kOutputProfileName[] = "sRGB.icc";

}  // namespace sx::cmms
