// The registry store on POSIX systems: <root>/user.reg, found and parsed by
// the library's own rules (sxroot, sxtext). The library keeps its lock file
// and any new store beside the store, so the folder must take a file too.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "kit/StoreChecks.h"
#include "platform/posix/Root.h"
#include "platform/text/RegistryText.h"

namespace sx::host {

namespace {

namespace fs = std::filesystem;

constexpr char kStoreName[] = "user.reg";
constexpr char kOptionsKey[] = "Software\\Quillmark";
constexpr char kSourceName[] = "SOURCENAME";

StoreBlock ExplainWriteError(int code, const fs::path& target, bool folder) {
  const std::string name = target.string();
  struct stat st {};
  const bool othersOwn = ::stat(name.c_str(), &st) == 0 && st.st_uid != ::geteuid();
  switch (code) {
    case EPERM:
      return {std::string(folder ? "the folder" : "the file") + " is marked immutable or append-only",
              "sudo chattr -i -a " + name + " (lsattr " + name + " shows the marks)"};
    case EROFS:
      return {"it is on a read-only file system", "remount it read-write, or set SX_ROOT to a tree on a writable disk"};
    case EACCES:
      if (othersOwn) return {"it belongs to another user", "sudo chown $(id -u) " + name};
      return {folder ? "the user may not create files in the folder" : "the user may not write the file",
              "chmod u+w " + name};
    default:
      return {std::strerror(code), "make " + name + " writable"};
  }
}

fs::path StorePath() { return fs::path(plat::ChooseRoot().Path) / kStoreName; }

// False when the store cannot be read; a missing store is no document.
bool ReadStore(const fs::path& path, plat::RegDocument& doc) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream text;
  text << in.rdbuf();
  doc = plat::ParseRegistryText(text.str());
  return true;
}

}  // namespace

StoreBlock StoreWriteBlock() {
  const fs::path path = StorePath();
  const fs::path root = path.parent_path();
  std::error_code ec;
  if (fs::exists(path, ec)) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd < 0) return ExplainWriteError(errno, path, false);
    ::close(fd);
  }
  const fs::path probe = root / (".user.reg.probe." + std::to_string(::getpid()));
  const int fd = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return errno == EEXIST ? StoreBlock{} : ExplainWriteError(errno, root, true);
  ::close(fd);
  ::unlink(probe.c_str());
  return {};
}

bool RegistryStoreProblem(std::string* message) {
  const fs::path path = StorePath();
  std::error_code ec;
  if (!fs::exists(path, ec)) {
    const StoreBlock block = StoreWriteBlock();
    if (!block.Cause.empty())
      *message = "the registry store " + path.string() + " cannot be made: " + block.Cause + "; fix: " + block.Fix;
    return !block.Cause.empty();
  }
  plat::RegDocument doc;
  if (!ReadStore(path, doc)) {
    *message = "the registry store " + path.string() + " cannot be read; give the user read and write "
               "access (chmod u+rw " + path.string() + ")";
    return true;
  }
  if (const plat::RegistryDamage damage = plat::FindRegistryDamage(doc); damage.Lines > 0) {
    *message = path.string() + ":" + std::to_string(damage.FirstLine) + ": the registry store has " +
               std::to_string(damage.Lines) + " line(s) the library does not understand, the first: " +
               Printable(damage.FirstText) + "; correct or delete it ('sxscan doctor' checks the store)";
    return true;
  }
  if (const StoreBlock block = StoreWriteBlock(); !block.Cause.empty()) {
    *message = "the registry store " + path.string() + " cannot be written: " + block.Cause + "; fix: " + block.Fix;
    return true;
  }
  return false;
}

bool UnwritableStoreChoice(std::string* name) {
  const fs::path path = StorePath();
  std::error_code ec;
  plat::RegDocument doc;
  if (!fs::exists(path, ec) || StoreWriteBlock().Cause.empty() || !ReadStore(path, doc)) return false;
  const plat::RegValue* value = plat::FindRegistryValue(doc, kOptionsKey, kSourceName);
  *name = value ? std::string(value->Data.c_str()) : std::string();
  return !name->empty();
}

}  // namespace sx::host
