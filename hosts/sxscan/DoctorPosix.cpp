// sxscan doctor: why the library finds what it finds. It reports the system
// tree in use, the registry store, every module of the driver tree with its
// version record and whether the library offers it, the ASPI and
// colour-management modules and the trace settings; each problem with the
// fix in one line. It reads the files itself and asks the library only for
// its list of data sources, so it explains a set-up without changing it.
#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <stdlib.h>  // setenv, unsetenv
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "sxscan/Commands.h"
#include "sxscan/DoctorReport.h"
#include "kit/Session.h"
#include "platform/VersionRecord.h"
#include "sxscan.h"

#ifndef SX_INSTALL_SKELETON
#define SX_INSTALL_SKELETON "lib/sxscan/root"
#endif

namespace sx::host {

namespace {

using namespace doctor;
namespace fs = std::filesystem;

constexpr char kRegistryKeyOptions[] = "[software\\quillmark]";
constexpr char kTraceFile[] = "scandiag.txt";
constexpr char kColourModule[] = "sxcmms.dll";
constexpr const char* kColourEntryPoints[] = {"SX_Icc_SetProfile", "SX_Icc_Convert2", "SX_Icc_Initial",
                                              "SX_Icc_Adjust", "SX_Icc_SetIntent"};
// An ICC profile's header: 128 bytes, the size big-endian at 0, "acsp" at 36.
constexpr size_t kIccHeaderBytes = 128;
constexpr size_t kIccSignatureOffset = 36;

std::string Trim(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

std::string WithoutTrailingSlashes(std::string path) {
  while (!path.empty() && path.back() == '/') path.pop_back();
  return path;
}

// The root exactly as the library settles it: SX_ROOT, else an absolute
// XDG_DATA_HOME (a relative one is invalid by that convention and ignored),
// else the home folder.
fs::path Root(std::string& why) {
  if (const char* root = std::getenv("SX_ROOT"); root && *root) {
    why = "from the environment variable SX_ROOT";
    return WithoutTrailingSlashes(root);
  }
  if (const char* data = std::getenv("XDG_DATA_HOME"); data && data[0] == '/') {
    why = "SX_ROOT is not set: $XDG_DATA_HOME/sxscan";
    return fs::path(WithoutTrailingSlashes(data)) / "sxscan";
  }
  const char* data = std::getenv("XDG_DATA_HOME");
  why = data && *data ? "SX_ROOT is not set and XDG_DATA_HOME is relative, so ignored: "
                        "$HOME/.local/share/sxscan"
                      : "SX_ROOT is not set: $HOME/.local/share/sxscan";
  const char* home = std::getenv("HOME");
  return fs::path(WithoutTrailingSlashes(home && *home ? home : ".")) / ".local/share/sxscan";
}

// The value lines of the store, by lower-case "key|name", and the lines that
// are neither keys, values, comments nor blank.
struct Store {
  std::map<std::string, std::string> Values;
  int Damaged = 0;
  int FirstDamagedLine = 0;
  std::string FirstDamagedText;
};

// The data forms of a value line: dword:<hex>, "text", str(N):"text",
// hex:<pairs> and hex(N):<pairs>.
bool WellFormedData(const std::string& data) {
  const auto closedText = [](const std::string& text) {
    return text.size() >= 2 && text.front() == '"' && text.back() == '"';
  };
  if (data.rfind("dword:", 0) == 0) {
    const std::string digits = data.substr(6);
    return !digits.empty() && digits.size() <= 8 &&
           digits.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
  }
  if (data.rfind("str(", 0) == 0) {
    const size_t colon = data.find("):");
    return colon != std::string::npos && closedText(data.substr(colon + 2));
  }
  if (data.rfind("hex", 0) == 0) {
    const size_t colon = data.find(':');
    return colon != std::string::npos &&
           data.find_first_not_of("0123456789abcdefABCDEF, ", colon + 1) == std::string::npos;
  }
  return closedText(data);
}

Store ReadStore(const fs::path& path) {
  Store store;
  std::ifstream in(path);
  std::string line, key;
  int number = 0;
  while (std::getline(in, line)) {
    ++number;
    const std::string t = Trim(line);
    if (t.empty() || t[0] == ';' || t[0] == '#') continue;
    if (t.front() == '[' && t.back() == ']') {
      key = Lower(t);
    } else if (t[0] == '"' && t.find("\"=", 1) != std::string::npos &&
               WellFormedData(t.substr(t.find("\"=", 1) + 2))) {
      const size_t close = t.find("\"=", 1);
      store.Values[key + "|" + Lower(t.substr(1, close - 1))] = t.substr(close + 2);
    } else {
      if (store.Damaged++ == 0) {
        store.FirstDamagedLine = number;
        store.FirstDamagedText = t;
      }
    }
  }
  return store;
}

// A text value as the store writes it: "text", str(2):"text" or hex bytes
// ending in a NUL.
std::string TextValue(const std::string& raw) {
  const size_t quote = raw.find('"');
  if (quote != std::string::npos && (quote == 0 || raw.rfind("str(", 0) == 0)) {
    const size_t end = raw.rfind('"');
    return end > quote ? raw.substr(quote + 1, end - quote - 1) : std::string();
  }
  if (raw.rfind("hex", 0) != 0 || raw.find(':') == std::string::npos) return raw;
  std::string text;
  std::istringstream bytes(raw.substr(raw.find(':') + 1));
  std::string pair;
  while (std::getline(bytes, pair, ',')) {
    const long byte = std::strtol(pair.c_str(), nullptr, 16);
    if (byte == 0) break;
    text += static_cast<char>(byte);
  }
  return text;
}

// Text from the store as it may be shown on a terminal: control bytes and
// bytes outside ASCII as \xNN, and no more than a line's worth.
std::string Printable(const std::string& text) {
  constexpr size_t kShown = 80;
  std::string out;
  for (const char c : text.substr(0, kShown)) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte < 0x7F) {
      out += c;
      continue;
    }
    char escaped[8];
    std::snprintf(escaped, sizeof escaped, "\\x%02X", byte);
    out += escaped;
  }
  return text.size() > kShown ? out + "..." : out;
}

// Why the store cannot be written, and a fix that works for that cause;
// empty when it can. The library keeps its lock file and any new store
// beside the store, so the folder must take a file as well.
struct WriteBlock {
  std::string cause, fix;
};

WriteBlock ExplainWriteError(int code, const fs::path& target, bool folder) {
  const std::string name = target.string();
  struct stat st {};
  const bool othersOwn = ::stat(name.c_str(), &st) == 0 && st.st_uid != ::geteuid();
  switch (code) {
    case EPERM:
      return {std::string(folder ? "the folder" : "the file") + " is marked immutable or append-only",
              "sudo chattr -i -a " + name + " (lsattr " + name + " shows the marks)"};
    case EROFS:
      return {"it is on a read-only file system", "remount it read-write, or set SX_ROOT to a tree on a writable disk"};
    case EACCES:
      if (othersOwn) return {"it belongs to another user", "sudo chown $(id -u) " + name};
      return {folder ? "the user may not create files in the folder" : "the user may not write the file",
              "chmod u+w " + name};
    default:
      return {std::strerror(code), "make " + name + " writable"};
  }
}

WriteBlock StoreWriteBlock(const fs::path& root) {
  const fs::path path = root / "user.reg";
  std::error_code ec;
  if (fs::exists(path, ec)) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd < 0) return ExplainWriteError(errno, path, false);
    ::close(fd);
  }
  const fs::path probe = root / (".user.reg.probe." + std::to_string(::getpid()));
  const int fd = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return errno == EEXIST ? WriteBlock{} : ExplainWriteError(errno, root, true);
  ::close(fd);
  ::unlink(probe.c_str());
  return {};
}

