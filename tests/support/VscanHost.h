// A host of the library on the virtual scanner: the scanner installed as the
// QM7110V set-up with a call log, the library loaded on it as a host loads
// it, and what each acquisition delivered to the host's callback.
#pragma once
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/TestEnv.h"

namespace sxtest {

constexpr size_t kHostBufferBytes = 1 << 20;  // what a host provides in buffered mode

// The ScanData value lines of a colour flatbed page `lines` long (1/300
// inch at 300 dpi) with neutral tone; each of `over` (value name ->
// registry data) replaces or adds one.
std::string ColourPage(int32_t lines, std::map<std::string, std::string> over = {});

// The host's side of one acquisition: how its callback answers, and what it
// received.
struct Transfer {
  // Written back to each page's announcement (0: the library's count stays).
  int64_t BufferAnswer = 0;
  // What the callback returns to call `index` (from 0) with `code`.
  std::function<int32_t(size_t index, int32_t code)> Answer;
  std::chrono::milliseconds Delay{0};  // spent in each data call: a slow host
  const void* Buffer = nullptr;        // when set, where every block must arrive

  std::vector<int32_t> Codes;  // every call's code and count, in order
  std::vector<int64_t> Counts;
  std::vector<std::vector<uint8_t>> Pages;  // the bytes of each announced page
  SxImageInfo Info{};                       // the last announcement

  // The codes of page `page`'s calls after its announcement.
  std::vector<int32_t> PageCodes(size_t page) const;
  // Pages of `bytes` bytes that ended with code 1.
  int WholePages(size_t bytes) const;
  int64_t Delivered() const;
};

// The callback that records into the transfer of the running acquisition,
// and the choice of that transfer (its answers kept, what it received
// cleared).
int32_t SX_API RecordTransfer(void* data, int64_t* count, int32_t code);
void RecordInto(Transfer& transfer);

class VscanHost {
 public:
  // `ini`: vscan.ini sections after the scanner's own; `scanData` and
  // `options`: value lines of the ScanData key and of Software\Quillmark.
  explicit VscanHost(const std::string& ini = "", const std::string& scanData = ColourPage(600),
                     const std::string& options = "");
  ~VscanHost() { Unload(); }
  VscanHost(const VscanHost&) = delete;
  VscanHost& operator=(const VscanHost&) = delete;

  void Store(const std::string& scanData, const std::string& options = "") const;
  // A freshly mapped library (the worker threads of buffered mode come with
  // the mapping and go with SxFree), loaded, with `buffering` set and a host
  // buffer of `bytes`.
  void Load(uint8_t buffering = 0, size_t bytes = kHostBufferBytes);
  void Unload();
  // One acquisition into the host buffer (or `buffer`) under the hang
  // watchdog, recorded in `transfer` (its answers kept, what it received
  // cleared).
  int32_t Acquire(Transfer& transfer, void* buffer = nullptr);
  // The scanner's calls since the last acquisition began whose log lines
  // start with `prefix`.
  size_t Calls(const std::string& prefix) const;

  TempRoot Root;
  fs::path Log;
  std::unique_ptr<Library> Lib;
  std::optional<HostBuffer> Buffer;

 private:
  size_t logged_ = 0;
};

}  // namespace sxtest
