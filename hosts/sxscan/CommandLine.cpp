#include "sxscan/CommandLine.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "kit/Keywords.h"
#include "sxscan/SystemTexts.h"

namespace sx::host {
namespace {

// The commands an option belongs to. Options are read in the scan command's
// sense wherever they stand, except after `serve`, which reads its own.
enum OptionFor : unsigned { kForScan = 1u << 0, kForServe = 1u << 1 };

using Apply = bool (*)(std::string_view name, std::string_view value, CommandLine* line, std::string* error);

struct Option {
  const char* name;
  const char* operand;  // the value's form in the help; null for a flag
  unsigned commands;    // OptionFor bits
  Apply apply;          // takes the value (empty for a flag) into the line
  const char* help;     // its lines after the first start at the help column; null: none
};

struct Command {
  const char* name;
  CommandKind kind;
  int minOperands;
  int maxOperands;       // -1: any number
  const char* synopsis;  // as the command list shows it; null: not listed
  const char* summary;   // its line(s) in the command list; null: none
  const char* details;   // the command's help after its usage line; null: the whole usage
  unsigned options = 0;  // OptionFor bit of the options it takes, 0: none
  // Its options are a section of the whole usage (its synopsis says
  // [OPTIONS]), or listed in its own help only, from this column.
  bool optionsInUsage = false;
  size_t optionColumn = 0;
};

constexpr Keyword<ColorMode> kModes[] = {{"color", ColorMode::Color},
                                         {"colour", ColorMode::Color},
                                         {"gray", ColorMode::Gray},
                                         {"grey", ColorMode::Gray},
                                         {"lineart", ColorMode::Lineart}};
constexpr Keyword<ScanSource> kSources[] = {
    {"flatbed", ScanSource::Flatbed}, {"feeder", ScanSource::Feeder}, {"auto", ScanSource::Auto}};
constexpr Keyword<ColorFilter> kFilters[] = {{"red", ColorFilter::Red},
                                             {"green", ColorFilter::Green},
                                             {"blue", ColorFilter::Blue},
                                             {"none", ColorFilter::None}};
constexpr Keyword<AreaUnits> kUnits[] = {{"inches", AreaUnits::Inches},
                                         {"in", AreaUnits::Inches},
                                         {"cm", AreaUnits::Centimetres},
                                         {"centimetres", AreaUnits::Centimetres},
                                         {"300ths", AreaUnits::ThreeHundredths}};
constexpr Keyword<int32_t> kAll[] = {{"all", kAllPages}};
constexpr const char* kImageExtensions[] = {".png", ".tif", ".tiff", ".pdf", ".jpg", ".jpeg"};

// A whole number within [min, max] into *out; `complaint` when it is not one.
template <typename T>
bool Whole(std::string_view text, int64_t min, int64_t max, T* out, std::string* error, const char* complaint) {
  int64_t n = 0;
  if (!ParseInteger(text, min, max, &n)) {
    *error = complaint;
    return false;
  }
  *out = static_cast<T>(n);
  return true;
}

// One of the table's words into *out; `complaint` when it is none of them.
template <typename T, size_t N>
bool Word(const Keyword<T> (&table)[N], std::string_view text, T* out, std::string* error, const char* complaint) {
  const Keyword<T>* found = FindKeyword(table, text);
  if (!found) {
    *error = complaint;
    return false;
  }
  *out = found->value;
  return true;
}

bool ParseArea(std::string_view text, ScanOptions* scan, std::string* error) {
  float v[4];
  size_t parts = 0;
  bool ok = true;
  for (size_t start = 0; ok && start <= text.size(); ++parts) {
    const size_t comma = std::min(text.find(',', start), text.size());
    ok = parts < 4 && ParseReal(text.substr(start, comma - start), &v[parts]);
    start = comma + 1;
  }
  if (!ok || parts != 4 || v[0] < 0 || v[1] < 0 || v[2] <= 0 || v[3] <= 0) {
    *error = "--area wants X,Y,W,H: four numbers, X and Y not negative, W and H positive";
    return false;
  }
  scan->area = {v[0], v[1], v[2], v[3]};
  scan->hasArea = true;
  return true;
}

bool ParseOutput(std::string_view text, ScanOptions* scan, std::string* error) {
  const bool image = std::any_of(std::begin(kImageExtensions), std::end(kImageExtensions), [&](std::string_view e) {
    return text.size() > e.size() && SameWordNoCase(text.substr(text.size() - e.size()), e);
  });
  if (!image) {
    *error = "--output wants a file name ending in .png, .tif, .tiff, .pdf, .jpg or .jpeg";
    return false;
  }
  scan->output = std::string(text);
  return true;
}

bool ParseSetting(std::string_view text, ScanOptions* scan, std::string* error) {
  const size_t eq = text.find('=');
  if (eq == std::string_view::npos || eq == 0) {
    *error = "--set wants NAME=VALUE";
    return false;
  }
  scan->settings.emplace_back(std::string(text.substr(0, eq)), std::string(text.substr(eq + 1)));
  return true;
}

bool ServeOption(std::string_view name, std::string_view value, CommandLine* l, std::string* error) {
  return SetServeOption(name, value, &l->serve, error);
}

using V = std::string_view;
using L = CommandLine*;
using E = std::string*;

// Every option of the program, in the order the help lists them.
constexpr Option kOptions[] = {
    {"--resolution", "N", kForScan,
     [](V, V v, L l, E e) {
       return Whole(v, 1, 65535, &l->scan.resolution, e, "--resolution wants dots per inch, 1 to 65535");
     },
     "dots per inch (both directions); default 300"},
    {"--mode", "color|gray|lineart", kForScan,
     [](V, V v, L l, E e) { return Word(kModes, v, &l->scan.mode, e, "--mode wants color, gray or lineart"); },
     "pixel type; default color"},
    {"--area", "X,Y,W,H", kForScan, [](V, V v, L l, E e) { return ParseArea(v, &l->scan, e); },
     "scan area, in inches unless --units says otherwise"},
    {"--units", "inches|cm|300ths", kForScan,
     [](V, V v, L l, E e) {
       l->scan.hasUnits = true;
       return Word(kUnits, v, &l->scan.units, e,
                   "--units wants inches, cm or 300ths (1/300 inch, whatever the resolution)");
     },
     "unit of --area (300ths: 1/300 inch at any resolution)"},
    {"--source", "flatbed|feeder|auto", kForScan,
     [](V, V v, L l, E e) { return Word(kSources, v, &l->scan.source, e, "--source wants flatbed, feeder or auto"); },
     nullptr},
    {"--filter", "red|green|blue|none", kForScan,
     [](V, V v, L l, E e) {
       return Word(kFilters, v, &l->scan.filter, e, "--filter wants red, green, blue or none");
     },
     "the colour a gray or lineart scan is taken from"},
    {"--pages", "N|all", kForScan,
     [](V, V v, L l, E e) {
       constexpr char kComplaint[] = "--pages wants a count of at least 1, or all";
       return Word(kAll, v, &l->scan.pages, e, kComplaint) || Whole(v, 1, INT32_MAX, &l->scan.pages, e, kComplaint);
     },
     "number of pages to take from the feeder; default all,\n"
     "every sheet it holds"},
    {"--output", "FILE", kForScan, [](V, V v, L l, E e) { return ParseOutput(v, &l->scan, e); },
     "the format follows the name: .png for one page (several\n"
     "pages become a multi-page .tif beside it, never replacing\n"
     "one that exists), .tif, .pdf (every page in one document),\n"
     ".jpg (one file per page: name.jpg, name-2.jpg, ...; the\n"
     "further pages of an earlier scan to the name are removed);\n"
     "default scan.png"},
    {"--quality", "N", kForScan,
     [](V, V v, L l, E e) {
       return Whole(v, 1, 100, &l->scan.quality, e, "--quality wants a JPEG quality, 1 to 100");
     },
     "JPEG quality, 1 to 100; default 85"},
    {"--buffered", nullptr, kForScan, [](V, V, L l, E) { return l->scan.buffered = true; },
     "read and process on the library's worker threads"},
    {"--buffer", "BYTES", kForScan,
     [](V, V v, L l, E e) {
       return Whole(v, 1, INT32_MAX, &l->scan.transferBytes, e, "--buffer wants a size in bytes");
     },
     "transfer buffer size (default 262144)"},
    {"--set", "NAME=VALUE", kForScan, [](V, V v, L l, E e) { return ParseSetting(v, &l->scan, e); },
     "any other capability, applied last; gamma, brightness,\n"
     "contrast, highlight and shadow act on the whole image,\n"
     "gamma-r, gamma-g, gamma-b (and so on) on one colour"},
    {"--progress", nullptr, kForScan, [](V, V, L l, E) { return l->scan.progress = true; },
     "draw the progress bar even when stderr is no terminal"},
    {"--stats", nullptr, kForScan, [](V, V, L l, E) { return l->scan.stats = true; },
     "after the scan, one line on stderr: pages, milliseconds from\n"
     "the last block to the file complete, peak memory in KiB"},
    {"--listen", "ADDR", kForServe, ServeOption,
     "the address to listen on; default 127.0.0.1 (this computer only);\n"
     "0.0.0.0 serves every network the computer is on"},
    {"--port", "N", kForServe, ServeOption, "the TCP port; default 8090; 0 takes any free port"},
    {"--source", "NAME", kForServe, ServeOption, "the data source to serve instead of the chosen one"},
    {"--name", "TEXT", kForServe, ServeOption, "the name clients list; default the make and model"},
    {"--no-announce", nullptr, kForServe, ServeOption,
     "do not announce the scanner on the local network (mDNS,\n"
     "_uscan._tcp); a server on loopback is never announced"},
};

// A build without the server still knows the command, to say so when asked.
constexpr bool kServeBuilt = SX_SERVE_BUILT;

constexpr size_t kCommandColumn = 23;
constexpr size_t kScanOptionColumn = 30;
constexpr size_t kServeOptionColumn = 18;

// Every command, in the order the usage lists them.
constexpr Command kCommands[] = {
    {"sources", CommandKind::Sources, 0, 0, "sources",
     "list the data sources (display name, vendor, port, file, version)", kSourcesHelp},
    {"select", CommandKind::Select, 1, 1, "select NAME",
     "choose a data source by display name (or a unique part of it)",
     "Chooses the data source whose display name is NAME or contains it\n"
     "(any case; the part must match one source only) and stores the choice.\n"},
    {"info", CommandKind::Info, 0, 0, "info", "open the chosen source; show model, firmware and serial number",
     "Opens the chosen source and shows its file, model, firmware and serial number.\n"},
    {"caps", CommandKind::Caps, 0, 0, "caps", "every capability: current value and admissible values",
     "Every capability with its current value and the values the scanner admits.\n"},
    {"get", CommandKind::Get, 1, -1, "get NAME...", "current value of capabilities (CAP_XRESOLUTION or xresolution)",
     "Current values; NAME is CAP_XRESOLUTION, xresolution or 0x9200. A tone setting\n"
     "(gamma, brightness, contrast, highlight, shadow) is the whole image's value;\n"
     "gamma-r, gamma-g, gamma-b (and so on) name one colour's.\n"},
    {"set", CommandKind::Set, 2, -1, "set NAME VALUE...",
     "set capabilities and show what the library kept; settings last\n"
     "while the program runs, so pass them to scan with --set",
     "Sets capabilities after checking each value against what the scanner\n"
     "admits, and shows what the library kept. Settings last while the program runs:\n"
     "pass them to scan with --set NAME=VALUE.\n"},
    {"scan", CommandKind::Scan, 0, 0, "scan [OPTIONS]", "scan to a file",
     "Scans to a file. Without options: a colour page at 300 dpi of the chosen\n"
     "source's whole area, to scan.png. Every value is checked against what the\n"
     "scanner admits before anything is set (exit 2 when one is not).\n",
     kForScan, true, kScanOptionColumn},
    {"doctor", CommandKind::Doctor, 0, 0, "doctor",
     "explain the set-up: system tree, registry store, driver modules\n"
     "and why each is or is not offered, each problem with its fix",
     kDoctorHelp},
    {"serve", CommandKind::Serve, 0, 0, "serve [OPTIONS]",
     "serve the source to phones and computers over eSCL (AirScan)",
     "Serves the chosen source (or the one NAME matches) over eSCL, the driverless\n"
     "scanning protocol of phones and computers, until interrupted. One job at a time;\n"
     "a job whose pages nobody asks for within 5 s is aborted, freeing the scanner.\n"
     "A browser opened at the server's address (http://127.0.0.1:8090/) scans too.\n",
     kForServe, false, kServeOptionColumn},
    {"help", CommandKind::Help, 0, 1, "help, version", nullptr, nullptr},
    {"version", CommandKind::Version, 0, 0, nullptr, nullptr, nullptr},
};

// After the system's own note on how the library finds its set-up.
constexpr char kNotes[] =
    "Ctrl-C stops a scan cleanly,\n"
    "keeping the pages complete before it; a second Ctrl-C ends the program at once,\n"
    "keeping them too. A full disk or a scanner error keeps them the same way.\n"
    "Exit status: 0 success, 1 the library or scanner failed, 2 a wrong command line,\n"
    "130 interrupted.\n";

const Command* FindCommand(std::string_view name) {
  for (const auto& c : kCommands)
    if (name == c.name) return &c;
  return nullptr;
}

const Command& CommandOf(CommandKind kind) {
  return *std::find_if(std::begin(kCommands), std::end(kCommands), [&](const Command& c) { return c.kind == kind; });
}

// `left`, then `text` from `column` on, its later lines indented to it;
// two blanks at least between them.
std::string Entry(std::string left, const char* text, size_t column) {
  if (!text) return left + "\n";
  left.resize(std::max(column, left.size() + 2), ' ');
  for (std::string_view rest = text; !rest.empty();) {
    const size_t end = std::min(rest.find('\n'), rest.size());
    left.append(rest.substr(0, end)).append("\n");
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (!rest.empty()) left.append(column, ' ');
  }
  return left;
}

std::string OptionForm(const Option& o) {
  return std::string(o.name) + (o.operand ? std::string(" ") + o.operand : "");
}

std::string OptionLines(unsigned commands, size_t column) {
  std::string out;
  for (const auto& o : kOptions)
    if (o.commands & commands) out += Entry("  " + OptionForm(o), o.help, column);
  return out;
}

std::string ScanOptionsSection() {
  return "scan options:\n" + OptionLines(kForScan, kScanOptionColumn) + "\n" + kSetUpNote + kNotes;
}

const Option* FindOption(std::string_view name, unsigned commands) {
  for (const auto& o : kOptions)
    if (name == o.name && (o.commands & commands)) return &o;
  return nullptr;
}

// The option at args[*i], as "--name value" or "--name=value", in the sense
// of the commands `context` names.
bool ParseOption(const std::vector<std::string>& args, size_t* i, unsigned context, CommandLine* line,
                 std::string* error) {
  const std::string_view arg = args[*i];
  const size_t eq = arg.find('=');
  const std::string_view name = arg.substr(0, eq);
  const Option* option = FindOption(name, context);
  if (!option) {
    *error = "unknown option " + std::string(name) + (context == kForServe ? " for serve" : "");
    return false;
  }
  std::string_view value;
  if (eq != std::string_view::npos) {
    if (!option->operand) {
      *error = std::string(name) + " takes no value";
      return false;
    }
    value = arg.substr(eq + 1);
  } else if (option->operand) {
    if (*i + 1 >= args.size()) {
      *error = std::string(name) + " needs a value";
      return false;
    }
    value = args[++*i];
  }
  return option->apply(name, value, line, error);
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

// The operand count, the pairs of set, and the command that help names.
bool CheckOperands(CommandLine* line, std::string* error) {
  const Command& command = CommandOf(line->kind);
  const int n = static_cast<int>(line->operands.size());
  if (n < command.minOperands || (command.maxOperands >= 0 && n > command.maxOperands)) {
    *error = std::string("wrong number of operands for ") + command.name;
    return false;
  }
  if (line->kind == CommandKind::Set && n % 2 != 0) {
    *error = "set wants NAME VALUE pairs";
    return false;
  }
  // "help COMMAND" is that command's help, as "COMMAND --help" is.
  if (line->kind == CommandKind::Help && n > 0) {
    const Command* named = FindCommand(line->operands[0]);
    if (!named) {
      *error = "no help for '" + line->operands[0] + "': it is not a command";
      return false;
    }
    line->helpFor = named->kind;
  }
  return true;
}

}  // namespace

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
    // Negative values are operands of set, not options.
    if (arg.size() > 1 && arg[0] == '-' && !(sawCommand && line.kind == CommandKind::Set)) {
      const unsigned context = sawCommand && line.kind == CommandKind::Serve ? kForServe : kForScan;
      if (!ParseOption(args, &i, context, &line, &result.error)) return result;
      sawScanOption = sawScanOption || context == kForScan;
      continue;
    }
    if (!sawCommand) {
      const Command* command = FindCommand(arg);
      if (!command) {
        result.error = "unknown command '" + arg + "'";
        return result;
      }
      line.kind = command->kind;
      sawCommand = true;
      continue;
    }
    line.operands.push_back(arg);
  }
  if (args.empty()) {
    result.ok = true;
    return result;
  }
  if (!sawCommand) {
    result.error = "no command given";
    return result;
  }
  result.ok = CheckOperands(&line, &result.error) && CheckScanOptions(line, sawScanOption, &result.error);
  return result;
}

std::string UsageText() {
  std::string text = "usage: sxscan COMMAND [OPERANDS] [OPTIONS]\n\ncommands:\n";
  for (const auto& c : kCommands)
    if (c.synopsis && (c.kind != CommandKind::Serve || kServeBuilt))
      text += Entry(std::string("  ") + c.synopsis, c.summary, kCommandColumn);
  return text + "\n" + ScanOptionsSection();
}

std::string CommandHelpText(CommandKind kind) {
  const Command& command = CommandOf(kind);
  if (!command.details) return UsageText();
  // Options that the whole usage does not list are listed in the command's.
  std::string usage = command.synopsis;
  if (command.options && !command.optionsInUsage) {
    usage = command.name;
    for (const auto& o : kOptions)
      if (o.commands & command.options) usage += " [" + OptionForm(o) + "]";
  }
  std::string text = "usage: sxscan " + usage + "\n\n" + command.details;
  if (command.options)
    text += "\n" + (command.optionsInUsage ? ScanOptionsSection()
                                           : OptionLines(command.options, command.optionColumn));
  return text;
}

}  // namespace sx::host
