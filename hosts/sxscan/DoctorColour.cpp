// The doctor's colour matching: the profiles the offered drivers' cmatch.ini
// files name, read by the library's profile rules (sxtext), and the colour
// module the library would load to use them.
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

#include "kit/Session.h"
#include "platform/text/ProfileText.h"
#include "platform/text/Text.h"
#include "sxscan/DoctorReport.h"

namespace sx::host::doctor {

namespace {

constexpr char kColourModule[] = "sxcmms.dll";
constexpr char kProfileList[] = "cmatch.ini";
constexpr char kModelSection[] = "Model";
constexpr const char* kColourEntryPoints[] = {"SX_Icc_SetProfile", "SX_Icc_Convert2", "SX_Icc_Initial",
                                              "SX_Icc_Adjust", "SX_Icc_SetIntent"};
// An ICC profile's header: 128 bytes, the size big-endian at 0, "acsp" at 36.
constexpr size_t kIccHeaderBytes = 128;
constexpr size_t kIccSignatureOffset = 36;

// The colour-management module as the library finds it: the system folder
// first, then the library's own folder.
fs::path ColourModulePath(const fs::path& windows) {
  const fs::path system = windows / "system32" / kColourModule;
  std::error_code ec;
  if (fs::exists(system, ec)) return system;
  const fs::path library = LibraryFolder();
  return library.empty() ? system : library / kColourModule;
}

// Present, whole, loadable and with every entry point the library looks up.
void ReportColourModule(const fs::path& cmms, bool wanted) {
  const std::string shown = cmms.string();
  std::error_code ec;
  if (!fs::exists(cmms, ec)) {
    std::printf("colour       %s: absent (colour matching is not offered)\n", shown.c_str());
    if (wanted)
      Problem("a cmatch.ini names a profile, but the colour module is missing",
              "install the colour module of the build (modules/cmms/sxcmms.dll) as " + shown);
    return;
  }
  std::printf("colour       %s\n", shown.c_str());
  if (ReportModuleFileFault(cmms)) return;
  std::string error;
  void* module = OpenModule(cmms, error);
  if (!module) {
    Problem("it cannot be loaded: " + error, "replace it with the colour module of the build");
    return;
  }
  std::string missing;
  for (const char* name : kColourEntryPoints) {
    if (!ModuleEntry(module, name)) missing += (missing.empty() ? "" : ", ") + std::string(name);
  }
  CloseModule(module);
  if (missing.empty())
    std::printf("  loads, with its %zu entry points\n", std::size(kColourEntryPoints));
  else
    Problem("it lacks " + missing + ", so colour matching is not offered",
            "replace it with the colour module of the build (modules/cmms/sxcmms.dll)");
}

// Why a file is not an ICC profile; empty when its header is one's.
std::string ProfileFault(const fs::path& file) {
  std::error_code ec;
  const uint64_t size = fs::file_size(file, ec);
  if (ec) return "it cannot be read";
  unsigned char header[kIccHeaderBytes] = {};
  std::ifstream in(file, std::ios::binary);
  if (size < kIccHeaderBytes || !in.read(reinterpret_cast<char*>(header), sizeof header))
    return "only " + Bytes(size) + ", shorter than a profile's header";
  if (std::memcmp(header + kIccSignatureOffset, "acsp", 4) != 0)
    return "no profile signature ('acsp') in its header";
  const uint64_t stated = uint64_t{header[0]} << 24 | header[1] << 16 | header[2] << 8 | header[3];
  if (stated > size) return "truncated: " + Bytes(size) + " of the " + Bytes(stated) + " its header states";
  return {};
}

// Each model of a cmatch.ini with the profile the library reads for it.
std::vector<std::pair<std::string, std::string>> ProfileNames(const fs::path& ini) {
  std::ifstream in(ini, std::ios::binary);
  std::ostringstream read;
  read << in.rdbuf();
  const std::string text = read.str();
  std::vector<std::pair<std::string, std::string>> names;
  for (const std::string& model : plat::ProfileKeyNames(text, kModelSection)) {
    bool seen = false;
    for (const auto& named : names) seen = seen || plat::EqualNoCase(named.first, model);
    std::string profile;
    if (!seen && plat::ProfileLookup(text, kModelSection, model, profile)) names.emplace_back(model, profile);
  }
  return names;
}

// Each offered source's cmatch.ini: the profile it names for each model,
// present in the colour folder and a profile indeed. True when any names one.
bool ReportProfiles(const fs::path& windows, const fs::path& color) {
  int32_t result = 0;
  bool named = false;
  for (const SxDataSource& s : ListSources(&result)) {
    const fs::path ini = ModulePath(s).parent_path() / kProfileList;
    std::error_code ec;
    if (!fs::exists(ini, ec)) continue;
    const std::string shown = fs::relative(ini, windows / "twain_32", ec).string();
    for (const auto& [model, name] : ProfileNames(ini)) {
      named = true;
      const fs::path profile = color / name;
      if (!fs::is_regular_file(profile, ec)) {
        std::printf("  %s: %s uses %s: missing\n", shown.c_str(), model.c_str(), name.c_str());
        Problem("the profile " + name + " is not in " + color.string() + ", so colour matching fails for " + model,
                "copy the scanner's profile to " + profile.string() + ", or correct its name in " + ini.string());
        continue;
      }
      const std::string fault = ProfileFault(profile);
      std::printf("  %s: %s uses %s: %s\n", shown.c_str(), model.c_str(), name.c_str(),
                  fault.empty() ? "a valid ICC profile" : "not an ICC profile");
      if (!fault.empty())
        Problem(profile.string() + " is not a valid ICC profile: " + fault, "replace it with the scanner's ICC profile");
    }
  }
  return named;
}

}  // namespace

void ReportColour(const fs::path& windows) {
  const fs::path color = windows / "system32" / "SPOOL" / "DRIVERS" / "COLOR";
  // The profiles first, so that a missing module is a problem only when
  // colour matching was meant.
  std::printf("profiles     %s\n", color.string().c_str());
  const bool wanted = ReportProfiles(windows, color);
  if (!wanted)
    std::printf("  no cmatch.ini beside an offered driver names a profile: colour matching is not offered\n");
  ReportColourModule(ColourModulePath(windows), wanted);
}

}  // namespace sx::host::doctor
