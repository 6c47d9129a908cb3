// What a direct acquisition costs over reading the scanner itself: an A4
// colour page at 300 dpi (2544 x 3508 pixels, 26.8 MB) from the virtual
// scanner at memory speed (each page drawn before its first read, every read
// a copy) through SxAcquire with a 1 MiB host buffer and the block chain off
// (no descreen, sharpening or colour matching), against a loop that reads
// the same blocks straight from the module's ReadScanEx and against memcpy
// of the same bytes, in the same run. Goal: the acquisition reaches at least
// 90% of the raw rate.
#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "sxdriver.h"
#include "sxscan.h"
#include "sxsys.h"

namespace {

namespace fs = std::filesystem;
using sxbench::kHostBuffer;
using sxbench::Resolve;

constexpr int32_t kPixels = 2544;
constexpr int32_t kLines = 3508;
constexpr int64_t kLineBytes = 3 * kPixels;
constexpr int64_t kPageBytes = kLineBytes * kLines;
constexpr int64_t kBlockLines = kHostBuffer / kLineBytes;  // 137
constexpr double kGoal = 0.90;                             // direct / raw
// Each benchmark is repeated and its median kept, so that another program
// taking the processor for a moment does not decide the ratio.
constexpr int kRepetitions = 5;
constexpr double kMinSeconds = 0.5;

// The scanner at memory speed: the page is drawn once, every read copies it.
const char* const kMemorySpeed = "[Page]\nPrerender=1\n";

// A temporary root with one virtual scanner for the library and a second
// copy of the module for the raw reads (a separate file, so a separate
// instance with its own page state).
struct Setup {
  sxbench::BenchHost Host{"sxbench-"};
  fs::path RawModule;
  bool Ready = false;

  Setup() {
    // The chain off: stored settings that ask for no descreen, sharpening or
    // colour matching, and no progress dialog.
    sxbench::InstallScanner(Host.Root, kMemorySpeed,
                            "\"PIXELTYPE\"=dword:00000002\n\"SCANTYPE\"=dword:00000002\n"
                            "\"XRESOLUTION\"=dword:0000012c\n\"YRESOLUTION\"=dword:0000012c\n"
                            "\"IMAGEWIDTH\"=str(2):\"2550\"\n\"IMAGELENGTH\"=str(2):\"3508\"\n"
                            "\"DESCREEN\"=dword:00000000\n\"SHARPEN\"=dword:00000000\n"
                            "\"COLORMATCH\"=dword:00000000\n\"UICONTROL\"=dword:00000000\n"
                            "\"INDICATORS\"=dword:00000000\n");
    RawModule = Host.Root / "raw" / "vscan.dll";
    fs::create_directories(RawModule.parent_path());
    fs::copy_file(SX_BENCH_VSCAN, RawModule, fs::copy_options::overwrite_existing);
    sxbench::WriteText(Host.Root / "raw" / "vscan.ini", kMemorySpeed);
    Ready = Host.Load() && Host.AllocBuffer();
  }
};

Setup& Bench() {
  static Setup setup;
  return setup;
}

void BM_DirectAcquisition(benchmark::State& state) {
  Setup& s = Bench();
  if (!s.Ready) {
    state.SkipWithError("the library did not load the virtual scanner");
    return;
  }
  sxbench::AcquirePages(state, s.Host, kPageBytes);
}
BENCHMARK(BM_DirectAcquisition)->Unit(benchmark::kMillisecond)->MinTime(kMinSeconds)->Repetitions(kRepetitions);

// The entry points of the raw module copy, and the page it was asked for.
struct RawModule {
  void* Handle = nullptr;
  PFN_StartScan Start = nullptr;
  PFN_ReadScanEx Read = nullptr;
  PFN_StopScan Stop = nullptr;

