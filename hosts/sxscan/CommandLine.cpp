#include "sxscan/CommandLine.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <iterator>

namespace sx::host {
namespace {

struct CommandName {
  const char* name;
  CommandKind kind;
  int minOperands;
  int maxOperands;  // -1: any number
};

constexpr CommandName kCommands[] = {
    {"help", CommandKind::Help, 0, 1},       {"version", CommandKind::Version, 0, 0},
    {"sources", CommandKind::Sources, 0, 0}, {"select", CommandKind::Select, 1, 1},
    {"info", CommandKind::Info, 0, 0},       {"caps", CommandKind::Caps, 0, 0},
    {"get", CommandKind::Get, 1, -1},        {"set", CommandKind::Set, 2, -1},
    {"scan", CommandKind::Scan, 0, 0},       {"doctor", CommandKind::Doctor, 0, 0},
    {"serve", CommandKind::Serve, 0, 0},
};

std::string Lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

// Lower case, blanks trimmed and runs of blanks made one: display names pad
// the model name with blanks, which nobody types.
std::string Loose(std::string_view text) {
  std::string out;
  for (char c : text) {
    if (c == ' ' || c == '\t') {
      if (!out.empty() && out.back() != ' ') out += ' ';
    } else {
      out += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
  }
  while (!out.empty() && out.back() == ' ') out.pop_back();
  return out;
}

bool SplitList(std::string_view text, std::vector<std::string_view>* parts) {
  parts->clear();
  size_t start = 0;
  while (true) {
    size_t comma = text.find(',', start);
    parts->push_back(text.substr(start, comma == std::string_view::npos ? comma : comma - start));
    if (comma == std::string_view::npos) return true;
    start = comma + 1;
  }
}

bool ParseArea(std::string_view text, ScanArea* area, std::string* error) {
  std::vector<std::string_view> parts;
  SplitList(text, &parts);
  float v[4];
  bool ok = parts.size() == 4;
  for (size_t i = 0; ok && i < 4; ++i) ok = ParseReal(parts[i], &v[i]);
  if (!ok || v[0] < 0 || v[1] < 0 || v[2] <= 0 || v[3] <= 0) {
    *error = "--area wants X,Y,W,H: four numbers, X and Y not negative, W and H positive";
    return false;
  }
  *area = {v[0], v[1], v[2], v[3]};
  return true;
}

template <typename Enum>
struct Keyword {
  const char* word;
  Enum value;
};

template <typename Enum, size_t N>
bool ParseKeyword(const Keyword<Enum> (&table)[N], std::string_view text, Enum* out) {
  for (const auto& k : table) {
    if (Lower(text) == k.word) {
      *out = k.value;
      return true;
    }
  }
  return false;
}

constexpr Keyword<ColorMode> kModes[] = {
    {"color", ColorMode::Color}, {"colour", ColorMode::Color}, {"gray", ColorMode::Gray},
    {"grey", ColorMode::Gray},   {"lineart", ColorMode::Lineart}};
constexpr Keyword<ScanSource> kSources[] = {
    {"flatbed", ScanSource::Flatbed}, {"feeder", ScanSource::Feeder}, {"auto", ScanSource::Auto}};
constexpr Keyword<ColorFilter> kFilters[] = {
    {"red", ColorFilter::Red}, {"green", ColorFilter::Green}, {"blue", ColorFilter::Blue}, {"none", ColorFilter::None}};
constexpr Keyword<AreaUnits> kUnits[] = {{"inches", AreaUnits::Inches},
                                         {"in", AreaUnits::Inches},
                                         {"cm", AreaUnits::Centimetres},
                                         {"centimetres", AreaUnits::Centimetres},
                                         {"300ths", AreaUnits::ThreeHundredths}};

bool HasImageExtension(const std::string& path) {
  std::string lower = Lower(path);
  for (const char* ext : {".png", ".tif", ".tiff", ".pdf", ".jpg", ".jpeg"}) {
    std::string_view e(ext);
    if (lower.size() > e.size() && lower.compare(lower.size() - e.size(), e.size(), e) == 0)
      return true;
  }
  return false;
}

// One scan option with its value; false with a message when it is not valid.
bool ApplyValueOption(std::string_view name, std::string_view value, ScanOptions* scan,
                      std::string* error) {
  int64_t n = 0;
  if (name == "--resolution") {
    if (!ParseInteger(value, 1, 65535, &n)) {
      *error = "--resolution wants dots per inch, 1 to 65535";
      return false;
    }
    scan->resolution = static_cast<int32_t>(n);
  } else if (name == "--quality") {
    if (!ParseInteger(value, 1, 100, &n)) {
      *error = "--quality wants a JPEG quality, 1 to 100";
      return false;
    }
    scan->quality = static_cast<int>(n);
  } else if (name == "--mode") {
    if (!ParseKeyword(kModes, value, &scan->mode)) {
      *error = "--mode wants color, gray or lineart";
      return false;
    }
  } else if (name == "--area") {
    if (!ParseArea(value, &scan->area, error)) return false;
    scan->hasArea = true;
  } else if (name == "--units") {
    if (!ParseKeyword(kUnits, value, &scan->units)) {
      *error = "--units wants inches, cm or 300ths (1/300 inch, whatever the resolution)";
      return false;
    }
    scan->hasUnits = true;
  } else if (name == "--source") {
    if (!ParseKeyword(kSources, value, &scan->source)) {
      *error = "--source wants flatbed, feeder or auto";
      return false;
    }
  } else if (name == "--filter") {
    if (!ParseKeyword(kFilters, value, &scan->filter)) {
      *error = "--filter wants red, green, blue or none";
      return false;
    }
  } else if (name == "--pages") {
    if (Lower(value) == "all") {
      scan->pages = kAllPages;
    } else if (ParseInteger(value, 1, INT32_MAX, &n)) {
      scan->pages = static_cast<int32_t>(n);
    } else {
      *error = "--pages wants a count of at least 1, or all";
      return false;
    }
  } else if (name == "--output") {
    if (!HasImageExtension(std::string(value))) {
      *error = "--output wants a file name ending in .png, .tif, .tiff, .pdf, .jpg or .jpeg";
      return false;
    }
    scan->output = std::string(value);
  } else if (name == "--buffer") {
    if (!ParseInteger(value, 1, INT32_MAX, &n)) {
      *error = "--buffer wants a size in bytes";
      return false;
    }
    scan->transferBytes = static_cast<uint32_t>(n);
  } else if (name == "--set") {
    size_t eq = value.find('=');
    if (eq == std::string_view::npos || eq == 0) {
      *error = "--set wants NAME=VALUE";
      return false;
    }
    scan->settings.emplace_back(std::string(value.substr(0, eq)), std::string(value.substr(eq + 1)));
  } else {
    *error = "unknown option " + std::string(name);
    return false;
  }
  return true;
}

constexpr const char* kValueOptions[] = {"--resolution", "--mode",   "--area",   "--units", "--source", "--filter",
                                         "--pages",      "--output", "--buffer", "--set",   "--quality"};

bool TakesValue(std::string_view name) {
  for (const char* o : kValueOptions)
    if (name == o) return true;
  return false;
}

// Scan options, as "--name value" or "--name=value".
bool ParseOption(const std::vector<std::string>& args, size_t* i, CommandLine* line,
                 std::string* error) {
  std::string_view arg = args[*i];
  if (arg == "--buffered") {
    line->scan.buffered = true;
    return true;
  }
  if (arg == "--progress") {
    line->scan.progress = true;
    return true;
  }
  if (arg == "--stats") {
    line->scan.stats = true;
    return true;
  }
  std::string_view name = arg;
  std::string_view value;
  size_t eq = arg.find('=');
  if (eq != std::string_view::npos) {
    name = arg.substr(0, eq);
    value = arg.substr(eq + 1);
  } else if (TakesValue(name)) {
    if (*i + 1 >= args.size()) {
      *error = std::string(name) + " needs a value";
      return false;
    }
    value = args[++*i];
  }
  return ApplyValueOption(name, value, &line->scan, error);
}

// The serve command's options, as "--name value" or "--name=value".
bool ParseServeOption(const std::vector<std::string>& args, size_t* i, ServeOptions* serve, std::string* error) {
  std::string_view arg = args[*i];
  if (arg == "--no-announce") {
    serve->announce = false;
    return true;
  }
  std::string_view name = arg, value;
  const size_t eq = arg.find('=');
  if (eq != std::string_view::npos) {
    name = arg.substr(0, eq);
    value = arg.substr(eq + 1);
  } else if (name == "--listen" || name == "--port" || name == "--source" || name == "--name") {
    if (*i + 1 >= args.size()) {
      *error = std::string(name) + " needs a value";
      return false;
    }
    value = args[++*i];
  }
  int64_t n = 0;
  if (name == "--port") {
    if (!ParseInteger(value, 0, 65535, &n)) {
      *error = "--port wants a TCP port, 0 to 65535 (0: any free port)";
      return false;
    }
    serve->port = static_cast<int>(n);
  } else if (name == "--listen" || name == "--source" || name == "--name") {
    if (value.empty()) {
      *error = std::string(name) + " wants a value";
      return false;
    }
    (name == "--listen" ? serve->listen : name == "--source" ? serve->source : serve->name) = std::string(value);
  } else {
    *error = "unknown option " + std::string(name) + " for serve";
    return false;
  }
  return true;
}

bool CheckScanOptions(const CommandLine& line, bool sawScanOption, std::string* error) {
  if (line.kind != CommandKind::Scan) {
    if (sawScanOption) {
      *error = "scan options belong to the scan command";
      return false;
    }
    return true;
  }
  if (line.scan.hasUnits && !line.scan.hasArea) {
    *error = "--units states the unit of --area; give --area as well";
    return false;
  }
  return true;
}

}  // namespace

bool ParseInteger(std::string_view text, int64_t min, int64_t max, int64_t* out) {
  std::string s(text);
  if (s.empty() || std::isspace(static_cast<unsigned char>(s[0]))) return false;
  errno = 0;
  char* end = nullptr;
  long long v = std::strtoll(s.c_str(), &end, 0);
  // Base 0 would read a leading zero as octal; values here are decimal.
  size_t digits = (s[0] == '-' || s[0] == '+') ? 1 : 0;
  bool octal = s.size() > digits + 1 && s[digits] == '0' &&
               std::isdigit(static_cast<unsigned char>(s[digits + 1]));
  if (octal || errno != 0 || end != s.c_str() + s.size() || v < min || v > max) return false;
  *out = v;
  return true;
}

bool ParseReal(std::string_view text, float* out) {
  std::string s(text);
  if (s.empty() || std::isspace(static_cast<unsigned char>(s[0]))) return false;
  errno = 0;
  char* end = nullptr;
  float v = std::strtof(s.c_str(), &end);
  if (errno != 0 || end != s.c_str() + s.size() || !std::isfinite(v)) return false;
  *out = v;
  return true;
}

ParseOutcome ParseCommandLine(const std::vector<std::string>& args) {
  ParseOutcome result;
  CommandLine& line = result.line;
  bool sawCommand = false;
  bool sawScanOption = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    // Help and version win wherever they stand; help after a command is
    // that command's.
    if (arg == "-h" || arg == "--help" || arg == "--version" || arg == "-V") {
      const bool version = arg == "--version" || arg == "-V";
      line.helpFor = sawCommand && !version ? line.kind : CommandKind::Help;
      line.kind = version ? CommandKind::Version : CommandKind::Help;
      result.ok = true;
      return result;
    }
    if (arg.size() > 1 && arg[0] == '-' && sawCommand && line.kind == CommandKind::Serve) {
      if (!ParseServeOption(args, &i, &line.serve, &result.error)) return result;
      continue;
    }
    if (arg.size() > 1 && arg[0] == '-' && !(sawCommand && line.kind == CommandKind::Set)) {
      if (!ParseOption(args, &i, &line, &result.error)) return result;
      sawScanOption = true;
      continue;
    }
    if (!sawCommand) {
      bool known = false;
      for (const auto& c : kCommands) {
        if (arg == c.name) {
          line.kind = c.kind;
          known = true;
        }
      }
      if (!known) {
        result.error = "unknown command '" + arg + "'";
        return result;
      }
      sawCommand = true;
      continue;
    }
    line.operands.push_back(arg);
  }
  if (args.empty()) {
    line.kind = CommandKind::Help;
    result.ok = true;
    return result;
  }
  if (!sawCommand) {
    result.error = "no command given";
    return result;
  }
  for (const auto& c : kCommands) {
    if (c.kind != line.kind) continue;
    int n = static_cast<int>(line.operands.size());
    if (n < c.minOperands || (c.maxOperands >= 0 && n > c.maxOperands)) {
      result.error = std::string("wrong number of operands for ") + c.name;
      return result;
    }
  }
  if (line.kind == CommandKind::Set && line.operands.size() % 2 != 0) {
    result.error = "set wants NAME VALUE pairs";
    return result;
  }
  // "help COMMAND" is that command's help, as "COMMAND --help" is.
  if (line.kind == CommandKind::Help && !line.operands.empty()) {
    const auto named = std::find_if(std::begin(kCommands), std::end(kCommands),
                                    [&](const CommandName& c) { return line.operands[0] == c.name; });
    if (named == std::end(kCommands)) {
      result.error = "no help for '" + line.operands[0] + "': it is not a command";
      return result;
    }
    line.helpFor = named->kind;
  }
  if (!CheckScanOptions(line, sawScanOption, &result.error)) return result;
  result.ok = true;
  return result;
}

int FindSourceByName(const std::vector<std::string>& names, std::string_view query,
                     std::string* error) {
  for (size_t i = 0; i < names.size(); ++i)
    if (names[i] == query) return static_cast<int>(i);
  std::string want = Loose(query);
  int found = -1;
  int count = 0;
  if (!want.empty()) {
    for (size_t i = 0; i < names.size(); ++i) {
      if (Loose(names[i]).find(want) != std::string::npos) {
        if (found < 0) found = static_cast<int>(i);
        ++count;
      }
    }
  }
  if (count == 1) return found;
  if (count == 0) {
    *error = "no data source matches '" + std::string(query) + "'";
  } else {
    *error = "'" + std::string(query) + "' matches " + std::to_string(count) +
             " data sources; give more of the name";
  }
  return -1;
}

std::string UsageText() {
  return "usage: sxscan COMMAND [OPERANDS] [OPTIONS]\n"
         "\n"
         "commands:\n"
         "  sources              list the data sources (display name, vendor, port, file, version)\n"
         "  select NAME          choose a data source by display name (or a unique part of it)\n"
         "  info                 open the chosen source; show model, firmware and serial number\n"
         "  caps                 every capability: current value and admissible values\n"
         "  get NAME...          current value of capabilities (CAP_XRESOLUTION or xresolution)\n"
         "  set NAME VALUE...    set capabilities and show what the library kept; settings last\n"
         "                       while the program runs, so pass them to scan with --set\n"
         "  scan [OPTIONS]       scan to a file\n"
         "  doctor               explain the set-up: system tree, registry store, driver modules\n"
         "                       and why each is or is not offered, each problem with its fix\n"
         "  serve [OPTIONS]      serve the source to phones and computers over eSCL (AirScan)\n"
         "  help, version\n"
         "\n"
         "scan options:\n"
         "  --resolution N              dots per inch (both directions); default 300\n"
         "  --mode color|gray|lineart   pixel type; default color\n"
         "  --area X,Y,W,H              scan area, in inches unless --units says otherwise\n"
         "  --units inches|cm|300ths    unit of --area (300ths: 1/300 inch at any resolution)\n"
         "  --source flatbed|feeder|auto\n"
         "  --filter red|green|blue|none  the colour a gray or lineart scan is taken from\n"
         "  --pages N|all               number of pages to transfer from the feeder\n"
         "  --output FILE               the format follows the name: .png for one page (several\n"
         "                              pages become a multi-page .tif beside it), .tif, .pdf\n"
         "                              (every page in one document), .jpg (one file per page:\n"
         "                              name.jpg, name-2.jpg, ...); default scan.png\n"
         "  --quality N                 JPEG quality, 1 to 100; default 85\n"
         "  --buffered                  read and process on the library's worker threads\n"
         "  --buffer BYTES              transfer buffer size (default 262144)\n"
         "  --set NAME=VALUE            any other capability, applied last; gamma, brightness,\n"
         "                              contrast, highlight and shadow act on the whole image,\n"
         "                              gamma-r, gamma-g, gamma-b (and so on) on one colour\n"
         "  --progress                  draw the progress bar even when stderr is no terminal\n"
         "  --stats                     after the scan, one line on stderr: pages, milliseconds from\n"
         "                              the last block to the file complete, peak memory in KiB\n"
         "\n"
         "The library finds its system tree through SX_ROOT. Ctrl-C stops a scan cleanly.\n"
         "Exit status: 0 success, 1 the library or scanner failed, 2 a wrong command line,\n"
         "130 interrupted.\n";
}

std::string CommandHelpText(CommandKind kind) {
  switch (kind) {
    case CommandKind::Sources:
      return "usage: sxscan sources\n\nLists the data sources the library finds under $SX_ROOT/windows/twain_32:\n"
             "display name, vendor, port, file version and file.\n";
    case CommandKind::Select:
      return "usage: sxscan select NAME\n\nChooses the data source whose display name is NAME or contains it\n"
             "(any case; the part must match one source only) and stores the choice.\n";
    case CommandKind::Info:
      return "usage: sxscan info\n\nOpens the chosen source and shows its file, model, firmware and serial number.\n";
    case CommandKind::Caps:
      return "usage: sxscan caps\n\nEvery capability with its current value and the values the scanner admits.\n";
    case CommandKind::Get:
      return "usage: sxscan get NAME...\n\nCurrent values; NAME is CAP_XRESOLUTION, xresolution or 0x9200.\n";
    case CommandKind::Set:
      return "usage: sxscan set NAME VALUE...\n\nSets capabilities after checking each value against what the scanner\n"
             "admits, and shows what the library kept. Settings last while the program runs:\n"
             "pass them to scan with --set NAME=VALUE.\n";
    case CommandKind::Scan:
      return "usage: sxscan scan [OPTIONS]\n\nScans to a file. Without options: a colour page at 300 dpi of the chosen\n"
             "source's whole area, to scan.png. Every value is checked against what the\n"
             "scanner admits before anything is set (exit 2 when one is not).\n\n" +
             UsageText().substr(UsageText().find("scan options:"));
    case CommandKind::Serve:
      return "usage: sxscan serve [--listen ADDR] [--port N] [--source NAME] [--name TEXT] [--no-announce]\n\n"
             "Serves the chosen source (or the one NAME matches) over eSCL, the driverless\n"
             "scanning protocol of phones and computers, until interrupted. One job at a time;\n"
             "a job whose pages nobody asks for within 5 s is aborted, freeing the scanner.\n\n"
             "  --listen ADDR   the address to listen on; default 127.0.0.1 (this computer only);\n"
             "                  0.0.0.0 serves every network the computer is on\n"
             "  --port N        the TCP port; default 8090; 0 takes any free port\n"
             "  --source NAME   the data source to serve instead of the chosen one\n"
             "  --name TEXT     the name clients list; default the make and model\n"
             "  --no-announce   do not announce the scanner on the local network (mDNS,\n"
             "                  _uscan._tcp); a server on loopback is never announced\n";
    case CommandKind::Doctor:
      return "usage: sxscan doctor\n\nExplains the set-up: the system tree in use and why, the registry store,\n"
             "every driver module and why it is or is not offered, the ASPI and\n"
             "colour-management modules, the trace settings; each problem with its fix.\n"
             "Exit status 1 when a problem is found.\n";
    default:
      return UsageText();
  }
}

}  // namespace sx::host