// The default system tree of an installed program, found from the program's
// own place (<prefix>/bin) wherever the prefix was moved; empty when the
// program runs from a build tree.
fs::path InstalledSkeleton() {
  std::error_code ec;
  const fs::path skeleton =
      fs::read_symlink("/proc/self/exe", ec).parent_path().parent_path() / SX_INSTALL_SKELETON;
  return fs::is_directory(skeleton / "windows", ec) ? skeleton : fs::path();
}

void ReportRoot(const fs::path& root, const std::string& why) {
  std::printf("system tree  %s (%s)\n", root.c_str(), why.c_str());
  if (!fs::is_directory(root)) {
    Problem("the folder does not exist",
            "create it, e.g. copy <prefix>/lib/<multiarch>/sxscan/root there, or set SX_ROOT to a tree that exists");
  }
}

// Where trace lines go: "SAVEPATH" with the file name glued to it, so a
// folder needs its trailing '/', and without "SAVEPATH" the host program's
// current directory.
void ReportTrace(long traceLevel, const std::string& savePath) {
  if (traceLevel == 0) {
    std::printf("  trace level 0 (no trace log; \"DEBUGLEVEL\"=dword:00000002 traces every call)\n");
    return;
  }
  std::error_code ec;
  const std::string log = savePath.empty() ? (fs::current_path(ec) / kTraceFile).string()
                                           : savePath + kTraceFile;
  std::printf("  trace level %ld, log %s%s\n", traceLevel, log.c_str(),
              savePath.empty() ? " (no \"SAVEPATH\": the host program's current directory)" : "");
  if (savePath.empty()) return;
  if (savePath.back() != '/') {
    Problem("\"SAVEPATH\" does not end with '/', so the file name is glued to its last folder name",
            "end \"SAVEPATH\" with '/': \"SAVEPATH\"=str(2):\"" + savePath + "/\"");
  }
  if (log.size() > kMaxTracePath) {
    Problem("the log path is longer than " + std::to_string(kMaxTracePath) + " characters: trace lines are lost",
            "choose a shorter \"SAVEPATH\"");
  } else if (const fs::path folder = fs::path(log).has_parent_path() ? fs::path(log).parent_path() : ".";
             !fs::is_directory(folder, ec)) {
    Problem("the log folder " + folder.string() + " does not exist: trace lines are lost",
            "mkdir -p " + folder.string());
  }
}

