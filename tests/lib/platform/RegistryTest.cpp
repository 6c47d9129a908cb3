#include <gtest/gtest.h>

#ifndef _WIN32
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <chrono>
#include <cstring>
#include <random>
#include <thread>

#include "platform/Registry.h"
#include "platform/text/RegistryText.h"
#include "support/TestEnv.h"

namespace sx::plat {
namespace {

using sxtest::TempRoot;
namespace fs = std::filesystem;

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

// The text store's own properties: lines it does not understand, atomic
// replacement, damage. The system registry has none of them.
#ifndef _WIN32
// A write changes the last of duplicate names, adds new values after the
// key's last value and new keys at the end, and leaves every other line be.
TEST(RegistryStore, WriteKeepsForeignLinesAndLeavesNoTemporaryFiles) {
  TempRoot root;
  root.WriteRegistry("# hand-written\n[Software\\Quillmark]\nnot a value line\n\"debuglevel\"=dword:1\n"
                     "\"DEBUGLEVEL\"=dword:1\n; tail\n[B]\n");
  const uint32_t two = 2;
  ASSERT_EQ(RegistrySet("Software\\Quillmark", "debuglevel", kRegDword, &two, 4), kRegOk);
  ASSERT_EQ(RegistrySet("Software\\Quillmark", "TargetTest", kRegExpandSz, "Ok", 2), kRegOk);
  ASSERT_EQ(RegistryCreateKey("Software\\Quillmark\\ScanData"), kRegOk);
  EXPECT_EQ(root.ReadRegistry(),
            "# hand-written\n[Software\\Quillmark]\nnot a value line\n\"debuglevel\"=dword:1\n"
            "\"DEBUGLEVEL\"=dword:00000002\n\"TargetTest\"=hex(2):4f,6b\n; tail\n[B]\n\n"
            "[Software\\Quillmark\\ScanData]\n");
  for (const auto& e : fs::directory_iterator(root.Path()))
    EXPECT_TRUE(e.path().filename() == "user.reg" || e.path().filename() == "user.reg.lock" || e.is_directory())
        << e.path();
}

TEST(RegistryStore, UnwritableStoreFailsTheWriteAndKeepsTheOldContent) {
  {
    TempRoot root;
    fs::create_directory(root.Path() / "user.reg");  // a folder in the store's place
    EXPECT_NE(RegistrySet("K", "V", kRegDword, "abcd", 4), kRegOk);
    EXPECT_EQ(QueryDword("K", "V"), 0xDEADu);
  }
  TempRoot root;
  root.WriteRegistry("[K]\n");
  EXPECT_NE(RegistrySet("K", "bad\nname", kRegDword, "abcd", 4), kRegOk);
  EXPECT_EQ(root.ReadRegistry(), "[K]\n");
}

// A writer killed at any moment leaves the store as it was before or after
// one of its writes, never a torn file: every write goes to a temporary file
// that replaces the store by a rename.
TEST(RegistryStore, WriterKilledMidWriteLeavesAWholeStore) {
  TempRoot root;
  const std::string padding(256 * 1024, '.');  // long writes, so kills land inside them
  std::mt19937 random(11);
  for (int round = 0; round < 10; ++round) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      for (uint32_t i = 1;; ++i) {
        const std::string value = std::to_string(i) + ":" + padding;
        RegistrySet("Software\\Quillmark\\Soak", "Blob", kRegSz, value.data(),
                    static_cast<uint32_t>(value.size()));
        if (i == 1 && write(ready[1], "1", 1) != 1) _exit(1);
      }
    }
    close(ready[1]);
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1) << "the writer finished no write";
    close(ready[0]);
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);

    SCOPED_TRACE("round " + std::to_string(round));
    EXPECT_EQ(RegistryIgnoredLines(), 0u);
    std::string blob(padding.size() + 32, '\0');
    uint32_t type = 0, size = static_cast<uint32_t>(blob.size());
    ASSERT_EQ(RegistryQuery("Software\\Quillmark\\Soak", "Blob", &type, blob.data(), &size), kRegOk);
    blob.resize(size);
    const size_t colon = blob.find(':');
    ASSERT_NE(colon, std::string::npos);
    EXPECT_EQ(blob.substr(colon + 1), padding);
  }
}

// A store cut off by another program in mid-line: the damaged line is
// skipped and counted, every intact value before and after it still reads.
TEST(RegistryStore, DamagedStoreIsReadAsFarAsItIsValid) {
  TempRoot root;
  root.WriteRegistry("[K]\n\"A\"=dword:00000007\n\"B\"=str(2):\"1.\n[L]\n\"C\"=dword:00000009\n\"D\"=dwo");
  EXPECT_EQ(RegistryIgnoredLines(), 2u);
  EXPECT_EQ(QueryDword("K", "A"), 7u);
  EXPECT_EQ(QueryDword("L", "C"), 9u);
  EXPECT_EQ(QueryDword("K", "B"), 0xDEADu);
}
#endif  // _WIN32

}  // namespace
}  // namespace sx::plat
