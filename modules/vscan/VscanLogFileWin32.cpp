// The call log's file on Windows: a handle with append-only access, so each
// WriteFile lands at the end even when another process wrote meanwhile. The
// file is shared for reading, writing and deleting, so that a test can read,
// empty or remove the log while the driver keeps it open; the handle is not
// inherited by child processes.
#include <windows.h>

#include "modules/vscan/VscanLogFile.h"

namespace sx::vscan {

intptr_t OpenAppending(const std::string& path) {
  HANDLE h = CreateFileA(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                         nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  return h == INVALID_HANDLE_VALUE ? kNoFile : reinterpret_cast<intptr_t>(h);
}

bool AppendAll(intptr_t file, const std::string& text) {
  const char* p = text.data();
  size_t left = text.size();
  while (left > 0) {
    DWORD written = 0;
    const DWORD chunk = left > MAXDWORD ? MAXDWORD : static_cast<DWORD>(left);
    if (!WriteFile(reinterpret_cast<HANDLE>(file), p, chunk, &written, nullptr) || written == 0) return false;
    p += written;
    left -= written;
  }
  return true;
}

void CloseFile(intptr_t file) { CloseHandle(reinterpret_cast<HANDLE>(file)); }

}  // namespace sx::vscan
