// What the benchmarks and the soak share: a temporary system tree with the
// virtual scanner chosen as the data source, and entry points looked up in
// the library as a host loads it.
#pragma once
#include <dlfcn.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace sxbench {

namespace fs = std::filesystem;

inline void WriteText(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

template <typename T>
T Resolve(void* module, const char* name) {
  return reinterpret_cast<T>(dlsym(module, name));
}

// The virtual scanner (model QM7110V) installed under `root` with the extra
// vscan.ini text, and a registry store that chooses it, with the given lines
// of stored scan settings. Returns the scanner's folder.
inline fs::path InstallScanner(const fs::path& root, const std::string& extraIni,
                               const std::string& scanData) {
  const fs::path folder = root / "windows" / "twain_32" / "Corvane" / "QM7110";
  fs::create_directories(folder);
  fs::copy_file(SX_BENCH_VSCAN, folder / "vscan.dll", fs::copy_options::overwrite_existing);
  WriteText(folder / "vscan.ini", "[Scanner]\nModel=QM7110V\nFirmware=1.00\nPort=USB\n" + extraIni);
  WriteText(root / "user.reg", "[Software\\Quillmark]\n\"SOURCENAME\"=str(2):\"USB - QM7110V" +
                                   std::string(13, ' ') + "1.00\"\n[Software\\Quillmark\\ScanData]\n" +
                                   scanData);
  return folder;
}

}  // namespace sxbench
