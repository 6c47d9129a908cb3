// The settings record, value-type sizes, the guarded conversion between value
// types and the text-to-number rules of the stored defaults.
#include "settings/ScanSettings.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>

#include "platform/System.h"
#include "settings/SettingsInternal.h"

namespace sx {

ScanSettings gSettings{};

namespace {

// How a value type is read and written. TY_UINT32 behaves as TY_INT32 in
// every direction, so both share one kind.
enum class Kind : uint8_t { Int16, UInt16, Int32, Float32, UInt8, Text, TextNotCopied, Unknown };

struct TypeInfo {
  uint16_t Code;
  uint16_t Size;  // list item size, and the room of a text
  Kind How;
};

constexpr TypeInfo kTypes[] = {
    {TY_INT16, 2, Kind::Int16},        {TY_INT32, 4, Kind::Int32},
    {TY_FLOAT32, 4, Kind::Float32},    {TY_UINT16, 2, Kind::UInt16},
    {TY_STR32, 33, Kind::Text},        {TY_STR64, 65, Kind::Text},
    {TY_STR128, 129, Kind::Text},
    // Design note: a TY_STR255 source converts to nothing while the shorter
    // texts are copied, as the conversion table gives it; copying it too is
    // left undone so that no host meets a changed answer. As a destination
    // it is an ordinary 256-byte text.
    {TY_STR255, 256, Kind::TextNotCopied},
    {TY_UINT8, 2, Kind::UInt8},        {TY_UINT32, 4, Kind::Int32},
};

constexpr uint16_t kOtherTypeSize = 2;
constexpr size_t kLongestText = 256;

const TypeInfo* FindType(uint32_t valueType) {
  const uint32_t code = LowWord(valueType);
  for (const TypeInfo& t : kTypes)
    if (t.Code == code) return &t;
  return nullptr;
}

bool IsTextKind(Kind k) { return k == Kind::Text || k == Kind::TextNotCopied; }

// Reads one integer of type T as a 32-bit pattern: widened through int32_t,
// so a signed value is sign-extended and an unsigned one zero-extended.
template <class T>
bool ReadWidened(const void* source, uint32_t& bits) {
  T v;
  if (!plat::SafeRead(&v, source, sizeof v)) return false;
  bits = static_cast<uint32_t>(static_cast<int32_t>(v));
  return true;
}

// Reads a numeric source as its 32-bit pattern (16-bit signed values
// sign-extended, unsigned ones zero-extended, reals truncated toward zero)
// and, for a real, the real itself.
bool ReadNumber(Kind how, const void* source, uint32_t& bits, float& real, bool& isReal) {
  isReal = false;
  switch (how) {
    case Kind::Int16:
      return ReadWidened<int16_t>(source, bits);
    case Kind::UInt16:
      return ReadWidened<uint16_t>(source, bits);
    case Kind::Int32:
      return plat::SafeRead(&bits, source, sizeof bits);
    case Kind::UInt8:
      return ReadWidened<uint8_t>(source, bits);
    case Kind::Float32:
      if (!plat::SafeRead(&real, source, sizeof real)) return false;
      isReal = true;
      bits = static_cast<uint32_t>(static_cast<uint64_t>(TruncateReal(real)));
      return true;
    default:
      return false;
  }
}

bool WriteNumber(Kind how, void* dest, uint32_t bits, float real, bool isReal) {
  switch (how) {
    case Kind::Int16:
    case Kind::UInt16: {
      const uint16_t v = static_cast<uint16_t>(bits);
      return plat::SafeWrite(dest, &v, sizeof v);
    }
    case Kind::Int32:
      return plat::SafeWrite(dest, &bits, sizeof bits);
    case Kind::Float32: {
      const float v = isReal ? real : Single(static_cast<float>(static_cast<int32_t>(bits)));
      return plat::SafeWrite(dest, &v, sizeof v);
    }
    case Kind::UInt8: {
      const uint8_t v = static_cast<uint8_t>(bits);
      return plat::SafeWrite(dest, &v, sizeof v);
    }
    default:
      return false;
  }
}

bool CopyText(void* dest, const TypeInfo& destType, const TypeInfo& sourceType,
              const void* source) {
  // The host declared the source's room by its type, so neither side is read
  // or written past its size, and the copy always ends in NUL.
  char text[kLongestText + 1];
  const size_t room = destType.Size < sourceType.Size ? destType.Size : sourceType.Size;
  const int32_t length = plat::SafeReadText(text, source, room);
  if (length < 0) return false;
  // A text shorter than its room ended in a NUL, or ran into memory that
  // faults: the latter is abandoned like any faulting read.
  char terminator = 1;
  if (static_cast<size_t>(length) + 1 < room &&
      (!plat::SafeRead(&terminator, static_cast<const char*>(source) + length, 1) || terminator))
    return false;
  return plat::SafeWrite(dest, text, static_cast<size_t>(length) + 1);
}

bool IsBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}
bool IsDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

uint16_t ValueTypeSize(uint32_t valueType) {
  const TypeInfo* t = FindType(valueType);
  return t ? t->Size : kOtherTypeSize;
}

bool TryConvertValue(void* dest, uint32_t destType, uint32_t sourceType, const void* source) {
  const TypeInfo* to = FindType(destType);
  const TypeInfo* from = FindType(sourceType);
  if (!to || !from) return false;
  if (IsTextKind(from->How)) {
    if (from->How != Kind::Text || !IsTextKind(to->How)) return false;
    return CopyText(dest, *to, *from, source);
  }
  if (IsTextKind(to->How)) return false;  // a number never becomes text
  uint32_t bits = 0;
  float real = 0.0f;
  bool isReal = false;
  if (!ReadNumber(from->How, source, bits, real, isReal)) return false;
  return WriteNumber(to->How, dest, bits, real, isReal);
}

void ConvertValue(void* dest, uint32_t destType, uint32_t sourceType, const void* source) {
  TryConvertValue(dest, destType, sourceType, source);
}

float Single(float value) {
  volatile float rounded = value;
  return rounded;
}

double Double(double value) {
  volatile double rounded = value;
  return rounded;
}

int64_t TruncateReal(double value) {
  constexpr double kTwo63 = 9223372036854775808.0;
  if (!(value >= -kTwo63 && value < kTwo63)) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(value);
}

bool UnitsToPixels(float value, uint8_t units, uint16_t& pixels) {
  constexpr float kPerInch = 300.0f;
  constexpr float kPerCentimetre = static_cast<float>(118.11023622047243);
  float product;
  switch (units) {
    case 0: product = Single(value * kPerInch); break;
    case 1: product = Single(value * kPerCentimetre); break;
    case 2: product = value; break;
    default: return false;
  }
  pixels = static_cast<uint16_t>(static_cast<uint64_t>(TruncateReal(product)));
  return true;
}

int32_t IntegerText(const char* text, size_t size) {
  size_t i = 0;
  while (i < size && IsBlank(text[i])) ++i;
  bool negative = false;
  if (i < size && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  int64_t value = 0;
  constexpr int64_t kCap = int64_t{1} << 32;  // beyond every 32-bit result
  for (; i < size && IsDigit(text[i]); ++i)
    if (value < kCap) value = value * 10 + (text[i] - '0');
  if (negative) value = -value;
  if (value > std::numeric_limits<int32_t>::max()) return std::numeric_limits<int32_t>::max();
  if (value < std::numeric_limits<int32_t>::min()) return std::numeric_limits<int32_t>::min();
  return static_cast<int32_t>(value);
}

float RealText(const char* text, size_t size) {
  size_t i = 0;
  while (i < size && text[i] && IsBlank(text[i])) ++i;
  std::string number;
  bool negative = false;
  if (i < size && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  // Decimal position of the first significant digit, to tell an overflow
  // from an underflow when the value is out of range.
  int64_t leadingPlace = 0;
  bool seenSignificant = false, seenPoint = false, anyDigit = false;
  for (; i < size; ++i) {
    const char c = text[i];
    if (IsDigit(c)) {
      anyDigit = true;
      if (c != '0' && !seenSignificant) seenSignificant = true;
      if (!seenPoint && seenSignificant) ++leadingPlace;
      if (seenPoint && !seenSignificant) --leadingPlace;
    } else if (c == '.' && !seenPoint) {
      seenPoint = true;
    } else {
      break;
    }
    number += c;
  }
  if (!anyDigit) return 0.0f;
  if (i < size && (text[i] == 'e' || text[i] == 'E')) {
    size_t j = i + 1;
    std::string exponent = "e";
    if (j < size && (text[j] == '+' || text[j] == '-')) exponent += text[j++];
    int64_t e = 0;
    bool expDigits = false;
    for (; j < size && IsDigit(text[j]); ++j) {
      expDigits = true;
      exponent += text[j];
      if (e < 100000) e = e * 10 + (text[j] - '0');
    }
    if (expDigits) {
      number += exponent;
      leadingPlace += exponent[1] == '-' ? -e : e;
    }
  }
  double value = 0.0;
  const auto [end, ec] = std::from_chars(number.data(), number.data() + number.size(), value);
  (void)end;
  if (ec == std::errc::result_out_of_range)
    value = leadingPlace > 0 ? std::numeric_limits<double>::infinity() : 0.0;
  else if (ec != std::errc()) value = 0.0;
  if (negative) value = -value;
  // Beyond the single-precision range a real becomes an infinity.
  if (value > std::numeric_limits<float>::max()) return std::numeric_limits<float>::infinity();
  if (value < -std::numeric_limits<float>::max()) return -std::numeric_limits<float>::infinity();
  return Single(static_cast<float>(value));
}

void FieldText(const char* field, size_t width, char (&out)[kDitherNameSize]) {
  const size_t limit = width < kDitherNameSize - 1 ? width : kDitherNameSize - 1;
  size_t n = 0;
  while (n < limit && field[n]) ++n;
  std::memcpy(out, field, n);
  out[n] = '\0';
}

}  // namespace sx
