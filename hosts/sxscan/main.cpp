// sxscan: a command-line host of the scan library. It lists and selects data
// sources, shows and changes capabilities and scans to PNG or TIFF, using
// only the library's exported functions.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "sxscan/CommandLine.h"
#include "sxscan/Commands.h"
#include "sxscan/Serve.h"

#ifndef SXSCAN_VERSION
#define SXSCAN_VERSION "unknown"
#endif

namespace {

// The library settles its system tree from SX_ROOT and makes what is missing
// in it, so a mistyped name would quietly become a new, empty tree: the name
// is checked first. Windows builds take the tree from the system instead.
// The doctor explains any tree, so it goes ahead.
bool SystemRootUsable(sx::host::CommandKind kind) {
  using sx::host::CommandKind;
#ifdef _WIN32
  (void)kind;
  return true;
#else
  constexpr char kWindowsFolder[] = "windows";
  if (kind == CommandKind::Help || kind == CommandKind::Version || kind == CommandKind::Doctor) return true;
  const char* root = std::getenv("SX_ROOT");
  if (!root) return true;
  if (!*root) {
    std::fprintf(stderr, "sxscan: SX_ROOT is set but empty; name the system tree in it, or unset it "
                         "for the default\n");
    return false;
  }
  std::error_code ec;
  const auto status = std::filesystem::status(root, ec);
  if (status.type() == std::filesystem::file_type::not_found) {
    std::fprintf(stderr, "sxscan: SX_ROOT names %s, which does not exist; correct the name, or create "
                         "the tree there ('sxscan doctor' explains it)\n", root);
    return false;
  }
  if (ec || status.type() != std::filesystem::file_type::directory) {
    std::fprintf(stderr, "sxscan: SX_ROOT names %s, which is %s, not a folder; name the system tree in it\n",
                 root, ec ? ec.message().c_str() : "a file");
    return false;
  }
  // The library makes its store in the folder as it loads, so a mistyped
  // name is a folder by now; without the tree's windows folder it is no tree.
  if (!std::filesystem::is_directory(std::filesystem::path(root) / kWindowsFolder, ec)) {
    std::fprintf(stderr, "sxscan: SX_ROOT names %s, which holds no system tree (no %s folder in it); "
                         "correct the name, or create the tree there ('sxscan doctor' explains it)\n",
                 root, kWindowsFolder);
    return false;
  }
  return true;
#endif
}

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
