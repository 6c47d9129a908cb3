// The one way platform/win32 includes the system's headers: the lean set,
// without the min/max macros that would break the standard library.
#pragma once
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

// The system's headers define these as macros; the platform interface uses
// the same words for its own functions.
#undef CreateEvent
#undef CreateFont
#undef FreeModule
