// Fuzz target: arbitrary capability and value-type codes with arbitrary value
// bytes through SxSetValue, SxGetValue, SxQueryData and ConvertValue, against
// the library's own sources (no driver bound, an empty registry).
//
// Input: a sequence of records, each
//   u8 operation, u32 capability (or destination type), u32 value type,
//   u8 length, then `length` value bytes.
// Every value lives in a heap block of exactly the size its type gives, so an
// access beyond it is caught by the address checker.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "FuzzSystem.h"
#include "settings/ScanSettings.h"
#include "sxsys.h"

namespace {

enum Operation : uint8_t { kSet, kGet, kQuery, kConvert, kOperationCount };

// Large ring buffers only cost time: buffer sizes above this are skipped.
constexpr int32_t kLargestFuzzedBuffer = 4 << 20;

struct Reader {
  const uint8_t* Data;
  size_t Size;
  template <class T>
  bool Take(T& out) {
    if (Size < sizeof out) return false;
    std::memcpy(&out, Data, sizeof out);
    Data += sizeof out;
    Size -= sizeof out;
    return true;
  }
};

// A block of exactly `size` bytes holding the value bytes (zero-padded).
std::vector<uint8_t> Block(uint32_t type, const uint8_t* bytes, size_t length) {
  std::vector<uint8_t> block(sx::ValueTypeSize(type), 0);
  std::memcpy(block.data(), bytes, length < block.size() ? length : block.size());
  return block;
}

bool SizesAHugeRing(uint32_t capability, uint32_t type, const std::vector<uint8_t>& value) {
  if ((capability & 0xFFFF) != CAP_MINBUFFER) return false;
  int32_t size = 0;
  sx::ConvertValue(&size, TY_INT32, type, value.data());
  return size > kLargestFuzzedBuffer;
}

void FreeList(SxValueList* list) {
  if (!list) return;
  if (SxHandle items = SxSysGlobalHandle(list->Items)) {
    while (SxSysGlobalUnlock(items)) {
    }
    SxSysGlobalFree(items);
  }
  SxHandle block = SxSysGlobalHandle(list);
  while (SxSysGlobalUnlock(block)) {
  }
  SxSysGlobalFree(block);
}

void Run(uint8_t op, uint32_t first, uint32_t type, const uint8_t* bytes, size_t length) {
  std::vector<uint8_t> value = Block(type, bytes, length);
  switch (op % kOperationCount) {
    case kSet:
      if (!SizesAHugeRing(first, type, value)) SxSetValue(first, type, value.data());
      break;
    case kGet:
      SxGetValue(first, type, value.data());
      break;
    case kQuery: {
      SxValueList* list = nullptr;
      SxQueryData(first, type, &list);
      FreeList(list);
      break;
    }
    case kConvert: {
      std::vector<uint8_t> dest(sx::ValueTypeSize(first), 0);
      sx::ConvertValue(dest.data(), first, type, value.data());
      break;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // A small machine: at most two buffers.
  sxfuzz::UsePrivateSystem("sx-values-fuzz", "1048576");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  sx::ReleaseBufferRing();
  sx::gSettings = sx::ScanSettings{};
  Reader in{data, size};
  uint8_t op, length;
  uint32_t first, type;
  while (in.Take(op) && in.Take(first) && in.Take(type) && in.Take(length)) {
    const size_t n = length < in.Size ? length : in.Size;
    Run(op, first, type, in.Data, n);
    in.Data += n;
    in.Size -= n;
  }
  sx::ReleaseBufferRing();
  return 0;
}