void ReportStore(const fs::path& root) {
  const fs::path path = root / "user.reg";
  std::printf("registry     %s\n", path.c_str());
  std::error_code ec;
  if (!fs::exists(path, ec)) {
    std::printf("  absent: read as empty; 'sxscan select' creates it\n");
    if (const WriteBlock block = StoreWriteBlock(root); !block.cause.empty())
      Problem("the store cannot be made (" + block.cause + "), so 'sxscan select' is refused", block.fix);
    ReportTrace(0, "");
    return;
  }
  if (!std::ifstream(path)) {
    Problem("the store cannot be read", "give the user read and write access: chmod u+rw " + path.string());
    return;
  }
  const Store store = ReadStore(path);
  std::printf("  %zu value(s)\n", store.Values.size());
  if (store.Damaged > 0) {
    Problem(std::to_string(store.Damaged) + " damaged line(s), skipped when read",
            "correct or delete them (format: docs/DESIGN.md, \"Registry store\")");
  }
  const auto value = [&](const char* name) {
    auto it = store.Values.find(std::string(kRegistryKeyOptions) + "|" + name);
    return it == store.Values.end() ? std::string() : it->second;
  };
  const std::string source = Printable(TextValue(value("sourcename")));
  std::printf("  chosen source: %s\n", source.empty() ? "none ('sxscan select NAME' chooses one)" : source.c_str());
  if (const WriteBlock block = StoreWriteBlock(root); !block.cause.empty()) {
    Problem("the store cannot be written (" + block.cause + "): the library reads and writes " +
                (root / "temp/scandiag.ini").string() + " instead, so 'sxscan select' is refused",
            block.fix);
  }
  const std::string level = value("debuglevel");
  const long traceLevel = level.rfind("dword:", 0) == 0 ? std::strtol(level.c_str() + 6, nullptr, 16) : 0;
  ReportTrace(traceLevel, TextValue(value("savepath")));
}

