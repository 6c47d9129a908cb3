// What a person types, read whole: numbers, and a data source named by its
// display name or a part of it. Pure functions.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace sx::host {

// Decimal or 0x-hexadecimal integers within [min, max]; no blanks, no
// leading zeros (which the C library would read as octal).
bool ParseInteger(std::string_view text, int64_t min, int64_t max, int64_t* out);
// Finite reals.
bool ParseReal(std::string_view text, float* out);

// The source whose display name matches `query`: an exact match first, else
// the one name that contains it ignoring letter case and runs of blanks.
// Returns the index, or -1 with a message in *error.
int FindSourceByName(const std::vector<std::string>& names, std::string_view query, std::string* error);

}  // namespace sx::host
