// The sxscan program run as a person runs it, in a test's system tree.
#pragma once
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <initializer_list>
#include <string>
#include <thread>
#include <vector>

#include "support/Shell.h"
#include "support/TestEnv.h"

namespace sxtest {

struct Outcome {
  int exitCode = -1;
  std::string out, err;
  std::string text;  // both, standard output first
  bool Says(const std::string& what) const { return text.find(what) != std::string::npos; }
  // The phrases not said, one a line ("" when all are).
  std::string Unsaid(std::initializer_list<std::string> phrases) const {
    std::string unsaid;
    for (const std::string& phrase : phrases)
      if (!Says(phrase)) unsaid += phrase + "\n";
    return unsaid;
  }
};

// Runs `sxscan ARGS` in the root folder (where the library may put its
// files), with no input; `environment` goes before the program (variable
// assignments, or env(1) and its options).
inline Outcome RunSxscan(const TempRoot& root, const std::string& args, const std::string& environment = "") {
  const std::string err = (root.Path() / "err.txt").string();
  int status = 0;
  Outcome o;
  o.out = RunShell("cd '" + root.Path().string() + "' && " + environment + " '" SX_TEST_SXSCAN "' " + args +
                       " 2>'" + err + "' </dev/null",
                   &status);
  o.exitCode = ExitCode(status);
  o.err = ReadFile(err);
  o.text = o.out + o.err;
  return o;
}

// A virtual scanner of that model (in Corvane/<model>, with the vscan.ini
// sections `ini` after its own), chosen as the source.
inline void InstallSelected(const TempRoot& root, const std::string& model, const std::string& ini = "") {
  root.InstallVscan("Corvane/" + model, "[Scanner]\nModel=" + model + "\n" + ini);
  ASSERT_EQ(RunSxscan(root, "select " + model).exitCode, 0);
}

// Starts `sxscan ARGS` in the root, waits (up to 30 s) until what it wrote
// to standard error satisfies `ready` and `after` more has passed, sends the
// `signals` `gap` apart and waits for the end.
inline Outcome Interrupt(const TempRoot& root, const std::string& args,
                         const std::function<bool(const std::string& err)>& ready, const std::vector<int>& signals,
                         std::chrono::microseconds gap = {}, std::chrono::milliseconds after = {}) {
  const fs::path err = root.Path() / "err.txt";
  fs::remove(err);
  // A second signal ends the program with _exit from its handler, by design
  // without joining its threads; ThreadSanitizer would call that a leak.
  const std::string leaks = signals.size() > 1 ? "TSAN_OPTIONS=\"${TSAN_OPTIONS:-} report_thread_leaks=0\" " : "";
  Started program("env -C '" + root.Path().string() + "' " + leaks + "'" SX_TEST_SXSCAN "' " + args +
                  " </dev/null >/dev/null 2>'" + err.string() + "'");
  const auto start = std::chrono::steady_clock::now();
  while (!ready(ReadFile(err)) && std::chrono::steady_clock::now() - start < std::chrono::seconds(30))
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  std::this_thread::sleep_for(after);
  for (size_t i = 0; i < signals.size(); ++i) {
    if (i > 0) std::this_thread::sleep_for(gap);
    program.Signal(signals[i]);
  }
  Outcome o;
  o.exitCode = program.Wait();
  o.err = o.text = ReadFile(err);
  return o;
}

// A file being written (".<name>.part") left in the folder.
inline bool HasPartialFile(const fs::path& folder) {
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(folder, ec))
    if (entry.path().extension() == ".part") return true;
  return false;
}

}  // namespace sxtest
