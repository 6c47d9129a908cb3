// The host program's command line: commands, scan and serve options and the
// choice of a data source by name.
#include <gtest/gtest.h>

#ifdef SX_HOST_BUILT
#include <sstream>

#include "sxscan/CommandLine.h"

namespace sx::host {
namespace {

// What a line that parses must have produced; rows without one must be refused.
#define YIELDS(expr) [](const CommandLine& l) { const ScanOptions& s = l.scan; (void)s; return expr; }

TEST(HostCommandLine, ArgumentsAndScanOptions) {
  struct Case {
    const char* args;
    bool (*check)(const CommandLine&);
  } cases[] = {
      {"", YIELDS(l.kind == CommandKind::Help)},
      {"select qm7110v", YIELDS(l.kind == CommandKind::Select && l.operands.size() == 1)},
      // Negative values are operands of set, not options.
      {"set brightness -500 gamma 1.8", YIELDS(l.kind == CommandKind::Set && l.operands.size() == 4)},
      // --help after a command is that command's help; -V is --version.
      {"scan --resolution 300 --help", YIELDS(l.kind == CommandKind::Help && l.helpFor == CommandKind::Scan)},
      {"--help", YIELDS(l.helpFor == CommandKind::Help)},
      {"--version", YIELDS(l.kind == CommandKind::Version)}, {"doctor -V", YIELDS(l.kind == CommandKind::Version)},
      {"scan", YIELDS(s.mode == ColorMode::Color && s.pages == 0 && s.resolution == 300 &&
                      s.transferBytes == kDefaultTransferBytes && !s.hasArea)},
      {"scan --resolution 600 --mode=gray", YIELDS(s.resolution == 600 && s.mode == ColorMode::Gray)},
      {"scan --area 0.5,1,8,10.5 --units cm",
       YIELDS(s.hasArea && s.area.x == 0.5f && s.area.length == 10.5f && s.units == AreaUnits::Centimetres)},
      {"scan --source feeder --pages 3", YIELDS(s.source == ScanSource::Feeder && s.pages == 3)},
      {"scan --pages all", YIELDS(s.pages == kAllPages)},
      {"scan --output out/a.tiff --buffered --buffer=2097152 --progress",
       YIELDS(s.output == "out/a.tiff" && s.buffered && s.transferBytes == 2097152u && s.progress)},
      {"scan --set dither=Halftone_2 --set gamma=1.8",
       YIELDS(s.settings.size() == 2 && s.settings[0].first == "dither" && s.settings[1].second == "1.8")},
      {"frobnicate"}, {"--resolution 300"}, {"select"}, {"select a b"}, {"set gamma 1.8 filter"},
      {"info --mode color"},  // scan options belong to scan
      {"scan --resolution"}, {"scan --resolution 0"}, {"scan --resolution 70000"},
      {"scan --resolution 3x"}, {"scan --mode sepia"}, {"scan --area 1,2,3"},
      {"scan --area 1,2,0,4"}, {"scan --area -1,0,2,2"}, {"scan --area 1,2,3,nan"},
      {"scan --units cm"},  // a unit without an area
      {"scan --units pixels --area 0,0,1,1"}, {"scan --source tray"}, {"scan --pages 0"},
      {"scan --output page.gif"}, {"scan --quality 0"}, {"scan --filter purple"},
      {"scan --set gamma"}, {"scan --set =1"}, {"scan --bogus"},
      // The server on loopback unless told; --source names a data source
      // here, not a flatbed or feeder.
      {"serve", YIELDS(l.kind == CommandKind::Serve && l.serve.listen == "127.0.0.1" &&
                       l.serve.port == kDefaultServePort && l.serve.announce)},
      {"serve --listen 0.0.0.0 --port=0 --source QM7110 --name Office --no-announce",
       YIELDS(l.serve.listen == "0.0.0.0" && l.serve.port == 0 && l.serve.source == "QM7110" &&
              l.serve.name == "Office" && !l.serve.announce)},
      {"serve --port 65536"}, {"serve --port http"}, {"serve --listen"}, {"serve --name="},
      {"serve --mode gray"}, {"serve extra"}, {"--port 8090 serve"},
  };
  for (const auto& c : cases) {
    std::istringstream in(c.args);
    std::vector<std::string> words;
    for (std::string w; in >> w;) words.push_back(w);
    ParseOutcome p = ParseCommandLine(words);
    ASSERT_EQ(p.ok, c.check != nullptr) << c.args << ": " << p.error;
    EXPECT_TRUE(c.check ? c.check(p.line) : !p.error.empty()) << c.args;
  }
}

TEST(HostCommandLine, SourceByName) {
  const std::vector<std::string> names = {"USB - QM7110V             1.00",
                                          "USB - QM7110              1.00"};
  std::string error;
  // An exact name wins even when it is part of another name.
  EXPECT_EQ(FindSourceByName(names, names[1], &error), 1);
  EXPECT_EQ(FindSourceByName(names, "usb - qm7110v 1.00", &error), 0);  // blanks collapsed
  EXPECT_EQ(FindSourceByName(names, "qm7110", &error), -1);
  EXPECT_NE(error.find("2 data sources"), std::string::npos) << error;
}

}  // namespace
}  // namespace sx::host

#endif
