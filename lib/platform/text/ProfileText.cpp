#include "platform/text/Text.h"
#include "platform/text/ProfileText.h"

#include <cstdint>

namespace sx::plat {

namespace {

using Line = ProfileLine;

Line Classify(std::string_view raw) {
  Line line;
  line.Raw = raw;
  std::string_view t = Trim(raw);
  if (t.empty() || t.front() == ';') return line;
  if (t.front() == '[') {
    size_t close = t.find(']');
    if (close == std::string_view::npos) return line;
    line.IsSection = true;
    line.Name = Trim(t.substr(1, close - 1));
    return line;
  }
  size_t eq = t.find('=');
  if (eq == std::string_view::npos) return line;
  line.IsKey = true;
  line.Name = Trim(t.substr(0, eq));
  line.Value = Trim(t.substr(eq + 1));
  return line;
}

std::string_view Unquote(std::string_view v) {
  if (v.size() >= 2 && (v.front() == '"' || v.front() == '\'') && v.back() == v.front())
    return v.substr(1, v.size() - 2);
  return v;
}

// Index of the first section header of that name, or lines.size().
size_t FindSection(const std::vector<Line>& lines, std::string_view section) {
  section = Trim(section);
  for (size_t i = 0; i < lines.size(); ++i)
    if (lines[i].IsSection && EqualNoCase(lines[i].Name, section)) return i;
  return lines.size();
}

size_t SectionEnd(const std::vector<Line>& lines, size_t header) {
  size_t i = header + 1;
  while (i < lines.size() && !lines[i].IsSection) ++i;
  return i;
}

}  // namespace

std::vector<ProfileLine> SplitProfile(std::string_view text) {
  std::vector<Line> lines;
  while (!text.empty()) {
    size_t nl = text.find('\n');
    if (nl == std::string_view::npos) {
      lines.push_back(Classify(text));
      break;
    }
    lines.push_back(Classify(text.substr(0, nl)));
    text.remove_prefix(nl + 1);
  }
  return lines;
}

bool ProfileLookup(std::string_view text, std::string_view section, std::string_view key,
                   std::string& value) {
  return ProfileLookup(SplitProfile(text), section, key, value);
}

bool ProfileLookup(const std::vector<ProfileLine>& lines, std::string_view section, std::string_view key,
                   std::string& value) {
  size_t header = FindSection(lines, section);
  if (header == lines.size()) return false;
  key = Trim(key);
  for (size_t i = header + 1, end = SectionEnd(lines, header); i < end; ++i) {
    if (lines[i].IsKey && EqualNoCase(lines[i].Name, key)) {
      value.assign(Unquote(lines[i].Value));
      return true;
    }
  }
  return false;
}

std::vector<std::string> ProfileSectionNames(std::string_view text) {
  return ProfileSectionNames(SplitProfile(text));
}

std::vector<std::string> ProfileSectionNames(const std::vector<ProfileLine>& lines) {
  std::vector<std::string> names;
  for (const Line& line : lines)
    if (line.IsSection) names.emplace_back(line.Name);
  return names;
}

std::vector<std::string> ProfileKeyNames(std::string_view text, std::string_view section) {
  std::vector<std::string> names;
  std::vector<Line> lines = SplitProfile(text);
  size_t header = FindSection(lines, section);
  if (header == lines.size()) return names;
  for (size_t i = header + 1, end = SectionEnd(lines, header); i < end; ++i)
    if (lines[i].IsKey) names.emplace_back(lines[i].Name);
  return names;
}

std::string ProfileUpdate(std::string_view text, std::string_view section,
                          std::optional<std::string_view> key,
                          std::optional<std::string_view> value) {
  std::vector<Line> lines = SplitProfile(text);
  // New lines follow the file's own line ends.
  const bool crlf = !lines.empty() && !lines[0].Raw.empty() && lines[0].Raw.back() == '\r';
  const std::string_view eol = crlf ? "\r\n" : "\n";
  std::string newLine;
  if (key && value) newLine = std::string(Trim(*key)) + "=" + std::string(*value);

  size_t header = FindSection(lines, section);
  size_t drop = lines.size(), dropEnd = lines.size();  // [drop, dropEnd) removed
  size_t replace = lines.size();
  size_t insertAfter = lines.size();
  if (header < lines.size()) {
    size_t end = SectionEnd(lines, header);
    if (!key) {
      drop = header;
      dropEnd = end;
    } else {
      insertAfter = header;
      for (size_t i = header + 1; i < end; ++i) {
        if (!Trim(lines[i].Raw).empty()) insertAfter = i;
        if (lines[i].IsKey && EqualNoCase(lines[i].Name, Trim(*key))) {
          replace = i;
          break;
        }
      }
      if (replace < lines.size() && !value) {
        drop = replace;
        dropEnd = replace + 1;
        replace = lines.size();
      }
    }
  }

  std::string out;
  out.reserve(text.size() + newLine.size() + section.size() + 8);
  for (size_t i = 0; i < lines.size(); ++i) {
    if (i >= drop && i < dropEnd) continue;
    if (i == replace) {
      out += newLine;
      out += eol;
      continue;
    }
    out.append(lines[i].Raw);
    // The last line keeps its missing line break unless something follows.
    if (i + 1 < lines.size() || text.back() == '\n' || i == insertAfter) out += '\n';
    if (i == insertAfter && replace == lines.size() && value) {
      out += newLine;
      out += eol;
    }
  }
  if (header == lines.size() && key && value) {
    if (!out.empty() && out.back() != '\n') out += eol;
    out += "[";
    out += Trim(section);
    out += "]";
    out += eol;
    out += newLine;
    out += eol;
  }
  return out;
}

int32_t ProfileParseInt(std::string_view value, int32_t def) {
  if (value.empty()) return def;
  size_t i = 0;
  bool negative = false;
  if (value[0] == '+' || value[0] == '-') {
    negative = value[0] == '-';
    i = 1;
  }
  uint32_t n = 0;
  for (; i < value.size() && value[i] >= '0' && value[i] <= '9'; ++i)
    n = n * 10u + static_cast<uint32_t>(value[i] - '0');
  if (negative) n = 0u - n;
  return static_cast<int32_t>(n);
}

}  // namespace sx::plat
