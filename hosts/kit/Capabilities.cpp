#include "kit/Capabilities.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "kit/Parse.h"
#include "sxscan.h"

namespace sx::host {
namespace {

constexpr uint16_t kNone = 0;
constexpr uint8_t kAreaFlag = kCapReadIn300ths;

using F = ListForm;

// Reading types follow the library's native types, except that brightness and
// contrast are read signed (they run from -1000 to 1000). Numeric lists are
// asked as 32-bit integers, the lengths, widths and area defaults as reals.
constexpr CapabilityInfo kCapabilities[] = {
    {"CAP_LOCALIZE", CAP_LOCALIZE, kNone, TY_INT32, TY_INT32, F::Empty, kCapNone},
    {"CAP_MODELNAME", CAP_MODELNAME, TY_STR32, kNone, TY_STR32, F::Enumeration, kCapNone},
    {"CAP_SERIALNUMBER", CAP_SERIALNUMBER, TY_STR32, kNone, TY_STR32, F::Enumeration, kCapNone},
    {"CAP_FIRMWAREVERSION", CAP_FIRMWAREVERSION, TY_STR32, kNone, TY_STR32, F::Enumeration, kCapNone},
    {"CAP_BUFFERING", CAP_BUFFERING, TY_UINT8, TY_UINT8, TY_INT32, F::Enumeration, kCapNone},
    {"CAP_BACKGROUND", CAP_BACKGROUND, TY_UINT8, TY_UINT8, TY_INT32, F::Enumeration, kCapNone},
    {"CAP_ENERGYSAVING", CAP_ENERGYSAVING, TY_INT16, TY_INT16, TY_INT32, F::Empty, kCapQueryActs},
    {"CAP_UICONTROL", CAP_UICONTROL, TY_UINT8, TY_UINT8, TY_INT32, F::Enumeration, kCapNone},
    {"CAP_INDICATORS", CAP_INDICATORS, TY_UINT8, TY_UINT8, TY_INT32, F::Enumeration, kCapNone},
    {"CAP_MINBUFFER", CAP_MINBUFFER, kNone, TY_INT32, TY_INT32, F::Default, kCapNone},
    {"CAP_PUSHBUTTON", CAP_PUSHBUTTON, TY_INT16, kNone, TY_INT32, F::Enumeration, kCapNone},
    {"CAP_SCANTYPE", CAP_SCANTYPE, TY_UINT8, TY_UINT8, TY_INT32, F::Enumeration, kCapNone},
    {"CAP_FEEDERTYPE", CAP_FEEDERTYPE, TY_UINT8, TY_UINT8, TY_INT32, F::Enumeration, kCapNone},
    {"CAP_XRESOLUTION", CAP_XRESOLUTION, TY_UINT16, TY_UINT16, TY_INT32, F::Range, kCapNone},
    {"CAP_YRESOLUTION", CAP_YRESOLUTION, TY_UINT16, TY_UINT16, TY_INT32, F::Range, kCapNone},
    {"CAP_PIXELTYPE", CAP_PIXELTYPE, TY_UINT8, TY_UINT8, TY_INT32, F::Enumeration, kCapNone},
    {"CAP_BITSPERPIXEL", CAP_BITSPERPIXEL, TY_UINT8, TY_UINT8, TY_INT32, F::Enumeration, kCapNone},
    {"CAP_BRIGHTNESS", CAP_BRIGHTNESS, TY_INT32, TY_INT32, TY_INT32, F::Range, kCapNone},
    {"CAP_CONTRAST", CAP_CONTRAST, TY_INT32, TY_INT32, TY_INT32, F::Range, kCapNone},
    {"CAP_HIGHLIGHT", CAP_HIGHLIGHT, TY_UINT8, TY_UINT8, TY_INT32, F::Range, kCapNone},
    {"CAP_SHADOW", CAP_SHADOW, TY_UINT8, TY_UINT8, TY_INT32, F::Range, kCapNone},
    {"CAP_GAMMA", CAP_GAMMA, TY_FLOAT32, TY_FLOAT32, TY_FLOAT32, F::Any, kCapNone},
    {"CAP_FILTER", CAP_FILTER, TY_UINT8, TY_UINT8, TY_INT32, F::Enumeration, kCapNone},
    {"CAP_COMPRESSION", CAP_COMPRESSION, TY_UINT8, TY_UINT8, TY_INT32, F::Enumeration, kCapNone},
    {"CAP_DITHER", CAP_DITHER, TY_STR32, TY_STR32, TY_STR32, F::Enumeration, kCapNone},
    {"CAP_THRESHOLD", CAP_THRESHOLD, TY_UINT8, TY_UINT8, TY_INT32, F::Enumeration, kCapNone},
    {"CAP_INVERT", CAP_INVERT, TY_UINT8, TY_UINT8, TY_INT32, F::Enumeration, kCapNone},
    {"CAP_SHARPEN", CAP_SHARPEN, TY_UINT8, TY_UINT8, TY_INT32, F::Enumeration, kCapNone},
    {"CAP_COLORMATCH", CAP_COLORMATCH, TY_UINT8, TY_UINT8, TY_INT32, F::Enumeration, kCapNone},
    {"CAP_DESCREEN", CAP_DESCREEN, TY_UINT8, TY_UINT8, TY_INT32, F::Enumeration, kCapNone},
    {"CAP_BACKGROUNDLINES", CAP_BACKGROUNDLINES, kNone, TY_UINT8, TY_INT32, F::Range,
     kCapGetFetchesRaster},
    {"CAP_MAXLENGTHS", CAP_MAXLENGTHS, kNone, kNone, TY_FLOAT32, F::Enumeration, kCapNone},
    {"CAP_MAXWIDTHS", CAP_MAXWIDTHS, kNone, kNone, TY_FLOAT32, F::Enumeration, kCapNone},
    {"CAP_XPOSITION", CAP_XPOSITION, TY_UINT16, TY_FLOAT32, TY_FLOAT32, F::Enumeration, kAreaFlag},
    {"CAP_YPOSITION", CAP_YPOSITION, TY_UINT16, TY_FLOAT32, TY_FLOAT32, F::Enumeration, kAreaFlag},
    {"CAP_IMAGELENGTH", CAP_IMAGELENGTH, TY_UINT16, TY_FLOAT32, TY_FLOAT32, F::Enumeration, kAreaFlag},
    {"CAP_IMAGEWIDTH", CAP_IMAGEWIDTH, TY_UINT16, TY_FLOAT32, TY_FLOAT32, F::Enumeration, kAreaFlag},
    {"CAP_UNITS", CAP_UNITS, TY_UINT8, TY_UINT8, TY_INT32, F::Enumeration, kCapNone},
    {"CAP_OVERSCAN", CAP_OVERSCAN, TY_INT16, TY_INT16, TY_INT32, F::Range, kCapNone},
    {"CAP_XFERCOUNT", CAP_XFERCOUNT, TY_INT32, TY_INT32, TY_INT32, F::Default, kCapNone},
    {"CAP_PAGESIZE", CAP_PAGESIZE, TY_UINT8, TY_UINT8, TY_INT32, F::Default, kCapNone},
    {"CAP_RESERVED9602", CAP_RESERVED9602, TY_INT16, TY_INT16, TY_INT32, F::Enumeration, kCapNone},
    {"CAP_FEEDERLOADED", CAP_FEEDERLOADED, TY_UINT8, kNone, TY_INT32, F::Enumeration, kCapNone},
};

struct TypeInfo {
  uint16_t type;
  const char* name;
  uint16_t bytes;
  int64_t min, max;  // integers only
};

constexpr TypeInfo kTypes[] = {
    {TY_INT16, "TY_INT16", 2, INT16_MIN, INT16_MAX},
    {TY_INT32, "TY_INT32", 4, INT32_MIN, INT32_MAX},
    {TY_FLOAT32, "TY_FLOAT32", 4, 0, 0},
    {TY_UINT16, "TY_UINT16", 2, 0, UINT16_MAX},
    {TY_STR32, "TY_STR32", 33, 0, 0},
    {TY_STR64, "TY_STR64", 65, 0, 0},
    {TY_STR128, "TY_STR128", 129, 0, 0},
    {TY_STR255, "TY_STR255", 256, 0, 0},
    {TY_UINT8, "TY_UINT8", 2, 0, UINT8_MAX},
    {TY_UINT32, "TY_UINT32", 4, 0, UINT32_MAX},
};

const TypeInfo* FindType(uint16_t type) {
  for (const auto& t : kTypes)
    if (t.type == type) return &t;
  return nullptr;
}

bool EqualNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
      return false;
  }
  return true;
}

