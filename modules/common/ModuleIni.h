// The ini files the modules read beside their own file (vscan.ini, the
// simulated SCSI bus): the rules of the profile functions, kept small so that
// a module needs nothing of the library.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sx::modini {

// One ini file: sections of key/value pairs in file order.
struct IniSection {
  std::string Name;
  std::vector<std::pair<std::string, std::string>> Values;
};

std::string_view Trim(std::string_view s);
// Names match without regard to case.
bool SameName(std::string_view a, std::string_view b);
// Sections in file order; lines starting with ';' or '#' are comments, blanks
// around names and values are trimmed and a value in matching quotes loses
// them. Malformed lines are skipped.
std::vector<IniSection> ParseIni(const std::string& text);
// The first value of a key in one section; null when it has none.
const std::string* FindIn(const IniSection& section, std::string_view key);
// The first value of a key in the first section of that name that has it, as
// the profile functions find it; null when there is none.
const std::string* Find(const std::vector<IniSection>& ini, std::string_view section, std::string_view key);
// Numbers are decimal (optionally signed) or 0x-prefixed hexadecimal; the
// leading number of the text counts. False when there is none.
bool ParseIniNumber(const std::string& text, int64_t& value);
// The value of a hexadecimal digit of either case; -1 for any other character.
int HexDigit(char c);

// The folder of the module file this code is linked into, where the module's
// ini lies ("." when the system cannot tell). Each system has its own way of
// asking (ModuleIniPosix.cpp, ModuleIniWin32.cpp).
std::string ModuleFolder();
// Whether a path from an ini names its file on its own, rather than relative
// to the module's folder.
bool IsAbsolutePath(std::string_view path);

}  // namespace sx::modini
