#include <gtest/gtest.h>

#include <cstring>

#include "platform/Module.h"
#include "support/TestEnv.h"

namespace sx::plat {
namespace {

using sxtest::TempRoot;

// A minimal ELF image: header, the payload section, the section-name table
// and the section headers (null, .sxversion, .shstrtab) at the end.
struct ElfImage {
  std::string Bytes;
  size_t ShOffAt, ShNumAt, ShEntSizeAt, ShStrNdxAt, TableAt, HeaderSize;
  size_t SectionHeaderAt(int i) const { return TableAt + i * HeaderSize; }
};

void Put(std::string& b, size_t at, uint64_t v, size_t width) {
  for (size_t i = 0; i < width; ++i) b[at + i] = static_cast<char>((v >> (8 * i)) & 0xFF);
}

ElfImage MakeElf(bool is64, const std::string& payload, const char* name = ".sxversion") {
  ElfImage e;
  const size_t ehSize = is64 ? 64 : 52, w = is64 ? 8 : 4;
  e.HeaderSize = is64 ? 64 : 40;
  e.ShOffAt = is64 ? 40 : 32;
  e.ShEntSizeAt = is64 ? 58 : 46;
  e.ShNumAt = e.ShEntSizeAt + 2;
  e.ShStrNdxAt = e.ShEntSizeAt + 4;
  const std::string names = std::string("\0", 1) + name + '\0' + ".shstrtab" + '\0';
  const size_t payloadAt = ehSize, namesAt = payloadAt + payload.size();
  e.TableAt = namesAt + names.size();
  e.Bytes.assign(e.TableAt + 3 * e.HeaderSize, '\0');
  std::memcpy(e.Bytes.data(), "\x7F" "ELF", 4);
  e.Bytes[4] = is64 ? 2 : 1;
  e.Bytes[5] = 1;
  Put(e.Bytes, e.ShOffAt, e.TableAt, w);
  Put(e.Bytes, e.ShEntSizeAt, e.HeaderSize, 2);
  Put(e.Bytes, e.ShNumAt, 3, 2);
  Put(e.Bytes, e.ShStrNdxAt, 2, 2);
  e.Bytes.replace(payloadAt, payload.size(), payload);
  e.Bytes.replace(namesAt, names.size(), names);
  const size_t offAt = is64 ? 24 : 16, sizeAt = is64 ? 32 : 20;
  auto section = [&](int i, uint32_t nameOff, uint32_t type, uint64_t off, uint64_t size) {
    size_t h = e.SectionHeaderAt(i);
    Put(e.Bytes, h, nameOff, 4);
    Put(e.Bytes, h + 4, type, 4);
    Put(e.Bytes, h + offAt, off, w);
    Put(e.Bytes, h + sizeAt, size, w);
  };
  section(1, 1, 1, payloadAt, payload.size());
  section(2, static_cast<uint32_t>(std::strlen(name) + 2), 3, namesAt, names.size());
  return e;
}

const std::string kRecord =
    "\\VarFileInfo\\Translation=hex:09 04 b0 04\r\n"
    "\\StringFileInfo\\040904B0\\CompanyName=Corvane Inc.\n"
    "no equals sign\n"
    "\\Bad=hex:0g\n"
    "\\Odd=hex:123\n"
    "\\Commas=hex:01,02, 03\n"
    "\\Empty=";

TEST(VersionRecord, BlockDeliversTextWithNulAndHexAsBytes) {
  std::string block = BuildVersionBlock(kRecord.data(), kRecord.size());
  ASSERT_FALSE(block.empty());
  const void* v = nullptr;
  uint32_t len = 0;
  ASSERT_TRUE(VersionQueryValue(block.data(), "\\varfileinfo\\TRANSLATION", &v, &len));
  EXPECT_EQ(std::string(static_cast<const char*>(v), len), "\x09\x04\xb0\x04");
  ASSERT_TRUE(VersionQueryValue(block.data(), "\\StringFileInfo\\040904b0\\CompanyName", &v, &len));
  EXPECT_EQ(len, 13u);
  EXPECT_STREQ(static_cast<const char*>(v), "Corvane Inc.");
  ASSERT_TRUE(VersionQueryValue(block.data(), "\\Commas", &v, &len));
  EXPECT_EQ(std::string(static_cast<const char*>(v), len), "\x01\x02\x03");
  ASSERT_TRUE(VersionQueryValue(block.data(), "\\Empty", &v, &len));
  EXPECT_EQ(len, 1u);
  for (const char* missing : {"\\Bad", "\\Odd", "no equals sign", "\\StringFileInfo"})
    EXPECT_FALSE(VersionQueryValue(block.data(), missing, &v, &len)) << missing;
  EXPECT_TRUE(BuildVersionBlock("nothing usable\n", 15).empty());
}

TEST(VersionRecord, ExtractsTheSectionFromBothElfClasses) {
  for (bool is64 : {false, true}) {
    std::string section;
    EXPECT_TRUE(ExtractVersionSection(MakeElf(is64, kRecord).Bytes.data(),
                                      MakeElf(is64, kRecord).Bytes.size(), section));
    EXPECT_EQ(section, kRecord);
    ElfImage other = MakeElf(is64, kRecord, ".sxversio");  // a name that is only a prefix
    EXPECT_FALSE(ExtractVersionSection(other.Bytes.data(), other.Bytes.size(), section));
  }
}

TEST(VersionRecord, TruncatedOrCorruptImagesHaveNoRecord) {
  for (bool is64 : {false, true}) {
    const ElfImage good = MakeElf(is64, kRecord);
    std::string section;
    for (size_t cut = 0; cut < good.Bytes.size(); ++cut)
      EXPECT_FALSE(ExtractVersionSection(good.Bytes.data(), cut, section)) << cut;

    const size_t w = is64 ? 8 : 4, offAt = is64 ? 24 : 16, sizeAt = is64 ? 32 : 20;
    const size_t payload = good.SectionHeaderAt(1), names = good.SectionHeaderAt(2);
    const uint64_t huge = is64 ? ~0ull - 8 : 0xFFFFFFF0u;
    const struct {
      size_t At, Width;
      uint64_t Value;
    } corruptions[] = {
        {good.ShOffAt, w, huge},
        {good.ShOffAt, w, 0},
        {good.ShNumAt, 2, 0xFFFF},
        {good.ShNumAt, 2, 0},  // extended count from a null first header
        {good.ShEntSizeAt, 2, 0},
        {good.ShEntSizeAt, 2, 8},
        {good.ShStrNdxAt, 2, 7},
        {good.ShStrNdxAt, 2, 0xFFFF},
        {payload + offAt, w, huge},
        {payload + sizeAt, w, huge},
        {payload + sizeAt, w, (1u << 20) + 1},
        {payload + 4, 4, 8},  // no bytes in the file
        {payload, 4, 0xFFFFFFFF},
        {names + offAt, w, huge},
        {names + sizeAt, w, huge},
        {5, 1, 2},  // big-endian
    };
    for (const auto& c : corruptions) {
      std::string bad = good.Bytes;
      Put(bad, c.At, c.Value, c.Width);
      EXPECT_FALSE(ExtractVersionSection(bad.data(), bad.size(), section)) << c.At;
    }
  }
}

TEST(VersionRecord, ReadsTheRecordOfABuiltModuleWithoutLoadingIt) {
  TempRoot root;
  const auto withRecord = root.InstallVscan("a");
  const auto without = root.InstallVscan("b", "", "");
  const uint32_t size = FileVersionInfoSize(withRecord.string());
  ASSERT_GT(size, 0u);
  std::vector<char> block(size);
  EXPECT_FALSE(FileVersionInfo(withRecord.string(), size - 1, block.data()));
  ASSERT_TRUE(FileVersionInfo(withRecord.string(), size, block.data()));
  const void* v = nullptr;
  uint32_t len = 0;
  ASSERT_TRUE(VersionQueryValue(block.data(), "\\StringFileInfo\\040904B0\\FileVersion", &v, &len));
  EXPECT_STREQ(static_cast<const char*>(v), "1, 0, 1, 0");
  EXPECT_EQ(FileVersionInfoSize(without.string()), 0u);
  EXPECT_EQ(FileVersionInfoSize((root.Path() / "nothing.dll").string()), 0u);
  EXPECT_EQ(FileVersionInfoSize(root.Path().string()), 0u);  // a folder

  // Every prefix of the real module: no fault, and a record only when whole.
  const std::string image = sxtest::ReadFile(withRecord);
  std::string section, full;
  ASSERT_TRUE(ExtractVersionSection(image.data(), image.size(), full));
  for (size_t cut = 0; cut < image.size(); cut += 61) {
    if (ExtractVersionSection(image.data(), cut, section)) {
      EXPECT_EQ(section, full) << cut;
    }
  }
  const auto truncated = root.Path() / "truncated.dll";
  sxtest::WriteFile(truncated, image.substr(0, image.size() / 2));
  EXPECT_EQ(FileVersionInfoSize(truncated.string()), 0u);
}

TEST(Modules, BareNamesAreLookedForInTheSystemFolder) {
  TempRoot root;
  EXPECT_EQ(LoadModule("nosuch.dll"), nullptr);
  std::filesystem::copy_file(SX_TEST_VSCAN, root.Path() / "windows" / "system32" / "copy.dll");
  ModuleHandle m = LoadModule("copy.dll");
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(ModuleSymbol(m, "NoSuchEntryPoint"), nullptr);
  FreeModule(m);
  const auto notElf = root.Path() / "windows" / "system32" / "text.dll";
  sxtest::WriteFile(notElf, "not a module");
  EXPECT_EQ(LoadModule(notElf.string()), nullptr);
}

}  // namespace
}  // namespace sx::plat
