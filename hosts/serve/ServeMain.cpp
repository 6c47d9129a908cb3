// sxscan-serve: the eSCL server as a program of its own, which `sxscan
// serve` runs in its place. The HTTP, TLS, XML and Avahi libraries it needs
// are then loaded by the server alone, not by every sxscan command.
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "sxscan/CommandLine.h"
#include "sxscan/Commands.h"
#include "sxscan/Serve.h"

int main(int argc, char** argv) {
  using namespace sx::host;
  std::vector<std::string> args = {"serve"};
  args.insert(args.end(), argv + 1, argv + argc);
  const ParseOutcome parsed = ParseCommandLine(args);
  if (!parsed.ok || parsed.line.kind != CommandKind::Serve) {
    std::fprintf(stderr, "sxscan: %s (see 'sxscan help serve')\n",
                 parsed.ok ? "sxscan-serve takes the serve command's options" : parsed.error.c_str());
    return kExitUsage;
  }
  try {
    return RunServe(parsed.line.serve);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "sxscan: %s\n", e.what());
    return kExitFailed;
  }
}
