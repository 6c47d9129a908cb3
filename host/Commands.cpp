// The commands that look at and change the library's state: sources, select,
// info, caps, get and set. Each run opens what it needs and ends with SxFree,
// which hands the power-save time back to the scanner and unloads the driver.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "Capabilities.h"
#include "Commands.h"
#include "Session.h"
#include "sxscan.h"

namespace sx::host {
namespace {

// Frees the library's state whichever way a command leaves.
struct LibrarySession {
  ~LibrarySession() { SxFree(); }
};

std::string SourceFile(const SxDataSource& s) {
  return FieldText(s.Directory, sizeof s.Directory) + FieldText(s.FileName, sizeof s.FileName);
}

void PrintTable(const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  for (const auto& row : rows) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line += std::string(widths[i] - row[i].size() + 2, ' ');
    }
    std::printf("%s\n", line.c_str());
  }
}

std::string CurrentValueText(const CapabilityInfo& cap) {
  if (cap.flags & kCapGetFetchesRaster) return "(reading fetches the background raster)";
  if (!cap.getType) return "-";
  Value value;
  int32_t result = ReadValue(cap, &value);
  if (result != SX_OK) return "(" + ResultText(result) + ")";
  std::string text = NamedValue(cap, FormatValue(cap.getType, value.bytes.data()));
  if (cap.flags & kCapReadIn300ths) text += " (1/300 in)";
  return text;
}

std::string AdmissibleText(const CapabilityInfo& cap) {
  if (cap.flags & kCapQueryActs) return "(not listed: listing would set the power-save time to 0)";
  QueriedList list = QueryList(cap);
  if (!list.made) return "(no list)";
  return DescribeList(cap, list.count, list.items.data(), list.items.size());
}

const CapabilityInfo* LookUp(const std::string& name) {
  const CapabilityInfo* cap = FindCapability(name);
  if (!cap) std::fprintf(stderr, "sxscan: unknown capability '%s' (see 'sxscan caps')\n", name.c_str());
  return cap;
}

}  // namespace

int RunSources() {
  LibrarySession session;
  int32_t result = 0;
  std::vector<SxDataSource> sources = ListSources(&result);
  if (sources.empty()) {
    std::fprintf(stderr,
                 "sxscan: no data sources found (driver modules are looked for under "
                 "$SX_ROOT/windows/twain_32)\n");
    return kExitFailed;
  }
  std::vector<std::vector<std::string>> rows = {{"NAME", "VENDOR", "PORT", "VERSION", "FILE"}};
  for (const auto& s : sources) {
    rows.push_back({FieldText(s.DisplayName, sizeof s.DisplayName), FieldText(s.Vendor, sizeof s.Vendor),
                    FieldText(s.PortName, sizeof s.PortName),
                    FieldText(s.FileVersion, sizeof s.FileVersion), SourceFile(s)});
  }
  PrintTable(rows);
  return kExitOk;
}

int RunSelect(const std::string& name) {
  LibrarySession session;
  int32_t result = 0;
  std::vector<SxDataSource> sources = ListSources(&result);
  std::vector<std::string> names;
  for (const auto& s : sources) names.push_back(FieldText(s.DisplayName, sizeof s.DisplayName));
  if (names.empty()) {
    std::fprintf(stderr, "sxscan: no data sources found (see 'sxscan sources')\n");
    return kExitFailed;
  }
  std::string error;
  int index = FindSourceByName(names, name, &error);
  if (index < 0) {
    std::fprintf(stderr, "sxscan: %s\n", error.c_str());
    for (const auto& n : names) std::fprintf(stderr, "  %s\n", n.c_str());
    return kExitFailed;
  }
  // A store the library cannot read whole is not written over: the choice
  // would land in it, or in the library's fall-back file, unseen.
  if (std::string problem; RegistryStoreProblem(&problem)) {
    std::fprintf(stderr, "sxscan: %s\n", problem.c_str());
    return kExitFailed;
  }
  SxDataSource chosen = sources[index];
  result = SxSetDriverById(&chosen, 0);
  if (result != SX_OK) {
    std::fprintf(stderr, "sxscan: cannot select '%s': %s (%d)\n", names[index].c_str(),
                 ResultText(result).c_str(), result);
    return kExitFailed;
  }
  std::printf("selected: %s\n", FieldText(chosen.DisplayName, sizeof chosen.DisplayName).c_str());
  return kExitOk;
}

