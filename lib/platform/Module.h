// Modules (ELF shared objects keeping their Windows names) and their version
// records (the .sxversion section, read without loading the file).
#pragma once
#include <cstdint>
#include <string>

namespace sx::plat {

using ModuleHandle = void*;

// Loads a module with dlopen(RTLD_NOW | RTLD_LOCAL). A name without '/' is a
// bare module name, looked for in <root>/windows/system32/, then in the folder
// that holds libsxscan.so. Null when it cannot be loaded.
ModuleHandle LoadModule(const std::string& pathOrName);
void* ModuleSymbol(ModuleHandle module, const char* name);
void FreeModule(ModuleHandle module);

// Size of the version block of a file (0: the file has no version record:
// not ELF, malformed, or without a .sxversion section).
uint32_t FileVersionInfoSize(const std::string& path);
// Fills `block` (of `size` bytes, as FileVersionInfoSize gave) with the
// version block. False when the file has no record or `size` is too small.
bool FileVersionInfo(const std::string& path, uint32_t size, void* block);
// Looks `query` up in a version block (paths match without regard to case).
// A text value is delivered with its terminating NUL and *length counts the
// characters including the NUL; a hex value delivers its bytes. False when
// the entry is missing.
bool VersionQueryValue(const void* block, const char* query, const void** value,
                       uint32_t* length);

}  // namespace sx::plat
