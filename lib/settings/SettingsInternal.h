// Helpers shared by the settings operations: guarded conversion with a
// "was anything written" answer, text-to-number rules, single-precision
// products, the dither pattern names and the buffer ring's sizing.
// Host's thread only (the ring is handed to the acquisition's workers, which
// never run while these helpers do).
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

#include "settings/ScanSettings.h"

namespace sx {

// Only the low 16 bits of a capability or value-type slot count.
inline constexpr uint32_t LowWord(uint32_t slot) { return slot & 0xFFFFu; }

// ConvertValue that tells whether it wrote the destination.
bool TryConvertValue(void* dest, uint32_t destType, uint32_t sourceType, const void* source);

// Integer text: optional leading blanks, sign, decimal digits up to the first
// other character; 0 without digits. Saturates at the 32-bit limits. Reads at
// most `size` bytes (a stored text need not be terminated).
int32_t IntegerText(const char* text, size_t size);
// Real text: optional blanks, sign, digits, fraction and exponent, read in
// the C locale's way whatever the process locale; 0.0 without a number.
float RealText(const char* text, size_t size);

// Round to single or double precision even where the compiler would keep
// more (the i386 floating-point unit), so both builds compute alike.
float Single(float value);
double Double(double value);
// Truncates toward zero to 64 bits; NaN and values beyond the 64-bit range
// give the integer-indefinite pattern (INT64_MIN), as the x87 store does, so
// their low bits are 0.
int64_t TruncateReal(double value);
// A real in a unit (0 inches, 1 centimetres, 2 pixels) to 1/300 inch, low
// 16 bits; false for any other unit (the field keeps its value).
bool UnitsToPixels(float value, uint8_t units, uint16_t& pixels);

// Localised words of the dither pattern names, from "langpack.loc" in the
// current directory, section gLib.LanguageSection.
inline constexpr size_t kDitherNameSize = 33;  // TY_STR32 text with terminator
struct DitherWords {
  char None[kDitherNameSize];
  char Halftone[kDitherNameSize];
  char Diffusion[kDitherNameSize];
};
void LoadDitherWords(DitherWords& words);
// "<word> <number>" (or the none word for 0), cut to 32 characters.
// `dither` is a pattern number 0 .. halftones + diffusions, which can pass
// 255: the list numbers every name whatever the counts.
void DitherName(int dither, int halftoneCount, const DitherWords& words,
                char (&out)[kDitherNameSize]);
// The pattern number of a listed name: 0 without a final number, N + k for a
// diffusion name ending in k, otherwise k.
uint8_t DitherFromName(const char* name, uint8_t halftoneCount, const DitherWords& words);

// Copies a fixed-width field that need not be terminated into a TY_STR32 text.
void FieldText(const char* field, size_t width, char (&out)[kDitherNameSize]);

// The ring's buffer size: "MINBUFFER" of the stored defaults, or one mebibyte.
inline constexpr int32_t kDefaultMinBuffer = 0x100000;
int32_t StoredMinBuffer();
// Builds the ring when none exists, else grows its buffers to `minBuffer`.
void BuildOrGrowBufferRing(int32_t minBuffer);
// 2..10 buffers: 60 % of the available physical memory over the buffer size.
uint8_t ComputeBufferCount(uint64_t availableBytes, int32_t minBuffer);

}  // namespace sx
