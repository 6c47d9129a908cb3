// The trace log: line formats, level filtering, where the file goes, and the
// 143-character limits, checked on the exact bytes of the file.
#include <gtest/gtest.h>

#include <cstring>

#include "frame/Trace.h"
#include "frame/TraceSupport.h"

namespace {

using namespace sxtest;
using sx::kTraceFile;

intptr_t Text(const char* text) { return reinterpret_cast<intptr_t>(text); }

intptr_t Real(float value) {
  uint32_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return static_cast<intptr_t>(bits);
}

void Line(const char* label, intptr_t value = -1, uint32_t kind = 0, uint32_t level = 1) {
  sx::TraceLog(kTraceFile, label, "In ", 1, value, kind, level);
}

template <class Body>
void InDirectory(const fs::path& dir, Body body) {
  const fs::path old = fs::current_path();
  fs::current_path(dir);
  body();
  fs::current_path(old);
}

TEST(Trace, FormatsInTheirOrderOfTestsAndLevels) {
  struct Case {
    const char* tag;
    int32_t code;
    intptr_t value;
    uint32_t kind;
    uint32_t level;  // low 8 bits count
    const char* expected;
  };
  const Case cases[] = {
      {"In ", 1, -1, 0, 1, "In   1: X : \r\n"},
      {"Out", -5, -42, 0, 0x101, "Out  -5: X : -42 \r\n"},
      {"In ", 1, Text("QM7110 ID#3"), 0x101, 1, "In   1: X : QM7110 ID#3\r\n"},
      {"In ", 1, 0, 1, 1, "In   1: X : \r\n"},  // a null text is not followed
      {"   ", 1, Real(-123.456f), 2, 2, "     1: X : -123.46 \r\n"},
      {"   ", 1, -1, 2, 2, "     1: X : \r\n"},  // "no value" wins over the real kind
  };
  for (int level : {-1, 0, 1, 2}) {  // -1: no "DEBUGLEVEL" at all
    SCOPED_TRACE(level);
    TraceSetup t(level);
    std::string expected;
    for (const Case& c : cases) {
      sx::TraceLog(kTraceFile, "X", c.tag, c.code, c.value, c.kind, c.level);
      if (level >= static_cast<int>(c.level & 0xFF)) expected += c.expected;
    }
    EXPECT_EQ(fs::exists(t.LogFile()), level > 0);
    EXPECT_EQ(t.Log(), expected);
  }
}

TEST(Trace, SavePathIsReadPerLineGluedToTheNameAndAppendedTo) {
  TraceSetup t(1);
  WriteFile(t.LogFile(), "earlier run\r\n");
  Line("First");
  ReloadTraceLevel();  // a new run of the host
  Line("Second");
  EXPECT_EQ(t.Log(), "earlier run\r\nIn   1: First : \r\nIn   1: Second : \r\n");

  const std::string glued = t.LogDir().string();  // no trailing separator
  t.Root().WriteRegistry("[Software\\Quillmark]\n\"SAVEPATH\"=str(2):\"" + glued + "\"\n");
  Line("Third");
  EXPECT_EQ(ReadFile(glued + "scandiag.txt"), "In   1: Third : \r\n");

  t.Root().WriteRegistry("[Software\\Quillmark]\n");  // no "SAVEPATH": current directory
  InDirectory(t.LogDir(), [] { Line("Fourth"); });
  EXPECT_EQ(t.Log(),
            "earlier run\r\nIn   1: First : \r\nIn   1: Second : \r\nIn   1: Fourth : \r\n");
}

// Folder + file name must fit in 143 characters; a "SAVEPATH" too long even
// to read loses the line too, rather than sending it to the current directory.
TEST(Trace, OverlongPathLosesTheLineAndOverlongLineIsCut) {
  TraceSetup t(1);
  const fs::path cwd = t.Root().Path() / "cwd";
  fs::create_directories(cwd);
  const size_t base = t.Root().Path().string().size() + 2 + std::strlen(kTraceFile);
  for (size_t chars : {143, 144, 200}) {
    const fs::path dir = t.Root().Path() / std::string(chars - base, 'd');
    fs::create_directories(dir);
    t.Root().WriteRegistry("[Software\\Quillmark]\n\"SAVEPATH\"=str(2):\"" + dir.string() +
                           "/\"\n");
    InDirectory(cwd, [] { Line("X"); });
    EXPECT_EQ(fs::exists(dir / kTraceFile), chars == 143) << chars;
  }
  EXPECT_TRUE(fs::is_empty(cwd));

  // "In   1: " + label + " : " + CR LF: a 130-character label fits exactly.
  const fs::path dir = t.Root().Path() / std::string(143 - base, 'd');
  t.Root().WriteRegistry("[Software\\Quillmark]\n\"SAVEPATH\"=str(2):\"" + dir.string() + "/\"\n");
  const fs::path log = dir / kTraceFile;
  const std::string fits(130, 'L'), longer(131, 'L'), text(300, 'v');
  fs::remove(log);
  Line(fits.c_str());
  Line(longer.c_str());
  Line("T", Text(text.c_str()), 1);
  EXPECT_EQ(ReadFile(log), "In   1: " + fits + " : \r\n" + "In   1: " + longer + " :\r\n" +
                               "In   1: T : " + std::string(143 - 14, 'v') + "\r\n");
}

}  // namespace
