// The block chain's speed on a 2544 x 3300 colour page (25.2 MB), single
// thread, in MB/s of input, against baselines measured in the same run:
// memcpy and OpenCV's boxFilter 4x4, filter2D 3x3, resize INTER_LINEAR to 2/3
// and to 1/2, and LUT. Every kernel runs once per kernel set this processor can run (only
// the one SX_KERNELS names, where it is set). Then a descreened and sharpened
// acquisition from a scanner as slow as the library is fast, buffered against
// direct.
//
// Goals: descreen /16, sharpening and tone tables >= 0.5x memcpy; descreen
// /16 >= 2x boxFilter, descreen /28 >= 2x boxFilter, sharpening >= 2x
// filter2D, 2/3 scaling >= 1.3x resize, inversion >= 0.9x memcpy, buffered
// >= 1.6x direct.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "BenchSupport.h"
#include "imaging/BlockChain.h"
#include "imaging/kernels/Kernels.h"
#include "sxscan.h"
#include "sxsys.h"

namespace {

constexpr int32_t kPixels = 2544;
constexpr int32_t kLines = 3300;
constexpr int32_t kLineBytes = 3 * kPixels;
constexpr size_t kPageBytes = size_t{kLineBytes} * kLines;
constexpr int32_t kBlockLines = 137;  // a 1 MiB block of these lines
constexpr int32_t kSharpenLevel = 2;
using sxbench::kHostBuffer;  // the host's transfer buffer, as sxscan's default

using Bytes = std::vector<uint8_t>;

// A printed page's texture: smooth ramps under a fine screen and noise.
const Bytes& Page() {
  static const Bytes page = [] {
    Bytes p(kPageBytes);
    std::mt19937 rng(5);
    for (int32_t y = 0; y < kLines; ++y)
      for (int32_t x = 0; x < kLineBytes; ++x)
        p[size_t(y) * kLineBytes + size_t(x)] =
            static_cast<uint8_t>((x / 3 + y) / 24 + (((x / 3) ^ y) & 4) * 20 + (rng() & 15));
    return p;
  }();
  return page;
}

Bytes gOut(kPageBytes);

sx::ScanSettings Colour(int32_t outPixels, int32_t outLines) {
  sx::ScanSettings s{};
  s.PixelType = 2, s.BitsPerPixel = 24, s.Buffering = 1;
  s.ScanPixels = kPixels, s.OutputPixels = outPixels;
  s.ScanBytesPerLine = kLineBytes, s.OutputBytesPerLine = 3 * outPixels;
  s.ScanLines = kLines, s.OutputLines = outLines;
  return s;
}

// Runs `block` over the page in blocks as an acquisition does.
template <typename Block>
void OverPage(sx::ScanSettings& s, Block block) {
  s.LinesDelivered = 0;
  for (int32_t y = 0; y < kLines; y += kBlockLines) {
    const int32_t lines = std::min(kBlockLines, kLines - y);
    block(size_t(y) * kLineBytes, lines);
    s.LinesDelivered += lines;
  }
}

void WithSet(benchmark::State& state) {
  const sx::KernelSet& set = sx::KernelSetAt(static_cast<int32_t>(state.range(0)));
  sx::UseKernels(&set);
  state.SetLabel(set.Name);
}

void Done(benchmark::State& state) {
  sx::UseKernels(nullptr);
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t{kPageBytes});
}

// The filters and the scaling run as the block chain runs them, in place in
// the block, here on a copy of the page: each run filters the previous run's
// output, which changes the bytes but not the time. (Writing to a second
// page, as memcpy does, would add a read of every output line before it is
// written, which the chain never pays.)
struct ChainFilter {
  int32_t (*Prepare)(sx::ScanSettings&);
  void (*Run)(uint8_t* block, sx::ScanSettings& s, int32_t lines);
  void (*Release)();
};

const ChainFilter kDescreen = {
    sx::PrepareDescreen,
    [](uint8_t* block, sx::ScanSettings& s, int32_t lines) { sx::DescreenFilter(block, block, s, kLineBytes, lines); },
    sx::ReleaseDescreen};