// The version record's CompanyName and FileVersion, from the text form
// "<query path>=<value>".
bool ReadRecord(const fs::path& path, std::string& company, std::string& version) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  plat::ByteSource source;
  source.Size = fs::file_size(path);
  source.Context = &in;
  source.Read = [](void* context, uint64_t offset, void* dst, size_t count) {
    auto& file = *static_cast<std::ifstream*>(context);
    file.clear();
    file.seekg(static_cast<std::streamoff>(offset));
    return static_cast<bool>(file.read(static_cast<char*>(dst), static_cast<std::streamsize>(count)));
  };
  std::string record;
  if (!plat::ExtractVersionSectionFrom(source, record)) return false;
  std::istringstream lines(record);
  std::string line;
  while (std::getline(lines, line)) {
    const size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    const std::string key = line.substr(0, eq);
    if (key.size() >= 11 && key.compare(key.size() - 11, 11, "CompanyName") == 0) company = line.substr(eq + 1);
    if (key.size() >= 11 && key.compare(key.size() - 11, 11, "FileVersion") == 0) {
      for (char c : line.substr(eq + 1)) {
        if (c != ' ') version += c;  // as the library shows it: 1,0,1,0
      }
    }
  }
  return true;
}

std::string Field(const char* text, size_t size) { return std::string(text, strnlen(text, size)); }

// The ELF header and program headers of a module file, read as the system's
// own word size.
#if UINTPTR_MAX > 0xFFFFFFFFu
using ElfHeader = Elf64_Ehdr;
using ElfSegment = Elf64_Phdr;
constexpr unsigned char kElfClass = ELFCLASS64;
#else
using ElfHeader = Elf32_Ehdr;
using ElfSegment = Elf32_Phdr;
constexpr unsigned char kElfClass = ELFCLASS32;
#endif

bool ReadAt(std::ifstream& in, uint64_t offset, void* out, size_t size) {
  in.clear();
  in.seekg(static_cast<std::streamoff>(offset));
  return static_cast<bool>(in.read(static_cast<char*>(out), static_cast<std::streamsize>(size)));
}

// The processor this program was built for, from its own header.
uint16_t OwnMachine() {
  std::ifstream self("/proc/self/exe", std::ios::binary);
  ElfHeader own{};
  return ReadAt(self, 0, &own, sizeof own) ? own.e_machine : 0;
}

std::string Bytes(uint64_t n) { return std::to_string(n) + " bytes"; }

// What keeps a module file from being loaded at all, from its own bytes:
// empty when it is whole and a shared object for this system. A truncated
// copy or a file of another kind is named as such, not as a module without
// a version record or a scanner that does not answer.
std::string ModuleFileFault(const fs::path& file) {
  std::error_code ec;
  const uint64_t size = fs::file_size(file, ec);
  if (ec) return "it cannot be read (" + ec.message() + ")";
  if (size == 0) return "the file is empty (0 bytes): not a shared object";
  std::ifstream in(file, std::ios::binary);
  ElfHeader h{};
  const bool whole = ReadAt(in, 0, &h, sizeof h);
  if (size < SELFMAG || std::memcmp(h.e_ident, ELFMAG, SELFMAG) != 0) {
    if (h.e_ident[0] == 'M' && h.e_ident[1] == 'Z')
      return "it is a Windows module, not a shared object for this system";
    return "it is not a shared object at all (no ELF header; a text or other file under a module's name)";
  }
  if (!whole) return "it is truncated: " + Bytes(size) + ", shorter than its own ELF header";
  if (h.e_ident[EI_CLASS] != kElfClass || h.e_machine != OwnMachine())
    return "it is a shared object for another processor or word size than this program's";
  if (h.e_type != ET_DYN) return "it is an ELF file but not a shared object (an executable or object file)";
  uint64_t needed = std::max<uint64_t>(h.e_phoff + uint64_t{h.e_phnum} * h.e_phentsize,
                                       h.e_shoff + uint64_t{h.e_shnum} * h.e_shentsize);
  for (unsigned i = 0; i < h.e_phnum && needed <= size; ++i) {
    ElfSegment segment{};
    if (ReadAt(in, h.e_phoff + uint64_t{i} * h.e_phentsize, &segment, sizeof segment) &&
        segment.p_type == PT_LOAD)
      needed = std::max<uint64_t>(needed, segment.p_offset + segment.p_filesz);
  }
  if (needed > size) return "it is truncated: " + Bytes(size) + " where its own headers need " + Bytes(needed);
  return {};
}

