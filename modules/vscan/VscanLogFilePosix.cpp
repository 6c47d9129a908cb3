// The call log's file on POSIX: O_APPEND makes each write land at the end.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "modules/vscan/VscanLogFile.h"

namespace sx::vscan {

intptr_t OpenAppending(const std::string& path) {
  return ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

bool AppendAll(intptr_t file, const std::string& text) {
  const char* p = text.data();
  size_t left = text.size();
  while (left > 0) {
    const ssize_t n = ::write(static_cast<int>(file), p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    left -= static_cast<size_t>(n);
  }
  return true;
}

void CloseFile(intptr_t file) { ::close(static_cast<int>(file)); }

}  // namespace sx::vscan
