// The words of sxscan's texts that differ between systems: where the
// library finds its driver modules and keeps its settings, and how a person
// makes a missing folder. One definition per system (SystemTextsPosix.cpp,
// SystemTextsWin32.cpp), so that the help and the advice a person reads name
// what exists on their system.
#pragma once
#include <string>

namespace sx::host {

// The help of `sources`, of `doctor`, and the note after the scan options
// on how the library finds its set-up.
extern const char kSourcesHelp[];
extern const char kDoctorHelp[];
extern const char kSetUpNote[];

// Where the library looks for driver modules, as a person would look there.
std::string DriverTreeText();

// The command that makes `folder` with the folders above it.
std::string MakeFolderCommand(const std::string& folder);

}  // namespace sx::host
