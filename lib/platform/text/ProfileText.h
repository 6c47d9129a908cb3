// The text form of profile (INI) files: lookups and single changes over the
// file's text, kept apart from the file handling so the rules can be tested
// and fuzzed directly.
//
// Rules: a "[name]" line starts a section; "key = value" lines belong to the
// section above; lines starting with ';' are comments. Section and key names
// match without regard to case after trimming blanks; a value is trimmed and
// loses one pair of matching quotes ('...' or "..."). The first section of a
// name counts, and within it the first key of a name.
#pragma once
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sx::plat {

// One line of a profile text, classified; views into the text.
struct ProfileLine {
  std::string_view Raw;  // without the line break
  bool IsSection = false;
  bool IsKey = false;
  std::string_view Name;   // section or key name, trimmed
  std::string_view Value;  // key lines: trimmed value, quotes kept
};
// The text split into its lines once, for many lookups over the same text
// (a module's whole configuration). The text must outlive the lines.
std::vector<ProfileLine> SplitProfile(std::string_view text);

// False when the section or the key is missing.
bool ProfileLookup(const std::vector<ProfileLine>& lines, std::string_view section, std::string_view key,
                   std::string& value);
bool ProfileLookup(std::string_view text, std::string_view section, std::string_view key,
                   std::string& value);

// Section names in file order / key names of the first section of that name.
std::vector<std::string> ProfileSectionNames(const std::vector<ProfileLine>& lines);
std::vector<std::string> ProfileSectionNames(std::string_view text);
std::vector<std::string> ProfileKeyNames(std::string_view text, std::string_view section);

// The text with one change: a value sets the key (adding key and section as
// needed), no value deletes the key, no key deletes the whole section. Lines
// not involved are kept as they are.
std::string ProfileUpdate(std::string_view text, std::string_view section,
                          std::optional<std::string_view> key,
                          std::optional<std::string_view> value);

// Optional sign and leading decimal digits, with 32-bit wrap-around as the
// profile functions have; `def` for an empty text.
int32_t ProfileParseInt(std::string_view value, int32_t def);

}  // namespace sx::plat