template <class T>
int64_t Load(const uint8_t* bytes) {
  T v;
  std::memcpy(&v, bytes, sizeof v);
  return v;
}

int64_t ReadInteger(uint16_t type, const uint8_t* bytes) {
  switch (type) {
    case TY_INT16: return Load<int16_t>(bytes);
    case TY_UINT16: return Load<uint16_t>(bytes);
    case TY_INT32: return Load<int32_t>(bytes);
    case TY_UINT32: return Load<uint32_t>(bytes);
    default: return bytes[0];  // TY_UINT8 and codes the library would treat as 2 bytes
  }
}

// The words for the values of enumerated settings.
struct ValueNames {
  uint16_t code;
  std::array<const char*, 5> names;  // by value; null past the last
};
constexpr ValueNames kValueNames[] = {
    {CAP_PIXELTYPE, {"lineart", "gray", "color", nullptr, nullptr}},
    {CAP_SCANTYPE, {"auto", "feeder", "flatbed", "alternate1", "alternate2"}},
    {CAP_FILTER, {"all channels", "red", "green", "blue", nullptr}},
    {CAP_UNITS, {"inches", "cm", "300ths", nullptr, nullptr}},
};

std::string JoinItems(const CapabilityInfo& cap, const uint8_t* items, size_t count) {
  std::string out;
  size_t step = ValueTypeBytes(cap.itemType);
  for (size_t i = 0; i < count; ++i) {
    if (i) out += ", ";
    out += NamedValue(cap, FormatValue(cap.itemType, items + i * step));
  }
  return out;
}

}  // namespace

