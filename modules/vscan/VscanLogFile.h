// The call log's file, opened for appending only: each system's own way
// (VscanLogFilePosix.cpp, VscanLogFileWin32.cpp). A file is a descriptor or
// a system handle kept in an intptr_t.
#pragma once
#include <cstdint>
#include <string>

namespace sx::vscan {

inline constexpr intptr_t kNoFile = -1;

// Creates the file when missing; every write lands at its end, whoever else
// writes to it. kNoFile when it cannot be opened.
intptr_t OpenAppending(const std::string& path);
// One line in one write where the system allows; false when not all of it
// was written.
bool AppendAll(intptr_t file, const std::string& text);
void CloseFile(intptr_t file);

}  // namespace sx::vscan