const ChainFilter kSharpen = {
    sx::PrepareSharpen,
    [](uint8_t* block, sx::ScanSettings& s, int32_t lines) { sx::SharpenBlock(block, block, s.Sharpen, s, lines); },
    sx::ReleaseSharpen};

// `descreen` and `sharpen` are the settings' levels for the filter.
void BM_Filter(benchmark::State& state, const ChainFilter* filter, uint8_t descreen, uint8_t sharpen) {
  WithSet(state);
  sx::ScanSettings s = Colour(kPixels, kLines);
  s.Descreen = descreen, s.Sharpen = sharpen;
  filter->Prepare(s);
  Bytes page = Page();
  for (auto _ : state) {
    OverPage(s, [&](size_t at, int32_t lines) { filter->Run(page.data() + at, s, lines); });
    benchmark::ClobberMemory();
  }
  filter->Release();
  Done(state);
}

// Both passes: lines first, then pixels; each block's output lines are
// packed at its start. The page becomes `num`/`den` of its size.
void BM_Scale(benchmark::State& state, int32_t num, int32_t den) {
  WithSet(state);
  sx::ScanSettings s = Colour(kPixels * num / den, kLines * num / den);
  Bytes page = Page();
  for (auto _ : state) {
    sx::PrepareLineScaling(s);
    OverPage(s, [&](size_t at, int32_t n) {
      uint8_t* block = page.data() + at;
      sx::ScalePixelsHorizontal(block, block, s, sx::ScaleLinesVertical(s, block, block, n));
    });
    benchmark::ClobberMemory();
  }
  sx::ReleaseLineScaling();
  Done(state);
}

void BM_Invert(benchmark::State& state) {
  WithSet(state);
  std::memcpy(gOut.data(), Page().data(), kPageBytes);
  for (auto _ : state) {
    sx::Kernels().Invert(gOut.data(), kPageBytes);
    benchmark::ClobberMemory();
  }
  Done(state);
}

// One table for the three channels (only the master table set), or three
// that differ.
void BM_Tone(benchmark::State& state, bool threeTables) {
  WithSet(state);
  Bytes tables(768);
  for (int i = 0; i < 768; ++i)
    tables[size_t(i)] = static_cast<uint8_t>(255 - (i % 256) / (threeTables ? 2 + i / 256 : 2));
  for (auto _ : state) {
    sx::Kernels().ToneMap(gOut.data(), Page().data(), size_t{kPixels} * kLines, 3, tables.data());
    benchmark::ClobberMemory();
  }
  Done(state);
}

// The baselines.
cv::Mat PageMat() { return cv::Mat(kLines, kPixels, CV_8UC3, const_cast<uint8_t*>(Page().data())); }

template <typename Run>
void Baseline(benchmark::State& state, Run run) {
  cv::setNumThreads(1);
  for (auto _ : state) {
    run();
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t{kPageBytes});
}

void BM_Memcpy(benchmark::State& state) {
  Baseline(state, [] { std::memcpy(gOut.data(), Page().data(), kPageBytes); });
}

void BM_CvBoxFilter(benchmark::State& state) {
  cv::Mat src = PageMat(), dst;
  Baseline(state, [&] { cv::boxFilter(src, dst, -1, cv::Size(4, 4), cv::Point(-1, -1), true, cv::BORDER_REPLICATE); });
}

void BM_CvFilter2D(benchmark::State& state) {
  cv::Mat src = PageMat(), dst;
  cv::Mat kernel(3, 3, CV_32F, cv::Scalar(-1.0f / (11 - kSharpenLevel)));
  kernel.at<float>(1, 1) = float(19 - kSharpenLevel) / (11 - kSharpenLevel);
  Baseline(state, [&] { cv::filter2D(src, dst, -1, kernel, cv::Point(-1, -1), 0, cv::BORDER_REPLICATE); });
}

void BM_CvResize(benchmark::State& state, int32_t num, int32_t den) {
  cv::Mat src = PageMat(), dst;
  const cv::Size size(kPixels * num / den, kLines * num / den);
  Baseline(state, [&] { cv::resize(src, dst, size, 0, 0, cv::INTER_LINEAR); });
}

