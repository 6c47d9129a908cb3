// The eSCL server: the HTTP side of sxscan-serve.
#pragma once
#include "kit/ServeOptions.h"

namespace sx::host {

// Serves the source `options` name until interrupted; the process exit code.
int RunServer(const ServeOptions& options);

}  // namespace sx::host
