#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "platform/Registry.h"
#include "platform/text/RegistryText.h"
#include "support/TestEnv.h"

namespace sx::plat {
namespace {

using sxtest::TempRoot;

std::string Bytes(std::initializer_list<int> b) { return std::string(b.begin(), b.end()); }

// Forms found in hand-edited stores: loose spacing, continued lines, bare backslashes.
TEST(RegistryText, ParsesHandWrittenForms) {
  const std::tuple<const char*, uint32_t, std::string> cases[] = {
      {R"("A"=dword:FFFFFFFF)", kRegDword, Bytes({0xFF, 0xFF, 0xFF, 0xFF})},
      {R"("A"="C:\temp")", kRegSz, std::string("C:\\temp\0", 8)},
      {R"("A"=hex(b):01)", 11, Bytes({1})},
      {R"("A"=hex:)", kRegBinary, ""},
      {"  \"a\" = dword:1 \r", kRegDword, Bytes({1, 0, 0, 0})},
      {"\"A\"=hex:01,\\\n  02,03", kRegBinary, Bytes({1, 2, 3})},
  };
  for (const auto& [line, type, data] : cases) {
    RegDocument doc = ParseRegistryText(std::string("[Software\\Q]\n") + line + "\n");
    const RegValue* v = FindRegistryValue(doc, "software\\q", "a");
    EXPECT_TRUE(v && v->Type == type && v->Data == data) << line;
  }
}

TEST(RegistryText, SkipsMalformedLinesAndKeepsThemVerbatim) {
  const std::string text =
      "\"Orphan\"=dword:00000001\n"  // before any key: belongs to none
      "[Software\\Q]\n; comment\n# other comment\n\"Bad1\"=dword:123456789\n\"Bad2\"=hex:zz\n"
      "\"Bad3\"=\"unterminated\n\"Bad4\"=\"x\" trailing\n\"Bad5\"=-\ngarbage without form\n"
      "[unclosed\n\"Good\"=dword:00000007\n";
  RegDocument doc = ParseRegistryText(text);
  EXPECT_EQ(WriteRegistryText(doc), text);
  for (const char* bad : {"Orphan", "Bad1", "Bad2", "Bad3", "Bad4", "Bad5"})
    EXPECT_EQ(FindRegistryValue(doc, "Software\\Q", bad), nullptr) << bad;
  EXPECT_NE(FindRegistryValue(doc, "SOFTWARE\\q\\", "good"), nullptr);
  RegDocument rooted = ParseRegistryText("[HKEY_CURRENT_USER\\Software\\Q]\n\"G\"=dword:1");
  EXPECT_NE(FindRegistryValue(rooted, "Software\\Q", "g"), nullptr);
}

TEST(RegistryText, EveryTypeAndByteSequenceRoundTrips) {
  const std::pair<uint32_t, std::string> values[] = {
      // Short dwords, texts without, with two or with inner terminators, and
      // texts that would break the line all keep their exact bytes.
      {kRegDword, Bytes({1, 2, 3, 4})},        {kRegDword, Bytes({1, 2})},
      {kRegSz, std::string("a \"q\" \\ b\0", 11)}, {kRegExpandSz, "Ok"},
      {kRegSz, std::string("two\0\0", 5)},      {kRegSz, std::string("in\0side\0", 8)},
      {kRegSz, std::string("line\nbreak\0", 11)}, {kRegSz, ""},
      {kRegBinary, Bytes({0, 0xFF, '"', '\\', '\n'})}, {7, Bytes({'a', 0, 'b', 0, 0})},
      {0xFFFFFFFF, Bytes({9})},
  };
  RegDocument doc;
  for (size_t i = 0; i < std::size(values); ++i)
    SetRegistryValue(doc, "Software\\Q", "V" + std::to_string(i), values[i].first, values[i].second);
  RegDocument back = ParseRegistryText(WriteRegistryText(doc));
  for (size_t i = 0; i < std::size(values); ++i) {
    const RegValue* v = FindRegistryValue(back, "Software\\Q", "v" + std::to_string(i));
    EXPECT_TRUE(v && v->Type == values[i].first && v->Data == values[i].second) << i;
  }
  EXPECT_EQ(FormatRegistryValue("S", kRegExpandSz, std::string("/x\0", 3)), R"("S"=str(2):"/x")");
}

// --- the registry (Linux: the store on disk; Windows: the system's) ----

uint32_t QueryDword(const char* key, const std::string& name) {
  uint32_t v = 0, type = 0, size = 4;
  return RegistryQuery(key, name.c_str(), &type, &v, &size) == kRegOk ? v : 0xDEAD;
}

constexpr char kKey[] = "Software\\Quillmark", kSubKey[] = "Software\\Quillmark\\K";

TEST(RegistryStore, QueryCodesFollowTheSystemRegistry) {
  TempRoot root;
  uint32_t type = 0, size = 0;
  char buf[32] = "x";
  EXPECT_EQ(RegistryQuery(kSubKey, "V", &type, buf, &size), kRegErrorNotFound);  // no store at all
  root.WriteRegistry("[Software\\Quillmark]\n\"SAVEPATH\"=str(2):\"/tmp/sxlogs/\"\n");
  EXPECT_EQ(RegistryQuery(kKey, "savepath", &type, nullptr, &size), kRegOk);
  EXPECT_TRUE(type == kRegExpandSz && size == 13u);
  size = 12;
  EXPECT_EQ(RegistryQuery(kKey, "SAVEPATH", &type, buf, &size), kRegErrorMoreData);
  EXPECT_TRUE(size == 13u && buf[0] == 'x') << "the size needed, and nothing copied";
  size = sizeof buf;
  EXPECT_EQ(RegistryQuery(kKey, "SAVEPATH", &type, buf, &size), kRegOk);
  EXPECT_EQ(std::string(buf, size), std::string("/tmp/sxlogs/\0", 13));
  EXPECT_EQ(RegistryQuery("Software\\Quillmark\\Other", "SAVEPATH", &type, buf, &size), kRegErrorNotFound);

  // Same size as before, so only the file's stamp tells the versions apart.
  root.WriteRegistry("[Software\\Quillmark\\K]\n\"V\"=dword:00000001\n");
  EXPECT_EQ(QueryDword(kSubKey, "V"), 1u);
  root.WriteRegistry("[Software\\Quillmark\\K]\n\"V\"=dword:00000002\n");
  EXPECT_EQ(QueryDword(kSubKey, "V"), 2u);
}

// A value of another type than the reader expects (a hand-edited or foreign
// entry) is delivered as its bytes, or refused for its size: never more.
TEST(RegistryStore, ValuesOfAnotherTypeGiveTheirBytesOrTheirSize) {
  TempRoot root;
  root.WriteRegistry("[Software\\Quillmark]\n\"DEBUGLEVEL\"=\"7\"\n\"Big\"=hex(b):01,00,00,00,00,00,00,00\n"
                     "\"Empty\"=hex:\n");
  uint32_t number = 0xFFFFFFFF, type = 0, size = 4;
  ASSERT_EQ(RegistryQuery(kKey, "DEBUGLEVEL", &type, &number, &size), kRegOk);
  EXPECT_TRUE(type == kRegSz && size == 2u && number == 0xFFFF0037u) << std::hex << number;
  size = 4;
  EXPECT_EQ(RegistryQuery(kKey, "Big", &type, &number, &size), kRegErrorMoreData);
  EXPECT_TRUE(type == 11u && size == 8u);
  size = 4;
  ASSERT_EQ(RegistryQuery(kKey, "Empty", &type, &number, &size), kRegOk);
  EXPECT_TRUE(type == kRegBinary && size == 0u);
}

TEST(RegistryStore, ConcurrentWritersLoseNoValue) {
  TempRoot root;
  std::vector<std::thread> writers;
  for (uint32_t t = 0; t < 20; t += 5)
    writers.emplace_back([t] {
      for (uint32_t i = t; i < t + 5; ++i) RegistrySet(kSubKey, "T" + std::to_string(i), kRegDword, &i, 4);
    });
  for (auto& w : writers) w.join();
  for (uint32_t i = 0; i < 20; ++i) EXPECT_EQ(QueryDword(kSubKey, "T" + std::to_string(i)), i);
}

}  // namespace
}  // namespace sx::plat
