// Modules as the doctor finds them on POSIX systems: ELF shared objects,
// checked from their own bytes before they are loaded, opened with dlopen,
// and their version records read by the library's own parser (sxtext).
#include <dlfcn.h>
#include <elf.h>
#include <stdlib.h>  // setenv, unsetenv

#include <algorithm>
#include <cstring>
#include <fstream>
#include <random>

#include "kit/Session.h"
#include "platform/text/VersionRecord.h"
#include "sxscan/DoctorReport.h"

namespace sx::host::doctor {

namespace {

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

}  // namespace

// A truncated copy or a file of another kind is named as such, not as a
// module without a version record or a scanner that does not answer.
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

std::string VersionBlockOf(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::error_code ec;
  plat::ByteSource source;
  source.Size = fs::file_size(file, ec);
  if (!in || ec) return {};
  source.Context = &in;
  source.Read = [](void* context, uint64_t offset, void* dst, size_t count) {
    return ReadAt(*static_cast<std::ifstream*>(context), offset, dst, count);
  };
  std::string record;
  if (!plat::ExtractVersionSectionFrom(source, record)) return {};
  return plat::BuildVersionBlock(record.data(), record.size());
}

bool QueryVersion(const std::string& block, const char* query, const void** value, uint32_t* length) {
  return !block.empty() && plat::QueryVersionBlock(block.data(), query, value, length);
}

void* OpenModule(const fs::path& file, std::string& error) {
  void* module = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!module) error = dlerror();
  return module;
}

void* ModuleEntry(void* module, const char* name) { return dlsym(module, name); }

void CloseModule(void* module) { dlclose(module); }

fs::path LibraryFolder() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&SxLoad), &info) && info.dli_fname) return fs::path(info.dli_fname).parent_path();
  return {};
}

// The scratch tree holds `file` at the same place under twain_32, with the
// other files of its folder (its behaviour and profile files), so the
// user's tree is left as it is.
Alone DiscoverAlone(const fs::path& twain, const fs::path& file, SxDataSource* alone) {
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
  if (listed.size() != 1) return Alone::Refused;
  *alone = listed[0];
  return Alone::Offered;
}

}  // namespace sx::host::doctor
