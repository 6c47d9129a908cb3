// The sxscan program run as a person runs it, in a test's system tree.
#pragma once
#include <sys/wait.h>

#include <cstdlib>
#include <string>

#include "support/TestEnv.h"

namespace sxtest {

struct Outcome {
  int exitCode = -1;
  std::string text;  // standard output and error together
};

// Runs `sxscan ARGS` in the root folder (where the library may put its
// files), with no input.
inline Outcome RunSxscan(const TempRoot& root, const std::string& args) {
  const std::string out = (root.Path() / "output.txt").string();
  const int status = std::system(("cd '" + root.Path().string() + "' && '" SX_TEST_SXSCAN "' " + args + " >'" + out +
                                  "' 2>&1 </dev/null").c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(out)};
}

}  // namespace sxtest