// A module file that cannot be loaded, named with its fix; true when it was.
bool ReportModuleFileFault(const fs::path& file) {
  const std::string fault = ModuleFileFault(file);
  if (fault.empty()) return false;
  Problem(fault, fault.rfind("it is truncated", 0) == 0
                     ? "copy the module again from where it came: " + file.filename().string() + " was cut short"
                     : "remove " + file.string() + " or put the module built for this system in its place");
  return true;
}

fs::path ModulePath(const SxDataSource& s) {
  return fs::path(Field(s.Directory, sizeof s.Directory)) / Field(s.FileName, sizeof s.FileName);
}

bool IsModuleName(const fs::path& file) {
  const std::string name = Lower(file.filename().string());
  return name.size() >= 4 && name.compare(name.size() - 3, 3, "dll") == 0;
}

// Sets SX_ROOT for the life of the object and puts back what was there.
class RootOverride {
 public:
  explicit RootOverride(const fs::path& root) {
    if (const char* old = std::getenv("SX_ROOT")) saved_ = old, hadRoot_ = true;
    ::setenv("SX_ROOT", root.c_str(), 1);
  }
  ~RootOverride() {
    if (hadRoot_)
      ::setenv("SX_ROOT", saved_.c_str(), 1);
    else
      ::unsetenv("SX_ROOT");
  }
  RootOverride(const RootOverride&) = delete;
  RootOverride& operator=(const RootOverride&) = delete;

 private:
  std::string saved_;
  bool hadRoot_ = false;
};

// Runs the library's discovery over a scratch tree that holds `file` alone,
// at the same place under twain_32 and with the other files of its folder
// (its behaviour and profile files), so the user's tree is left as it is.
// Returns the data source the module makes on its own; false when the
// library refuses it even then.
bool DiscoverAlone(const fs::path& twain, const fs::path& file, SxDataSource* alone) {
  std::error_code ec;
  const fs::path scratch =
      fs::temp_directory_path(ec) / ("sxscan-doctor-" + std::to_string(std::random_device{}()));
  const fs::path folder = scratch / "windows/twain_32" / fs::relative(file.parent_path(), twain, ec);
  fs::create_directories(folder, ec);
  for (const auto& entry : fs::directory_iterator(file.parent_path(), ec)) {
    if (!entry.is_regular_file() || (IsModuleName(entry.path()) && entry.path() != file)) continue;
    fs::copy_file(entry.path(), folder / entry.path().filename(), ec);
  }
  std::vector<SxDataSource> listed;
  {
    RootOverride root(scratch);
    SxFree();  // the list of the user's tree goes; the next one is the scratch tree's
    int32_t result = 0;
    listed = ListSources(&result);
    SxFree();
  }
  fs::remove_all(scratch, ec);
  if (listed.size() != 1) return false;
  *alone = listed[0];
  return true;
}

// A module of the maker with a file version that the library does not
// offer: refused at initialisation, the same scanner as an offered module,
// or never tried because another module of its folder was accepted first.
void ExplainUnlisted(const fs::path& twain, const fs::path& file, const std::string& shown,
                     const std::string& version, const std::vector<SxDataSource>& listed) {
  if (file.parent_path() != twain) {
    for (const SxDataSource& s : listed) {
      if (ModulePath(s).parent_path() != file.parent_path()) continue;
      std::printf("  %s: version %s, not offered: not tried\n", shown.c_str(), version.c_str());
      Problem("the library takes one module per folder and accepted " + ModulePath(s).filename().string() +
                  " there first",
              "give each driver module a model folder of its own");
      return;
    }
  }
  SxDataSource alone{};
  if (!DiscoverAlone(twain, file, &alone)) {
    std::printf("  %s: version %s, not offered: refused\n", shown.c_str(), version.c_str());
    Problem("the library loaded it, but an entry point it needs is missing, its initialisation or "
            "ability query failed, or it reported no model",
            "connect and power the scanner, or check its files; \"DEBUGLEVEL\" 2 traces the calls");
    return;
  }
  const std::string name = Field(alone.DisplayName, sizeof alone.DisplayName);
  for (const SxDataSource& s : listed) {
    if (Field(s.DisplayName, sizeof s.DisplayName) != name) continue;
    const std::string kept = fs::relative(ModulePath(s), twain).string();
    std::printf("  %s: version %s, not offered: the same scanner \"%s\" is offered from %s, version %s\n",
                shown.c_str(), version.c_str(), name.c_str(), kept.c_str(),
                Field(s.FileVersion, sizeof s.FileVersion).c_str());
    Problem("a copy of the same scanner with a newer or equal version is offered instead",
            "remove the copy not offered: rm " + file.string());
    return;
  }
  std::printf("  %s: version %s, not offered with the others, though offered alone as \"%s\"\n",
              shown.c_str(), version.c_str(), name.c_str());
  Problem("the scanner answered differently when the whole tree was searched",
          "search again with \"DEBUGLEVEL\" 2 and read the trace of its calls");
}

