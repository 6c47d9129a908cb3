// Windows has no system tree of the library's own: driver modules lie in the
// Windows folder's twain_32, settings in the user's registry.
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include "sxscan/SystemTexts.h"

namespace sx::host {

const char kSourcesHelp[] =
    "Lists the data sources the library finds under the Windows folder's\n"
    "twain_32 (C:\\Windows\\twain_32\\<maker>\\<model>\\): display name, vendor,\n"
    "port, file version and file.\n";

const char kDoctorHelp[] =
    "Explains the set-up: the Windows folder, the registry key\n"
    "HKEY_CURRENT_USER\\Software\\Quillmark, every driver module with its version\n"
    "resource and why it is or is not offered, the ASPI and colour-management\n"
    "modules, the trace settings; each problem with its fix.\n"
    "Exit status 1 when a problem is found.\n";

const char kSetUpNote[] =
    "The library finds driver modules in the Windows folder's twain_32 and keeps\n"
    "its settings under HKEY_CURRENT_USER\\Software\\Quillmark. ";

std::string DriverTreeText() {
  char folder[MAX_PATH] = "";
  const UINT length = GetWindowsDirectoryA(folder, sizeof folder);
  if (length == 0 || length >= sizeof folder) return "the Windows folder's twain_32";
  return std::string(folder, length) + "\\twain_32";
}

// cmd's mkdir makes the folders above as well; the quotes keep a name with
// blanks whole.
std::string MakeFolderCommand(const std::string& folder) { return "mkdir \"" + folder + "\""; }

}  // namespace sx::host