std::span<const CapabilityInfo> AllCapabilities() { return kCapabilities; }

std::string NamedValue(const CapabilityInfo& cap, const std::string& formatted) {
  for (const ValueNames& v : kValueNames) {
    if (v.code != cap.code) continue;
    int64_t n = 0;
    if (!ParseInteger(formatted, 0, static_cast<int64_t>(v.names.size()) - 1, &n) || !v.names[n]) break;
    return formatted + " (" + v.names[n] + ")";
  }
  return formatted;
}

const char* ValueWord(uint16_t code, int64_t value) {
  for (const ValueNames& v : kValueNames) {
    if (v.code == code && value >= 0 && value < static_cast<int64_t>(v.names.size())) return v.names[value];
  }
  return nullptr;
}

bool ParseSettingValue(const CapabilityInfo& cap, std::string_view text, Value* out, std::string* error) {
  for (const ValueNames& v : kValueNames) {
    if (v.code != cap.code) continue;
    for (size_t i = 0; i < v.names.size(); ++i) {
      if (v.names[i] && EqualNoCase(v.names[i], text)) {
        *out = IntegerValue(cap.setType, static_cast<int64_t>(i));
        return true;
      }
    }
  }
  return ParseValue(cap.setType, text, out, error);
}

const CapabilityInfo* FindCapability(std::string_view name) {
  int64_t code = 0;
  bool numeric = name.size() > 2 && name[0] == '0' && (name[1] == 'x' || name[1] == 'X') &&
                 ParseInteger(name, 0, UINT16_MAX, &code);
  std::string_view bare = name;
  if (bare.size() > 4 && EqualNoCase(bare.substr(0, 4), "CAP_")) bare.remove_prefix(4);
  for (const auto& cap : kCapabilities) {
    if (numeric ? cap.code == code : EqualNoCase(std::string_view(cap.name).substr(4), bare))
      return &cap;
  }
  return nullptr;
}

size_t ValueTypeBytes(uint16_t type) {
  const TypeInfo* t = FindType(type);
  return t ? t->bytes : 2;
}

bool IsTextType(uint16_t type) {
  return type == TY_STR32 || type == TY_STR64 || type == TY_STR128 || type == TY_STR255;
}

const char* ValueTypeName(uint16_t type) {
  const TypeInfo* t = FindType(type);
  return t ? t->name : "unknown type";
}

Value IntegerValue(uint16_t type, int64_t v) {
  Value out;
  out.type = type;
  size_t n = ValueTypeBytes(type) == 4 ? 4 : (type == TY_UINT8 ? 1 : 2);
  uint32_t bits = static_cast<uint32_t>(v);  // little-endian low bytes
  for (size_t i = 0; i < n; ++i) out.bytes[i] = static_cast<uint8_t>(bits >> (8 * i));
  return out;
}

Value RealValue(float v) {
  Value out;
  out.type = TY_FLOAT32;
  std::memcpy(out.bytes.data(), &v, sizeof v);
  return out;
}

