// The host program's command line: commands, scan options, numbers and the
// choice of a data source by name.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include <sstream>

#include "CommandLine.h"

namespace sx::host {
namespace {

std::vector<std::string> Words(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> out;
  for (std::string w; in >> w;) out.push_back(w);
  return out;
}

TEST(HostCommandLine, CommandsAndOperands) {
  struct Case {
    const char* args;
    CommandKind kind;
    size_t operands;
  } cases[] = {
      {"", CommandKind::Help, 0},
      {"sources", CommandKind::Sources, 0},
      {"select qm7110v", CommandKind::Select, 1},
      {"get xresolution CAP_GAMMA", CommandKind::Get, 2},
      // Negative values are operands of set, not options.
      {"set brightness -500 gamma 1.8", CommandKind::Set, 4},
      {"scan --help", CommandKind::Help, 0},
      {"--version", CommandKind::Version, 0},
  };
  for (const auto& c : cases) {
    ParseOutcome p = ParseCommandLine(Words(c.args));
    ASSERT_TRUE(p.ok) << c.args << ": " << p.error;
    EXPECT_EQ(p.line.kind, c.kind) << c.args;
    EXPECT_EQ(p.line.operands.size(), c.operands) << c.args;
  }
}

TEST(HostCommandLine, ScanOptions) {
  ParseOutcome p = ParseCommandLine(
      Words("scan --resolution 600 --mode=gray --area 0.5,1,8,10.5 --units cm --source feeder "
            "--pages 3 --output out/a.tiff --buffered --buffer=2097152 --set dither=Halftone_2 "
            "--set gamma=1.8 --progress"));
  ASSERT_TRUE(p.ok) << p.error;
  const ScanOptions& s = p.line.scan;
  EXPECT_EQ(s.resolution, 600);
  EXPECT_EQ(s.mode, ColorMode::Gray);
  ASSERT_TRUE(s.hasArea);
  EXPECT_FLOAT_EQ(s.area.x, 0.5f);
  EXPECT_FLOAT_EQ(s.area.length, 10.5f);
  EXPECT_EQ(s.units, AreaUnits::Centimetres);
  EXPECT_EQ(s.source, ScanSource::Feeder);
  EXPECT_EQ(s.pages, 3);
  EXPECT_EQ(s.output, "out/a.tiff");
  EXPECT_TRUE(s.buffered);
  EXPECT_EQ(s.transferBytes, 2097152u);
  EXPECT_TRUE(s.progress);
  ASSERT_EQ(s.settings.size(), 2u);
  EXPECT_EQ(s.settings[0].first, "dither");
  EXPECT_EQ(s.settings[1].second, "1.8");

  ParseOutcome all = ParseCommandLine(Words("scan --pages all"));
  ASSERT_TRUE(all.ok);
  EXPECT_EQ(all.line.scan.pages, kAllPages);
  ParseOutcome plain = ParseCommandLine(Words("scan"));
  ASSERT_TRUE(plain.ok);
  EXPECT_EQ(plain.line.scan.mode, ColorMode::Keep);
  EXPECT_EQ(plain.line.scan.pages, 0);
  EXPECT_EQ(plain.line.scan.transferBytes, kDefaultTransferBytes);
}

TEST(HostCommandLine, RefusesBadInput) {
  const char* bad[] = {
      "frobnicate",                  // unknown command
      "--resolution 300",            // option without a command
      "select",                      // missing operand
      "select a b",                  // too many
      "set gamma",                   // pairs only
      "set gamma 1.8 filter",        // odd count
      "info --mode color",           // scan options belong to scan
      "scan --resolution",           // value missing
      "scan --resolution 0",         // out of range
      "scan --resolution 70000",
      "scan --resolution 3x",
      "scan --mode sepia",
      "scan --area 1,2,3",           // three numbers
      "scan --area 1,2,0,4",         // empty width
      "scan --area -1,0,2,2",        // negative origin
      "scan --area 1,2,3,nan",
      "scan --units cm",             // unit without an area
      "scan --source tray",
      "scan --pages 0",
      "scan --output page.jpg",      // no writer for it
      "scan --set gamma",            // NAME=VALUE
      "scan --set =1",
      "scan --bogus",
  };
  for (const char* args : bad) {
    ParseOutcome p = ParseCommandLine(Words(args));
    EXPECT_FALSE(p.ok) << args;
    EXPECT_FALSE(p.error.empty()) << args;
  }
}

TEST(HostCommandLine, Numbers) {
  int64_t v = 0;
  EXPECT_TRUE(ParseInteger("-32768", INT16_MIN, INT16_MAX, &v));
  EXPECT_EQ(v, -32768);
  EXPECT_TRUE(ParseInteger("0x9200", 0, 65535, &v));
  EXPECT_EQ(v, 0x9200);
  EXPECT_TRUE(ParseInteger("0", 0, 1, &v));
  for (const char* text : {"", " 1", "1 ", "32768", "010", "-010", "1.5", "0x", "99999999999999999999"})
    EXPECT_FALSE(ParseInteger(text, INT16_MIN, INT16_MAX, &v)) << '"' << text << '"';

  float f = 0;
  EXPECT_TRUE(ParseReal("2.2", &f));
  EXPECT_FLOAT_EQ(f, 2.2f);
  EXPECT_TRUE(ParseReal("-1e2", &f));
  EXPECT_FLOAT_EQ(f, -100.0f);
  for (const char* text : {"", "abc", "1.5in", "inf", "nan", "1e99", " 2"})
    EXPECT_FALSE(ParseReal(text, &f)) << '"' << text << '"';
}

TEST(HostCommandLine, SourceByName) {
  const std::vector<std::string> names = {"USB - QM7110V             1.00",
                                          "USB - QM7110              1.00",
                                          "ID#2 - QMB4                1.10"};
  std::string error;
  // Exact names win even when they are part of another name.
  EXPECT_EQ(FindSourceByName(names, names[1], &error), 1);
  EXPECT_EQ(FindSourceByName(names, "qm7110v", &error), 0);
  EXPECT_EQ(FindSourceByName(names, "usb - qm7110v 1.00", &error), 0);  // blanks collapsed
  EXPECT_EQ(FindSourceByName(names, "qmb4", &error), 2);

  EXPECT_EQ(FindSourceByName(names, "qm7110", &error), -1);  // two match
  EXPECT_NE(error.find("2 data sources"), std::string::npos) << error;
  EXPECT_EQ(FindSourceByName(names, "flatbed 9000", &error), -1);
  EXPECT_NE(error.find("no data source"), std::string::npos) << error;
  EXPECT_EQ(FindSourceByName(names, "   ", &error), -1);
  EXPECT_EQ(FindSourceByName({}, "x", &error), -1);
}

}  // namespace
}  // namespace sx::host

#else
TEST(HostCommandLine, NotBuilt) { GTEST_SKIP() << "the command-line host is not part of this build"; }
#endif
