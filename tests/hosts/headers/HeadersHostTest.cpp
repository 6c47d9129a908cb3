// The hosts built from the public headers alone, run as programs of their
// own against the virtual scanner: the proof host checks what the headers
// promise, and the program of the writing-a-host page must save a whole
// page in both transfer modes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "support/TestEnv.h"

namespace sxtest {
namespace {

constexpr char kThreeSheets[] = "[Feeder]\nSheets=3\n";
constexpr unsigned kProgramSeconds = 300;

// The virtual scanner installed and chosen, its feeder holding three sheets.
struct ChosenScanner {
  TempRoot root;
  ChosenScanner() {
    root.InstallVscan("Corvane/VScan", std::string(kQm7110Ini) + kThreeSheets);
    root.WriteRegistry(Qm7110Registry());
  }
};

// Runs a program through the system's command interpreter, which both
// systems have; the paths hold no blanks, so nothing is quoted. The
// program's output is returned in `output`.
bool RunProgram(const std::string& program, const std::string& arguments, const fs::path& folder,
         std::string& output) {
  const fs::path log = folder / "output.txt";
  const std::string command =
      NativePath(program) + " " + arguments + " > " + NativePath(log.string()) + " 2>&1";
  HangWatchdog(kProgramSeconds);
  const int status = std::system(command.c_str());
  HangWatchdog(0);
  output = ReadFile(log);
  return status == 0;
}

TEST(HeadersHost, KeepsWhatTheHeadersPromise) {
  for (const char* scenario : {"rules", "buffered"}) {
    ChosenScanner scanner;
    std::string report;
    EXPECT_TRUE(RunProgram(SX_TEST_PROOF_HOST, scenario, scanner.root.Path(), report))
        << scenario << ":\n" << report;
    EXPECT_NE(report.find(" passed, 0 failed"), std::string::npos) << scenario << ":\n" << report;
  }
}

TEST(HeadersHost, WritingAHostProgramSavesTheSamePageInBothModes) {
  std::string direct;
  for (const char* mode : {"direct", "buffered"}) {
    ChosenScanner scanner;
    const fs::path page = scanner.root.Path() / "page.ppm";
    std::string output;
    ASSERT_TRUE(RunProgram(SX_TEST_SCANPAGE, NativePath(page.string()) + " " + mode, scanner.root.Path(), output))
        << mode << ":\n" << output;
    // The flatbed's default area at 100 dpi: 850 pixels cut to the model's
    // multiple of 4, 1100 lines, three bytes a pixel.
    std::ifstream in(page, std::ios::binary);
    std::string magic;
    long width = 0, lines = 0, levels = 0;
    in >> magic >> width >> lines >> levels;
    in.get();
    const std::string raster((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(magic, "P6") << mode;
    EXPECT_EQ(width, 848) << mode;
    EXPECT_EQ(lines, 1100) << mode;
    EXPECT_EQ(levels, 255) << mode;
    EXPECT_EQ(raster.size(), static_cast<size_t>(3 * width * lines)) << mode;
    if (direct.empty()) direct = raster;
    else EXPECT_TRUE(raster == direct) << "the buffered page differs from the direct one";
  }
}

}  // namespace
}  // namespace sxtest