bool ParseValue(uint16_t type, std::string_view text, Value* out, std::string* error) {
  const TypeInfo* t = FindType(type);
  if (!t) {
    *error = "no value of this type can be given";
    return false;
  }
  if (IsTextType(type)) {
    if (text.size() + 1 > t->bytes || text.find('\0') != std::string_view::npos) {
      *error = "text longer than " + std::to_string(t->bytes - 1) + " characters";
      return false;
    }
    *out = Value{};
    out->type = type;
    std::memcpy(out->bytes.data(), text.data(), text.size());
    return true;
  }
  if (type == TY_FLOAT32) {
    float v = 0;
    if (!ParseReal(text, &v)) {
      *error = "'" + std::string(text) + "' is not a number";
      return false;
    }
    *out = RealValue(v);
    return true;
  }
  int64_t v = 0;
  if (!ParseInteger(text, t->min, t->max, &v)) {
    *error = "'" + std::string(text) + "' is not a whole number from " + std::to_string(t->min) +
             " to " + std::to_string(t->max);
    return false;
  }
  *out = IntegerValue(type, v);
  return true;
}

std::string FormatValue(uint16_t type, const uint8_t* bytes) {
  if (IsTextType(type))
    return "\"" + FieldText(reinterpret_cast<const char*>(bytes), ValueTypeBytes(type)) + "\"";
  if (type == TY_FLOAT32) {
    float v;
    std::memcpy(&v, bytes, sizeof v);
    char text[32];
    std::snprintf(text, sizeof text, "%g", static_cast<double>(v));
    return text;
  }
  return std::to_string(ReadInteger(type, bytes));
}

std::string DescribeList(const CapabilityInfo& cap, int32_t count, const uint8_t* items,
                         size_t itemBytes) {
  if (cap.code == CAP_GAMMA && count == -1) {
    char text[48];
    std::snprintf(text, sizeof text, "%g to %g", static_cast<double>(kGammaLeast), static_cast<double>(kGammaMost));
    return text;
  }
  if (count == -1) return "any value";
  if (count < -1) return "unreadable list (count " + std::to_string(count) + ")";
  size_t readable = items ? itemBytes / ValueTypeBytes(cap.itemType) : 0;
  if (count > 0) {
    size_t n = static_cast<size_t>(count);
    if (readable == 0) return "unreadable list";
    std::string out = (n == 1 ? "" : "one of ") + JoinItems(cap, items, std::min(n, readable));
    if (n > readable) out += " (" + std::to_string(n - readable) + " more not readable)";
    return out;
  }
  size_t step = ValueTypeBytes(cap.itemType);
  switch (cap.form) {
    case ListForm::Range: {
      if (readable < 3) return "unreadable range";
      // Every whole number between is the usual case, and needs no mention.
      const std::string by = FormatValue(cap.itemType, items + 2 * step);
      return FormatValue(cap.itemType, items) + " to " + FormatValue(cap.itemType, items + step) +
             (cap.code == CAP_XRESOLUTION || cap.code == CAP_YRESOLUTION ? " dpi" : "") +
             (by == "1" ? "" : " step " + by);
    }
    case ListForm::Default:
      if (readable < 1) return "unreadable default";
      return "default " + FormatValue(cap.itemType, items);
    case ListForm::Any:
      return "any value";
    default:
      return "none";
  }
}

std::string FieldText(const char* field, size_t width) {
  size_t n = 0;
  while (n < width && field[n] != '\0') ++n;
  return std::string(field, n);
}

std::string ResultText(int32_t result) {
  switch (result) {
    case SX_OK: return "success";
    case SX_ERR_DRIVER:
      return "the driver failed or could not be loaded; check that the scanner is connected and on "
             "('sxscan doctor' explains the set-up)";
    case SX_ERR_CANCELLED: return "cancelled";
    case -6: return "the scanner could not scan; check that it is connected and ready, then try again";
    case SX_ERR_UNSUPPORTED:
      return "not possible with this scanner or these settings; 'sxscan caps' lists what it takes";
    case SX_ERR_NO_COLOR: return "the scanner has no colour; scan with --mode gray or --mode lineart";
    case SX_ERR_NO_MEMORY: return "out of memory; scan a smaller area or at a lower resolution";
    case SX_ERR_NO_SOURCE:
      return "no data source is chosen; list them with 'sxscan sources' and choose one with 'sxscan select'";
    case -12: return "the scanner refused these settings; 'sxscan caps' lists what it takes";
    case SX_ERR_NO_PAPER: return "no paper in the feeder; load paper, or scan from the flatbed (--source flatbed)";
    case -22: return "the lamp is not ready; wait a moment and try again";
    case SX_ERR_NO_ASPI: return "the scanner's connection failed; check its cable and power, then try again";
    default:
      return "the scanner reported error " + std::to_string(result) +
             "; check it for a paper jam or an open cover, then try again";
  }
}

}  // namespace sx::host

