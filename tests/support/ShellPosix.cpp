// Programs run through the shell, on POSIX systems.
#include "support/Shell.h"

#include <signal.h>
#include <sys/wait.h>

namespace sxtest {

std::string RunShell(const std::string& command, int* status) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  if (!p) return out;
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
  *status = pclose(p);
  return out;
}

int ExitCode(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }

Started::Started(const std::string& command) : pipe_(popen(("echo $$; exec " + command).c_str(), "r")) {
  pid_ = std::stoi("0" + Line());
}

Started::~Started() { Wait(SIGTERM); }

std::string Started::Line() {
  char line[512] = {};
  if (!pipe_ || !fgets(line, sizeof line, pipe_)) return "";
  return line;
}

void Started::Signal(int signal) const {
  if (pipe_ && pid_ > 0) kill(pid_, signal);
}

int Started::Wait(int signal) {
  if (!pipe_) return -1;
  if (signal) Signal(signal);
  const int status = pclose(pipe_);
  pipe_ = nullptr;
  return ExitCode(status);
}

}  // namespace sxtest
