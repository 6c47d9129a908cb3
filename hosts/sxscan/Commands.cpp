// The commands that look at and change the library's state: sources, select,
// info, caps, get and set. Each run opens what it needs and ends with SxFree,
// which hands the power-save time back to the scanner and unloads the driver.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "kit/Capabilities.h"
#include "kit/Parse.h"
#include "kit/Session.h"
#include "kit/StoreChecks.h"
#include "sxscan.h"
#include "sxscan/Commands.h"
#include "sxscan/SystemTexts.h"

namespace sx::host {
namespace {

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

constexpr double kAreaDots = 300;  // the library reads an area in 1/300 inch
constexpr double kCmPerInch = 2.54;

// A length the library states in `units` (CAP_UNITS), as typed in that unit.
std::string LengthText(double length, int units) {
  char text[48];
  std::snprintf(text, sizeof text, "%.4g %s", length, units == 0 ? "in" : units == 1 ? "cm" : "300ths");
  return text;
}

// An area value read in 1/300 inch, in the unit `set` takes it in: the one
// CAP_UNITS names.
std::string AreaText(uint16_t dots, int units) {
  const double inches = dots / kAreaDots;
  return LengthText(units == 0 ? inches : units == 1 ? inches * kCmPerInch : dots, units);
}

// The value as `set` takes it, with its word: "2 (color)", "8.5 in".
std::string ValueText(const CapabilityInfo& cap, const Value& value, const SourceFacts& facts) {
  if (cap.flags & kCapReadIn300ths) {
    uint16_t dots = 0;
    std::memcpy(&dots, value.bytes.data(), sizeof dots);
    return AreaText(dots, facts.units);
  }
  std::string text = NamedValue(cap, FormatValue(cap.getType, value.bytes.data()));
  if (cap.code == CAP_XRESOLUTION || cap.code == CAP_YRESOLUTION) text += " dpi";
  return text;
}

std::string CurrentValueText(const NamedSetting& setting, const SourceFacts& facts) {
  const CapabilityInfo& cap = *setting.cap;
  if (cap.flags & kCapGetFetchesRaster) return "(reading fetches the background raster)";
  if (!cap.getType) return "-";
  Value value;
  int32_t result = ReadSetting(setting, &value);
  if (result != SX_OK) return "(" + ResultText(result) + ")";
  return ValueText(cap, value, facts);
}

// Each source's greatest width or length, labelled with the source, in
// inches as --area takes them.
std::string SourceLengthsText(const std::vector<float>& lengths, const SourceFacts& facts) {
  const double perInch = facts.units == 0 ? 1 : facts.units == 1 ? kCmPerInch : kAreaDots;
  std::string out;
  for (size_t i = 0; i < lengths.size() && i < facts.sources.size(); ++i) {
    const char* word = ValueWord(CAP_SCANTYPE, facts.sources[i]);
    out += (i ? ", " : "") + (word ? std::string(word) : "source " + std::to_string(facts.sources[i])) + " " +
           LengthText(lengths[i] / perInch, 0);
  }
  return out.empty() ? "(no list)" : out;
}

std::string AdmissibleText(const CapabilityInfo& cap, const SourceFacts& facts) {
  if (cap.flags & kCapQueryActs) return "(not listed: listing would set the power-save time to 0)";
  if (cap.code == CAP_MAXWIDTHS) return SourceLengthsText(facts.maxWidths, facts);
  if (cap.code == CAP_MAXLENGTHS) return SourceLengthsText(facts.maxLengths, facts);
  // The library lists only the current value; any area within the chosen
  // source's is taken, in the unit CAP_UNITS names.
  if (cap.flags & kCapReadIn300ths) return "within the source's area (CAP_MAXWIDTHS, CAP_MAXLENGTHS)";
  QueriedList list = QueryList(cap);
  if (!list.made) return "(no list)";
  return DescribeList(cap, list.count, list.items.data(), list.items.size());
}

NamedSetting LookUp(const std::string& name) {
  const NamedSetting setting = FindSetting(name);
  if (!setting.cap) std::fprintf(stderr, "sxscan: unknown capability '%s' (see 'sxscan caps')\n", name.c_str());
  return setting;
}

}  // namespace

int RunSources() {
  LibraryScope session;
  int32_t result = 0;
  std::vector<SxDataSource> sources = ListSources(&result);
  if (sources.empty()) {
    std::fprintf(stderr, "sxscan: no data sources found (driver modules are looked for under %s)\n",
                 DriverTreeText().c_str());
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
  LibraryScope session;
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
  LibraryScope session;
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
  LibraryScope session;
  if (!OpenStoredSource()) return kExitFailed;
  std::vector<std::vector<std::string>> rows = {{"CAPABILITY", "CURRENT", "ADMISSIBLE"}};
  const SourceFacts facts = ReadSourceFacts();
  const auto row = [&](const NamedSetting& setting) {
    rows.push_back({SettingName(setting), CurrentValueText(setting, facts), AdmissibleText(*setting.cap, facts)});
  };
  // A tone setting's colours follow its whole-image value.
  for (const auto& cap : AllCapabilities()) {
    row({&cap, kNoElement});
    for (int element = 1; IsToneCapability(cap.code) && element <= kColourElements; ++element) row({&cap, element});
  }
  PrintTable(rows);
  return kExitOk;
}

int RunGet(const std::vector<std::string>& names) {
  std::vector<NamedSetting> settings;
  for (const auto& name : names) {
    const NamedSetting setting = LookUp(name);
    if (!setting.cap) return kExitUsage;
    if (!setting.cap->getType) {
      std::fprintf(stderr, "sxscan: %s cannot be read as a value\n", setting.cap->name);
      return kExitUsage;
    }
    settings.push_back(setting);
  }
  LibraryScope session;
  if (!OpenStoredSource()) return kExitFailed;
  const SourceFacts facts = ReadSourceFacts();
  int exitCode = kExitOk;
  for (const NamedSetting& setting : settings) {
    Value value;
    int32_t result = ReadSetting(setting, &value);
    if (result != SX_OK) {
      std::fprintf(stderr, "sxscan: %s: %s (%d)\n", SettingName(setting).c_str(), ResultText(result).c_str(), result);
      exitCode = kExitFailed;
      continue;
    }
    std::printf("%s = %s\n", SettingName(setting).c_str(), ValueText(*setting.cap, value, facts).c_str());
  }
  return exitCode;
}

int RunSet(const std::vector<std::string>& pairs) {
  std::vector<std::pair<NamedSetting, Value>> changes;
  for (size_t i = 0; i + 1 < pairs.size(); i += 2) {
    const NamedSetting setting = LookUp(pairs[i]);
    if (!setting.cap) return kExitUsage;
    const CapabilityInfo& cap = *setting.cap;
    if (!cap.setType) {
      std::fprintf(stderr, "sxscan: %s cannot be set\n", cap.name);
      return kExitUsage;
    }
    Value value;
    std::string error;
    if (!ParseSettingValue(cap, pairs[i + 1], &value, &error)) {
      std::fprintf(stderr, "sxscan: %s wants a %s value: %s\n", SettingName(setting).c_str(),
                   ValueTypeName(cap.setType), error.c_str());
      return kExitUsage;
    }
    changes.emplace_back(setting, value);
  }
  LibraryScope session;
  if (!OpenStoredSource()) return kExitFailed;
  for (const auto& [setting, value] : changes) {
    if (!CheckAdmissible(*setting.cap, value)) return kExitUsage;
  }
  int exitCode = kExitOk;
  for (const auto& [setting, value] : changes) {
    int32_t result = WriteSetting(setting, value);
    if (result != SX_OK) {
      std::fprintf(stderr, "sxscan: %s: %s (%d)\n", SettingName(setting).c_str(), ResultText(result).c_str(), result);
      exitCode = kExitFailed;
      continue;
    }
    if (setting.cap->getType)
      std::printf("%s = %s\n", SettingName(setting).c_str(), CurrentValueText(setting, ReadSourceFacts()).c_str());
    else
      std::printf("%s set\n", setting.cap->name);
  }
  std::fprintf(stderr,
               "sxscan: settings last while the program runs; scan with them through "
               "'sxscan scan --set NAME=VALUE'\n");
  return exitCode;
}

}  // namespace sx::host
