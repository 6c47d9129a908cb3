#include "platform/posix/Root.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/Paths.h"

namespace sx::plat {

namespace {

constexpr char kRootVariable[] = "SX_ROOT";
constexpr char kDataHomeVariable[] = "XDG_DATA_HOME";
constexpr char kTreeName[] = "/sxscan";
constexpr char kHomeTree[] = "/.local/share/sxscan";

std::string WithoutTrailingSlashes(std::string path) {
  while (!path.empty() && path.back() == '/') path.pop_back();
  return path;
}

std::string HomeDirectory() {
  if (const char* home = std::getenv("HOME"); home && *home) return home;
  struct passwd pw {};
  struct passwd* found = nullptr;
  char buf[4096];
  if (::getpwuid_r(::getuid(), &pw, buf, sizeof buf, &found) == 0 && found && found->pw_dir)
    return found->pw_dir;
  return ".";
}

}  // namespace

RootChoice ChooseRoot() {
  if (RootIsNamed()) return {WithoutTrailingSlashes(std::getenv(kRootVariable)), RootSource::Named};
  const char* dataHome = std::getenv(kDataHomeVariable);
  if (dataHome && dataHome[0] == '/') return {WithoutTrailingSlashes(dataHome) + kTreeName, RootSource::DataHome};
  return {WithoutTrailingSlashes(HomeDirectory()) + kHomeTree,
          dataHome && *dataHome ? RootSource::HomeOverRelative : RootSource::Home};
}

std::string RootDirectory() { return ChooseRoot().Path; }

bool RootIsNamed() {
  const char* root = std::getenv(kRootVariable);
  return root && *root;
}

}  // namespace sx::plat
