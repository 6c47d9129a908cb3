// What the benchmarks and the soak share: a temporary system tree with the
// virtual scanner chosen as the data source, and entry points looked up in
// the library as a host loads it.
#pragma once
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "sxscan.h"
#include "sxsys.h"

namespace sxbench {

namespace fs = std::filesystem;

inline void WriteText(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

template <typename T>
T Resolve(void* module, const char* name) {
  return reinterpret_cast<T>(dlsym(module, name));
}

// The library as a host loads it: dlopen'ed from the build and its entry
// points looked up by name. Unbind frees the library (SxFree) and unloads it.
struct HostApi {
  void* Library = nullptr;
  decltype(&::SxLoad) Load = nullptr;
  decltype(&::SxFree) Free = nullptr;
  decltype(&::SxSetValue) SetValue = nullptr;
  decltype(&::SxQueryData) QueryData = nullptr;
  decltype(&::SxAcquire) Acquire = nullptr;
  decltype(&::SxSysGlobalAlloc) Alloc = nullptr;
  decltype(&::SxSysGlobalLock) Lock = nullptr;
  decltype(&::SxSysGlobalUnlock) Unlock = nullptr;
  decltype(&::SxSysGlobalBlockCount) Blocks = nullptr;

  // False when the library does not load or lacks an entry point.
  bool Bind() {
    Library = dlopen(SX_BENCH_LIBSXSCAN, RTLD_NOW | RTLD_LOCAL);
    if (!Library) return false;
    Load = Resolve<decltype(Load)>(Library, "SxLoad");
    Free = Resolve<decltype(Free)>(Library, "SxFree");
    SetValue = Resolve<decltype(SetValue)>(Library, "SxSetValue");
    QueryData = Resolve<decltype(QueryData)>(Library, "SxQueryData");
    Acquire = Resolve<decltype(Acquire)>(Library, "SxAcquire");
    Alloc = Resolve<decltype(Alloc)>(Library, "SxSysGlobalAlloc");
    Lock = Resolve<decltype(Lock)>(Library, "SxSysGlobalLock");
    Unlock = Resolve<decltype(Unlock)>(Library, "SxSysGlobalUnlock");
    Blocks = Resolve<decltype(Blocks)>(Library, "SxSysGlobalBlockCount");
    return Load && Free && SetValue && QueryData && Acquire && Alloc && Lock && Unlock && Blocks;
  }
  // Bind, then SxLoad; false unless the library loaded its data source.
  bool BindAndLoad() { return Bind() && Load(nullptr) == 0; }
  void Unbind() {
    if (!Library) return;
    if (Free) Free();
    dlclose(Library);
    Library = nullptr;
  }
};

// The host buffer the benchmarks offer for every block: 1 MiB, the size
// buffered transfers are made for.
constexpr int64_t kHostBuffer = 1 << 20;

// Bytes delivered with data, page-end and short-page codes since the counter was last
// cleared. Thread contract: the library calls back on the host's thread.
inline int64_t gDelivered = 0;

// A host that answers each page's announcement with kHostBuffer and counts
// what it is given.
inline int32_t SX_API CountingCallback(void*, int64_t* count, int32_t code) {
  if (code == SX_XFER_IMAGE_INFO) {
    *count = kHostBuffer;
    return 0;
  }
  if (code == SX_XFER_DATA || code == SX_XFER_PAGE_END || code == SX_XFER_SHORT_PAGE) gDelivered += *count;
  return 0;
}

// Where InstallScanner puts the virtual scanner (its vscan.ini and call log).
inline fs::path ScannerFolder(const fs::path& root) { return root / "windows" / "twain_32" / "Corvane" / "QM7110"; }

// The virtual scanner (model QM7110V) installed under `root` with the extra
// vscan.ini text, and a registry store that chooses it, with the given lines
// of stored scan settings. Returns the scanner's folder.
inline fs::path InstallScanner(const fs::path& root, const std::string& extraIni,
                               const std::string& scanData) {
  const fs::path folder = ScannerFolder(root);
  fs::create_directories(folder);
  fs::copy_file(SX_BENCH_VSCAN, folder / "vscan.dll", fs::copy_options::overwrite_existing);
  WriteText(folder / "vscan.ini", "[Scanner]\nModel=QM7110V\nFirmware=1.00\nPort=USB\n" + extraIni);
  WriteText(root / "user.reg", "[Software\\Quillmark]\n\"SOURCENAME\"=str(2):\"USB - QM7110V" +
                                   std::string(13, ' ') + "1.00\"\n[Software\\Quillmark\\ScanData]\n" +
                                   scanData);
  return folder;
}

// A benchmark program's temporary system tree (named after `prefix` and the
// process) and the library loaded over it. The caller fills Root, then calls
// Load and AllocBuffer; the library is freed and the tree removed when the
// program ends.
struct BenchHost {
  fs::path Root;
  HostApi Api;
  void* Buffer = nullptr;

  explicit BenchHost(const std::string& prefix)
      : Root(fs::temp_directory_path() / (prefix + std::to_string(::getpid()))) {}
  BenchHost(const BenchHost&) = delete;
  BenchHost& operator=(const BenchHost&) = delete;
  ~BenchHost() {
    Api.Unbind();
    std::error_code ec;
    fs::remove_all(Root, ec);
  }
  // Points the library at Root and loads it; false unless it loaded its data source.
  bool Load() {
    ::setenv("SX_ROOT", Root.c_str(), 1);
    return Api.BindAndLoad();
  }
  // The kHostBuffer-byte host buffer every acquisition is given; false when refused.
  bool AllocBuffer() {
    Buffer = Api.Lock(Api.Alloc(SX_GHND, kHostBuffer));
    return Buffer != nullptr;
  }
};

// One acquisition of one page per iteration through the host's buffer; the
// benchmark stops with an error as soon as a page is not pageBytes long.
inline void AcquirePages(benchmark::State& state, BenchHost& host, int64_t pageBytes) {
  for (auto _ : state) {
    gDelivered = 0;
    if (host.Api.Acquire(CountingCallback, host.Buffer) != 0 || gDelivered != pageBytes) {
      state.SkipWithError("the acquisition failed");
      return;
    }
  }
  state.SetBytesProcessed(state.iterations() * pageBytes);
}

}  // namespace sxbench
