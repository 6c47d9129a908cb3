// Windows builds take the system tree from the system itself.
#include "sxscan/SystemRoot.h"

namespace sx::host {

bool SystemRootUsable(CommandKind) { return true; }

}  // namespace sx::host