void BM_CvLut(benchmark::State& state) {
  cv::Mat src = PageMat(), dst;
  cv::Mat lut(1, 256, CV_8UC3);
  for (int i = 0; i < 256; ++i) lut.at<cv::Vec3b>(0, i) = cv::Vec3b::all(static_cast<uint8_t>(255 - i / 2));
  Baseline(state, [&] { cv::LUT(src, lut, dst); });
}

// Collects bytes per second by benchmark name and kernel set.
class Collector : public benchmark::ConsoleReporter {
 public:
  std::map<std::string, double> Rate;  // "name" for the best set, "name/portable" too
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      const auto it = run.counters.find("bytes_per_second");
      if (it == run.counters.end()) continue;
      std::string name = run.run_name.function_name;
      const double mbps = it->second.value / 1e6;
      if (!run.report_label.empty()) Rate[name + "/" + run.report_label] = mbps;
      Rate[name] = std::max(Rate[name], mbps);
    }
  }
};

void Register() {
  std::vector<int64_t> sets;
  for (int32_t i = 0; i < sx::KernelSetCount(); ++i)
    if (!std::getenv("SX_KERNELS") || &sx::KernelSetAt(i) == &sx::Kernels()) sets.push_back(i);
  auto each = [&](benchmark::internal::Benchmark* b) {
    for (int64_t i : sets) b->Arg(i);
    b->Unit(benchmark::kMillisecond)->MinTime(0.5);
  };
  each(benchmark::RegisterBenchmark("descreen16", BM_Filter, &kDescreen, uint8_t{1}, uint8_t{0}));
  each(benchmark::RegisterBenchmark("descreen28", BM_Filter, &kDescreen, uint8_t{2}, uint8_t{0}));
  each(benchmark::RegisterBenchmark("sharpen", BM_Filter, &kSharpen, uint8_t{0}, uint8_t{kSharpenLevel}));
  each(benchmark::RegisterBenchmark("scale_2_3", BM_Scale, 2, 3));
  each(benchmark::RegisterBenchmark("scale_1_2", BM_Scale, 1, 2));
  each(benchmark::RegisterBenchmark("invert", BM_Invert));
  each(benchmark::RegisterBenchmark("tone", BM_Tone, false));
  each(benchmark::RegisterBenchmark("tone_3_tables", BM_Tone, true));
  using Fn = void (*)(benchmark::State&);
  const std::pair<const char*, Fn> baselines[] = {{"memcpy", BM_Memcpy}, {"cv_boxFilter_4x4", BM_CvBoxFilter},
                                                  {"cv_filter2D_3x3", BM_CvFilter2D}, {"cv_LUT", BM_CvLut}};
  for (auto [name, fn] : baselines)
    benchmark::RegisterBenchmark(name, fn)->Unit(benchmark::kMillisecond)->MinTime(0.5);
  for (auto [name, num, den] : {std::tuple{"cv_resize_2_3", 2, 3}, std::tuple{"cv_resize_1_2", 1, 2}})
    benchmark::RegisterBenchmark(name, BM_CvResize, num, den)->Unit(benchmark::kMillisecond)->MinTime(0.5);
}

// --- Buffered against direct, with the scanner as slow as the processing.

sxbench::HostApi gApi;

using sxbench::CountingCallback;
using sxbench::gDelivered;

