// Helpers for driving discovery and selection through the exported functions.
#pragma once
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "support/TestEnv.h"

namespace sxtest {

using Strings = std::vector<std::string>;

inline std::string ScannerIni(const std::string& model, const std::string& port = "USB",
                              const std::string& firmware = "1.00", const std::string& deviceId = "0",
                              const std::string& extra = "") {
  return "[Scanner]\nModel=" + model + "\nPort=" + port + "\nFirmware=" + firmware +
         "\nDeviceId=" + deviceId + "\n" + extra;
}

// The name of a non-SCSI driver's source: port, " - ", model padded to 20.
inline std::string DisplayName(const std::string& port, const std::string& model,
                               const std::string& firmware = "1.00") {
  return port + " - " + model + std::string(20 - model.size(), ' ') + firmware;
}

template <size_t N>
std::string Text(const char (&field)[N]) { return std::string(field, strnlen(field, N)); }

inline std::vector<SxDataSource> Enumerate(const Library& lib) {
  std::vector<SxDataSource> out;
  for (SxDataSource ds{}; lib.GetDS(out.empty() ? SX_DS_FIRST : SX_DS_NEXT, &ds) == 0;) out.push_back(ds);
  return out;
}

// The listed entry of that name (one unlike any listed entry when none is).
inline SxDataSource Find(const std::vector<SxDataSource>& list, const std::string& name) {
  for (const SxDataSource& ds : list)
    if (Text(ds.DisplayName) == name) return ds;
  return {};
}

// An entry's texts, "name|file|directory|version|vendor|port".
inline std::string Fields(const SxDataSource& ds) {
  return Text(ds.DisplayName) + "|" + Text(ds.FileName) + "|" + Text(ds.Directory) + "|" +
         Text(ds.FileVersion) + "|" + Text(ds.Vendor) + "|" + Text(ds.PortName);
}

inline Strings SortedNames(const std::vector<SxDataSource>& list) {
  Strings names;
  for (const SxDataSource& ds : list) names.push_back(Text(ds.DisplayName));
  std::sort(names.begin(), names.end());
  return names;
}

inline std::string SourceNameLine(const std::string& name) {
  return "[Software\\Quillmark]\n\"SOURCENAME\"=str(2):\"" + name + "\"\n";
}

// A vscan copy that logs the calls it receives to calls.log beside it.
inline std::string LoggedIni(const fs::path& log, const std::string& model, const std::string& extra = "") {
  return ScannerIni(model, "USB", "1.00", "0", extra + "[Log]\nFile=" + log.string() + "\n");
}

inline fs::path InstallLogged(const TempRoot& root, const std::string& relDir, const std::string& model) {
  const fs::path log = root.Twain() / relDir / "calls.log";
  root.InstallVscan(relDir, LoggedIni(log, model));
  return log;
}

// How many calls of `entryPoint` the log holds; emptied, so the next count sees later calls.
inline int TakeCalls(const fs::path& log, const std::string& entryPoint) {
  int n = 0;
  for (const std::string& line : ReadLines(log)) n += line.rfind(entryPoint + "(", 0) == 0;
  std::error_code ec;  // emptied in place: the driver may hold it open
  fs::resize_file(log, 0, ec);
  return n;
}

// "tag|label|value" per trace line whose label is listed; no timestamps or trailing blanks.
inline Strings ReadTrace(const TempRoot& root, const Strings& labels) {
  static const std::regex kLine(R"(^(.*?)  -?\d+: (.*?) : ?(.*?) *$)");
  Strings out;
  for (const std::string& line : ReadLines(root.Path() / "scandiag.txt")) {
    std::smatch m;
    if (std::regex_match(line, m, kLine) &&
        std::find(labels.begin(), labels.end(), m[2].str()) != labels.end())
      out.push_back(m[1].str() + "|" + m[2].str() + "|" + m[3].str());
  }
  return out;
}

}  // namespace sxtest
