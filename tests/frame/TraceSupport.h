// A temporary root whose registry sets the trace level and the log folder, as
// a user would configure tracing, with the level loaded the way the library
// loads it (by a registry write).
#pragma once
#include <cstdio>
#include <string>

#include "frame/RegistryUtil.h"
#include "support/TestEnv.h"

namespace sxtest {

inline void ReloadTraceLevel() {
  sx::ResetRegistryState();
  sx::WriteRegValue(sx::kKeyOptions, "TargetTest", "Ok", sx::kKindText, 2);
}

class TraceSetup {
 public:
  // level < 0: no "DEBUGLEVEL" value. savePath: the "SAVEPATH" text, or the
  // default "<root>/logs/" when null.
  explicit TraceSetup(int level, const char* savePath = nullptr) {
    logDir_ = root_.Path() / "logs";
    fs::create_directories(logDir_);
    std::string reg = "[Software\\Quillmark]\n";
    if (level >= 0) {
      char line[64];
      std::snprintf(line, sizeof line, "\"DEBUGLEVEL\"=dword:%08x\n", level);
      reg += line;
    }
    const std::string path = savePath ? savePath : logDir_.string() + "/";
    if (!path.empty()) reg += "\"SAVEPATH\"=str(2):\"" + path + "\"\n";
    root_.WriteRegistry(reg);
    ReloadTraceLevel();
  }
  ~TraceSetup() { sx::ResetRegistryState(); }

  const TempRoot& Root() const { return root_; }
  const fs::path& LogDir() const { return logDir_; }
  fs::path LogFile() const { return logDir_ / "scandiag.txt"; }
  std::string Log() const { return ReadFile(LogFile()); }
  std::vector<std::string> Lines() const { return ReadLines(LogFile()); }

 private:
  TempRoot root_;
  fs::path logDir_;
};

}  // namespace sxtest
