#include "sxscan/SystemTexts.h"

#include <algorithm>
#include <cctype>
#include <string_view>

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

// A name with blanks or shell characters is quoted, so that the command can
// be pasted as it stands.
std::string MakeFolderCommand(const std::string& folder) {
  constexpr std::string_view kPlain = "/._-+,:@%=";
  const bool plain = !folder.empty() && std::all_of(folder.begin(), folder.end(), [&](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || kPlain.find(c) != std::string_view::npos;
  });
  if (plain) return "mkdir -p " + folder;
  std::string quoted = "'";
  for (char c : folder) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return "mkdir -p " + quoted + "'";
}

}  // namespace sx::host
