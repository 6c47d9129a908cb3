// The trace log, on the exact bytes of its file: formats, levels, placement, limits.
#include <gtest/gtest.h>

#include <bit>
#include <cstring>

#include "frame/Trace.h"
#include "tests/lib/frame/TraceSupport.h"

namespace {

using namespace sxtest;
using sx::kTraceFile;

// One level-1 line, written from `cwd` when given.
void Line(const char* label, intptr_t value = -1, uint32_t kind = 0, const fs::path& cwd = {}) {
  const fs::path old = fs::current_path();
  if (!cwd.empty()) fs::current_path(cwd);
  sx::TraceLog(kTraceFile, label, "In ", 1, value, kind, 1);
  fs::current_path(old);
}

TEST(Trace, FormatsInTheirOrderOfTestsAndLevels) {
  const intptr_t real = std::bit_cast<uint32_t>(-123.456f);
  // {tag, code, value, kind, level (low 8 bits count), line}
  const std::tuple<const char*, int32_t, intptr_t, uint32_t, uint32_t, const char*> cases[] = {
      {"In ", 1, -1, 0, 1, "In   1: X : \r\n"},
      {"Out", -5, -42, 0, 0x101, "Out  -5: X : -42 \r\n"},
      {"In ", 1, reinterpret_cast<intptr_t>("QM7110 ID#3"), 0x101, 1, "In   1: X : QM7110 ID#3\r\n"},
      {"In ", 1, 0, 1, 1, "In   1: X : \r\n"},  // a null text is not followed
      {"   ", 1, real, 2, 2, "     1: X : -123.46 \r\n"},
      {"   ", 1, -1, 2, 2, "     1: X : \r\n"},  // "no value" wins over the real kind
  };
  for (int level : {-1, 0, 1, 2}) {  // -1: no "DEBUGLEVEL" at all
    SCOPED_TRACE(level);
    TraceSetup t(level);
    std::string expected;
    for (const auto& [tag, code, value, kind, lineLevel, line] : cases) {
      sx::TraceLog(kTraceFile, "X", tag, code, value, kind, lineLevel);
      if (level >= static_cast<int>(lineLevel & 0xFF)) expected += line;
    }
    EXPECT_EQ(fs::exists(t.LogFile()), level > 0);
    EXPECT_EQ(t.Log(), expected);
  }
}

TEST(Trace, WhereLinesGoAndHowLongTheyMayBe) {
  TraceSetup t(1);
  const auto savePath = [&](const std::string& path) {
    t.Root().WriteRegistry("[Software\\Quillmark]\n\"SAVEPATH\"=str(2):\"" + path + "\"\n");
  };
  WriteFile(t.LogFile(), "earlier run\r\n");
  Line("First");  // appended to what was there
  savePath(t.LogDir().string());  // no trailing separator: glued to the name
  Line("Third");
  EXPECT_EQ(ReadFile(t.LogDir().string() + "scandiag.txt"), "In   1: Third : \r\n");
  t.Root().WriteRegistry("[Software\\Quillmark]\n");  // no "SAVEPATH": the current directory
  Line("Fourth", -1, 0, t.LogDir());
  EXPECT_EQ(t.Log(), "earlier run\r\nIn   1: First : \r\nIn   1: Fourth : \r\n");

  // Folder + name must fit in 143 characters; a "SAVEPATH" too long even to
  // read loses the line too, rather than sending it to the current directory.
  const fs::path cwd = t.Root().Path() / "cwd";
  fs::create_directories(cwd);
  const size_t base = t.Root().Path().string().size() + 2 + std::strlen(kTraceFile);
  fs::path log;
  for (size_t chars : {144, 200, 143}) {  // the fitting one last, for the lines below
    const fs::path dir = t.Root().Path() / std::string(chars - base, 'd');
    fs::create_directories(dir);
    savePath(dir.string() + "/");
    Line("X", -1, 0, cwd);
    EXPECT_EQ(fs::exists(log = dir / kTraceFile), chars == 143) << chars;
  }
  EXPECT_TRUE(fs::is_empty(cwd));
  // "In   1: " + label + " : " + CR LF: a 130-character label fits exactly.
  const std::string fits(130, 'L'), longer(131, 'L'), text(300, 'v');
  fs::remove(log);
  Line(fits.c_str());
  Line(longer.c_str());
  Line("T", reinterpret_cast<intptr_t>(text.c_str()), 1);
  EXPECT_EQ(ReadFile(log), "In   1: " + fits + " : \r\n" + "In   1: " + longer + " :\r\n" +
                               "In   1: T : " + std::string(143 - 14, 'v') + "\r\n");
}

}  // namespace
