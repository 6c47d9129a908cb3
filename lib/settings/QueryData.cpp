// SxQueryData: the admissible values of a capability with the bound scanner,
// as a count-and-items block in movable global memory that the host owns
// afterwards. Every call makes a list, also for codes without one.
#include <algorithm>
#include <cstring>
#include <initializer_list>

#include "frame/HostCall.h"
#include "driver/DriverTable.h"
#include "frame/RegistryUtil.h"
#include "imaging/ColorMatch.h"
#include "platform/Memory.h"
#include "platform/System.h"
#include "settings/SettingsInternal.h"

namespace sx {

namespace {

// The host tells the forms apart only by capability: an enumeration counts
// its items, a range and a default count 0 with items written, "any" is -1.
constexpr int32_t kCountAny = -1;

// A list under construction. Both blocks stay locked; the host unlocks and
// frees them. A block the allocator refuses leaves a null address, and no
// item is written where there is no room for it.
class ListBuilder {
 public:
  explicit ListBuilder(uint32_t valueType)
      : type_(valueType), itemSize_(ValueTypeSize(valueType)) {
    listBlock_ = SxSysGlobalAlloc(plat::kGhnd, sizeof(SxValueList));
    list_ = listBlock_ ? static_cast<SxValueList*>(SxSysGlobalLock(listBlock_)) : nullptr;
    itemsBlock_ = SxSysGlobalAlloc(plat::kGhnd, itemSize_);
    items_ = itemsBlock_ ? static_cast<uint8_t*>(SxSysGlobalLock(itemsBlock_)) : nullptr;
    if (list_) list_->Items = items_;
  }

  void AddInt(int32_t v) { Add(TY_INT32, &v); }
  void AddReal(float v) { Add(TY_FLOAT32, &v); }
  void AddText(const char* text) { Add(TY_STR32, text); }
  void AddInts(std::initializer_list<int32_t> values) {
    for (int32_t v : values) AddInt(v);
  }
  void Range(int32_t min, int32_t max, int32_t step) {
    AddInts({min, max, step});
    SetCount(0);
  }
  void DefaultInt(int32_t v) { Write(0, TY_INT32, &v); }
  void SetCount(int32_t count) {
    count_ = count;
    if (list_) list_->Count = count;
  }

  // Hands the list to the host through its listOut address; an address that
  // cannot be written gets nothing and the list is freed again.
  void Publish(SxValueList** listOut) {
    // The host sees a block of exactly the items it holds.
    if (capacity_ > filled_) Resize(filled_ * itemSize_);
    SxValueList* address = list_;
    if (plat::SafeWrite(listOut, &address, sizeof address)) return;
    plat::GlobalUnlockAndFree(itemsBlock_);
    plat::GlobalUnlockAndFree(listBlock_);
  }

 private:
  void Add(uint32_t naturalType, const void* value) {
    if (static_cast<size_t>(count_) >= capacity_) {
      // Doubling keeps long lists (a driver may report thousands of
      // buttons) linear in their length.
      if (!Resize(2 * capacity_ * itemSize_)) return;
      capacity_ *= 2;
    }
    SetCount(count_ + 1);
    filled_ = std::max(filled_, static_cast<size_t>(count_));
    Write(count_ - 1, naturalType, value);
  }

  bool Resize(size_t bytes) {
    if (!itemsBlock_) return false;
    while (SxSysGlobalUnlock(itemsBlock_)) {
    }
    SxHandle grown = SxSysGlobalReAlloc(itemsBlock_, bytes, plat::kGhnd);
    if (grown) itemsBlock_ = grown;
    items_ = static_cast<uint8_t*>(SxSysGlobalLock(itemsBlock_));
    if (list_) list_->Items = items_;
    return grown && items_;
  }

  void Write(int32_t slot, uint32_t naturalType, const void* value) {
    if (items_) ConvertValue(items_ + static_cast<size_t>(slot) * itemSize_, type_, naturalType, value);
  }

