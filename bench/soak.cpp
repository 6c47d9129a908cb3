// The soak: many consecutive acquisitions on one loaded library, alternating
// transfer mode, source, pixel type, resolution and the block filters, then a
// check that the process is back where it started: resident memory, open file
// descriptors, threads and the global memory blocks the library and the host
// hold. Not a test: it runs for minutes.
//
//   soak [acquisitions]      default 10000
//
// Exit status: 0 when every acquisition succeeded and nothing grew, 1
// otherwise. Resident memory may move by allocator noise; growth past
// kRssSlackKiB counts as a leak.
#include <dirent.h>
#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "BenchSupport.h"
#include "sxscan.h"
#include "sxsys.h"

namespace {

namespace fs = std::filesystem;

constexpr int kDefaultAcquisitions = 10000;
constexpr int kWarmUp = 72;  // every combination once before the baseline
constexpr long kRssSlackKiB = 2048;
using sxbench::kHostBuffer;
constexpr int32_t kResolutions[] = {75, 150, 300};
constexpr int32_t kPixelTypes[] = {0, 1, 2};  // line art, grey, colour
constexpr int32_t kBitsOfType[] = {1, 8, 24};
constexpr int32_t kFlatbed = 2, kFeeder = 1;

struct Figures {
  long RssKiB = 0;
  int Fds = 0;
  int Threads = 0;
  size_t Blocks = 0;
};

long StatusField(const char* name) {
  std::ifstream in("/proc/self/status");
  std::string line;
  const size_t length = std::strlen(name);
  while (std::getline(in, line)) {
    if (line.compare(0, length, name) == 0) return std::atol(line.c_str() + length);
  }
  return -1;
}

int OpenDescriptors() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/fd")) ++count;
  return count;
}

sxbench::HostApi gApi;

Figures Measure() {
  return {StatusField("VmRSS:"), OpenDescriptors(), static_cast<int>(StatusField("Threads:")),
          gApi.Blocks()};
}

using sxbench::CountingCallback;
using sxbench::gDelivered;

// The settings of acquisition `i`: each choice cycles at its own period, so
// the run meets every combination.
bool Configure(int i) {
  uint8_t buffering = i % 2;
  int32_t source = (i / 2) % 2 ? kFeeder : kFlatbed;
  int32_t pixelType = kPixelTypes[(i / 4) % 3];
  int32_t bits = kBitsOfType[(i / 4) % 3];
  int32_t dpi = kResolutions[(i / 12) % 3];
  int32_t descreen = (i / 36) % 2;
  int32_t sharpen = (i / 72) % 2;
  return gApi.SetValue(CAP_BUFFERING, TY_UINT8, &buffering) == 0 &&
         gApi.SetValue(CAP_SCANTYPE, TY_INT32, &source) == 0 &&
         gApi.SetValue(CAP_PIXELTYPE, TY_INT32, &pixelType) == 0 &&
         gApi.SetValue(CAP_BITSPERPIXEL, TY_INT32, &bits) == 0 &&
         gApi.SetValue(CAP_XRESOLUTION, TY_INT32, &dpi) == 0 &&
         gApi.SetValue(CAP_YRESOLUTION, TY_INT32, &dpi) == 0 &&
         gApi.SetValue(CAP_DESCREEN, TY_INT32, &descreen) == 0 &&
         gApi.SetValue(CAP_SHARPEN, TY_INT32, &sharpen) == 0;
}

fs::path MakeRoot() {
  const fs::path root = fs::temp_directory_path() / ("sxsoak-" + std::to_string(::getpid()));
  sxbench::InstallScanner(root, "[Feeder]\nSheets=1000000\n",
                          "\"XFERCOUNT\"=str(2):\"2\"\n\"IMAGEWIDTH\"=str(2):\"600\"\n"
                          "\"IMAGELENGTH\"=str(2):\"300\"\n");
  return root;
}

void Report(const char* name, long before, long after, const char* unit) {
  std::printf("%-22s %10ld %10ld %+8ld %s\n", name, before, after, after - before, unit);
}

}  // namespace

int main(int argc, char** argv) {
  const int total = argc > 1 ? std::atoi(argv[1]) : kDefaultAcquisitions;
  const fs::path root = MakeRoot();
  ::setenv("SX_ROOT", root.c_str(), 1);
  if (!gApi.BindAndLoad()) {
    std::fprintf(stderr, "soak: the library did not load the virtual scanner\n");
    return 1;
  }
  // The host keeps its buffer locked throughout. Resolution scaling in
  // direct mode may enlarge and move it, so every acquisition starts from the
  // block's current address, fetched through its handle.
  SxHandle handle = gApi.Alloc(SX_GHND, kHostBuffer);
  gApi.Lock(handle);

  Figures before;
  int failures = 0;
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < total + kWarmUp; ++i) {
    if (i == kWarmUp) before = Measure();
    gDelivered = 0;
    void* buffer = gApi.Lock(handle);
    gApi.Unlock(handle);
    if (!Configure(i) || gApi.Acquire(CountingCallback, buffer) != 0 || gDelivered == 0) {
      if (++failures <= 5) std::fprintf(stderr, "soak: acquisition %d failed\n", i);
    }
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const Figures after = Measure();

  std::printf("soak: %d acquisitions (after %d to warm up) in %.1f s, %d failed\n", total, kWarmUp,
              seconds, failures);
  std::printf("%-22s %10s %10s %8s\n", "", "before", "after", "change");
  Report("resident memory", before.RssKiB, after.RssKiB, "KiB");
  Report("open descriptors", before.Fds, after.Fds, "");
  Report("threads", before.Threads, after.Threads, "");
  Report("global memory blocks", static_cast<long>(before.Blocks), static_cast<long>(after.Blocks),
         "");
  const bool grew = after.RssKiB - before.RssKiB > kRssSlackKiB || after.Fds != before.Fds ||
                    after.Threads != before.Threads || after.Blocks != before.Blocks;
  gApi.Unbind();
  std::error_code ec;
  fs::remove_all(root, ec);
  if (grew) std::printf("soak: LEAK: a figure grew\n");
  return failures == 0 && !grew ? 0 : 1;
}
