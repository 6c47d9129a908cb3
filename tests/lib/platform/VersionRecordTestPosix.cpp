// The version block and the ELF section: the POSIX systems' own forms of a
// version record (Windows reads VS_VERSIONINFO resources).
#include <gtest/gtest.h>

#include <cstring>

#include "platform/Module.h"
#include "platform/text/VersionRecord.h"

namespace sx::plat {
namespace {

void Put(std::string& b, size_t at, uint64_t v, size_t width) {
  for (size_t i = 0; i < width; ++i) b[at + i] = static_cast<char>((v >> (8 * i)) & 0xFF);
}

// A minimal ELF image: header, the payload section, the section-name table
// and the section headers (null, .sxversion, .shstrtab) at the end.
struct ElfImage {
  bool Is64;
  std::string Bytes;
  size_t TableAt;
  size_t Word() const { return Is64 ? 8 : 4; }
  size_t ShOffAt() const { return Is64 ? 40 : 32; }
  size_t ShEntSizeAt() const { return Is64 ? 58 : 46; }  // then ShNum, ShStrNdx
  size_t SectionHeaderAt(int i) const { return TableAt + i * (Is64 ? 64 : 40); }
  size_t OffsetField() const { return Is64 ? 24 : 16; }  // within a section header
  size_t SizeField() const { return Is64 ? 32 : 20; }
};

ElfImage MakeElf(bool is64, const std::string& payload, const char* name = ".sxversion") {
  const std::string names = std::string("\0", 1) + name + '\0' + ".shstrtab" + '\0';
  const size_t payloadAt = is64 ? 64 : 52, namesAt = payloadAt + payload.size();
  ElfImage e{is64, {}, namesAt + names.size()};
  e.Bytes.assign(e.SectionHeaderAt(3), '\0');
  std::memcpy(e.Bytes.data(), "\x7F" "ELF", 4);
  e.Bytes[4] = is64 ? 2 : 1;
  e.Bytes[5] = 1;
  Put(e.Bytes, e.ShOffAt(), e.TableAt, e.Word());
  // Section header size, 3 sections, names in section 2.
  Put(e.Bytes, e.ShEntSizeAt(), (e.SectionHeaderAt(1) - e.TableAt) | 3u << 16 | uint64_t{2} << 32, 6);
  e.Bytes.replace(payloadAt, payload.size(), payload);
  e.Bytes.replace(namesAt, names.size(), names);
  auto section = [&](int i, uint32_t nameOff, uint32_t type, uint64_t off, uint64_t size) {
    const size_t h = e.SectionHeaderAt(i);
    Put(e.Bytes, h, nameOff, 4);
    Put(e.Bytes, h + 4, type, 4);
    Put(e.Bytes, h + e.OffsetField(), off, e.Word());
    Put(e.Bytes, h + e.SizeField(), size, e.Word());
  };
  section(1, 1, 1, payloadAt, payload.size());
  section(2, static_cast<uint32_t>(std::strlen(name) + 2), 3, namesAt, names.size());
  return e;
}

const std::string kRecord =
    "\\VarFileInfo\\Translation=hex:09 04 b0 04\r\n"
    "\\StringFileInfo\\040904B0\\CompanyName=Corvane Inc.\n"
    "no equals sign\n\\Bad=hex:0g\n\\Odd=hex:123\n\\Commas=hex:01,02, 03\n\\Empty=";

TEST(VersionRecord, BlockDeliversTextWithNulAndHexAsBytes) {
  std::string block = BuildVersionBlock(kRecord.data(), kRecord.size());
  const void* v = nullptr;
  uint32_t len = 0;
  const auto query = [&](const char* path) {
    if (!VersionQueryValue(block.data(), path, &v, &len)) return std::string("?");
    return std::string(static_cast<const char*>(v), len);
  };
  EXPECT_EQ(query("\\varfileinfo\\TRANSLATION"), "\x09\x04\xb0\x04");
  EXPECT_EQ(query("\\StringFileInfo\\040904b0\\CompanyName"), std::string("Corvane Inc.\0", 13));
  EXPECT_EQ(query("\\Commas"), "\x01\x02\x03");
  EXPECT_EQ(query("\\Empty"), std::string(1, '\0'));
  for (const char* missing : {"\\Bad", "\\Odd", "no equals sign", "\\StringFileInfo"})
    EXPECT_EQ(query(missing), "?") << missing;
  EXPECT_TRUE(BuildVersionBlock("nothing usable\n", 15).empty());
}

TEST(VersionRecord, SectionOfBothElfClassesAndNothingFromTruncatedOrHostileImages) {
  for (bool is64 : {false, true}) {
    SCOPED_TRACE(is64);
    const ElfImage good = MakeElf(is64, kRecord);
    std::string section;
    EXPECT_TRUE(ExtractVersionSection(good.Bytes.data(), good.Bytes.size(), section));
    EXPECT_EQ(section, kRecord);
    const ElfImage other = MakeElf(is64, kRecord, ".sxversio");  // a name that is only a prefix
    EXPECT_FALSE(ExtractVersionSection(other.Bytes.data(), other.Bytes.size(), section));
    for (size_t cut = 0; cut < good.Bytes.size(); ++cut)
      EXPECT_FALSE(ExtractVersionSection(good.Bytes.data(), cut, section)) << cut;

    const size_t w = good.Word(), payload = good.SectionHeaderAt(1), names = good.SectionHeaderAt(2);
    const uint64_t huge = is64 ? ~0ull - 8 : 0xFFFFFFF0u;
    // {offset, width, value}
    // Count 0xFFFF (extended form) or 0, type 8 (no bytes in the file), byte 5 = 2 (big-endian).
    const size_t sh = good.ShEntSizeAt();
    const std::tuple<size_t, size_t, uint64_t> corruptions[] = {
        {good.ShOffAt(), w, huge}, {good.ShOffAt(), w, 0}, {sh + 2, 2, 0xFFFF}, {sh + 2, 2, 0}, {sh, 2, 0},
        {sh, 2, 8}, {sh + 4, 2, 7}, {sh + 4, 2, 0xFFFF}, {payload + good.OffsetField(), w, huge},
        {payload + good.SizeField(), w, huge}, {payload + good.SizeField(), w, (1u << 20) + 1},
        {payload + 4, 4, 8}, {payload, 4, 0xFFFFFFFF}, {names + good.OffsetField(), w, huge},
        {names + good.SizeField(), w, huge}, {5, 1, 2},
    };
    for (const auto& [at, width, value] : corruptions) {
      std::string bad = good.Bytes;
      Put(bad, at, value, width);
      EXPECT_FALSE(ExtractVersionSection(bad.data(), bad.size(), section)) << at;
    }
  }
}

}  // namespace
}  // namespace sx::plat
