// The ini files the modules read beside their own file (vscan.ini, the
// simulated SCSI bus), read by the library's own profile rules (sxtext): a
// "[name]" line starts a section, ';' starts a comment, names match without
// regard to case, a value in matching quotes loses them, and of a section
// or key named twice the first counts. A module's file therefore reads as
// the profile functions read it, and a module needs nothing else of the
// library.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/text/ProfileText.h"

namespace sx::modini {

// An ini text split into its lines once for the many lookups a module
// makes; it refers to the text, which must outlive it.
using Ini = std::vector<plat::ProfileLine>;
inline Ini ParseIni(std::string_view text) { return plat::SplitProfile(text); }

// The value of a key in the first section of that name; none when either is
// missing.
std::optional<std::string> Find(const Ini& ini, std::string_view section, std::string_view key);
// The names of the sections that count, in file order.
std::vector<std::string> SectionNames(const Ini& ini);
// Numbers are decimal (optionally signed) or 0x-prefixed hexadecimal; the
// leading number of the text counts. False when there is none.
bool ParseIniNumber(std::string_view text, int64_t& value);

// The folder of the module file this code is linked into, where the module's
// ini lies ("." when the system cannot tell). Each system has its own way of
// asking (ModuleIniPosix.cpp, ModuleIniWin32.cpp).
std::string ModuleFolder();
// Whether a path from an ini names its file on its own, rather than relative
// to the module's folder.
bool IsAbsolutePath(std::string_view path);

}  // namespace sx::modini
