// sxscan: a command-line host of the scan library. It lists and selects data
// sources, shows and changes capabilities and scans to PNG or TIFF, using
// only the library's exported functions.
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "sxscan/CommandLine.h"
#include "sxscan/Commands.h"
#include "sxscan/Serve.h"
#include "sxscan/SystemRoot.h"

#ifndef SXSCAN_VERSION
#define SXSCAN_VERSION "unknown"
#endif

namespace {

int Dispatch(const sx::host::CommandLine& line) {
  using namespace sx::host;
  switch (line.kind) {
    case CommandKind::Help:
      std::printf("%s", CommandHelpText(line.helpFor).c_str());
      return kExitOk;
    case CommandKind::Version:
      std::printf("sxscan %s\n", SXSCAN_VERSION);
      return kExitOk;
    case CommandKind::Sources: return RunSources();
    case CommandKind::Select: return RunSelect(line.operands[0]);
    case CommandKind::Info: return RunInfo();
    case CommandKind::Caps: return RunCaps();
    case CommandKind::Get: return RunGet(line.operands);
    case CommandKind::Set: return RunSet(line.operands);
    case CommandKind::Scan: return RunScan(line.scan);
    case CommandKind::Doctor: return RunDoctor();
    case CommandKind::Serve: return RunServe(line.serve);
  }
  return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace sx::host;
  std::vector<std::string> args(argv + 1, argv + argc);
  // No command at all is a wrong command line: the usage goes where errors go.
  if (args.empty()) {
    std::fprintf(stderr, "%s", UsageText().c_str());
    return kExitUsage;
  }
  ParseOutcome parsed = ParseCommandLine(args);
  if (!parsed.ok) {
    std::fprintf(stderr, "sxscan: %s (see 'sxscan help')\n", parsed.error.c_str());
    return kExitUsage;
  }
  if (!SystemRootUsable(parsed.line.kind)) return kExitUsage;
  try {
    return Dispatch(parsed.line);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "sxscan: %s\n", e.what());
    return kExitFailed;
  }
}