// Seconds of one acquisition in the current mode; 0 on failure. The buffer
// is locked for each acquisition, as a host does: direct descreening may
// move the block to make room for raw lines.
double TimeOnce(SxHandle buffer) {
  gDelivered = 0;
  const auto start = std::chrono::steady_clock::now();
  const int32_t result = gApi.Acquire(CountingCallback, gApi.Lock(buffer));
  gApi.Unlock(buffer);
  if (result != 0 || gDelivered != int64_t{kPageBytes}) {
    std::fprintf(stderr, "acquisition: result %d, %lld bytes delivered of %zu\n", result,
                 static_cast<long long>(gDelivered), kPageBytes);
    return 0;
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// A median time and whether it can be trusted: another program taking the
// processor for a while shows as a spread of the samples.
struct Timing {
  double Median = 0;
  double Spread = 0;  // interquartile range over the median
  bool Failed = false;
  bool Stable() const { return !Failed && Median > 0 && Spread <= kMaxSpread; }
  static constexpr double kMaxSpread = 0.15;
};

// Acquisitions in one mode until the median is stable (at least kMinRuns,
// at most kMaxRuns).
Timing TimeAcquisition(uint8_t buffering, SxHandle buffer) {
  constexpr size_t kMinRuns = 5, kMaxRuns = 15;
  Timing t;
  if (gApi.SetValue(CAP_BUFFERING, TY_UINT8, &buffering) != 0) {
    std::fprintf(stderr, "acquisition: buffering %d refused\n", buffering);
    t.Failed = true;
    return t;
  }
  std::vector<double> samples;
  while (samples.size() < kMaxRuns) {
    const double seconds = TimeOnce(buffer);
    if (seconds <= 0) {
      t.Failed = true;
      return t;
    }
    samples.push_back(seconds);
    if (samples.size() < kMinRuns) continue;
    std::vector<double> sorted = samples;
    std::sort(sorted.begin(), sorted.end());
    const size_t n = sorted.size();
    t.Median = n % 2 ? sorted[n / 2] : (sorted[n / 2 - 1] + sorted[n / 2]) / 2;
    t.Spread = (sorted[(3 * n) / 4] - sorted[n / 4]) / t.Median;
    if (t.Stable()) break;
  }
  return t;
}

// Loads the library on a scanner that moves at `lineUs` per raw line and
// draws each page before its first read, so that only the library's
// processing competes for the processor, as with a real scanner. The
// scanner's call log tells how many raw lines a page has.
SxHandle LoadAtPace(const sxbench::fs::path& root, int32_t lineUs) {
  // The library's workers live from its loading to SxFree, so each set-up
  // loads the library afresh.
  gApi.Unbind();
  sxbench::InstallScanner(root, "[Page]\nPrerender=1\nLineDelayUs=" + std::to_string(lineUs) + "\n[Log]\nFile=calls.log\n",
                          "\"PIXELTYPE\"=dword:00000002\n\"SCANTYPE\"=dword:00000002\n"
                          "\"XRESOLUTION\"=dword:0000012c\n\"YRESOLUTION\"=dword:0000012c\n"
                          "\"IMAGEWIDTH\"=str(2):\"2550\"\n\"IMAGELENGTH\"=str(2):\"3300\"\n"
                          "\"DESCREEN\"=dword:00000001\n\"SHARPEN\"=dword:00000002\n");
  if (!gApi.Bind()) {
    std::fprintf(stderr, "acquisition: %s\n", dlerror());
    return nullptr;
  }
  if (const int32_t loaded = gApi.Load(nullptr); loaded != 0) {
    std::fprintf(stderr, "acquisition: SxLoad gave %d\n", loaded);
    return nullptr;
  }
  return gApi.Alloc(SX_GHND, kHostBuffer);
}

// The raw lines of the last page the scanner started, from its call log
// ("StartScan() -> 1 page=1 sheet=0 lines=N ..."); 0 when none was.
int64_t RawLinesLogged(const sxbench::fs::path& log) {
  std::ifstream in(log);
  int64_t lines = 0;
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("StartScan()", 0) != 0) continue;
    const size_t at = line.find(" lines=");
    if (at != std::string::npos) lines = std::atoll(line.c_str() + at + 7);
  }
  return lines;
}

struct Overlap {
  Timing Processing, Direct, Buffered;
  int64_t RawLines = 0;
  int32_t LineUs = 0;
  bool Failed() const { return Processing.Failed || Direct.Failed || Buffered.Failed || RawLines <= 0; }
  bool Stable() const { return Processing.Stable() && Direct.Stable() && Buffered.Stable(); }
};

