// A scanner that answers discovery and then goes away: only the first
// InitializeScanner of the process succeeds. The count lives in the
// environment so that it survives the module being unloaded between
// discovery and the load that follows.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ModuleExport.h"
#include "sxdriver.h"

#define FLAKY_EXPORT SX_TEST_EXPORT

namespace {
constexpr char kCounter[] = "SXTEST_FLAKY_INITS";

int NextInitialisation() {
  const char* v = std::getenv(kCounter);
  const int n = (v ? std::atoi(v) : 0) + 1;
  char text[16];
  std::snprintf(text, sizeof text, "%d", n);
#if defined(_WIN32)
  _putenv_s(kCounter, text);  // the C runtime's copy and the process's
#else
  setenv(kCounter, text, 1);
#endif
  return n;
}
}  // namespace

FLAKY_EXPORT int32_t SX_DRIVERAPI InitializeDriver() { return 1; }
FLAKY_EXPORT int32_t SX_DRIVERAPI TerminateDriver() { return 1; }
FLAKY_EXPORT int32_t SX_DRIVERAPI InitializeScanner() { return NextInitialisation() == 1; }

FLAKY_EXPORT int32_t SX_DRIVERAPI GetScannerAbility(ScannerAbilityBasic* basic) {
  basic->HasExtendedAbility = 1;
  return 1;
}

FLAKY_EXPORT int32_t SX_DRIVERAPI GetScannerAbilityEx(ScannerAbility* ability) {
  std::strcpy(ability->ModelName, "Flaky");
  std::strcpy(ability->FirmwareVersion, "1.00");
  std::strcpy(ability->PortName, "USB");
  ability->MaxResolution = 300;
  return 1;
}
