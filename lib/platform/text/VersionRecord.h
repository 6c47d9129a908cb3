// Version records on systems without version resources: the .sxversion
// section of an ELF file, found without loading the file, and the version
// block built from the section's text ("<query path>=<value>" lines) that
// the maker check and the file-version reader query. Pure functions of the
// bytes, so the doctor reads a module's record exactly as the library does.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

namespace sx::plat {

// The largest version record accepted; a bigger section is treated as
// hostile and gives no record.
inline constexpr uint64_t kMaxVersionSectionBytes = 1u << 20;

// Bytes of an ELF image, read on demand (from memory or from a file), so a
// large module is never read whole.
struct ByteSource {
  uint64_t Size = 0;
  // Copies `count` bytes at `offset`; false when they cannot be had.
  bool (*Read)(void* context, uint64_t offset, void* dst, size_t count) = nullptr;
  void* Context = nullptr;
};

// The content of the first .sxversion section. False when the image is not a
// little-endian ELF32/ELF64 file, is malformed, or lacks the section.
bool ExtractVersionSectionFrom(const ByteSource& source, std::string& section);
// The same for an image held in memory.
bool ExtractVersionSection(const void* image, size_t size, std::string& section);

// Whether every loadable segment of an ELF image lies within the file. The
// system's loader maps a segment whole and faults on pages past the end of a
// truncated file, so a module cut short must be refused before it is loaded.
// True for an image that is not ELF (the loader refuses it by itself).
bool ElfSegmentsInFile(const ByteSource& source);

// Parses the text of a .sxversion section into a version block. Returns the
// block's bytes; empty for unusable input.
std::string BuildVersionBlock(const char* text, size_t size);
// Looks `query` up in a version block (paths match without regard to case
// and to a leading '\'). A text value is delivered with its terminating NUL
// and *length counts the characters including the NUL; a hex value delivers
// its bytes. False when the entry is missing or the block is damaged.
bool QueryVersionBlock(const void* block, const char* query, const void** value, uint32_t* length);

}  // namespace sx::plat
