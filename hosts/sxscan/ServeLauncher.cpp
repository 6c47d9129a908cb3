// `sxscan serve` in a build with the eSCL server: runs sxscan-serve, which
// lies beside the program, in this process's place (same process id, so
// signals reach the server).
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "sxscan/Commands.h"
#include "sxscan/Serve.h"

namespace sx::host {
namespace {
constexpr char kServerProgram[] = "sxscan-serve";
}  // namespace

int RunServe(const ServeOptions& options) {
  std::error_code ec;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
  const std::string server = (self.parent_path() / kServerProgram).string();
  std::vector<std::string> args = {server};
  for (const std::string& arg : ServeArguments(options)) args.push_back(arg);
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  std::fflush(nullptr);
  execv(server.c_str(), argv.data());
  std::fprintf(stderr, "sxscan: serve needs %s beside sxscan (%s): %s\n", kServerProgram, server.c_str(),
               std::strerror(errno));
  return kExitFailed;
}

}  // namespace sx::host
