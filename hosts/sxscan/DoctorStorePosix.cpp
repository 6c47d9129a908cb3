// The doctor's system tree and registry store on POSIX systems: the tree the
// library settles on (sxroot) and its user.reg, read by the library's parser.
#include <fstream>
#include <sstream>

#include "kit/StoreChecks.h"
#include "platform/posix/Root.h"
#include "platform/text/RegistryText.h"
#include "sxscan/DoctorReport.h"

#ifndef SX_INSTALL_SKELETON
#define SX_INSTALL_SKELETON "lib/sxscan/root"
#endif

namespace sx::host::doctor {

namespace {

constexpr char kOptionsKey[] = "Software\\Quillmark";
constexpr uint32_t kNumberBytes = 4;

const char* Why(plat::RootSource source) {
  switch (source) {
    case plat::RootSource::Named:
      return "from the environment variable SX_ROOT";
    case plat::RootSource::DataHome:
      return "SX_ROOT is not set: $XDG_DATA_HOME/sxscan";
    case plat::RootSource::HomeOverRelative:
      return "SX_ROOT is not set and XDG_DATA_HOME is relative, so ignored: the home folder's .local/share/sxscan";
    case plat::RootSource::Home:
      break;
  }
  return "SX_ROOT is not set: the home folder's .local/share/sxscan";
}

// The default system tree of an installed program, found from the program's
// own place (<prefix>/bin) wherever the prefix was moved; empty when the
// program runs from a build tree.
fs::path InstalledSkeleton() {
  std::error_code ec;
  const fs::path skeleton =
      fs::read_symlink("/proc/self/exe", ec).parent_path().parent_path() / SX_INSTALL_SKELETON;
  return fs::is_directory(skeleton / "windows", ec) ? skeleton : fs::path();
}

// A value as the library reads it: text up to its first NUL; a number from
// at most four bytes, little-endian (a longer one does not fit and reads 0).
std::string TextOf(const plat::RegValue* value) { return value ? std::string(value->Data.c_str()) : std::string(); }

uint32_t NumberOf(const plat::RegValue* value) {
  uint32_t number = 0;
  if (!value || value->Data.size() > kNumberBytes) return 0;
  for (size_t i = value->Data.size(); i-- > 0;) number = number << 8 | static_cast<unsigned char>(value->Data[i]);
  return number;
}

}  // namespace

fs::path ReportTree() {
  const plat::RootChoice root = plat::ChooseRoot();
  std::printf("system tree  %s (%s)\n", root.Path.c_str(), Why(root.Source));
  std::error_code ec;
  if (!fs::is_directory(root.Path, ec)) {
    Problem("the folder does not exist",
            "create it, e.g. copy <prefix>/lib/<multiarch>/sxscan/root there, or set SX_ROOT to a tree that exists");
  }
  return fs::path(root.Path) / "windows";
}

std::string DriverTreeFix(const fs::path& twain) {
  const fs::path skeleton = InstalledSkeleton();
  if (skeleton.empty()) return "install a driver module under " + twain.string() + "/<maker>/<model>/";
  return "take the default tree's, with the virtual scanner: cp -r " + (skeleton / "windows").string() + " " +
         twain.parent_path().parent_path().string() + "/";
}

void ReportStore() {
  const fs::path root = plat::ChooseRoot().Path;
  const fs::path path = root / "user.reg";
  std::printf("registry     %s\n", path.c_str());
  std::error_code ec;
  if (!fs::exists(path, ec)) {
    std::printf("  absent: read as empty; 'sxscan select' creates it\n");
    if (const StoreBlock block = StoreWriteBlock(); !block.Cause.empty())
      Problem("the store cannot be made (" + block.Cause + "), so 'sxscan select' is refused", block.Fix);
    ReportTrace(0, "");
    return;
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    Problem("the store cannot be read", "give the user read and write access: chmod u+rw " + path.string());
    return;
  }
  std::ostringstream text;
  text << in.rdbuf();
  const plat::RegDocument store = plat::ParseRegistryText(text.str());
  size_t values = 0;
  for (const plat::RegLine& line : store.Lines) values += line.LineKind == plat::RegLine::Kind::Value ? 1 : 0;
  std::printf("  %zu value(s)\n", values);
  if (const plat::RegistryDamage damage = plat::FindRegistryDamage(store); damage.Lines > 0) {
    Problem(std::to_string(damage.Lines) + " damaged line(s), skipped when read",
            "correct or delete them (format: docs/DESIGN.md, \"Registry store\")");
  }
  const auto value = [&](const char* name) { return plat::FindRegistryValue(store, kOptionsKey, name); };
  const std::string source = Printable(TextOf(value("SOURCENAME")));
  std::printf("  chosen source: %s\n", source.empty() ? "none ('sxscan select NAME' chooses one)" : source.c_str());
  if (const StoreBlock block = StoreWriteBlock(); !block.Cause.empty()) {
    Problem("the store cannot be written (" + block.Cause + "): the library reads and writes " +
                (root / "temp/scandiag.ini").string() + " instead, so 'sxscan select' is refused",
            block.Fix);
  }
  ReportTrace(NumberOf(value("DEBUGLEVEL")), TextOf(value("SAVEPATH")));
}

}  // namespace sx::host::doctor
