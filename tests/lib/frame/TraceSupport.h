// Temporary roots for tests of the library's persistent state: one with the
// registry state forgotten, and one whose registry sets the trace level and
// sends the log to <root>/logs/, with the level loaded the way the library
// loads it.
#pragma once
#include <gtest/gtest.h>

#include <cstdio>

#include "frame/RegistryUtil.h"
#include "support/TestEnv.h"

namespace sxtest {

// The library reads the trace level only after a registry write.
inline void ReloadTraceLevel() {
  sx::ResetRegistryState();
  sx::WriteRegValue(sx::kKeyOptions, "TargetTest", "Ok", sx::kKindText, 2);
}

// A temporary root, the library's registry state forgotten before and after.
struct RegistryFixture : ::testing::Test {
  RegistryFixture() { sx::ResetRegistryState(); }
  ~RegistryFixture() override { sx::ResetRegistryState(); }
  TempRoot root_;
};

class TraceSetup {
 public:
  explicit TraceSetup(int level) {  // level < 0: no "DEBUGLEVEL" value
    fs::create_directories(logDir_);
    char line[64] = "";
    if (level >= 0) std::snprintf(line, sizeof line, "\"DEBUGLEVEL\"=dword:%08x\n", level);
    root_.WriteRegistry("[Software\\Quillmark]\n" + std::string(line) + "\"SAVEPATH\"=str(2):\"" +
                        logDir_.string() + "/\"\n");
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
  fs::path logDir_ = root_.Path() / "logs";
};

}  // namespace sxtest