// The scanner's pace is set so that it spends as long moving as the library
// spends processing the page, where a buffered acquisition can at best halve
// the direct time. The processing time is a direct acquisition from the
// scanner at memory speed; the raw lines come from the scanner's log.
Overlap MeasureOverlap() {
  Overlap o;
  const auto root = sxbench::fs::temp_directory_path() / ("sximaging-" + std::to_string(::getpid()));
  ::setenv("SX_ROOT", root.c_str(), 1);
  SxHandle buffer = LoadAtPace(root, 0);
  o.Processing = buffer ? TimeAcquisition(0, buffer) : Timing{0, 0, true};
  o.RawLines = RawLinesLogged(sxbench::ScannerFolder(root) / "calls.log");
  if (!o.Processing.Failed && o.RawLines > 0) {
    o.LineUs = std::max(1, static_cast<int32_t>(o.Processing.Median * 1e6 / double(o.RawLines) + 0.5));
    buffer = LoadAtPace(root, o.LineUs);
    o.Direct = buffer ? TimeAcquisition(0, buffer) : Timing{0, 0, true};
    o.Buffered = buffer ? TimeAcquisition(1, buffer) : Timing{0, 0, true};
  }
  gApi.Unbind();
  std::error_code ec;
  sxbench::fs::remove_all(root, ec);
  return o;
}

// A goal of 0 reports the ratio alone.
void Goal(const char* what, double ratio, double goal) {
  if (goal <= 0) {
    std::printf("  %-40s %6.2fx\n", what, ratio);
    return;
  }
  std::printf("  %-40s %6.2fx  (goal >= %.1fx: %s)\n", what, ratio, goal, ratio >= goal ? "met" : "MISSED");
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  Register();
  Collector collector;
  benchmark::RunSpecifiedBenchmarks(&collector);
  auto& r = collector.Rate;
  std::printf("\nRatios (fastest kernel set of those run; default here: %s)\n", sx::Kernels().Name);
  if (r["memcpy"] > 0) {
    Goal("descreen /16 vs memcpy", r["descreen16"] / r["memcpy"], 0.5);
    Goal("sharpen vs memcpy", r["sharpen"] / r["memcpy"], 0.5);
    Goal("tone tables vs memcpy", r["tone"] / r["memcpy"], 0.5);
    Goal("tone tables, three tables, vs memcpy", r["tone_3_tables"] / r["memcpy"], 0);
    Goal("inversion vs memcpy", r["invert"] / r["memcpy"], 0.9);
  }
  if (r["cv_boxFilter_4x4"] > 0) Goal("descreen /16 vs OpenCV boxFilter 4x4", r["descreen16"] / r["cv_boxFilter_4x4"], 2);
  if (r["cv_boxFilter_4x4"] > 0) Goal("descreen /28 vs OpenCV boxFilter 4x4", r["descreen28"] / r["cv_boxFilter_4x4"], 2);
  if (r["cv_filter2D_3x3"] > 0) Goal("sharpen vs OpenCV filter2D 3x3", r["sharpen"] / r["cv_filter2D_3x3"], 2);
  if (r["cv_resize_2_3"] > 0) Goal("2/3 scaling vs OpenCV resize", r["scale_2_3"] / r["cv_resize_2_3"], 1.3);
  if (r["cv_resize_1_2"] > 0) Goal("1/2 scaling vs OpenCV resize", r["scale_1_2"] / r["cv_resize_1_2"], 0);
  if (r["cv_LUT"] > 0) Goal("tone tables vs OpenCV LUT", r["tone"] / r["cv_LUT"], 0);
  const Overlap o = MeasureOverlap();
  if (o.Failed()) {
    std::printf("  buffered vs direct: the acquisition failed\n");
  } else {
    std::printf("  acquisition: processing %.3f s, %lld raw lines; scanner at %d us per raw line: direct %.3f s, "
                "buffered %.3f s (medians; spreads %.0f %%, %.0f %%, %.0f %%)\n",
                o.Processing.Median, static_cast<long long>(o.RawLines), o.LineUs, o.Direct.Median,
                o.Buffered.Median, 100 * o.Processing.Spread, 100 * o.Direct.Spread, 100 * o.Buffered.Spread);
    if (o.Stable())
      Goal("buffered vs direct", o.Direct.Median / o.Buffered.Median, 1.6);
    else
      std::printf("  %-40s unstable (the machine is busy: a spread above %.0f %%)\n", "buffered vs direct",
                  100 * Timing::kMaxSpread);
  }
  benchmark::Shutdown();
  return 0;
}
