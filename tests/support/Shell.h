// Programs run through the shell as a person runs them (POSIX systems only):
// what a command prints, and a program started so that it can be signalled
// while it runs.
#pragma once
#include <sys/types.h>

#include <cstdio>
#include <string>

namespace sxtest {

// Runs `command` with /bin/sh and returns its standard output; `status`
// gets the wait status.
std::string RunShell(const std::string& command, int* status);

// The exit code of a wait status; -1 when the program ended by a signal.
int ExitCode(int status);

// A program started through the shell, its process id known so that it can
// be signalled: the shell prints its own id and replaces itself with it.
// Ended with SIGTERM if still running when the object goes.
class Started {
 public:
  explicit Started(const std::string& command);
  ~Started();
  Started(const Started&) = delete;
  Started& operator=(const Started&) = delete;

  // The next line of the program's standard output ("" at its end).
  std::string Line();
  void Signal(int signal) const;
  // Sends `signal` (0: none) and waits for the end; the exit code.
  int Wait(int signal = 0);
  pid_t Pid() const { return pid_; }

 private:
  FILE* pipe_;
  pid_t pid_ = 0;
};

}  // namespace sxtest