void ReportModule(const fs::path& twain, const fs::path& file, const std::vector<SxDataSource>& listed) {
  const std::string shown = fs::relative(file, twain).string();
  for (const SxDataSource& s : listed) {
    if (ModulePath(s) == file) {
      std::printf("  %s: offered as \"%s\", version %s\n", shown.c_str(),
                  Field(s.DisplayName, sizeof s.DisplayName).c_str(), Field(s.FileVersion, sizeof s.FileVersion).c_str());
      return;
    }
  }
  std::string company, version;
  if (!ModuleFileFault(file).empty()) {
    std::printf("  %s: not offered\n", shown.c_str());
    ReportModuleFileFault(file);
  } else if (!ReadRecord(file, company, version)) {
    std::printf("  %s: not offered\n", shown.c_str());
    Problem("it carries no version record (ELF section .sxversion)",
            "rebuild the module with its version record attached");
  } else if (version.empty()) {
    std::printf("  %s: not offered\n", shown.c_str());
    Problem("its version record has no FileVersion", "add FileVersion to the module's version record");
  } else if (Lower(company).rfind(kMakerPrefix, 0) != 0) {
    std::printf("  %s: not offered (maker \"%s\")\n", shown.c_str(), company.c_str());
    Problem("its version record names another maker", "remove it from the driver tree; only the maker's drivers are offered");
  } else {
    ExplainUnlisted(twain, file, shown, version, listed);
  }
}

void ReportDrivers(const fs::path& root) {
  const fs::path twain = root / "windows/twain_32";
  std::printf("drivers      %s\n", twain.c_str());
  std::error_code ec;
  if (!fs::is_directory(twain, ec)) {
    const fs::path skeleton = InstalledSkeleton();
    Problem("the driver tree does not exist",
            skeleton.empty() ? "install a driver module under " + twain.string() + "/<maker>/<model>/"
                             : "take the default tree's, with the virtual scanner: cp -r " +
                                   (skeleton / "windows").string() + " " + root.string() + "/");
    return;
  }
  int32_t result = 0;
  const std::vector<SxDataSource> listed = ListSources(&result);
  int modules = 0;
  for (auto it = fs::recursive_directory_iterator(twain, ec); it != fs::recursive_directory_iterator();
       it.increment(ec)) {
    if (ec) break;
    const std::string name = Lower(it->path().filename().string());
    if (!it->is_regular_file() || name.size() < 4 || name.compare(name.size() - 3, 3, "dll") != 0) continue;
    ++modules;
    ReportModule(twain, it->path(), listed);
  }
  if (modules == 0) Problem("no module (*.dll) in the driver tree", "install a driver module, e.g. the virtual scanner vscan.dll");
  std::printf("  %zu data source(s) offered\n", listed.size());
}

