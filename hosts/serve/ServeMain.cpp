// sxscan-serve: the eSCL server as a program of its own, which `sxscan
// serve` runs in its place with the options it has checked. The HTTP, TLS,
// XML and Avahi libraries it needs are then loaded by the server alone, not
// by every sxscan command.
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "kit/Exit.h"
#include "kit/ServeOptions.h"
#include "serve/EsclServer.h"

int main(int argc, char** argv) {
  using namespace sx::host;
  ServeOptions options;
  std::string error;
  if (!ReadServeArguments(std::vector<std::string>(argv + 1, argv + argc), &options, &error)) {
    std::fprintf(stderr, "sxscan: %s (see 'sxscan help serve')\n", error.c_str());
    return kExitUsage;
  }
  try {
    return RunServer(options);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "sxscan: %s\n", e.what());
    return kExitFailed;
  }
}
