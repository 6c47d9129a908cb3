#include "sxscan/SystemTexts.h"

namespace sx::host {

const char kSourcesHelp[] =
    "Lists the data sources the library finds under $SX_ROOT/windows/twain_32:\n"
    "display name, vendor, port, file version and file.\n";

const char kDoctorHelp[] =
    "Explains the set-up: the system tree in use and why, the registry store,\n"
    "every driver module and why it is or is not offered, the ASPI and\n"
    "colour-management modules, the trace settings; each problem with its fix.\n"
    "Exit status 1 when a problem is found.\n";

const char kSetUpNote[] = "The library finds its system tree through SX_ROOT. ";

std::string DriverTreeText() { return "$SX_ROOT/windows/twain_32"; }

std::string MakeFolderCommand(const std::string& folder) { return "mkdir -p " + folder; }

}  // namespace sx::host