// Loads the ASPI module as the library would and asks it for its adapters.
void ReportAspi(const fs::path& aspi) {
  if (!fs::exists(aspi)) {
    std::printf("ASPI         %s: absent (SCSI scanners are not looked for)\n", aspi.c_str());
    return;
  }
  void* module = dlopen(aspi.c_str(), RTLD_NOW | RTLD_LOCAL);
  using SupportInfo = uint32_t (*)();
  const auto info = module ? reinterpret_cast<SupportInfo>(dlsym(module, "GetASPI32SupportInfo")) : nullptr;
  const bool send = module && dlsym(module, "SendASPI32Command") != nullptr;
  if (info && send) {
    std::printf("ASPI         %s: %u host adapter(s)\n", aspi.c_str(), info() & 0xFFu);
  } else {
    std::printf("ASPI         %s: present\n", aspi.c_str());
    if (module)
      Problem("it lacks GetASPI32SupportInfo or SendASPI32Command, so SCSI scanners are not looked for",
              "replace it with the Linux ASPI module of the build (modules/aspisg/wnaspi32.dll)");
    else if (!ReportModuleFileFault(aspi))
      Problem(std::string("it cannot be loaded: ") + dlerror(), "replace it with the Linux ASPI module of the build");
  }
  if (module) dlclose(module);
}

// The colour-management module as the library finds it: the system folder
// first, then the library's own folder.
fs::path ColourModulePath(const fs::path& root) {
  const fs::path system = root / "windows/system32" / kColourModule;
  if (fs::exists(system)) return system;
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&SxLoad), &info) && info.dli_fname)
    return fs::path(info.dli_fname).parent_path() / kColourModule;
  return system;
}

// Present, whole, loadable and with every entry point the library looks up.
void ReportColourModule(const fs::path& cmms, bool wanted) {
  if (!fs::exists(cmms)) {
    std::printf("colour       %s: absent (colour matching is not offered)\n", cmms.c_str());
    if (wanted)
      Problem("a cmatch.ini names a profile, but the colour module is missing",
              "install the colour module of the build (modules/cmms/sxcmms.dll) as " + cmms.string());
    return;
  }
  std::printf("colour       %s\n", cmms.c_str());
  if (ReportModuleFileFault(cmms)) return;
  void* module = dlopen(cmms.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!module) {
    Problem(std::string("it cannot be loaded: ") + dlerror(), "replace it with the colour module of the build");
    return;
  }
  std::string missing;
  for (const char* name : kColourEntryPoints) {
    if (!dlsym(module, name)) missing += (missing.empty() ? "" : ", ") + std::string(name);
  }
  dlclose(module);
  if (missing.empty())
    std::printf("  loads, with its %zu entry points\n", std::size(kColourEntryPoints));
  else
    Problem("it lacks " + missing + ", so colour matching is not offered",
            "replace it with the colour module of the build (modules/cmms/sxcmms.dll)");
}

// Why a file is not an ICC profile; empty when its header is one's.
std::string ProfileFault(const fs::path& file) {
  std::error_code ec;
  const uint64_t size = fs::file_size(file, ec);
  if (ec) return "it cannot be read";
  unsigned char header[kIccHeaderBytes] = {};
  std::ifstream in(file, std::ios::binary);
  if (size < kIccHeaderBytes || !ReadAt(in, 0, header, sizeof header))
    return "only " + Bytes(size) + ", shorter than a profile's header";
  if (std::memcmp(header + kIccSignatureOffset, "acsp", 4) != 0)
    return "no profile signature ('acsp') in its header";
  const uint64_t stated = uint64_t{header[0]} << 24 | header[1] << 16 | header[2] << 8 | header[3];
  if (stated > size) return "truncated: " + Bytes(size) + " of the " + Bytes(stated) + " its header states";
  return {};
}

// The model-to-profile lines of a cmatch.ini ("[Model]", "MODEL=file.icc").
std::vector<std::pair<std::string, std::string>> ProfileNames(const fs::path& ini) {
  std::vector<std::pair<std::string, std::string>> names;
  std::ifstream in(ini);
  bool inModels = false;
  for (std::string line; std::getline(in, line);) {
    line = Trim(line);
    if (!line.empty() && line[0] == '[') {
      inModels = Lower(line) == "[model]";
      continue;
    }
    const size_t eq = line.find('=');
    if (inModels && eq != std::string::npos) names.emplace_back(Trim(line.substr(0, eq)), Trim(line.substr(eq + 1)));
  }
  return names;
}