  // The parameters the library sends and its default tone (gamma 2.2 on
  // every channel); false when the module does not load or refuses.
  bool Open(const fs::path& path) {
    Handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!Handle) return false;
    auto init = Resolve<PFN_InitializeDriver>(Handle, "InitializeDriver");
    auto setParameter = Resolve<PFN_SetScanParameter>(Handle, "SetScanParameter");
    auto setGamma = Resolve<PFN_SetGammaTable>(Handle, "SetGammaTable");
    Start = Resolve<PFN_StartScan>(Handle, "StartScan");
    Read = Resolve<PFN_ReadScanEx>(Handle, "ReadScanEx");
    Stop = Resolve<PFN_StopScan>(Handle, "StopScan");
    ScanParameter p{};
    p.Width = 2550;
    p.Length = kLines;
    p.PixelNum = kPixels;
    p.LineNum = kLines;
    p.ScanMode = 4;
    p.BitsPerPixel = 24;
    p.Highlight = 255;
    p.ColorFilter = 2;
    p.ExtScanParam = 0x9000;
    p.XRes = p.YRes = 300;
    p.BackgroundLines = 50;
    p.ExtensionFlag = 1;
    uint8_t tone[256];
    for (int i = 0; i < 256; ++i) tone[i] = static_cast<uint8_t>(std::pow(i * (1.0 / 255), 1 / 2.2) * 255 + 0.5);
    if (init() == 0 || setParameter(&p) == 0) return false;
    for (int32_t channel = 1; channel <= 3; ++channel) setGamma(tone, channel, 256);
    return true;
  }
  // One whole page in host-buffer blocks; the bytes read.
  int64_t Page(uint8_t* buffer) const {
    int64_t got = 0;
    Start();
    for (int64_t left = kLines; left > 0;) {
      const int64_t lines = std::min(left, kBlockLines);
      ReadScanRequest request{buffer, static_cast<uint32_t>(lines * kLineBytes), 0, 0};
      Read(&request);
      got += request.BytesReturned;
      benchmark::DoNotOptimize(buffer);
      left -= lines;
    }
    Stop();
    return got;
  }
  ~RawModule() {
    if (Handle) dlclose(Handle);
  }
};

void BM_RawReadScan(benchmark::State& state) {
  Setup& s = Bench();
  RawModule raw;
  if (!raw.Open(s.RawModule)) {
    state.SkipWithError("the module did not load or refused the scan");
    return;
  }
  std::vector<uint8_t> buffer(kHostBuffer);
  raw.Page(buffer.data());  // the drawing, outside the measurement
  for (auto _ : state) {
    if (raw.Page(buffer.data()) != kPageBytes) {
      state.SkipWithError("the module delivered a short page");
      return;
    }
  }
  state.SetBytesProcessed(state.iterations() * kPageBytes);
}
BENCHMARK(BM_RawReadScan)->Unit(benchmark::kMillisecond)->MinTime(kMinSeconds)->Repetitions(kRepetitions);

// The floor of any delivery: the page's bytes copied block by block into one
// host buffer.
void BM_Memcpy(benchmark::State& state) {
  const std::vector<uint8_t> page(kPageBytes, 0x5a);
  std::vector<uint8_t> buffer(kHostBuffer);
  for (auto _ : state) {
    for (int64_t at = 0; at < kPageBytes; at += kBlockLines * kLineBytes) {
      const int64_t n = std::min(kBlockLines * kLineBytes, kPageBytes - at);
      std::memcpy(buffer.data(), page.data() + at, static_cast<size_t>(n));
      benchmark::DoNotOptimize(buffer.data());
      benchmark::ClobberMemory();
    }
  }
  state.SetBytesProcessed(state.iterations() * kPageBytes);
}
BENCHMARK(BM_Memcpy)->Unit(benchmark::kMillisecond)->MinTime(kMinSeconds)->Repetitions(kRepetitions);

// Keeps the median rate of every benchmark while the console shows the runs.
class MedianReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Aggregate || run.aggregate_name != "median" || run.error_occurred) continue;
      const auto rate = run.counters.find("bytes_per_second");
      if (rate != run.counters.end()) Rates[run.run_name.function_name] = rate->second.value / 1e6;
    }
  }
  std::map<std::string, double> Rates;  // MB/s by benchmark
};

void PrintSummary(const std::map<std::string, double>& rates) {
  auto rate = [&](const char* name) {
    const auto it = rates.find(name);
    return it == rates.end() ? 0.0 : it->second;
  };
  const double direct = rate("BM_DirectAcquisition"), raw = rate("BM_RawReadScan"), copy = rate("BM_Memcpy");
  std::printf("\nmedian of %d runs, MB/s: direct %.0f, raw ReadScanEx %.0f, memcpy %.0f\n", kRepetitions, direct,
              raw, copy);
  if (direct <= 0 || raw <= 0 || copy <= 0) {
    std::printf("a benchmark failed: no ratios\n");
    return;
  }
  std::printf("direct / raw    %5.1f %%  (goal >= %.0f %%: %s)\n", 100 * direct / raw, 100 * kGoal,
              direct >= kGoal * raw ? "met" : "not met");
  std::printf("direct / memcpy %5.1f %%\nraw / memcpy    %5.1f %%\n", 100 * direct / copy, 100 * raw / copy);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  MedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  PrintSummary(reporter.Rates);
  benchmark::Shutdown();
  return 0;
}
