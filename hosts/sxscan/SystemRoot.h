// Whether the system tree the library will use can be trusted for a command.
// One implementation per system (SystemRootPosix.cpp, SystemRootWin32.cpp).
#pragma once
#include "sxscan/CommandLine.h"

namespace sx::host {

// The library settles its system tree from SX_ROOT and makes what is missing
// in it, so a mistyped name would quietly become a new, empty tree: the name
// is checked first, and a wrong one is explained on stderr. The doctor
// explains any tree, so it goes ahead.
bool SystemRootUsable(CommandKind kind);

}  // namespace sx::host
