#include "sxscan/SystemRoot.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace sx::host {

bool SystemRootUsable(CommandKind kind) {
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
}

}  // namespace sx::host
