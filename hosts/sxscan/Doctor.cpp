// sxscan doctor: the report and what its checks share (DoctorReport.h says
// what each file checks).
#include <cstring>
#include <system_error>

#include "sxscan/Commands.h"
#include "sxscan/DoctorReport.h"

namespace sx::host {

namespace doctor {

std::string Field(const char* text, size_t size) { return std::string(text, strnlen(text, size)); }

fs::path ModulePath(const SxDataSource& s) {
  return fs::path(Field(s.Directory, sizeof s.Directory)) / Field(s.FileName, sizeof s.FileName);
}

bool IsModuleName(const fs::path& file) {
  const std::string name = Lower(file.filename().string());
  return name.size() >= 4 && name.compare(name.size() - 3, 3, "dll") == 0;
}

std::string Bytes(uint64_t n) { return std::to_string(n) + " bytes"; }

void ReportTrace(uint32_t level, const std::string& savePath) {
  if (level == 0) {
    std::printf("  trace level 0 (no trace log; %s traces every call)\n", kWords.traceLevelHint);
    return;
  }
  std::error_code ec;
  const std::string log = savePath.empty() ? (fs::current_path(ec) / kTraceFile).string() : savePath + kTraceFile;
  std::printf("  trace level %lu, log %s%s\n", static_cast<unsigned long>(level), log.c_str(),
              savePath.empty() ? " (no \"SAVEPATH\": the host program's current directory)" : "");
  if (savePath.empty()) return;
  const std::string separator(1, kWords.pathSeparator);
  if (savePath.back() != kWords.pathSeparator) {
    Problem("\"SAVEPATH\" does not end with '" + separator + "', so the file name is glued to its last folder name",
            "end \"SAVEPATH\" with '" + separator + "': " + kWords.savePathBefore + savePath + separator +
                kWords.savePathAfter);
  }
  const fs::path folder = fs::path(log).has_parent_path() ? fs::path(log).parent_path() : fs::path(".");
  if (log.size() > kMaxTracePath) {
    Problem("the log path is longer than " + std::to_string(kMaxTracePath) + " characters: trace lines are lost",
            "choose a shorter \"SAVEPATH\"");
  } else if (!fs::is_directory(folder, ec)) {
    Problem("the log folder " + folder.string() + " does not exist: trace lines are lost",
            kWords.makeFolder + folder.string());
  }
}

}  // namespace doctor

int RunDoctor() {
  using namespace doctor;
  LibrarySession session;
  gProblems = 0;
  const fs::path windows = ReportTree();
  ReportStore();
  ReportDrivers(windows);
  ReportAspi(windows / "system32" / "wnaspi32.dll");
  ReportColour(windows);
  std::printf(gProblems == 0 ? "no problem found\n" : "%d problem(s) found\n", gProblems);
  return gProblems == 0 ? kExitOk : kExitFailed;
}

}  // namespace sx::host
