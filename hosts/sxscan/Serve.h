// `sxscan serve`: the data source served to the network over eSCL.
#pragma once
#include "kit/ServeOptions.h"

namespace sx::host {

// Serves until interrupted; the process exit code. Builds without the HTTP
// and XML libraries (Windows among them) say that serving is not available.
int RunServe(const ServeOptions& options);

}  // namespace sx::host
