// One candidate driver file: where it lies, whether it is the maker's, whether
// it initialises and names a model, what it is called in the list, and
// whether it is a new source or a copy of one already listed.
#include <cstdio>
#include <cstring>

#include "driver/DriverTable.h"
#include "frame/Trace.h"
#include "platform/Paths.h"
#include "sources/Discovery.h"

namespace sx {

namespace {

constexpr char kTraceLabel[] = "VerifyDriver";
constexpr char kTwainFolder[] = SX_PATH_SEP "twain_32" SX_PATH_SEP;
constexpr char kDriverSuffix[] = "dll";
constexpr size_t kDriverSuffixLength = sizeof(kDriverSuffix) - 1;
// Modules of the source manager itself lie in the same tree but are never
// scanner drivers.
constexpr char kManagerPrefix[] = "twdsm";
constexpr size_t kManagerPrefixLength = sizeof(kManagerPrefix) - 1;
// What the ability call leaves in ModelName when the driver names no model.
constexpr char kNoModel[] = "Test Sample";
constexpr char kScsiPort[] = "SCSI";
constexpr size_t kScsiPortLength = sizeof(kScsiPort) - 1;

// How much of each ability text the display name takes.
constexpr size_t kNamePortChars = 8;
constexpr size_t kNameModelChars = 20;
constexpr size_t kNameFirmwareChars = 4;

bool EndsWithDriverSuffix(const std::string& name) {
  return name.size() >= kDriverSuffixLength &&
         EqualNoCase(name.c_str() + name.size() - kDriverSuffixLength, kDriverSuffix,
                     kDriverSuffixLength);
}

bool FolderFits(const std::string& folder) {
  return folder.empty() || folder.size() - 1 <= kMaxFolderName;
}

// Fills Directory and FileName of the waiting entry.
// Design note: a candidate whose folder names, folder path or file name do
// not fit their fixed fields is skipped rather than cut, since a cut name
// would load a different file (a long SX_ROOT thus hides every driver).
bool PlaceCandidate(const std::string& makerFolder, const std::string& modelFolder,
                    const std::string& fileName, DataSourceEntry& entry) {
  if (!FolderFits(makerFolder) || !FolderFits(modelFolder)) return false;
  std::string directory = TwainDirectory();
  if (!makerFolder.empty()) directory += makerFolder + modelFolder;
  if (directory.size() >= kDirectoryField || fileName.size() >= kFileNameField) return false;
  std::memcpy(entry.Host.Directory, directory.data(), directory.size());
  std::memcpy(entry.Host.FileName, fileName.data(), fileName.size());
  return true;
}

void TraceVerifyOut(int32_t result) {
  TraceLog(kTraceFile, kTraceLabel, kTagOut, 1, result, kKindNumber, 2);
}

bool HasRequiredEntryPoints() {
  return gDriver.InitializeScanner && gDriver.InitializeDriver && gDriver.TerminateDriver &&
         gDriver.GetScannerAbilityEx;
}

// Initialises the bound candidate and reads its abilities. False when the
// candidate is not a usable scanner; the module is then already released,
// and no "Out" line follows: the driver calls' own lines show why.
bool InitialiseCandidate() {
  if (!driver::InitializeDriver()) {
    UnbindDriver();
    return false;
  }
  if (!driver::InitializeScanner() || !driver::GetScannerAbilityEx(&gAbility) ||
      EqualNoCase(gAbility.ModelName, kNoModel, sizeof gAbility.ModelName)) {
    ReleaseDriver();
    return false;
  }
  return true;
}

bool SameName(const char* a, const char* b) { return std::strncmp(a, b, kDisplayNameField) == 0; }

bool EarlierEntryNamed(const DataSourceEntry* before, const char* name) {
  for (const DataSourceEntry* q = gSourceHead; q && q != before; q = q->Next) {
    if (SameName(q->Host.DisplayName, name)) return true;
  }
  return false;
}

// Two copies of one scanner make one entry: the copy with the greater
// version text (byte-wise, so 1,0,9,0 is newer than 1,0,10,0) wins, the copy
// found first on a tie. The candidate itself is the list's last entry, so
// the walk's last verdict is about the candidate: 1 only for a new name.
int32_t ResolveDuplicates(DataSourceEntry& candidate, const std::string& path) {
  int32_t result = 0;
  bool versionRead = false;
  std::string version;
  for (DataSourceEntry* p = gSourceHead; p; p = p->Next) {
    if (!SameName(p->Host.DisplayName, candidate.Host.DisplayName)) continue;
    if (!versionRead) {
      version = ReadFileVersion(path);
      versionRead = true;
    }
    if (std::strncmp(p->Host.FileVersion, version.c_str(), kFileVersionField) >= 0) continue;
    if (EarlierEntryNamed(p, candidate.Host.DisplayName)) {
      result = 0;
      continue;
    }
    result = 1;
    std::memset(p->Host.FileVersion, 0, kFileVersionField);
    std::memcpy(p->Host.FileVersion, version.data(), version.size());
    if (p != &candidate) {
      std::memcpy(p->Host.FileName, candidate.Host.FileName, kFileNameField);
      std::memcpy(p->Host.Directory, candidate.Host.Directory, kDirectoryField);
    }
  }
  return result;
}

}  // namespace

std::string TwainDirectory() { return plat::WindowsDirectory() + kTwainFolder; }

bool EqualNoCase(const char* a, const char* b, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    unsigned char x = static_cast<unsigned char>(a[i]);
    unsigned char y = static_cast<unsigned char>(b[i]);
    if (x >= 'A' && x <= 'Z') x = static_cast<unsigned char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<unsigned char>(y - 'A' + 'a');
    if (x != y) return false;
    if (x == 0) return true;
  }
  return true;
}

