// `sxscan serve` in a build without the eSCL server.
#include <cstdio>

#include "sxscan/Commands.h"
#include "sxscan/Serve.h"

namespace sx::host {

int RunServe(const ServeOptions&) {
  std::fprintf(stderr, "sxscan: serve is not available in this build (it needs libmicrohttpd and pugixml, on Linux)\n");
  return kExitFailed;
}

}  // namespace sx::host
