#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <thread>

#include "platform/Registry.h"
#include "platform/RegistryText.h"
#include "support/TestEnv.h"

namespace sx::plat {
namespace {

using sxtest::TempRoot;
namespace fs = std::filesystem;

std::string Bytes(std::initializer_list<int> b) {
  std::string s;
  for (int c : b) s.push_back(static_cast<char>(c));
  return s;
}

struct ParseCase {
  const char* Line;
  uint32_t Type;
  std::string Data;
};

TEST(RegistryText, ParsesEveryValueForm) {
  const ParseCase cases[] = {
      {R"("A"=dword:00000258)", kRegDword, Bytes({0x58, 0x02, 0, 0})},
      {R"("A"=dword:FFFFFFFF)", kRegDword, Bytes({0xFF, 0xFF, 0xFF, 0xFF})},
      {R"("A"="plain")", kRegSz, std::string("plain\0", 6)},
      {R"("A"=str(2):"/tmp/x/")", kRegExpandSz, std::string("/tmp/x/\0", 8)},
      {R"("A"="say \"hi\" \\ back")", kRegSz, std::string("say \"hi\" \\ back\0", 16)},
      {R"("A"="C:\temp")", kRegSz, std::string("C:\\temp\0", 8)},
      {R"("A"=hex:00,ff,10)", kRegBinary, Bytes({0, 0xFF, 0x10})},
      {R"("A"=hex(2):4f,6b)", kRegExpandSz, "Ok"},
      {R"("A"=hex(b):01)", 11, Bytes({1})},
      {R"("A"=hex:)", kRegBinary, ""},
      {"  \"a\" = dword:1 \r", kRegDword, Bytes({1, 0, 0, 0})},
      {"\"A\"=hex:01,\\\n  02,03", kRegBinary, Bytes({1, 2, 3})},
  };
  for (const ParseCase& c : cases) {
    RegDocument doc = ParseRegistryText(std::string("[Software\\Q]\n") + c.Line + "\n");
    const RegValue* v = FindRegistryValue(doc, "software\\q", "a");
    ASSERT_NE(v, nullptr) << c.Line;
    EXPECT_EQ(v->Type, c.Type) << c.Line;
    EXPECT_EQ(v->Data, c.Data) << c.Line;
  }
}

TEST(RegistryText, SkipsMalformedLinesAndKeepsThemVerbatim) {
  const std::string text =
      "\"Orphan\"=dword:00000001\n"  // before any key: belongs to none
      "[Software\\Q]\n"
      "; comment\n"
      "# other comment\n"
      "\"Bad1\"=dword:123456789\n"
      "\"Bad2\"=hex:zz\n"
      "\"Bad3\"=\"unterminated\n"
      "\"Bad4\"=\"x\" trailing\n"
      "\"Bad5\"=-\n"
      "garbage without form\n"
      "[unclosed\n"
      "\"Good\"=dword:00000007\n";
  RegDocument doc = ParseRegistryText(text);
  EXPECT_EQ(WriteRegistryText(doc), text);
  for (const char* bad : {"Orphan", "Bad1", "Bad2", "Bad3", "Bad4", "Bad5"})
    EXPECT_EQ(FindRegistryValue(doc, "Software\\Q", bad), nullptr) << bad;
  ASSERT_NE(FindRegistryValue(doc, "SOFTWARE\\q\\", "good"), nullptr);
  EXPECT_NE(FindRegistryValue(ParseRegistryText("[HKEY_CURRENT_USER\\Software\\Q]\n\"G\"=dword:1"),
                              "Software\\Q", "g"),
            nullptr);
}