// Each offered source's cmatch.ini: the profile it names for each model,
// present in the colour folder and a profile indeed. True when any names one.
bool ReportProfiles(const fs::path& root, const fs::path& color) {
  int32_t result = 0;
  bool named = false;
  for (const SxDataSource& s : ListSources(&result)) {
    const fs::path ini = ModulePath(s).parent_path() / "cmatch.ini";
    if (!fs::exists(ini)) continue;
    const std::string shown = fs::relative(ini, root / "windows/twain_32").string();
    for (const auto& [model, name] : ProfileNames(ini)) {
      named = true;
      const fs::path profile = color / name;
      if (!fs::is_regular_file(profile)) {
        std::printf("  %s: %s uses %s: missing\n", shown.c_str(), model.c_str(), name.c_str());
        Problem("the profile " + name + " is not in " + color.string() + ", so colour matching fails for " + model,
                "copy the scanner's profile to " + profile.string() + ", or correct its name in " + ini.string());
        continue;
      }
      const std::string fault = ProfileFault(profile);
      std::printf("  %s: %s uses %s: %s\n", shown.c_str(), model.c_str(), name.c_str(),
                  fault.empty() ? "a valid ICC profile" : "not an ICC profile");
      if (!fault.empty())
        Problem(profile.string() + " is not a valid ICC profile: " + fault,
                "replace it with the scanner's ICC profile");
    }
  }
  return named;
}

void ReportSystemModules(const fs::path& root) {
  ReportAspi(root / "windows/system32/wnaspi32.dll");
  const fs::path color = root / "windows/system32/SPOOL/DRIVERS/COLOR";
  // The profiles first, so that a missing module is a problem only when
  // colour matching was meant.
  std::printf("profiles     %s\n", color.c_str());
  const bool wanted = ReportProfiles(root, color);
  if (!wanted)
    std::printf("  no cmatch.ini beside an offered driver names a profile: colour matching is not offered\n");
  ReportColourModule(ColourModulePath(root), wanted);
}

}  // namespace

bool RegistryStoreProblem(std::string* message) {
  std::string why;
  const fs::path path = Root(why) / "user.reg";
  std::error_code ec;
  if (!fs::exists(path, ec)) {
    const WriteBlock block = StoreWriteBlock(Root(why));
    if (!block.cause.empty())
      *message = "the registry store " + path.string() + " cannot be made: " + block.cause + "; fix: " + block.fix;
    return !block.cause.empty();
  }
  if (!std::ifstream(path)) {
    *message = "the registry store " + path.string() + " cannot be read; give the user read and write "
               "access (chmod u+rw " + path.string() + ")";
    return true;
  }
  const Store store = ReadStore(path);
  if (store.Damaged > 0) {
    *message = path.string() + ":" + std::to_string(store.FirstDamagedLine) + ": the registry store has " +
               std::to_string(store.Damaged) + " line(s) the library does not understand, the first: " +
               Printable(store.FirstDamagedText) + "; correct or delete it ('sxscan doctor' checks the store)";
    return true;
  }
  if (const WriteBlock block = StoreWriteBlock(Root(why)); !block.cause.empty()) {
    *message = "the registry store " + path.string() + " cannot be written: " + block.cause + "; fix: " + block.fix;
    return true;
  }
  return false;
}

bool UnwritableStoreChoice(std::string* name) {
  std::string why;
  const fs::path root = Root(why);
  std::error_code ec;
  if (!fs::exists(root / "user.reg", ec) || StoreWriteBlock(root).cause.empty()) return false;
  const Store store = ReadStore(root / "user.reg");
  const auto it = store.Values.find(std::string(kRegistryKeyOptions) + "|sourcename");
  *name = it == store.Values.end() ? std::string() : TextValue(it->second);
  return !name->empty();
}

int RunDoctor() {
  LibrarySession session;
  gProblems = 0;
  std::string why;
  const fs::path root = Root(why);
  ReportRoot(root, why);
  ReportStore(root);
  ReportDrivers(root);
  ReportSystemModules(root);
  std::printf(gProblems == 0 ? "no problem found\n" : "%d problem(s) found\n", gProblems);
  return gProblems == 0 ? kExitOk : kExitFailed;
}

}  // namespace sx::host
