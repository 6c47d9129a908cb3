// The capabilities a host can name, with the value types the program uses to
// read, set and list each one, and the text forms of values and lists.
// Pure functions: nothing here calls the library.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace sx::host {

// The shape of what SxQueryData answers for a capability. The count alone
// does not tell a range, a default and an empty list apart, so each
// capability's form is fixed here.
enum class ListForm : uint8_t { Enumeration, Range, Default, Any, Empty };

enum CapabilityFlag : uint8_t {
  kCapNone = 0,
  // Reading it hands the scanner's background raster to the value address
  // instead of a value; never read as a setting.
  kCapGetFetchesRaster = 1,
  // Listing it acts on the scanner (sets the power-save time to 0). Design
  // note: the overview leaves it out; the list is empty anyway.
  kCapQueryActs = 2,
  // Set in the unit CAP_UNITS names, read back in 1/300 inch.
  kCapReadIn300ths = 8,
};

struct CapabilityInfo {
  const char* name;   // "CAP_XRESOLUTION"
  uint16_t code;
  uint16_t getType;   // value type asked from SxGetValue; 0: cannot be read
  uint16_t setType;   // value type passed to SxSetValue; 0: cannot be set
  uint16_t itemType;  // value type of the SxQueryData items
  ListForm form;
  uint8_t flags;
};

std::span<const CapabilityInfo> AllCapabilities();
// A formatted value with its word for enumerated settings: "2 (colour)".
std::string NamedValue(const CapabilityInfo& cap, const std::string& formatted);
// "CAP_XRESOLUTION", "xresolution" (any letter case) or the code "0x9200".
const CapabilityInfo* FindCapability(std::string_view name);

// Bytes one value (or list item) of the type occupies; 2 for unknown codes.
size_t ValueTypeBytes(uint16_t type);
bool IsTextType(uint16_t type);
const char* ValueTypeName(uint16_t type);

// A value in one of the value types; big enough for the longest text.
struct Value {
  uint16_t type = 0;
  std::array<uint8_t, 256> bytes{};
};

// The text typed by the user as a value of the type: integers within the
// type's range, finite reals, texts that fit with their terminating zero.
bool ParseValue(uint16_t type, std::string_view text, Value* out, std::string* error);
Value IntegerValue(uint16_t type, int64_t v);
// The word for a value of an enumerated setting ("color"); null if none.
const char* ValueWord(uint16_t code, int64_t value);
// What a person types for a setting: one of the words NamedValue shows
// ("color"), or a value of the capability's set type.
bool ParseSettingValue(const CapabilityInfo& cap, std::string_view text, Value* out, std::string* error);
Value RealValue(float v);
// `bytes` holds at least ValueTypeBytes(type) bytes; texts stop at the first
// zero or at the end of their field.
std::string FormatValue(uint16_t type, const uint8_t* bytes);

// The admissible values in words: "one of 0, 1, 2", "50 to 600 step 1",
// "default 1048576", "any value", "none". `itemBytes` is how many bytes of
// items can be read; items beyond it are never touched.
std::string DescribeList(const CapabilityInfo& cap, int32_t count, const uint8_t* items,
                         size_t itemBytes);

// A zero-terminated text in a fixed field that may lack the terminator.
std::string FieldText(const char* field, size_t width);

// What a library result code means, for messages.
std::string ResultText(int32_t result);

}  // namespace sx::host

namespace sx::host {

// Whether `value` is among the admissible values the library listed for the
// capability (SxQueryData's count and items, as DescribeList takes them):
// one of an enumeration's items, or within a range on its steps. Lists that
// admit anything (defaults, "any value", none) or that cannot be read do
// not refuse.
bool Admissible(const CapabilityInfo& cap, const Value& value, int32_t count, const uint8_t* items,
                size_t itemBytes);

// Tone settings (brightness, contrast, highlight, shadow, gamma) are arrays
// of four elements: the whole image, then red, green and blue. The library
// addresses the element that CAP_FILTER chooses, so the program names the
// element itself and leaves the filter as it was. A tone setting named
// plainly ("gamma") is its whole-image element, the value a person means,
// whatever the filter; "gamma-r", "gamma-g" and "gamma-b" name the colours'.
constexpr int kWholeImage = 0;
constexpr int kNoElement = -1;
constexpr int kColourElements = 3;
bool IsToneCapability(uint16_t code);

// A setting as a person names it: a capability, or one colour's element of
// a tone setting.
struct NamedSetting {
  const CapabilityInfo* cap = nullptr;  // null: no such setting
  int element = kNoElement;             // 1 red, 2 green, 3 blue
};
// FindCapability's names, and "gamma-r", "brightness-g", "shadow-b" (any
// letter case, with or without CAP_).
NamedSetting FindSetting(std::string_view name);
// "CAP_GAMMA", "CAP_GAMMA-R".
std::string SettingName(const NamedSetting& setting);

// The library lists gamma as any value, but it keeps gamma in hundredths in
// 16 bits, and 0 makes every pixel black: these are the values that work.
constexpr float kGammaLeast = 0.01f;
constexpr float kGammaMost = 655.35f;

}  // namespace sx::host