TEST(RegistryText, EveryTypeAndByteSequenceRoundTrips) {
  const std::pair<uint32_t, std::string> values[] = {
      {kRegDword, Bytes({1, 2, 3, 4})},
      {kRegDword, Bytes({1, 2})},  // a short dword keeps its two bytes
      {kRegSz, std::string("a \"q\" \\ b\0", 11)},
      {kRegExpandSz, std::string("/tmp/logs/\0", 11)},
      {kRegExpandSz, "Ok"},                           // no terminator
      {kRegSz, std::string("two\0\0", 5)},            // two terminators
      {kRegSz, std::string("in\0side\0", 8)},         // inner NUL
      {kRegSz, std::string("line\nbreak\0", 11)},     // would break the line
      {kRegSz, ""},
      {kRegBinary, Bytes({0, 0xFF, '"', '\\', '\n'})},
      {7, Bytes({'a', 0, 'b', 0, 0})},
      {0xFFFFFFFF, Bytes({9})},
  };
  RegDocument doc;
  int n = 0;
  for (const auto& [type, data] : values)
    SetRegistryValue(doc, "Software\\Q", "V" + std::to_string(n++), type, data);
  RegDocument back = ParseRegistryText(WriteRegistryText(doc));
  n = 0;
  for (const auto& [type, data] : values) {
    const RegValue* v = FindRegistryValue(back, "Software\\Q", "v" + std::to_string(n++));
    ASSERT_NE(v, nullptr) << n;
    EXPECT_EQ(v->Type, type) << n;
    EXPECT_EQ(v->Data, data) << n;
  }
  EXPECT_EQ(FormatRegistryValue("S", kRegExpandSz, std::string("/x\0", 3)), R"("S"=str(2):"/x")");
  EXPECT_EQ(FormatRegistryValue("T", kRegExpandSz, "Ok"), R"("T"=hex(2):4f,6b)");
}

TEST(RegistryText, ChangesTheLastOccurrenceAndAddsInsideTheKey) {
  RegDocument doc = ParseRegistryText(
      "[A]\n\"x\"=dword:00000001\n\"X\"=dword:00000002\n; tail of A\n[B]\n\"y\"=dword:00000003\n");
  SetRegistryValue(doc, "a", "x", kRegDword, Bytes({9, 0, 0, 0}));
  SetRegistryValue(doc, "A", "new", kRegDword, Bytes({5, 0, 0, 0}));
  SetRegistryValue(doc, "C", "z", kRegDword, Bytes({6, 0, 0, 0}));
  EXPECT_EQ(WriteRegistryText(doc),
            "[A]\n\"x\"=dword:00000001\n\"X\"=dword:00000009\n\"new\"=dword:00000005\n"
            "; tail of A\n[B]\n\"y\"=dword:00000003\n\n[C]\n\"z\"=dword:00000006\n");
}

// --- the store on disk --------------------------------------------------

uint32_t QueryDword(const char* key, const char* name, int32_t* code = nullptr) {
  uint32_t v = 0, type = 0, size = 4;
  int32_t rc = RegistryQuery(key, name, &type, &v, &size);
  if (code) *code = rc;
  return v;
}

TEST(RegistryStore, QueryCodesFollowTheSystemRegistry) {
  TempRoot root;
  int32_t rc = 0;
  QueryDword("Software\\Quillmark", "DEBUGLEVEL", &rc);
  EXPECT_EQ(rc, kRegErrorNotFound);  // no store at all

  root.WriteRegistry("[Software\\Quillmark]\n\"SAVEPATH\"=str(2):\"/tmp/sxlogs/\"\n");
  uint32_t type = 0, size = 0;
  EXPECT_EQ(RegistryQuery("Software\\Quillmark", "savepath", &type, nullptr, &size), kRegOk);
  EXPECT_EQ(type, kRegExpandSz);
  EXPECT_EQ(size, 13u);

  char buf[32];
  std::memset(buf, 'x', sizeof buf);
  size = 12;
  EXPECT_EQ(RegistryQuery("Software\\Quillmark", "SAVEPATH", &type, buf, &size), kRegErrorMoreData);
  EXPECT_EQ(size, 13u);
  EXPECT_EQ(buf[0], 'x');  // nothing copied
  size = sizeof buf;
  EXPECT_EQ(RegistryQuery("Software\\Quillmark", "SAVEPATH", &type, buf, &size), kRegOk);
  EXPECT_EQ(std::string(buf, size), std::string("/tmp/sxlogs/\0", 13));
  EXPECT_EQ(RegistryQuery("Software\\Quillmark", "MISSING", &type, buf, &size), kRegErrorNotFound);
  EXPECT_EQ(RegistryQuery("Software\\Other", "SAVEPATH", &type, buf, &size), kRegErrorNotFound);
}

