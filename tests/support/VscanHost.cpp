// A host of the library on the virtual scanner.
#include "support/VscanHost.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <thread>

namespace sxtest {
namespace {

Transfer* gTransfer = nullptr;  // of the running acquisition

}  // namespace

std::string ColourPage(int32_t lines, std::map<std::string, std::string> over) {
  over.insert({{"PIXELTYPE", "dword:00000002"},
               {"SCANTYPE", "dword:00000002"},
               {"IMAGELENGTH", "str(2):\"" + std::to_string(lines) + "\""},
               {"GAMMA", "str(2):\"1.0\""}});
  std::string values;
  for (const auto& [value, data] : over) values += "\"" + value + "\"=" + data + "\n";
  return values;
}

int32_t SX_API RecordTransfer(void* data, int64_t* count, int32_t code) {
  Transfer& t = *gTransfer;
  const size_t index = t.Codes.size();
  t.Codes.push_back(code);
  t.Counts.push_back(*count);
  if (code == SX_XFER_IMAGE_INFO) {
    t.Info = *static_cast<const SxImageInfo*>(data);
    t.Pages.emplace_back();
    if (t.BufferAnswer) *count = t.BufferAnswer;
  } else if (code >= SX_XFER_DATA && !t.Pages.empty()) {
    EXPECT_TRUE(!t.Buffer || data == t.Buffer) << "a block outside the host's buffer";
    const auto* bytes = static_cast<const uint8_t*>(data);
    t.Pages.back().insert(t.Pages.back().end(), bytes, bytes + *count);
    std::this_thread::sleep_for(t.Delay);
  }
  return t.Answer ? t.Answer(index, code) : 0;
}

void RecordInto(Transfer& transfer) {
  transfer.Codes.clear();
  transfer.Counts.clear();
  transfer.Pages.clear();
  gTransfer = &transfer;
}

std::vector<int32_t> Transfer::PageCodes(size_t page) const {
  std::vector<int32_t> codes;
  size_t announced = 0;
  for (int32_t code : Codes) {
    if (code == SX_XFER_IMAGE_INFO) ++announced;
    else if (announced == page + 1) codes.push_back(code);
  }
  return codes;
}

int Transfer::WholePages(size_t bytes) const {
  int whole = 0;
  for (size_t p = 0; p < Pages.size(); ++p) {
    const std::vector<int32_t> codes = PageCodes(p);
    whole += Pages[p].size() == bytes && !codes.empty() && codes.back() == SX_XFER_PAGE_END;
  }
  return whole;
}

int64_t Transfer::Delivered() const {
  return std::accumulate(Pages.begin(), Pages.end(), int64_t{0},
                         [](int64_t sum, const std::vector<uint8_t>& page) { return sum + int64_t(page.size()); });
}

VscanHost::VscanHost(const std::string& ini, const std::string& scanData, const std::string& options)
    : Log(Root.Twain() / "Corvane" / "QM7110" / "calls.log") {
  Root.InstallVscan("Corvane/QM7110", kQm7110Ini + ini + "\n[Log]\nFile=" + Log.string() + "\n");
  Store(scanData, options);
}

void VscanHost::Store(const std::string& scanData, const std::string& options) const {
  Root.WriteRegistry(Qm7110Registry(scanData, options));
}

void VscanHost::Load(uint8_t buffering, size_t bytes) {
  Unload();
  Lib = std::make_unique<Library>();
  ASSERT_EQ(Lib->Load(nullptr), 0);
  ASSERT_EQ(Lib->SetValue(CAP_BUFFERING, TY_UINT8, &buffering), 0);
  Buffer.emplace(*Lib, bytes);
}

void VscanHost::Unload() {
  if (!Lib) return;
  Buffer.reset();
  Lib->Free();
  Lib.reset();
}

int32_t VscanHost::Acquire(Transfer& transfer, void* buffer) {
  logged_ = ReadLines(Log).size();
  RecordInto(transfer);
  return Lib->WatchedAcquire(RecordTransfer, buffer ? buffer : Buffer->Data());
}

size_t VscanHost::Calls(const std::string& prefix) const {
  const std::vector<std::string> lines = ReadLines(Log);
  return static_cast<size_t>(std::count_if(lines.begin() + static_cast<long>(std::min(logged_, lines.size())),
                                           lines.end(), [&](const std::string& l) { return l.rfind(prefix, 0) == 0; }));
}

}  // namespace sxtest