int RunInfo() {
  LibrarySession session;
  if (!OpenStoredSource()) return kExitFailed;
  std::vector<std::vector<std::string>> rows;
  SxDataSource source;
  if (CurrentSource(&source)) {
    rows.push_back({"source", FieldText(source.DisplayName, sizeof source.DisplayName)});
    rows.push_back({"vendor", FieldText(source.Vendor, sizeof source.Vendor)});
    rows.push_back({"port", FieldText(source.PortName, sizeof source.PortName)});
    rows.push_back({"file", SourceFile(source)});
    rows.push_back({"file version", FieldText(source.FileVersion, sizeof source.FileVersion)});
  }
  const std::pair<const char*, uint16_t> kIdentity[] = {
      {"model", CAP_MODELNAME}, {"firmware", CAP_FIRMWAREVERSION}, {"serial", CAP_SERIALNUMBER}};
  for (const auto& [label, code] : kIdentity) {
    char hex[8];
    std::snprintf(hex, sizeof hex, "0x%04x", code);
    Value value;
    int32_t result = ReadValue(*FindCapability(hex), &value);
    rows.push_back({label, result == SX_OK ? FieldText(reinterpret_cast<const char*>(value.bytes.data()),
                                                       ValueTypeBytes(value.type))
                                           : "(" + ResultText(result) + ")"});
  }
  PrintTable(rows);
  return kExitOk;
}

int RunCaps() {
  LibrarySession session;
  if (!OpenStoredSource()) return kExitFailed;
  std::vector<std::vector<std::string>> rows = {{"CAPABILITY", "CURRENT", "ADMISSIBLE"}};
  for (const auto& cap : AllCapabilities())
    rows.push_back({cap.name, CurrentValueText(cap), AdmissibleText(cap)});
  PrintTable(rows);
  return kExitOk;
}

int RunGet(const std::vector<std::string>& names) {
  std::vector<const CapabilityInfo*> caps;
  for (const auto& name : names) {
    const CapabilityInfo* cap = LookUp(name);
    if (!cap) return kExitUsage;
    if (!cap->getType) {
      std::fprintf(stderr, "sxscan: %s cannot be read as a value\n", cap->name);
      return kExitUsage;
    }
    caps.push_back(cap);
  }
  LibrarySession session;
  if (!OpenStoredSource()) return kExitFailed;
  int exitCode = kExitOk;
  for (const CapabilityInfo* cap : caps) {
    Value value;
    int32_t result = ReadValue(*cap, &value);
    if (result != SX_OK) {
      std::fprintf(stderr, "sxscan: %s: %s (%d)\n", cap->name, ResultText(result).c_str(), result);
      exitCode = kExitFailed;
      continue;
    }
    std::string text = FormatValue(cap->getType, value.bytes.data());
    if (cap->flags & kCapReadIn300ths) text += " (1/300 inch)";
    std::printf("%s = %s\n", cap->name, text.c_str());
  }
  return exitCode;
}

int RunSet(const std::vector<std::string>& pairs) {
  std::vector<std::pair<const CapabilityInfo*, Value>> changes;
  for (size_t i = 0; i + 1 < pairs.size(); i += 2) {
    const CapabilityInfo* cap = LookUp(pairs[i]);
    if (!cap) return kExitUsage;
    if (!cap->setType) {
      std::fprintf(stderr, "sxscan: %s cannot be set\n", cap->name);
      return kExitUsage;
    }
    Value value;
    std::string error;
    if (!ParseValue(cap->setType, pairs[i + 1], &value, &error)) {
      std::fprintf(stderr, "sxscan: %s wants a %s value: %s\n", cap->name, ValueTypeName(cap->setType),
                   error.c_str());
      return kExitUsage;
    }
    changes.emplace_back(cap, value);
  }
  LibrarySession session;
  if (!OpenStoredSource()) return kExitFailed;
  for (const auto& [cap, value] : changes) {
    if (!CheckAdmissible(*cap, value)) return kExitUsage;
  }
  int exitCode = kExitOk;
  for (const auto& [cap, value] : changes) {
    int32_t result = WriteValue(*cap, value);
    if (result != SX_OK) {
      std::fprintf(stderr, "sxscan: %s: %s (%d)\n", cap->name, ResultText(result).c_str(), result);
      exitCode = kExitFailed;
      continue;
    }
    if (cap->getType)
      std::printf("%s = %s\n", cap->name, CurrentValueText(*cap).c_str());
    else
      std::printf("%s set\n", cap->name);
  }
  std::fprintf(stderr,
               "sxscan: settings last while the program runs; scan with them through "
               "'sxscan scan --set NAME=VALUE'\n");
  return exitCode;
}

}  // namespace sx::host
