// The command line of the sxscan program: its commands and their options,
// each described once (CommandLine.cpp), which the parser and the help texts
// both read. Pure functions, no library calls.
#pragma once
#include <string>
#include <vector>

#include "kit/Parse.h"
#include "kit/ScanRequest.h"
#include "kit/ServeOptions.h"

namespace sx::host {

enum class CommandKind { Help, Version, Sources, Select, Info, Caps, Get, Set, Scan, Doctor, Serve };

struct CommandLine {
  CommandKind kind = CommandKind::Help;
  // With kind Help: the command whose help was asked for ("scan --help");
  // Help itself for the whole summary.
  CommandKind helpFor = CommandKind::Help;
  std::vector<std::string> operands;
  ScanOptions scan;
  ServeOptions serve;
};

struct ParseOutcome {
  bool ok = false;
  std::string error;
  CommandLine line;
};

// The help of one command: what it does, its operands and options, what it
// does by default. The whole summary for Help.
std::string CommandHelpText(CommandKind kind);

// argv without the program name.
ParseOutcome ParseCommandLine(const std::vector<std::string>& args);
std::string UsageText();

}  // namespace sx::host