  uint32_t type_;
  size_t itemSize_;
  SxHandle listBlock_ = nullptr;
  SxHandle itemsBlock_ = nullptr;
  SxValueList* list_ = nullptr;
  uint8_t* items_ = nullptr;
  int32_t count_ = 0;
  size_t capacity_ = 1;  // items the items block has room for
  size_t filled_ = 1;    // items the block must keep: the most ever added
};

// --- Fixed lists -------------------------------------------------------------

enum class Form : uint8_t { Enumeration, Range };
struct FixedList {
  uint16_t Capability;
  Form Shape;
  std::initializer_list<int32_t> Items;
};
const FixedList kFixedLists[] = {
    {CAP_BUFFERING, Form::Enumeration, {0, 1}},
    {CAP_UICONTROL, Form::Enumeration, {0}},
    {CAP_INDICATORS, Form::Enumeration, {0}},
    {CAP_COMPRESSION, Form::Enumeration, {0}},
    {CAP_RESERVED9602, Form::Enumeration, {0}},
    {CAP_BRIGHTNESS, Form::Range, {-1000, 1000, 10}},
    {CAP_CONTRAST, Form::Range, {-1000, 1000, 10}},
    {CAP_HIGHLIGHT, Form::Range, {1, 255, 1}},
    {CAP_SHADOW, Form::Range, {0, 254, 1}},
    {CAP_THRESHOLD, Form::Enumeration, {128}},
    {CAP_INVERT, Form::Enumeration, {0, 1}},
    {CAP_SHARPEN, Form::Enumeration, {0, 1, 2, 3, 4}},
    {CAP_DESCREEN, Form::Enumeration, {0, 1, 2, 3}},
    {CAP_BACKGROUNDLINES, Form::Range, {0, 255, 1}},
    {CAP_UNITS, Form::Enumeration, {0, 1, 2}},
};

bool AddFixedList(uint16_t capability, ListBuilder& list) {
  for (const FixedList& f : kFixedLists) {
    if (f.Capability != capability) continue;
    list.AddInts(f.Items);
    if (f.Shape == Form::Range) list.SetCount(0);
    return true;
  }
  return false;
}

// --- Lists from the scanner's abilities ----------------------------------------

const ScannerAbility& A() { return gAbility; }
bool Feeder() { return A().SourceFlags & SX_SOURCE_FEEDER_ANY; }
bool Flatbed() { return A().SourceFlags & SX_SOURCE_FLATBED; }
bool Source3() { return A().FeatureFlags & SX_FEATURE_SOURCE3; }
bool Source4() { return A().SourceFlags & SX_SOURCE_SOURCE4; }
bool Colour() { return A().PixelTypeFlags & SX_PIXEL_COLOR_QUERY; }

void ScanTypes(ListBuilder& list) {
  if (Feeder()) list.AddInt(1);
  if (Flatbed()) list.AddInt(2);
  if (Source3()) list.AddInt(3);
  if (Source4()) list.AddInt(4);
}

void PixelTypes(ListBuilder& list) {
  const bool bwGray = A().PixelTypeFlags & SX_PIXEL_BW_GRAY;
  if (bwGray && (A().OptionFlags & 0x80)) list.AddInt(0);
  if (bwGray && A().OptionFlags) list.AddInt(1);
  if (Colour()) list.AddInt(2);
}

void BitDepths(ListBuilder& list) {
  // Option bit, grey depth, and the colour depth that goes with it (0: none).
  struct Depth {
    uint8_t Bit;
    int32_t Gray, Colour;
  };
  constexpr Depth kDepths[] = {{0x80, 1, 0}, {0x40, 4, 0}, {0x10, 8, 24},
                               {0x08, 10, 30}, {0x04, 12, 36}, {0x02, 16, 48}};
  for (const Depth& d : kDepths) {
    if (!(A().OptionFlags & d.Bit)) continue;
    list.AddInt(d.Gray);
    if (d.Colour && Colour()) list.AddInt(d.Colour);
  }
}

// Lengths and widths are pixels at 300 dpi, shown in the host's Units.
float InUnits(uint16_t pixels) {
  constexpr float kInchPerPixel = 1.0f / 300.0f;
  constexpr float kCentimetresPerInch = 2.54f;
  const float value = static_cast<float>(pixels);
  switch (gSettings.Units) {
    case 0: return Single(value * kInchPerPixel);
    case 1: return Single(Single(value * kInchPerPixel) * kCentimetresPerInch);
    default: return value;
  }
}

void Extents(ListBuilder& list, uint16_t adf, uint16_t flatbed, uint16_t alt) {
  if (Feeder()) list.AddReal(InUnits(adf));
  if (Flatbed()) list.AddReal(InUnits(flatbed));
  if (Source3()) list.AddReal(InUnits(alt));
  if (Source4()) list.AddReal(InUnits(alt));
}

void Overscan(ListBuilder& list) {
  if (!(A().ExtraFlags & SX_EXTRA_OVERSCAN)) {
    list.Range(0, 0, 0);
    return;
  }
  constexpr double kOverscanPerDot = 0.044642857142857144;
  const double most = Double(A().MaxResolution * 5 * kOverscanPerDot);
  list.Range(0, static_cast<int32_t>(TruncateReal(most)), 1);
}

void PushButtons(ListBuilder& list) {
  constexpr size_t kButtonRecordSize = 24;
  constexpr size_t kButtonCountOffset = 4;
  alignas(8) uint8_t record[kButtonRecordSize] = {};
  uint16_t buttons = 0;
  // The result is not examined: a driver that fails leaves the zeros.
  driver::InitialButton(reinterpret_cast<uintptr_t>(record));
  std::memcpy(&buttons, record + kButtonCountOffset, sizeof buttons);
  list.AddInt(0);
  for (int32_t i = 1; i <= buttons; ++i) list.AddInt(i);
}

void DitherNames(ListBuilder& list) {
  DitherWords words;
  LoadDitherWords(words);
  const int total = A().HalftonePatternCount + A().DiffusionPatternCount;
  char name[kDitherNameSize];
  for (int dither = 0; dither <= total; ++dither) {
    DitherName(dither, A().HalftonePatternCount, words, name);
    list.AddText(name);
  }
}

void ColorMatchValues(ListBuilder& list) {
  char model[kDitherNameSize];
  FieldText(A().ModelName, sizeof A().ModelName, model);
  list.AddInt(0);
  if (OpenCMatch(model) == 0) list.AddInt(1);
}

// --- Stored defaults ---------------------------------------------------------

// Position, extent and transfer-count defaults are short texts.
constexpr uint32_t kDefaultTextRoom = 10;

struct StoredDefault {
  uint16_t Capability;
  const char* Name;
  const char* Fallback;
};
constexpr StoredDefault kAreaDefaults[] = {
    {CAP_XPOSITION, "XPOSITION", "0"},
    {CAP_YPOSITION, "YPOSITION", "0"},
    {CAP_IMAGELENGTH, "IMAGELENGTH", "3300"},
    {CAP_IMAGEWIDTH, "IMAGEWIDTH", "2550"},
};

// The stored text (its room plus a terminator), or the fallback text.
void ReadDefaultText(const char* name, const char* fallback, char (&text)[kDefaultTextRoom + 1]) {
  std::memset(text, 0, sizeof text);
  if (ReadRegValue(kKeyScanData, name, text, kKindText, kDefaultTextRoom) != 0) {
    std::memset(text, 0, sizeof text);
    std::strncpy(text, fallback, kDefaultTextRoom);
  }
}

int32_t StoredNumber(const char* name, int32_t fallback) {
  uint32_t value = 0;
  if (ReadRegValue(kKeyScanData, name, &value, kKindNumber, sizeof value) != 0) return fallback;
  return static_cast<int32_t>(value);
}

bool AreaDefault(uint16_t capability, ListBuilder& list) {
  for (const StoredDefault& d : kAreaDefaults) {
    if (d.Capability != capability) continue;
    // As stored, in the stored units: not converted.
    char text[kDefaultTextRoom + 1];
    ReadDefaultText(d.Name, d.Fallback, text);
    list.AddReal(RealText(text, kDefaultTextRoom));
    return true;
  }
  return false;
}

void BuildList(uint16_t capability, ListBuilder& list) {
  if (AddFixedList(capability, list) || AreaDefault(capability, list)) return;
  char text[kDitherNameSize];
  switch (capability) {
    case CAP_MODELNAME: FieldText(A().ModelName, sizeof A().ModelName, text); list.AddText(text); break;
    case CAP_SERIALNUMBER:
      FieldText(gNvRam.SerialNumber, sizeof gNvRam.SerialNumber, text);
      list.AddText(text);
      break;
    case CAP_FIRMWAREVERSION:
      FieldText(A().FirmwareVersion, sizeof A().FirmwareVersion, text);
      list.AddText(text);
      break;
    case CAP_BACKGROUND:
      list.AddInt(0);
      if (A().ExtraFlags & SX_EXTRA_BACKGROUND) list.AddInt(1);
      break;
    case CAP_ENERGYSAVING: driver::SetPowerSaveTime(0); break;
    case CAP_MINBUFFER: list.DefaultInt(StoredNumber("MINBUFFER", kDefaultMinBuffer)); break;
    case CAP_PUSHBUTTON: PushButtons(list); break;
    case CAP_SCANTYPE: ScanTypes(list); break;
    case CAP_FEEDERTYPE:
      list.AddInt(0);
      if (A().SourceFlags & SX_SOURCE_FEEDER_TYPES) list.AddInts({1, 2});
      break;
    case CAP_XRESOLUTION:
      list.Range(50, std::min(A().ResolutionLimitA, A().ResolutionLimitC), 1);
      break;
    case CAP_YRESOLUTION:
      list.Range(50, std::min(A().ResolutionLimitB, A().ResolutionLimitD), 1);
      break;
    case CAP_PIXELTYPE: PixelTypes(list); break;
    case CAP_BITSPERPIXEL: BitDepths(list); break;
    case CAP_GAMMA: list.SetCount(kCountAny); break;
    case CAP_FILTER:
      if (A().FeatureFlags & SX_FEATURE_FILTER_NONE) list.AddInt(0);
      list.AddInts({1, 2, 3});
      break;
    case CAP_DITHER: DitherNames(list); break;
    case CAP_COLORMATCH: ColorMatchValues(list); break;
    case CAP_MAXLENGTHS:
      Extents(list, A().AdfMaxLength, A().FlatbedMaxLength, A().AltAreaLength);
      break;
    case CAP_MAXWIDTHS: Extents(list, A().AdfMaxWidth, A().FlatbedMaxWidth, A().AltAreaWidth); break;
    case CAP_OVERSCAN: Overscan(list); break;
    case CAP_XFERCOUNT: {
      char stored[kDefaultTextRoom + 1];
      ReadDefaultText("XFERCOUNT", "-1", stored);
      list.DefaultInt(IntegerText(stored, kDefaultTextRoom));
      break;
    }
    case CAP_PAGESIZE: list.DefaultInt(StoredNumber("PAGESIZE", 0)); break;
    case CAP_FEEDERLOADED:
      list.AddInt(0);
      if (Feeder()) list.AddInt(1);
      break;
    default: break;  // no list: the empty form
  }
}

}  // namespace

}  // namespace sx

SX_EXPORT int32_t SX_API SxQueryData(uint32_t capability, uint32_t valueType,
                                     SxValueList** listOut) {
  sx::HostCall call;
  try {
    sx::ListBuilder list(sx::LowWord(valueType));
    if (!call.Refused()) sx::BuildList(static_cast<uint16_t>(sx::LowWord(capability)), list);
    list.Publish(listOut);
  } catch (...) {
    // nothing may escape to the host; the result is 0 whatever happened
  }
  return SX_OK;
}
