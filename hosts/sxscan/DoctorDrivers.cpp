// The doctor's driver tree: every module file under twain_32, whether the
// library offers it, and when not, why, from its file, its version record
// and the library's own discovery.
#include <cstring>

#include "kit/Session.h"
#include "sxscan/DoctorReport.h"

namespace sx::host::doctor {

namespace {

constexpr char kTranslationQuery[] = "\\VarFileInfo\\Translation";
constexpr uint32_t kTranslationBytes = 4;  // one 16-bit language and one 16-bit code page

// What the library's maker check and version reader take from a record.
struct VersionFacts {
  bool Present = false;
  std::string Company, Product, FileVersion;
};

std::string QueryText(const std::string& block, const std::string& query) {
  const void* value = nullptr;
  uint32_t length = 0;
  if (!QueryVersion(block, query.c_str(), &value, &length) || !value) return {};
  return std::string(static_cast<const char*>(value), strnlen(static_cast<const char*>(value), length));
}

// The texts under the one translation the library accepts (a Translation
// value of exactly four bytes); the file version without its blanks, as the
// library shows it (1,0,1,0).
VersionFacts ReadVersionFacts(const fs::path& file) {
  VersionFacts facts;
  const std::string block = VersionBlockOf(file);
  facts.Present = !block.empty();
  const void* value = nullptr;
  uint32_t length = 0;
  if (!QueryVersion(block, kTranslationQuery, &value, &length) || length != kTranslationBytes) return facts;
  const auto* t = static_cast<const unsigned char*>(value);
  char language[9];
  std::snprintf(language, sizeof language, "%02X%02X%02X%02X", t[1], t[0], t[3], t[2]);
  const std::string prefix = std::string("\\StringFileInfo\\") + language + "\\";
  facts.Company = QueryText(block, prefix + "CompanyName");
  facts.Product = QueryText(block, prefix + "ProductName");
  for (char c : QueryText(block, prefix + "FileVersion"))
    if (c != ' ') facts.FileVersion += c;
  return facts;
}

// Paths the library and the folder walk spell differently may still name one file.
bool SameFile(const fs::path& a, const fs::path& b) {
  std::error_code ec;
  return fs::equivalent(a, b, ec);
}

bool IsMakers(const std::string& name) { return Lower(name).rfind(kMakerPrefix, 0) == 0; }

// A module of the maker with a file version that the library does not
// offer: never tried because another module of its folder was accepted
// first, refused at initialisation, or the same scanner as an offered module.
void ExplainUnlisted(const fs::path& twain, const fs::path& file, const std::string& shown,
                     const std::string& version, const std::vector<SxDataSource>& listed) {
  for (const SxDataSource& s : listed) {
    if (file.parent_path() == twain || !SameFile(ModulePath(s).parent_path(), file.parent_path())) continue;
    std::printf("  %s: version %s, not offered: not tried\n", shown.c_str(), version.c_str());
    Problem("the library takes one module per folder and accepted " + ModulePath(s).filename().string() +
                " there first",
            "give each driver module a model folder of its own");
    return;
  }
  SxDataSource alone{};
  switch (DiscoverAlone(twain, file, &alone)) {
    case Alone::CannotTell:
      std::printf("  %s: version %s, not offered: refused, or the same scanner is offered from another copy\n",
                  shown.c_str(), version.c_str());
      Problem("the library loaded it but an entry point is missing, its initialisation failed, it reported no "
              "model, or a copy with a newer or equal version names the same scanner",
              "connect and power the scanner, remove older copies; \"DEBUGLEVEL\" 2 traces the calls");
      return;
    case Alone::Refused:
      std::printf("  %s: version %s, not offered: refused\n", shown.c_str(), version.c_str());
      Problem("the library loaded it, but an entry point it needs is missing, its initialisation or "
              "ability query failed, or it reported no model",
              "connect and power the scanner, or check its files; \"DEBUGLEVEL\" 2 traces the calls");
      return;
    case Alone::Offered:
      break;
  }
  const std::string name = Field(alone.DisplayName, sizeof alone.DisplayName);
  for (const SxDataSource& s : listed) {
    if (Field(s.DisplayName, sizeof s.DisplayName) != name) continue;
    const std::string kept = fs::relative(ModulePath(s), twain).string();
    std::printf("  %s: version %s, not offered: the same scanner \"%s\" is offered from %s, version %s\n",
                shown.c_str(), version.c_str(), name.c_str(), kept.c_str(),
                Field(s.FileVersion, sizeof s.FileVersion).c_str());
    Problem("a copy of the same scanner with a newer or equal version is offered instead",
            std::string("remove the copy not offered: ") + kWords.removeFile + file.string());
    return;
  }
  std::printf("  %s: version %s, not offered with the others, though offered alone as \"%s\"\n",
              shown.c_str(), version.c_str(), name.c_str());
  Problem("the scanner answered differently when the whole tree was searched",
          "search again with \"DEBUGLEVEL\" 2 and read the trace of its calls");
}

void ReportModule(const fs::path& twain, const fs::path& file, const std::vector<SxDataSource>& listed) {
  const std::string shown = fs::relative(file, twain).string();
  for (const SxDataSource& s : listed) {
    if (!SameFile(ModulePath(s), file)) continue;
    std::printf("  %s: offered as \"%s\", version %s\n", shown.c_str(),
                Field(s.DisplayName, sizeof s.DisplayName).c_str(), Field(s.FileVersion, sizeof s.FileVersion).c_str());
    return;
  }
  if (!ModuleFileFault(file).empty()) {
    std::printf("  %s: not offered\n", shown.c_str());
    ReportModuleFileFault(file);
    return;
  }
  const VersionFacts record = ReadVersionFacts(file);
  if (!record.Present) {
    std::printf("  %s: not offered\n", shown.c_str());
    Problem(std::string("it carries no ") + kWords.record + " (" + kWords.recordForm + ")", kWords.recordFix);
  } else if (!IsMakers(record.Company) && !IsMakers(record.Product)) {
    std::printf("  %s: not offered (maker \"%s\")\n", shown.c_str(), record.Company.c_str());
    Problem(std::string("its ") + kWords.record + " names another maker (CompanyName and ProductName)",
            "remove it from the driver tree; only the maker's drivers are offered");
  } else if (record.FileVersion.empty()) {
    std::printf("  %s: not offered\n", shown.c_str());
    Problem(std::string("its ") + kWords.record + " has no FileVersion",
            std::string("add FileVersion to the module's ") + kWords.record);
  } else {
    ExplainUnlisted(twain, file, shown, record.FileVersion, listed);
  }
}

}  // namespace

bool ReportModuleFileFault(const fs::path& file) {
  const std::string fault = ModuleFileFault(file);
  if (fault.empty()) return false;
  Problem(fault, fault.rfind("it is truncated", 0) == 0
                     ? "copy the module again from where it came: " + file.filename().string() + " was cut short"
                     : "remove " + file.string() + " or put the module built for this system in its place");
  return true;
}

void ReportDrivers(const fs::path& windows) {
  const fs::path twain = windows / "twain_32";
  std::printf("drivers      %s\n", twain.string().c_str());
  std::error_code ec;
  if (!fs::is_directory(twain, ec)) {
    Problem("the driver tree does not exist", DriverTreeFix(twain));
    return;
  }
  int32_t result = 0;
  const std::vector<SxDataSource> listed = ListSources(&result);
  int modules = 0;
  for (auto it = fs::recursive_directory_iterator(twain, ec); !ec && it != fs::recursive_directory_iterator();
       it.increment(ec)) {
    if (!it->is_regular_file(ec) || !IsModuleName(it->path())) continue;
    ++modules;
    ReportModule(twain, it->path(), listed);
  }
  if (modules == 0)
    Problem("no module (*.dll) in the driver tree", "install a driver module, e.g. the virtual scanner vscan.dll");
  std::printf("  %zu data source(s) offered\n", listed.size());
}

}  // namespace sx::host::doctor
