// The parts of the test environment that are the same on every system.
#include "support/TestEnv.h"

#include <fstream>
#include <sstream>

namespace sxtest {

std::string DefaultVersionText(const std::string& fileVersion, const std::string& company,
                               const std::string& product) {
  return "\\VarFileInfo\\Translation=hex:09 04 b0 04\n"
         "\\StringFileInfo\\040904B0\\CompanyName=" + company + "\n"
         "\\StringFileInfo\\040904B0\\ProductName=" + product + "\n"
         "\\StringFileInfo\\040904B0\\FileVersion=" + fileVersion + "\n";
}

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

void WriteFile(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

std::vector<std::string> ReadLines(const fs::path& path) {
  std::vector<std::string> lines;
  std::ifstream in(path, std::ios::binary);
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line);
  }
  return lines;
}

fs::path TempRoot::InstallVscan(const std::string& relDir, const std::string& iniText,
                                const std::string& versionText,
                                const std::string& fileName) const {
  fs::path target = InstallModule(SX_TEST_VSCAN, relDir, fileName, versionText);
  if (!iniText.empty()) WriteFile(target.parent_path() / "vscan.ini", iniText);
  return target;
}

const char kQm7110Ini[] = "[Scanner]\nModel=QM7110V\nFirmware=1.00\nPort=USB\n";

std::string Qm7110Registry(const std::string& scanData, const std::string& options) {
  // The stored name: port, " - ", the model padded to 20, the firmware.
  return "[Software\\Quillmark]\n\"SOURCENAME\"=str(2):\"USB - QM7110V" + std::string(13, ' ') + "1.00\"\n" +
         options + "[Software\\Quillmark\\ScanData]\n" + scanData;
}

int32_t Library::WatchedAcquire(SxTransferCallback callback, void* buffer, unsigned seconds) const {
  HangWatchdog(seconds);
  const int32_t result = Acquire(callback, buffer);
  HangWatchdog(0);
  return result;
}

void Library::FreeList(SxValueList* list) const {
  if (!list) return;
  for (const void* block : {static_cast<const void*>(list->Items), static_cast<const void*>(list)}) {
    SxHandle h = GlobalHandle(block);
    GlobalUnlock(h);
    GlobalFree(h);
  }
}

void Library::ResolveExports() {
#define SXTEST_RESOLVE(member, name) member = reinterpret_cast<decltype(member)>(Symbol(#name));
  SXTEST_EXPORTS(SXTEST_RESOLVE)
#undef SXTEST_RESOLVE
}

}  // namespace sxtest
