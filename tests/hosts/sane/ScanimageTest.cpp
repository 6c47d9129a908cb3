// The SANE backend driven by the real scanimage over a virtual scanner; the
// raster it writes is compared with what SxAcquire delivers for the same
// settings.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "support/Pnm.h"
#include "support/Shell.h"
#include "support/TestEnv.h"

namespace {
using namespace sxtest;

#ifdef SX_TEST_SANE_DIR
const std::string kBackendDir = SX_TEST_SANE_DIR;
#else
const std::string kBackendDir;
#endif
// The model, as a person types it.
const char* kDevice = "sxscan:QM7110V";

// The ELF class and machine bytes of a program: scanimage can load the
// backend only when they are this test's own (an i386 build on an x86-64
// machine has an x86-64 scanimage).
std::string ElfAbi(const std::string& path) {
  char header[20] = {};
  std::ifstream(path, std::ios::binary).read(header, sizeof header);
  if (std::memcmp(header, "\177ELF", 4) != 0) return {};
  return {header[4], header[18], header[19]};
}

bool HaveScanimage() {
  int status = 0;
  std::string path = RunShell("command -v scanimage 2>/dev/null", &status);
  while (!path.empty() && path.back() == '\n') path.pop_back();
  return status == 0 && !path.empty() && ElfAbi(path) == ElfAbi("/proc/self/exe");
}

class Scanimage : public ::testing::Test {
 protected:
  void SetUp() override {
    if (kBackendDir.empty() || !HaveScanimage()) GTEST_SKIP() << "scanimage of this ABI or the SANE headers are absent";
    root_.InstallVscan("Corvane/VScan", "[Feeder]\nSheets=3\n");
    fs::create_directories(root_.Path() / "conf");
    WriteFile(root_.Path() / "conf/dll.conf", "sxscan\n");
    WriteFile(root_.Path() / "conf/sxscan.conf",
              "root " + root_.Path().string() + "\nlibrary " SX_TEST_LIBSXSCAN "\n");
    env_ = "SANE_CONFIG_DIR='" + (root_.Path() / "conf").string() + "' LD_LIBRARY_PATH='" + kBackendDir + "' ";
  }
  std::string Command(const std::string& args) const {
    return "cd '" + root_.Path().string() + "' && " + env_ + "timeout 60 scanimage -d '" + kDevice + "' " + args;
  }
  // What scanimage writes to its standard output, and what it says.
  std::string Scan(const std::string& args, int* status) { return RunShell(Command(args) + " 2>/dev/null", status); }
  std::string Messages(const std::string& args, int* status) {
    return RunShell(Command(args) + " 2>&1 >/dev/null", status);
  }
  // A PNM file whose pixels are all its header announces.
  bool WholePnm(const std::string& name) const {
    const std::string pnm = ReadFile(root_.Path() / name);
    if (pnm.size() < 2) return false;
    int w = 0, h = 0;
    const size_t bytes = PnmPixels(pnm, &w, &h).size();
    const size_t line = pnm[1] == '4' ? (w + 7) / 8 : pnm[1] == '5' ? w : 3 * w;
    return bytes == line * h;
  }
  bool Absent(const std::string& name) const { return !fs::exists(root_.Path() / name); }
  // The raster of one page from SxAcquire directly.
  std::vector<uint8_t> Acquire(int pixelType, int bits, int dpi, float width, float length, bool buffered) {
    Library lib;
    EXPECT_TRUE(lib.Loaded());
    SxDataSource src{};
    EXPECT_EQ(lib.GetDS(SX_DS_FIRST, &src), 0);
    EXPECT_EQ(lib.SetDriverById(&src, 0), 0);
    const std::pair<uint32_t, int32_t> integers[] = {
        {CAP_UNITS, 2},         {CAP_SCANTYPE, 2},      {CAP_PIXELTYPE, pixelType},
        {CAP_BITSPERPIXEL, bits}, {CAP_XRESOLUTION, dpi}, {CAP_YRESOLUTION, dpi}, {CAP_BUFFERING, buffered}};
    const std::pair<uint32_t, float> reals[] = {
        {CAP_XPOSITION, 0}, {CAP_YPOSITION, 0}, {CAP_IMAGEWIDTH, width}, {CAP_IMAGELENGTH, length}};
    for (auto [cap, v] : integers) EXPECT_EQ(lib.SetValue(cap, TY_INT32, &v), 0) << cap;
    for (auto [cap, v] : reals) EXPECT_EQ(lib.SetValue(cap, TY_FLOAT32, &v), 0) << cap;
    g_page.clear();
    {
      HostBuffer buffer(lib, 1 << 20);
      EXPECT_EQ(lib.Acquire(&Collect, buffer.Data()), 0);
    }
    lib.Free();
    return g_page;
  }
  static int32_t SX_API Collect(void* data, int64_t* count, int32_t code) {
    if (code == SX_XFER_IMAGE_INFO) {
      *count = 1 << 20;
    } else if (data && count) {
      auto* p = static_cast<uint8_t*>(data);
      g_page.insert(g_page.end(), p, p + *count);
    }
    return 0;
  }
  static std::vector<uint8_t> g_page;
  TempRoot root_;
  std::string env_;
};
std::vector<uint8_t> Scanimage::g_page;

TEST_F(Scanimage, ListsTheSourceAndItsOptions) {
  int status = 0;
  std::string list = RunShell(env_ + "timeout 30 scanimage -L", &status);
  EXPECT_NE(list.find(std::string("`") + kDevice + "' is a CORVANE"), std::string::npos) << list;
  EXPECT_NE(list.find("flatbed scanner"), std::string::npos);
  std::string options = Scan("-A", &status);
  EXPECT_EQ(status, 0);
  // Defaults as from sxscan: a colour page at 300 dpi; the gamma shown is
  // the whole image's, which a default scan uses (the raster test below).
  for (const char* text :
       {"--mode Lineart|Gray|Color [Color]", "--resolution 50..600dpi (in steps of 1) [300]", "-x 0..215.9mm",
        "--source ADF|Flatbed|Alternate area [Flatbed]", "-y 0..297", "--brightness -1000..1000 (in steps of 10)",
        "--gamma 0.0100098..655.35 [2.2]", "--gamma-g 0.0100098..655.35 [1]", "--descreen 0|1|2|3",
        "--sharpen 0|1|2|3|4"})
    EXPECT_NE(options.find(text), std::string::npos) << text << "\n" << options;
}

TEST_F(Scanimage, RasterEqualsTheLibrarysDeliveryAtSeveralModes) {
  struct Case {
    const char* mode;
    int pixelType, bits, dpi;
    bool buffered;
  } cases[] = {{"Gray", 1, 8, 75, false}, {"Color", 2, 24, 50, false}, {"Lineart", 0, 1, 100, false},
               {"Color", 2, 24, 75, true}};
  for (const auto& c : cases) {
    int status = 0;
    // 50.8 mm by 25.4 mm: 600 by 300 pixels at 300 dots per inch.
    std::string pnm = Scan(std::string("--format=pnm -l 0 -t 0 -x 50.8 -y 25.4 --mode ") + c.mode +
                               " --resolution " + std::to_string(c.dpi) + (c.buffered ? " --buffered=yes" : ""),
                           &status);
    ASSERT_EQ(status, 0) << c.mode;
    int w = 0, h = 0;
    std::vector<uint8_t> pixels = PnmPixels(pnm, &w, &h);
    std::vector<uint8_t> expected = Acquire(c.pixelType, c.bits, c.dpi, 600, 300, c.buffered);
    // SANE's line art reads 1 as black, the library's 0.
    if (c.bits == 1)
      for (uint8_t& b : expected) b = static_cast<uint8_t>(~b);
    EXPECT_EQ(h, 300 * c.dpi / 300) << c.mode;
    EXPECT_EQ(pixels.size(), expected.size()) << c.mode;
    EXPECT_TRUE(pixels == expected) << c.mode;
  }
}

// The chart's 200-grey patch (0.32 by 0.3 inch of it, at 100 dpi) in
// colour with tone options: the red, green and blue of its middle pixel.
TEST_F(Scanimage, ToneOptionsShapeTheWholeImageOrTheColourNamed) {
  auto patch = [&](const std::string& tone) {
    int status = 0;
    std::string pnm =
        Scan("--format=pnm --mode Color --resolution 100 -l 127 -t 83.82 -x 8.128 -y 7.62 " + tone, &status);
    EXPECT_EQ(status, 0) << tone;
    int w = 0, h = 0;
    std::vector<uint8_t> pixels = PnmPixels(pnm, &w, &h);
    const size_t middle = (static_cast<size_t>(h / 2) * w + w / 2) * 3;
    if (pixels.size() < middle + 3) return std::vector<int>{};
    return std::vector<int>{pixels[middle], pixels[middle + 1], pixels[middle + 2]};
  };
  const std::vector<int> plain = patch("");
  ASSERT_EQ(plain.size(), 3u);
  for (const char* tone : {"--gamma 1.0", "--brightness 300", "--contrast -400",
                           "--gamma 1.4 --brightness -200 --contrast 300 --highlight 230 --shadow 20"}) {
    const std::vector<int> toned = patch(tone);
    ASSERT_EQ(toned.size(), 3u) << tone;
    EXPECT_NE(toned[0], plain[0]) << tone;
    EXPECT_TRUE(toned[0] == toned[1] && toned[1] == toned[2])
        << tone << ": " << toned[0] << "," << toned[1] << "," << toned[2];
  }
  const std::vector<int> red = patch("--gamma-r 2.5");
  ASSERT_EQ(red.size(), 3u);
  EXPECT_TRUE(red[0] > plain[0] && red[1] == plain[1] && red[2] == plain[2]) << red[0] << "," << red[1] << "," << red[2];

  int status = 0;
  Scan("--format=pnm --mode Gray --resolution 50 -x 25.4 -y 25.4 --color-filter Red --gamma 1.5", &status);
  EXPECT_EQ(status, 0);
}

// Values and areas that cannot be scanned are refused before any scan, with
// the reason; values the backend adjusts are reported as kept.
TEST_F(Scanimage, WhatCannotBeScannedIsRefusedWithItsReason) {
  struct Case {
    const char* args;
    bool scans;
    const char* text;
  } cases[] = {
      {"--resolution 0", true, "rounded value of resolution from 0 to 50"},
      {"-t 400", false, "the scan area holds no image"},
      {"-x 0 -y 0", false, "the scan area holds no image"},
      {"--mode Lineart -l 215 -x 215.9", false, "the scan area may be too small"},
      {"--gamma 0", false, "it takes 0.01 to 655.35"},
      {"--brightness 5000", false, "it takes -1000 to 1000"},
  };
  for (const auto& c : cases) {
    fs::remove(root_.Path() / "area.pnm");
    int status = 0;
    const std::string text =
        Messages(std::string("--format=pnm -o area.pnm --mode Gray --resolution 50 ") + c.args, &status);
    EXPECT_EQ(status == 0, c.scans) << c.args << "\n" << text;
    EXPECT_NE(text.find(c.text), std::string::npos) << c.args << "\n" << text;
    EXPECT_EQ(!Absent("area.pnm") && fs::file_size(root_.Path() / "area.pnm") > 0, c.scans) << c.args;
  }
}

TEST_F(Scanimage, LineArtKeepsItsPolarityAcrossScansOfASession) {
  int status = 0;
  Scan("--mode Lineart --resolution 50 -x 50.8 -y 25.4 --format=pnm --batch=la%d.pnm --batch-count=2", &status);
  EXPECT_EQ(status, 0);
  const std::string first = ReadFile(root_.Path() / "la1.pnm"), second = ReadFile(root_.Path() / "la2.pnm");
  EXPECT_FALSE(first.empty());
  EXPECT_EQ(first, second);
}

// A feeder batch keeps its whole pages and says why it ended: out of paper,
// or a jam or a failed read between or inside pages (whose cut page is not
// kept).
TEST_F(Scanimage, FeederBatchKeepsWholePagesAndSaysWhyItEnded) {
  struct Case {
    const char* faults;
    int whole;
    const char* text;
  } cases[] = {
      {"", 3, "sane_start: Document feeder out of documents"},
      {"StopScanAfter=1\nStopScan=2008\n", 2, "sane_start: Document feeder jammed"},
      {"FailReadAtLine=30\nReadStatus=2008\nFaultPage=2\n", 1, "sane_read: Document feeder jammed"},
      {"FailReadAtLine=30\nFaultPage=2\n", 1, "sane_read: Error during device I/O"},
  };
  for (const auto& c : cases) {
    root_.InstallVscan("Corvane/VScan", std::string("[Feeder]\nSheets=3\n[Faults]\n") + c.faults);
    for (int i = 1; i <= 3; ++i) fs::remove(root_.Path() / ("page" + std::to_string(i) + ".pnm"));
    int status = 0;
    const std::string text =
        Messages("--source ADF --mode Gray --resolution 100 -x 50.8 -y 25.4 --format=pnm --batch=page%d.pnm", &status);
    EXPECT_NE(text.find(c.text), std::string::npos) << c.faults << "\n" << text;
    for (int i = 1; i <= 3; ++i) {
      const std::string page = "page" + std::to_string(i) + ".pnm";
      EXPECT_TRUE(i <= c.whole ? WholePnm(page) : Absent(page)) << c.faults << page;
    }
  }
}

// A 600 dpi colour Letter page (101 MB) to a frontend that stalls at first:
// the page arrives whole, the backend's queue fills to its bound and never
// past it, and scanimage's memory stays far below the page.
TEST_F(Scanimage, ALargePageScansWholeInBoundedMemory) {
  constexpr int kWidth = 5096, kHeight = 6600;  // 8.5 inch at 600 dpi, aligned to the scanner's 8 pixels
  constexpr size_t kQueueBound = size_t{4} << 20;  // the backend's, as it reports it
  constexpr long kMaxRssKb = 64 * 1024;
  int status = 0;
  RunShell("cd '" + root_.Path().string() + "' && " + env_ + "SANE_DEBUG_SXSCAN=1 timeout 120 scanimage -d '" +
               kDevice + "' --format=pnm --mode Color --resolution 600 -l 0 -t 0 -x 215.9 -y 279.4 2>queue.log "
               "| (sleep 1; cat >big.pnm)",
           &status);
  ASSERT_EQ(status, 0);
  std::string head(64, '\0');
  std::ifstream(root_.Path() / "big.pnm", std::ios::binary).read(head.data(), static_cast<long>(head.size()));
  int w = 0, h = 0;
  const size_t headerBytes = head.size() - PnmPixels(head, &w, &h).size();
  EXPECT_TRUE(w == kWidth && h == kHeight) << w << " x " << h;
  EXPECT_EQ(fs::file_size(root_.Path() / "big.pnm"), headerBytes + size_t{3} * kWidth * kHeight);
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  EXPECT_LT(usage.ru_maxrss, kMaxRssKb);

  const std::string log = ReadFile(root_.Path() / "queue.log");
  const size_t at = log.find("high-water ");
  ASSERT_NE(at, std::string::npos) << log;
  const size_t highWater = std::stoull(log.substr(at + 11));
  EXPECT_NE(log.find("bound " + std::to_string(kQueueBound) + " bytes"), std::string::npos) << log;
  EXPECT_LE(highWater, kQueueBound);
  EXPECT_GE(highWater, kQueueBound / 2) << "the stalled frontend should have filled the queue";
}

// An interrupt in the middle of a page (SIGINT, as Ctrl-C sends): scanimage
// ends with an error and keeps no cut page as if it were whole, in a single
// page as in a feeder batch, whose pages before the cut stay.
TEST_F(Scanimage, AnInterruptKeepsNoCutPageAsWhole) {
  // Paced like real hardware (a 300 dpi page takes seconds), so the
  // interrupt lands mid-page however fast the machine is.
  root_.InstallVscan("Corvane/VScan", "[Feeder]\nSheets=3\n[Page]\nLineDelayUs=1000\n");
  struct Case {
    const char* args;
    const char* growing;  // the file to see growing before the interrupt
    std::vector<std::string> whole, absent;
  } cases[] = {
      {"--format=pnm -o one.pnm", "one.pnm", {}, {"one.pnm"}},
      {"--format=png -o one.png", "one.png", {}, {"one.png"}},
      {"--source ADF --resolution 100 --format=pnm --batch=p%d.pnm", "p2.pnm.part", {"p1.pnm"}, {"p2.pnm", "p3.pnm"}},
  };
  for (const auto& c : cases) {
    // Killed, and so failed, if it does not end by itself after the interrupt;
    // timeout passes the interrupt on to scanimage alone, as a terminal does.
    Started scan("env -C '" + root_.Path().string() + "' " + env_ + "timeout --foreground -k 5 60 scanimage -d '" +
                 kDevice + "' " + c.args + " 2>/dev/null");
    const fs::path growing = root_.Path() / c.growing;
    for (int i = 0; i < 500 && (!fs::exists(growing) || fs::file_size(growing) == 0); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const int code = scan.Wait(SIGINT);
    EXPECT_TRUE(code > 0 && code != 124 && code != 137) << c.args << ": exit code " << code;
    for (const auto& name : c.whole) EXPECT_TRUE(WholePnm(name)) << c.args << ": " << name;
    for (const auto& name : c.absent) EXPECT_TRUE(Absent(name)) << c.args << ": " << name;
  }
}

}  // namespace
