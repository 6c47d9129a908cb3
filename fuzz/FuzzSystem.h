// What the fuzz targets that run the library share: a private, empty system
// tree and a machine of a given memory, so that no input reaches the user's
// own set-up and a buffer grown from an input stays small.
#pragma once
#include <stdlib.h>

#include <filesystem>
#include <string>

namespace sxfuzz {

// Points SX_ROOT at an empty folder `name` in the temporary directory and
// makes the library see `availableMemory` bytes (a decimal number).
inline void UsePrivateSystem(const char* name, const char* availableMemory) {
  const std::string root = (std::filesystem::temp_directory_path() / name).string();
  std::filesystem::create_directories(root);
  setenv("SX_ROOT", root.c_str(), 1);
  setenv("SX_AVAILABLE_MEMORY", availableMemory, 1);
}

}  // namespace sxfuzz
