// What colour matching costs: an A4 colour page at 300 dpi (2544 x 3508
// pixels) acquired with colour matching on, against the same acquisition with
// it off, and against a bare Little CMS transform over the same page (the
// module's own work), all in the same run. Goal: the colour-matched
// acquisition takes under 10% more than plain acquisition plus bare transform.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "modules/cmms/Profiles.h"
#include "sxscan.h"
#include "sxsys.h"

namespace {

namespace fs = std::filesystem;
using sxbench::kHostBuffer;

constexpr int32_t kPixels = 2544;
constexpr int32_t kLines = 3508;
constexpr int64_t kPageBytes = int64_t{3} * kPixels * kLines;

using sxbench::WriteText;

struct Setup {
  sxbench::BenchHost Host{"sxcolourbench-"};
  bool Ready = false;

  Setup() {
    const fs::path& root = Host.Root;
    const fs::path folder = sxbench::InstallScanner(
        root, "", "\"PIXELTYPE\"=dword:00000002\n\"SCANTYPE\"=dword:00000002\n"
                  "\"XRESOLUTION\"=dword:0000012c\n\"YRESOLUTION\"=dword:0000012c\n"
                  "\"IMAGEWIDTH\"=str(2):\"2550\"\n\"IMAGELENGTH\"=str(2):\"3508\"\n");
    const fs::path color = root / "windows/system32/SPOOL/DRIVERS/COLOR";
    fs::create_directories(color);
    fs::copy_file(SX_BENCH_CMMS, root / "windows/system32/sxcmms.dll", fs::copy_options::overwrite_existing);
    WriteText(folder / "cmatch.ini", "[Model]\nQM7110V=scanner.icc\n");
    sx::cmms::SaveProfile(sx::cmms::CreateScannerProfile(), (color / "scanner.icc").string());
    if (!Host.Load()) return;
    SxValueList* list = nullptr;
    Host.Api.QueryData(CAP_COLORMATCH, TY_INT32, &list);  // loads the module and takes the profile
    if (!list || list->Count != 2) return;
    Ready = Host.AllocBuffer();
  }
};

Setup& Bench() {
  static Setup setup;
  return setup;
}

void Acquisition(benchmark::State& state, uint8_t colorMatch) {
  Setup& s = Bench();
  if (!s.Ready) {
    state.SkipWithError("the library did not load the scanner with colour matching");
    return;
  }
  s.Host.Api.SetValue(CAP_COLORMATCH, TY_UINT8, &colorMatch);
  sxbench::AcquirePages(state, s.Host, kPageBytes);
}

void BM_AcquisitionColourMatched(benchmark::State& state) { Acquisition(state, 1); }
void BM_AcquisitionPlain(benchmark::State& state) { Acquisition(state, 0); }
BENCHMARK(BM_AcquisitionColourMatched)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_AcquisitionPlain)->Unit(benchmark::kMillisecond)->MinTime(2.0);

std::vector<uint8_t> gPage;

int32_t SX_API KeepPage(void* data, int64_t* count, int32_t code) {
  if (code == SX_XFER_IMAGE_INFO) {
    *count = kHostBuffer;
    return 0;
  }
  const auto* bytes = static_cast<const uint8_t*>(data);
  gPage.insert(gPage.end(), bytes, bytes + *count);
  return 0;
}

// The module's work alone: the same transform over the same page (acquired
// plain once), line by line.
void BM_BareTransform(benchmark::State& state) {
  Setup& s = Bench();
  uint8_t off = 0;
  s.Host.Api.SetValue(CAP_COLORMATCH, TY_UINT8, &off);
  gPage.clear();
  if (!s.Ready || s.Host.Api.Acquire(KeepPage, s.Host.Buffer) != 0 || gPage.size() != kPageBytes) {
    state.SkipWithError("the plain page could not be acquired");
    return;
  }
  cmsHPROFILE in = sx::cmms::CreateScannerProfile(), out = cmsCreate_sRGBProfile();
  cmsHTRANSFORM t = cmsCreateTransform(in, TYPE_RGB_8, out, TYPE_RGB_8, INTENT_PERCEPTUAL, 0);
  std::vector<uint8_t> page(gPage.size());
  for (auto _ : state) {
    std::copy(gPage.begin(), gPage.end(), page.begin());
    for (int32_t y = 0; y < kLines; ++y) {
      uint8_t* line = page.data() + int64_t{3} * kPixels * y;
      cmsDoTransform(t, line, line, kPixels);
    }
    benchmark::DoNotOptimize(page.data());
  }
  state.SetBytesProcessed(state.iterations() * kPageBytes);
  cmsDeleteTransform(t);
  cmsCloseProfile(in);
  cmsCloseProfile(out);
}
BENCHMARK(BM_BareTransform)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
