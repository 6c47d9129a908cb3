// Every offset and size taken from the file is checked against the file's
// size before it is used, so a truncated or hostile module gives no record
// rather than a fault or a huge allocation.
#include "platform/text/VersionRecord.h"

#include <cstring>

namespace sx::plat {

namespace {

constexpr uint8_t kElfClass32 = 1;
constexpr uint8_t kElfClass64 = 2;
constexpr uint8_t kElfLittleEndian = 1;
constexpr uint32_t kSectionNoBits = 8;     // SHT_NOBITS: no bytes in the file
constexpr uint32_t kExtendedIndex = 0xFFFF;  // SHN_XINDEX
constexpr uint64_t kMaxSections = 1u << 18;
constexpr char kSectionName[] = ".sxversion";  // compared with its NUL

// Layout of the parts of the ELF headers that are read, per class.
struct ElfLayout {
  size_t HeaderSize;
  size_t ShOffAt, ShOffWidth;
  size_t ShEntSizeAt, ShNumAt, ShStrNdxAt;
  size_t SectionHeaderSize;
  size_t NameAt, TypeAt, OffsetAt, SizeAt, LinkAt, FieldWidth;
};

constexpr ElfLayout kElf32{52, 32, 4, 46, 48, 50, 40, 0, 4, 16, 20, 24, 4};
constexpr ElfLayout kElf64{64, 40, 8, 58, 60, 62, 64, 0, 4, 24, 32, 40, 8};

uint64_t LittleEndian(const unsigned char* p, size_t width) {
  uint64_t v = 0;
  for (size_t i = width; i-- > 0;) v = (v << 8) | p[i];
  return v;
}

struct Section {
  uint32_t Name = 0;
  uint32_t Type = 0;
  uint64_t Offset = 0;
  uint64_t Size = 0;
  uint32_t Link = 0;
};

bool InFile(const ByteSource& src, uint64_t offset, uint64_t size) {
  return offset <= src.Size && size <= src.Size - offset;
}

bool ReadAt(const ByteSource& src, uint64_t offset, void* dst, size_t size) {
  return InFile(src, offset, size) && src.Read(src.Context, offset, dst, size);
}

bool ReadSection(const ByteSource& src, const ElfLayout& l, uint64_t tableOffset,
                 uint64_t entrySize, uint64_t index, Section& out) {
  unsigned char buf[64];
  if (index > (src.Size / entrySize)) return false;  // keeps index * entrySize in range
  if (!ReadAt(src, tableOffset + index * entrySize, buf, l.SectionHeaderSize)) return false;
  out.Name = static_cast<uint32_t>(LittleEndian(buf + l.NameAt, 4));
  out.Type = static_cast<uint32_t>(LittleEndian(buf + l.TypeAt, 4));
  out.Offset = LittleEndian(buf + l.OffsetAt, l.FieldWidth);
  out.Size = LittleEndian(buf + l.SizeAt, l.FieldWidth);
  out.Link = static_cast<uint32_t>(LittleEndian(buf + l.LinkAt, 4));
  return true;
}

bool IsOurName(const ByteSource& src, const Section& names, uint32_t nameOffset) {
  char buf[sizeof kSectionName];
  if (nameOffset > names.Size || names.Size - nameOffset < sizeof buf) return false;
  return ReadAt(src, names.Offset + nameOffset, buf, sizeof buf) &&
         std::memcmp(buf, kSectionName, sizeof buf) == 0;
}

bool MemoryRead(void* context, uint64_t offset, void* dst, size_t count) {
  std::memcpy(dst, static_cast<const unsigned char*>(context) + offset, count);
  return true;
}

}  // namespace

bool ExtractVersionSectionFrom(const ByteSource& src, std::string& section) {
  section.clear();
  unsigned char ident[64];
  if (!src.Read || !ReadAt(src, 0, ident, 16)) return false;
  if (std::memcmp(ident, "\x7F" "ELF", 4) != 0 || ident[5] != kElfLittleEndian) return false;
  if (ident[4] != kElfClass32 && ident[4] != kElfClass64) return false;
  const ElfLayout& l = ident[4] == kElfClass64 ? kElf64 : kElf32;
  if (!ReadAt(src, 0, ident, l.HeaderSize)) return false;

  const uint64_t tableOffset = LittleEndian(ident + l.ShOffAt, l.ShOffWidth);
  const uint64_t entrySize = LittleEndian(ident + l.ShEntSizeAt, 2);
  uint64_t count = LittleEndian(ident + l.ShNumAt, 2);
  uint64_t namesIndex = LittleEndian(ident + l.ShStrNdxAt, 2);
  if (tableOffset == 0 || entrySize < l.SectionHeaderSize) return false;

  // Beyond 0xFF00 sections the real count and the name table's index live in
  // the first section header.
  if (count == 0 || namesIndex == kExtendedIndex) {
    Section first;
    if (!ReadSection(src, l, tableOffset, entrySize, 0, first)) return false;
    if (count == 0) count = first.Size;
    if (namesIndex == kExtendedIndex) namesIndex = first.Link;
  }
  if (count == 0 || count > kMaxSections || namesIndex >= count) return false;
  if (!InFile(src, tableOffset, count * entrySize)) return false;

  Section names;
  if (!ReadSection(src, l, tableOffset, entrySize, namesIndex, names)) return false;
  if (names.Type == kSectionNoBits || !InFile(src, names.Offset, names.Size)) return false;

  for (uint64_t i = 0; i < count; ++i) {
    Section s;
    if (!ReadSection(src, l, tableOffset, entrySize, i, s)) return false;
    if (!IsOurName(src, names, s.Name)) continue;
    if (s.Type == kSectionNoBits || s.Size > kMaxVersionSectionBytes || !InFile(src, s.Offset, s.Size))
      return false;
    try {
      section.resize(static_cast<size_t>(s.Size));
    } catch (...) {
      return false;
    }
    if (s.Size && !src.Read(src.Context, s.Offset, section.data(), section.size())) {
      section.clear();
      return false;
    }
    return true;
  }
  return false;
}

bool ElfSegmentsInFile(const ByteSource& src) {
  constexpr uint32_t kLoadSegment = 1;  // PT_LOAD
  constexpr uint64_t kMaxSegments = 0xFFFF;
  unsigned char header[64];
  if (!src.Read || !ReadAt(src, 0, header, 16)) return true;
  if (std::memcmp(header, "\x7F" "ELF", 4) != 0) return true;
  const bool wide = header[4] == kElfClass64;
  if ((!wide && header[4] != kElfClass32) || header[5] != kElfLittleEndian) return false;
  if (!ReadAt(src, 0, header, wide ? 64 : 52)) return false;
  const uint64_t tableOffset = LittleEndian(header + (wide ? 32 : 28), wide ? 8 : 4);
  const uint64_t entrySize = LittleEndian(header + (wide ? 54 : 42), 2);
  const uint64_t count = LittleEndian(header + (wide ? 56 : 44), 2);
  const size_t offsetAt = wide ? 8 : 4, sizeAt = wide ? 32 : 16, width = wide ? 8 : 4;
  if (count > kMaxSegments || entrySize < sizeAt + width || !InFile(src, tableOffset, count * entrySize))
    return false;
  for (uint64_t i = 0; i < count; ++i) {
    unsigned char entry[64];
    if (!ReadAt(src, tableOffset + i * entrySize, entry, sizeAt + width)) return false;
    if (LittleEndian(entry, 4) != kLoadSegment) continue;
    if (!InFile(src, LittleEndian(entry + offsetAt, width), LittleEndian(entry + sizeAt, width)))
      return false;
  }
  return true;
}

bool ExtractVersionSection(const void* image, size_t size, std::string& section) {
  section.clear();
  if (!image) return false;
  ByteSource src;
  src.Size = size;
  src.Read = &MemoryRead;
  src.Context = const_cast<void*>(image);
  return ExtractVersionSectionFrom(src, section);
}

}  // namespace sx::plat
