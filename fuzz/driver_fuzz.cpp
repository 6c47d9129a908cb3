// Fuzz target: a driver whose every answer comes from the input. The library
// trusts nothing a driver module says: its ability record and NVRAM record,
// status codes, feeder and lamp states, push-button records, refusals, and
// the byte counts and results of its reads.
//
// Each input binds such a driver the way a load does (ability, NVRAM,
// settings fitted to the ability, tone tables), lists and reads every
// capability, sets a few values chosen by the input, and runs one
// acquisition in direct or buffered mode. The driver's answers are taken from
// the input in call order; once it runs out, every call is refused, which
// also bounds the length of the acquisition.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "FuzzSystem.h"
#include "driver/DriverTable.h"
#include "frame/LibraryState.h"
#include "settings/ScanSettings.h"
#include "sources/SourceBinding.h"
#include "sxscan.h"
#include "sxsys.h"

namespace {

constexpr size_t kHostBuffer = 1 << 20;
constexpr size_t kButtonRecordSize = 24;
constexpr size_t kButtonCountHighByte = 5;  // the count is the 16-bit number at byte 4
constexpr int kMostReadsPerAcquisition = 48;
constexpr int kSettingsChanged = 6;

constexpr uint32_t kCapabilities[] = {
    CAP_LOCALIZE,   CAP_MODELNAME,  CAP_SERIALNUMBER, CAP_FIRMWAREVERSION, CAP_BUFFERING,
    CAP_BACKGROUND, CAP_ENERGYSAVING, CAP_UICONTROL,  CAP_INDICATORS,     CAP_MINBUFFER,
    CAP_PUSHBUTTON, CAP_SCANTYPE,   CAP_FEEDERTYPE,   CAP_XRESOLUTION,    CAP_YRESOLUTION,
    CAP_PIXELTYPE,  CAP_BITSPERPIXEL, CAP_BRIGHTNESS, CAP_CONTRAST,       CAP_HIGHLIGHT,
    CAP_SHADOW,     CAP_GAMMA,      CAP_FILTER,       CAP_COMPRESSION,    CAP_DITHER,
    CAP_THRESHOLD,  CAP_INVERT,     CAP_SHARPEN,      CAP_COLORMATCH,     CAP_DESCREEN,
    CAP_BACKGROUNDLINES, CAP_MAXLENGTHS, CAP_MAXWIDTHS, CAP_XPOSITION,    CAP_YPOSITION,
    CAP_IMAGELENGTH, CAP_IMAGEWIDTH, CAP_UNITS,       CAP_OVERSCAN,       CAP_XFERCOUNT,
    CAP_PAGESIZE,   CAP_FEEDERLOADED};

// The settings the input may change before the acquisition; the buffer size
// and the ring are left alone (large rings only cost time).
constexpr uint32_t kSettable[] = {
    CAP_SCANTYPE, CAP_XRESOLUTION, CAP_YRESOLUTION, CAP_PIXELTYPE, CAP_BITSPERPIXEL,
    CAP_FILTER,   CAP_DITHER,      CAP_INVERT,      CAP_SHARPEN,   CAP_DESCREEN,
    CAP_XPOSITION, CAP_YPOSITION,  CAP_IMAGELENGTH, CAP_IMAGEWIDTH, CAP_UNITS,
    CAP_OVERSCAN, CAP_XFERCOUNT,   CAP_INDICATORS,  CAP_GAMMA,     CAP_THRESHOLD};

// The driver's answers, consumed in call order. Thread contract: the host's
// thread and the read thread never call the driver at the same time.
struct Feed {
  const uint8_t* Data = nullptr;
  size_t Size = 0;
  int Reads = 0;
  bool Empty() const { return Size == 0; }
  void Bytes(void* out, size_t n) {
    std::memset(out, 0, n);
    const size_t k = n < Size ? n : Size;
    std::memcpy(out, Data, k);
    Data += k;
    Size -= k;
  }
  template <class T>
  T Take() {
    T value{};
    Bytes(&value, sizeof value);
    return value;
  }
  // A call's result: mostly success while answers last, refusal after.
  int32_t Result() { return Empty() ? 0 : (Take<uint8_t>() % 8 != 0); }
} gFeed;

int32_t SX_DRIVERAPI Succeed() { return 1; }
int32_t SX_DRIVERAPI Answer() { return gFeed.Result(); }

int32_t SX_DRIVERAPI ReadScanEx(ReadScanRequest* request) {
  if (gFeed.Empty() || ++gFeed.Reads > kMostReadsPerAcquisition) return 0;
  const uint8_t kind = gFeed.Take<uint8_t>();
  const uint32_t wanted = request->BytesRequested;
  uint32_t returned = wanted;
  if (kind & 1) returned = gFeed.Take<uint32_t>();  // any count, even past the request
  const uint32_t written = returned < wanted ? returned : wanted;
  std::memset(request->Buffer, kind, written);
  request->BytesReturned = returned;
  return kind % 5 == 0 ? 0 : (kind % 5 == 1 ? 5 : 1);
}

void InstallDriver() {
  sx::DriverTable& d = sx::gDriver = sx::DriverTable{};
  d.InitializeDriver = Succeed;
  d.InitializeScanner = Succeed;
  d.TerminateDriver = Succeed;
  d.GetScannerAbilityEx = [](ScannerAbility* a) SX_DRIVERAPI { return gFeed.Bytes(a, sizeof *a), 1; };
  d.ReadNVMData = [](NvRam* n) SX_DRIVERAPI { return gFeed.Bytes(n, sizeof *n), gFeed.Result(); };
  d.WriteNVMData = [](NvRam*) SX_DRIVERAPI { return gFeed.Result(); };
  d.GetScannerStatusEx = [](uint8_t* a, uint8_t* b, uint8_t* c, uint32_t* status) SX_DRIVERAPI {
    *a = gFeed.Take<uint8_t>(), *b = gFeed.Take<uint8_t>(), *c = gFeed.Take<uint8_t>();
    *status = gFeed.Take<uint32_t>();
    return gFeed.Result();
  };
  d.GetADFStatus = [](uint8_t* paper) SX_DRIVERAPI { return *paper = gFeed.Take<uint8_t>(), gFeed.Result(); };
  d.GetLightStatus = [](uint8_t* lamp) SX_DRIVERAPI { return *lamp = gFeed.Take<uint8_t>(), gFeed.Result(); };
  d.InitialButton = [](uintptr_t record) SX_DRIVERAPI {
    auto* bytes = reinterpret_cast<uint8_t*>(record);
    gFeed.Bytes(bytes, kButtonRecordSize);
    // At most 255 buttons: a list of thousands only costs time per input.
    bytes[kButtonCountHighByte] = 0;
    return gFeed.Result();
  };
  d.ReadPushButton = [](uintptr_t record) SX_DRIVERAPI {
    return gFeed.Bytes(reinterpret_cast<void*>(record), kButtonRecordSize), gFeed.Result();
  };
  d.ResetPushButton = Answer;
  d.SetScanParameter = [](ScanParameter*) SX_DRIVERAPI { return gFeed.Result(); };
  d.SetGammaTable = [](uint8_t*, int32_t, int32_t) SX_DRIVERAPI { return gFeed.Result(); };
  d.TuneScanLength = [](int32_t, int32_t, int32_t) SX_DRIVERAPI { return gFeed.Result(); };
  d.SetPowerSaveTime = [](uint32_t) SX_DRIVERAPI { return gFeed.Result(); };
  d.StartScan = Answer;
  d.StopScan = Answer;
  d.DoCancel = Answer;
  d.ReadScanEx = ReadScanEx;
}

// What a load does once the module is bound.
void Bind() {
  InstallDriver();
  sx::gSettings = sx::ScanSettings{};
  sx::gAbility = ScannerAbility{};
  sx::driver::GetScannerAbilityEx(&sx::gAbility);
  sx::driver::ReadNVMData(&sx::gNvRam);
  sx::SanitizeSerialNumber(sx::gNvRam);
  sx::LoadScanSettings(sx::gSettings, sx::gAbility);
  for (uint8_t*& table : sx::gSettings.ToneTables) {
    table = static_cast<uint8_t*>(SxSysGlobalLock(SxSysGlobalAlloc(SX_GHND, 256)));
  }
}

void FreeList(SxValueList* list) {
  if (!list) return;
  for (const void* address : {static_cast<const void*>(list->Items), static_cast<const void*>(list)}) {
    SxHandle block = SxSysGlobalHandle(address);
    while (SxSysGlobalUnlock(block)) {
    }
    SxSysGlobalFree(block);
  }
}

void ReadEveryCapability() {
  alignas(8) char value[256];
  for (uint32_t cap : kCapabilities) {
    SxValueList* list = nullptr;
    SxQueryData(cap, TY_STR255, &list);
    FreeList(list);
    list = nullptr;
    SxQueryData(cap, TY_INT32, &list);
    FreeList(list);
    SxGetValue(cap, TY_STR255, value);
    SxGetValue(cap, TY_FLOAT32, value);
  }
}

int32_t SX_API Callback(void*, int64_t* count, int32_t code) {
  if (code == SX_XFER_IMAGE_INFO) *count = kHostBuffer;
  return 0;
}

void Acquire(uint8_t buffering) {
  SxSetValue(CAP_BUFFERING, TY_UINT8, &buffering);
  SxHandle handle = SxSysGlobalAlloc(SX_GHND, kHostBuffer);
  SxAcquire(Callback, SxSysGlobalLock(handle));
  // The scaling set-up may have moved the block; the handle still holds it.
  while (SxSysGlobalUnlock(handle)) {
  }
  SxSysGlobalFree(handle);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  sxfuzz::UsePrivateSystem("sx-driver-fuzz", "8388608");
  setenv("SX_TIME_SCALE", "0", 1);  // warm-up waits pass at once
  sx::ProcessAttach(nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  gFeed = Feed{data, size};
  const uint8_t buffering = gFeed.Take<uint8_t>() & 1;
  Bind();
  ReadEveryCapability();
  for (int i = 0; i < kSettingsChanged; ++i) {
    const uint32_t cap = kSettable[gFeed.Take<uint8_t>() % std::size(kSettable)];
    int32_t value = gFeed.Take<int32_t>();
    SxSetValue(cap, TY_INT32, &value);
  }
  Acquire(buffering);
  sx::FreeToneTables();
  sx::ReleaseBufferRing();
  return 0;
}
