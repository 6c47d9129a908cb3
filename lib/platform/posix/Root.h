// Where the library's system tree lies on a system without a Windows
// directory, and why there. Built as a small library of its own (sxroot) as
// well, so that the programs' store checks and doctor find the very tree the
// library uses.
#pragma once
#include <string>

namespace sx::plat {

enum class RootSource {
  Named,                // SX_ROOT
  DataHome,             // $XDG_DATA_HOME/sxscan (an absolute XDG_DATA_HOME)
  Home,                 // $HOME/.local/share/sxscan
  HomeOverRelative,     // the same, XDG_DATA_HOME being relative and so ignored
};

struct RootChoice {
  std::string Path;  // no trailing '/'
  RootSource Source = RootSource::Home;
};

// SX_ROOT, else an absolute XDG_DATA_HOME (a relative one is invalid by that
// convention), else the home folder: HOME, or without it the user database's
// entry for the process's user.
RootChoice ChooseRoot();

}  // namespace sx::plat
