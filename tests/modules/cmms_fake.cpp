// A stand-in colour-management module for tests, built as sxcmms.dll. Each
// call is appended, with its arguments, to the file named by SX_CMMS_LOG.
// The profile is accepted (0) when the path names an existing file, else
// refused with 14. A line conversion inverts every byte of pixels × 3.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "ModuleExport.h"

#if defined(__i386__)
#define CMMS_API __attribute__((cdecl))
#else
#define CMMS_API
#endif
#define CMMS_EXPORT SX_TEST_EXPORT

namespace {

void Log(const char* format, auto... args) {
  const char* path = std::getenv("SX_CMMS_LOG");
  if (!path || !*path) return;
  if (FILE* f = std::fopen(path, "ab")) {
    std::fprintf(f, format, args...);
    std::fputc('\n', f);
    std::fclose(f);
  }
}

constexpr int32_t kRefused = 14;

}  // namespace

CMMS_EXPORT int32_t CMMS_API SX_Icc_SetProfile(const char* path, int32_t a, int32_t b, int32_t c,
                                               int32_t d) {
  Log("SX_Icc_SetProfile(%s,%d,%d,%d,%d)", path, a, b, c, d);
  std::error_code ec;
  return std::filesystem::is_regular_file(path, ec) ? 0 : kRefused;
}

CMMS_EXPORT int32_t CMMS_API SX_Icc_SetIntent(int32_t a, int32_t b, int32_t c) {
  Log("SX_Icc_SetIntent(%d,%d,%d)", a, b, c);
  return 1;
}

CMMS_EXPORT int32_t CMMS_API SX_Icc_Adjust(int32_t a, int32_t b, int32_t c, int32_t d, int32_t e,
                                           int32_t f, uint8_t* red, uint8_t* green, uint8_t* blue,
                                           int32_t entries) {
  Log("SX_Icc_Adjust(%d,%d,%d,%d,%d,%d,r%u,g%u,b%u,%d)", a, b, c, d, e, f,
      red ? red[entries - 1] : 0u, green ? green[entries - 1] : 0u, blue ? blue[entries - 1] : 0u,
      entries);
  return 1;
}

CMMS_EXPORT int32_t CMMS_API SX_Icc_Initial(int32_t pixels) {
  Log("SX_Icc_Initial(%d)", pixels);
  return 1;
}

CMMS_EXPORT int32_t CMMS_API SX_Icc_Convert2(uint8_t* source, uint8_t* dest, int32_t pixels) {
  Log("SX_Icc_Convert2(%s,%d)", source == dest ? "in place" : "copy", pixels);
  for (int32_t i = 0; i < pixels * 3; ++i) dest[i] = static_cast<uint8_t>(~source[i]);
  return 1;
}