TEST(RegistryStore, WriteKeepsForeignLinesAndLeavesNoTemporaryFiles) {
  TempRoot root;
  const std::string original =
      "# hand-written\n[Software\\Quillmark]\nnot a value line\n\"DEBUGLEVEL\"=dword:00000001\n";
  root.WriteRegistry(original);
  EXPECT_EQ(QueryDword("Software\\Quillmark", "DEBUGLEVEL"), 1u);
  const uint32_t two = 2;
  ASSERT_EQ(RegistrySet("Software\\Quillmark", "debuglevel", kRegDword, &two, 4), kRegOk);
  ASSERT_EQ(RegistrySet("Software\\Quillmark", "TargetTest", kRegExpandSz, "Ok", 2), kRegOk);
  ASSERT_EQ(RegistryCreateKey("Software\\Quillmark\\ScanData"), kRegOk);
  EXPECT_EQ(root.ReadRegistry(),
            "# hand-written\n[Software\\Quillmark]\nnot a value line\n\"DEBUGLEVEL\"=dword:00000002\n"
            "\"TargetTest\"=hex(2):4f,6b\n\n[Software\\Quillmark\\ScanData]\n");
  EXPECT_EQ(QueryDword("Software\\Quillmark", "DEBUGLEVEL"), 2u);
  for (const auto& e : fs::directory_iterator(root.Path())) {
    std::string name = e.path().filename();
    EXPECT_TRUE(name == "user.reg" || name == "user.reg.lock" || e.is_directory()) << name;
  }
}

TEST(RegistryStore, SeesEditsMadeBehindItsBack) {
  TempRoot root;
  root.WriteRegistry("[K]\n\"V\"=dword:00000001\n");
  EXPECT_EQ(QueryDword("K", "V"), 1u);
  // Same size, so only the file's stamp tells the versions apart.
  root.WriteRegistry("[K]\n\"V\"=dword:00000002\n");
  EXPECT_EQ(QueryDword("K", "V"), 2u);
}

TEST(RegistryStore, UnwritableStoreFailsTheWriteAndKeepsTheOldContent) {
  {
    TempRoot root;
    fs::create_directory(root.Path() / "user.reg");  // a folder in the store's place
    const uint32_t v = 1;
    EXPECT_NE(RegistrySet("K", "V", kRegDword, &v, 4), kRegOk);
    EXPECT_TRUE(fs::is_directory(root.Path() / "user.reg"));
    int32_t rc = 0;
    QueryDword("K", "V", &rc);
    EXPECT_EQ(rc, kRegErrorNotFound);
  }
  {
    TempRoot root;
    const std::string file = (root.Path() / "plainfile").string();
    sxtest::WriteFile(file, "x");
    sxtest::ScopedEnv env("SX_ROOT", file.c_str());  // the root is a file
    const uint32_t v = 1;
    EXPECT_NE(RegistrySet("K", "V", kRegDword, &v, 4), kRegOk);
    EXPECT_NE(RegistryCreateKey("K"), kRegOk);
    EXPECT_EQ(sxtest::ReadFile(file), "x");
  }
  TempRoot root;
  root.WriteRegistry("[K]\n");
  EXPECT_NE(RegistrySet("K", "bad\nname", kRegDword, "abcd", 4), kRegOk);
  EXPECT_EQ(root.ReadRegistry(), "[K]\n");
}

TEST(RegistryStore, ConcurrentWritersLoseNoValue) {
  TempRoot root;
  std::vector<std::thread> writers;
  for (uint32_t t = 0; t < 4; ++t) {
    writers.emplace_back([t] {
      for (uint32_t i = 0; i < 5; ++i) {
        uint32_t v = t * 100 + i;
        RegistrySet("K", "T" + std::to_string(t) + "_" + std::to_string(i), kRegDword, &v, 4);
      }
    });
  }
  for (auto& w : writers) w.join();
  for (uint32_t t = 0; t < 4; ++t)
    for (uint32_t i = 0; i < 5; ++i)
      EXPECT_EQ(QueryDword("K", ("T" + std::to_string(t) + "_" + std::to_string(i)).c_str()),
                t * 100 + i);
}

}  // namespace
}  // namespace sx::plat