namespace sx::host {

namespace {

bool IsText(uint16_t type) { return type >= TY_STR32 && type <= TY_STR255; }

// A number of the given type; false for texts and unknown types.
bool NumberOf(uint16_t type, const uint8_t* bytes, double* out) {
  switch (type) {
    case TY_INT16: { int16_t v; std::memcpy(&v, bytes, 2); *out = v; return true; }
    case TY_UINT16: { uint16_t v; std::memcpy(&v, bytes, 2); *out = v; return true; }
    case TY_INT32: { int32_t v; std::memcpy(&v, bytes, 4); *out = v; return true; }
    case TY_UINT32: { uint32_t v; std::memcpy(&v, bytes, 4); *out = v; return true; }
    case TY_FLOAT32: { float v; std::memcpy(&v, bytes, 4); *out = v; return true; }
    case TY_UINT8: *out = bytes[0]; return true;
    default: return false;
  }
}

bool SameNumber(double a, double b) { return std::fabs(a - b) <= 1e-4 * std::max(1.0, std::fabs(b)); }

}  // namespace

bool IsToneCapability(uint16_t code) {
  return code == CAP_BRIGHTNESS || code == CAP_CONTRAST || code == CAP_HIGHLIGHT || code == CAP_SHADOW ||
         code == CAP_GAMMA;
}

constexpr std::string_view kColourSuffixes[kColourElements] = {"-r", "-g", "-b"};

NamedSetting FindSetting(std::string_view name) {
  for (int i = 0; i < kColourElements; ++i) {
    const std::string_view suffix = kColourSuffixes[i];
    if (name.size() <= suffix.size() || !EqualNoCase(name.substr(name.size() - suffix.size()), suffix)) continue;
    const CapabilityInfo* cap = FindCapability(name.substr(0, name.size() - suffix.size()));
    if (!cap || !IsToneCapability(cap->code)) return {};
    return {cap, i + 1};
  }
  return {FindCapability(name), kNoElement};
}

std::string SettingName(const NamedSetting& setting) {
  std::string name = setting.cap ? setting.cap->name : "";
  if (setting.element < 1 || setting.element > kColourElements) return name;
  for (char c : kColourSuffixes[setting.element - 1])
    name += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return name;
}

bool Admissible(const CapabilityInfo& cap, const Value& value, int32_t count, const uint8_t* items,
                size_t itemBytes) {
  if (cap.code == CAP_GAMMA) {
    double gamma = 0;
    return NumberOf(value.type, value.bytes.data(), &gamma) && gamma >= kGammaLeast - 1e-6 &&
           gamma <= kGammaMost + 1e-4;
  }
  // A default or an open list admits anything. An area's list holds only
  // its current value; the area is fitted to the source instead.
  if (cap.form != ListForm::Enumeration && cap.form != ListForm::Range) return true;
  if (cap.flags & kAreaFlag) return true;
  const size_t step = ValueTypeBytes(cap.itemType);
  const size_t readable = items && step ? itemBytes / step : 0;
  if (count > 0) {
    const size_t n = std::min(static_cast<size_t>(count), readable);
    if (n == 0) return true;
    double wanted = 0;
    const bool numeric = NumberOf(value.type, value.bytes.data(), &wanted);
    for (size_t i = 0; i < n; ++i) {
      const uint8_t* item = items + i * step;
      double listed = 0;
      if (numeric && NumberOf(cap.itemType, item, &listed) && SameNumber(wanted, listed)) return true;
      if (IsText(value.type) && IsText(cap.itemType) &&
          FieldText(reinterpret_cast<const char*>(value.bytes.data()), value.bytes.size()) ==
              FieldText(reinterpret_cast<const char*>(item), step))
        return true;
    }
    return false;
  }
  if (count != 0 || cap.form != ListForm::Range || readable < 3) return true;
  double v = 0, least = 0, most = 0, by = 0;
  if (!NumberOf(value.type, value.bytes.data(), &v) || !NumberOf(cap.itemType, items, &least) ||
      !NumberOf(cap.itemType, items + step, &most) || !NumberOf(cap.itemType, items + 2 * step, &by))
    return true;
  if (v < least - 1e-6 || v > most + 1e-6) return false;
  if (by <= 0) return true;
  const double steps = (v - least) / by;
  return SameNumber(steps, std::round(steps));
}

}  // namespace sx::host
