// What a direct acquisition costs over reading the scanner itself: an A4
// colour page at 300 dpi (2544 x 3508 pixels, 26.8 MB) from the virtual
// scanner through SxAcquire with a 1 MiB host buffer, against a loop that
// reads the same blocks straight from the module's ReadScanEx, in the same
// run. Goal: the acquisition reaches at least 90% of the raw rate with
// tracing off.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "sxdriver.h"
#include "sxscan.h"
#include "sxsys.h"

namespace {

namespace fs = std::filesystem;
using sxbench::CountingCallback;
using sxbench::gDelivered;
using sxbench::kHostBuffer;

constexpr int32_t kPixels = 2544;
constexpr int32_t kLines = 3508;
constexpr int64_t kLineBytes = 3 * kPixels;
constexpr int64_t kPageBytes = kLineBytes * kLines;
constexpr int64_t kBlockLines = kHostBuffer / kLineBytes;  // 137

using sxbench::Resolve;

// A temporary root with one virtual scanner for the library and a second
// copy of the module for the raw reads (a separate file, so a separate
// instance with its own page state).
struct Setup {
  fs::path Root;
  fs::path RawModule;
  sxbench::HostApi Api;
  void* Buffer = nullptr;
  bool Ready = false;

  Setup() {
    Root = fs::temp_directory_path() / ("sxbench-" + std::to_string(::getpid()));
    sxbench::InstallScanner(Root, "",
                            "\"PIXELTYPE\"=dword:00000002\n\"SCANTYPE\"=dword:00000002\n"
                            "\"XRESOLUTION\"=dword:0000012c\n\"YRESOLUTION\"=dword:0000012c\n"
                            "\"IMAGEWIDTH\"=str(2):\"2550\"\n\"IMAGELENGTH\"=str(2):\"3508\"\n");
    RawModule = Root / "raw" / "vscan.dll";
    fs::create_directories(RawModule.parent_path());
    fs::copy_file(SX_BENCH_VSCAN, RawModule, fs::copy_options::overwrite_existing);
    ::setenv("SX_ROOT", Root.c_str(), 1);
    if (!Api.BindAndLoad()) return;
    Buffer = Api.Lock(Api.Alloc(SX_GHND, kHostBuffer));
    Ready = Buffer != nullptr;
  }
  ~Setup() {
    Api.Unbind();
    std::error_code ec;
    fs::remove_all(Root, ec);
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
  for (auto _ : state) {
    gDelivered = 0;
    if (s.Api.Acquire(CountingCallback, s.Buffer) != 0 || gDelivered != kPageBytes) {
      state.SkipWithError("the acquisition failed");
      return;
    }
  }
  state.SetBytesProcessed(state.iterations() * kPageBytes);
}
BENCHMARK(BM_DirectAcquisition)->Unit(benchmark::kMillisecond)->MinTime(2.0);

// The same page from the module directly: the parameters the library sends,
// its default tone (gamma 2.2 on every channel), blocks of 137 lines.
void BM_RawReadScan(benchmark::State& state) {
  Setup& s = Bench();
  void* module = dlopen(s.RawModule.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!module) {
    state.SkipWithError("the module did not load");
    return;
  }
  auto init = Resolve<PFN_InitializeDriver>(module, "InitializeDriver");
  auto setParameter = Resolve<PFN_SetScanParameter>(module, "SetScanParameter");
  auto setGamma = Resolve<PFN_SetGammaTable>(module, "SetGammaTable");
  auto start = Resolve<PFN_StartScan>(module, "StartScan");
  auto read = Resolve<PFN_ReadScanEx>(module, "ReadScanEx");
  auto stop = Resolve<PFN_StopScan>(module, "StopScan");

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
  for (int i = 0; i < 256; ++i) {
    tone[i] = static_cast<uint8_t>(std::pow(i * (1.0 / 255), 1 / 2.2) * 255 + 0.5);
  }
  std::vector<uint8_t> buffer(kHostBuffer);
  if (init() == 0 || setParameter(&p) == 0) {
    state.SkipWithError("the module refused the scan");
    dlclose(module);
    return;
  }
  for (int32_t channel = 1; channel <= 3; ++channel) setGamma(tone, channel, 256);

  for (auto _ : state) {
    start();
    int64_t left = kLines;
    while (left > 0) {
      const int64_t lines = std::min(left, kBlockLines);
      ReadScanRequest request{buffer.data(), static_cast<uint32_t>(lines * kLineBytes), 0, 0};
      read(&request);
      benchmark::DoNotOptimize(buffer.data());
      left -= lines;
    }
    stop();
  }
  state.SetBytesProcessed(state.iterations() * kPageBytes);
  dlclose(module);
}
BENCHMARK(BM_RawReadScan)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
