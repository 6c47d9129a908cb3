// The one set of scan settings, the value types the host speaks in, and the
// ring of transfer buffers.
#pragma once
#include <atomic>
#include <cstdint>

#include "sxdriver.h"
#include "sxscan.h"

namespace sx {

inline constexpr int kChannels = 4;  // master, red, green, blue

// The values of ScanSettings::PixelType and ScanSettings::ScanType.
enum PixelTypeValue : uint8_t { kPixelBlackWhite, kPixelGray, kPixelColor };
enum ScanTypeValue : uint8_t { kScanTypeAuto, kScanTypeFeeder, kScanTypeFlatbed, kScanTypeSource3, kScanTypeSource4 };

struct ScanSettings {
  uint8_t ScanType;
  uint8_t FeederType;
  uint16_t XResolution;
  uint16_t YResolution;
  uint8_t PixelType;
  uint8_t BitsPerPixel;
  int32_t Brightness[kChannels];
  int32_t Contrast[kChannels];
  uint8_t Highlight[kChannels];
  uint8_t Shadow[kChannels];
  uint16_t Gamma[kChannels];  // gamma x 100
  uint8_t Filter;
  uint8_t Compression;
  uint8_t Dither;
  uint8_t Threshold;
  uint8_t Invert;
  uint16_t XPosition;  // 1/300 inch
  uint16_t YPosition;
  uint16_t ImageWidth;
  uint16_t ImageLength;
  uint8_t Units;  // 0 inches, 1 centimetres, 2 pixels at 300 dpi
  int32_t XferCount;
  uint8_t PageSize;
  uint8_t Indicators;
  uint8_t UIControl;
  uint8_t Sharpen;
  uint8_t ColorMatch;
  uint8_t Descreen;
  // Acquisition geometry (parameter check) and working fields.
  int32_t ScanPixels;
  int32_t OutputPixels;
  int32_t ScanBytesPerLine;
  int32_t OutputBytesPerLine;
  int32_t ScanLines;
  int32_t OutputLines;
  int32_t BlockLines;
  int32_t LinesDelivered;
  uint8_t Background;
  uint16_t EnergySaving;
  int32_t PagesStarted;
  int32_t PagesDelivered;
  uint8_t BackgroundLines;
  int16_t Overscan;
  uint8_t BufferCount;
  uint8_t Buffering;
  uint8_t FeederInUse;
  uint8_t* ToneTables[kChannels];
  uint8_t* DirectBuffer;
};

// The process-wide record: zero at attach, filled by LoadScanSettings.
extern ScanSettings gSettings;

// A node of the BufferRing. The working fields are shared by the read thread,
// the processing thread and SxAcquire without a lock: ownership passes by
// their values (RawBytes set last by the reader, ProcessedBytes by the
// processor, RawBytes cleared last by the consumer), published with
// release stores and read with acquire loads.
struct RingNode {
  uint8_t* Data;
  std::atomic<int32_t> RawBytes;
  std::atomic<int32_t> ProcessedBytes;
  std::atomic<int32_t> Status;  // 0 block, 1 last block of a page, 3 end mark, -1 read failed
  std::atomic<int32_t> Taken;
  RingNode* Next;
};

inline constexpr int32_t kBlockOrdinary = 0;
inline constexpr int32_t kBlockPageEnd = 1;
inline constexpr int32_t kBlockEndMark = 3;
inline constexpr int32_t kBlockReadFailed = -1;

// The ring's current node, null when there is no ring.
extern RingNode* gRing;
// Releases the ring (BufferCount nodes from gRing); gRing becomes null.
void ReleaseBufferRing();

// Value types.
uint16_t ValueTypeSize(uint32_t valueType);
// Reads one value of `sourceType` at `source` and writes it as `destType` at
// `dest`. Host addresses are accessed without faulting: a bad address
// abandons the conversion silently. A pair the table does not cover writes
// nothing.
void ConvertValue(void* dest, uint32_t destType, uint32_t sourceType, const void* source);

// Replaces every field that has a stored default, fitted to the scanner.
void LoadScanSettings(ScanSettings& settings, const ScannerAbility& ability);

}  // namespace sx