void CopyText(char* to, size_t toSize, const char* from, size_t fromSize) {
  if (toSize == 0) return;
  size_t n = strnlen(from, fromSize);
  if (n > toSize - 1) n = toSize - 1;
  std::memcpy(to, from, n);
  to[n] = '\0';
}

void BuildDisplayName(const ScannerAbility& ability, char (&out)[kDisplayNameField]) {
  std::memset(out, 0, sizeof out);
  if (EqualNoCase(ability.PortName, kScsiPort, kScsiPortLength)) {
    // The same form a SCSI inquiry gives the device, so the driver claims it.
    std::snprintf(out, sizeof out, "ID#%c - ", ability.DeviceId[0]);
  } else {
    CopyText(out, kNamePortChars + 1, ability.PortName, sizeof ability.PortName);
    std::strcat(out, " - ");
  }
  size_t at = std::strlen(out);
  const size_t model = strnlen(ability.ModelName, kNameModelChars);
  std::memcpy(out + at, ability.ModelName, model);
  std::memset(out + at + model, ' ', kNameModelChars - model);
  at += kNameModelChars;
  for (size_t i = 0; i < kNameFirmwareChars && i < sizeof ability.FirmwareVersion; ++i) {
    const char c = ability.FirmwareVersion[i];
    if (c == '\0' || c == ' ') break;
    out[at++] = c;
  }
}

uint8_t DeviceNumberOf(const ScannerAbility& ability) {
  uint32_t value = 0;
  for (size_t i = 0; i < sizeof ability.DeviceId; ++i) {
    const char c = ability.DeviceId[i];
    if (c < '0' || c > '9') break;
    value = value * 10 + static_cast<uint32_t>(c - '0');
  }
  auto number = static_cast<uint8_t>(value);
  // Numbers above 9 are taken for digits stored as characters.
  if (number > 9) number = static_cast<uint8_t>(number - '0');
  return number;
}

int32_t VerifyDriver(const std::string& makerFolder, const std::string& modelFolder,
                     const std::string& fileName, DataSourceEntry& entry) {
  if (!EndsWithDriverSuffix(fileName)) return 0;
  // The waiting entry may hold what an earlier, rejected candidate left.
  std::memset(&entry.Host, 0, sizeof entry.Host);
  if (!PlaceCandidate(makerFolder, modelFolder, fileName, entry)) return 0;
  const std::string path = std::string(entry.Host.Directory) + entry.Host.FileName;
  if (!VerifyMaker(path)) return 0;
  TraceLog(kTraceFile, kTraceLabel, kTagIn, 1, reinterpret_cast<intptr_t>(path.c_str()), kKindText,
           2);

  plat::ModuleHandle module = plat::LoadModule(path);
  if (!module) {
    TraceVerifyOut(0);
    return 0;
  }
  BindDriver(module, Binding::Discovery);
  if (!HasRequiredEntryPoints() || EqualNoCase(fileName.c_str(), kManagerPrefix,
                                               kManagerPrefixLength)) {
    UnbindDriver();
    TraceVerifyOut(0);
    return 0;
  }
  if (!InitialiseCandidate()) return 0;

  BuildDisplayName(gAbility, entry.Host.DisplayName);
  CopyText(entry.Host.Vendor, sizeof entry.Host.Vendor, gAbility.Vendor, sizeof gAbility.Vendor);
  CopyText(entry.Host.PortName, sizeof entry.Host.PortName, gAbility.PortName,
           sizeof gAbility.PortName);
  entry.Host.DeviceNumber = DeviceNumberOf(gAbility);
  const int32_t result = ResolveDuplicates(entry, path);

  ReleaseDriver();
  TraceVerifyOut(result);
  return result;
}

}  // namespace sx
