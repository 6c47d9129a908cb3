// A version record's text made into the bytes of a VS_VERSIONINFO resource,
// as a resource compiler would lay them out, so tests can give a module copy
// any record, including incomplete or odd ones.
#pragma once
#include <string>

namespace sxtest {

// Each line "\A\B\Name=text" or "\A\B\Name=hex:09 04 b0 04" becomes a value
// at that path (a text or a binary one); lines without a path, '=' or with
// bad hex digits are left out. The root carries a VS_FIXEDFILEINFO whose
// file version comes from the first "FileVersion" text ("1, 0, 8, 107").
// Empty when no line is usable.
std::string BuildVersionResource(const std::string& text);

}  // namespace sxtest
