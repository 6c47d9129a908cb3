// How a test module exports an entry point with C linkage: on Windows by
// dllexport (the build exports undecorated names on i686 too), elsewhere by
// default visibility in a module built with hidden symbols.
#pragma once

#if defined(_WIN32)
#define SX_TEST_EXPORT extern "C" __declspec(dllexport)
#else
#define SX_TEST_EXPORT extern "C" __attribute__((visibility("default")))
#endif
