// The commands of the sxscan program. Each returns the process exit code.
#pragma once
#include <string>
#include <vector>

#include "kit/Exit.h"
#include "kit/ScanRequest.h"

namespace sx::host {

int RunSources();
int RunSelect(const std::string& name);
int RunInfo();
int RunCaps();
int RunGet(const std::vector<std::string>& names);
int RunSet(const std::vector<std::string>& pairs);
int RunScan(const ScanOptions& options);
int RunDoctor();

// A registry store that cannot be read, holds damaged lines, or cannot be
// written (or made): the message names its path and the cause (the first
// line at fault, shown safely), with a fix for that cause.
bool RegistryStoreProblem(std::string* message);
// The source chosen in a registry store that can be read but not written
// (the library then reads its fall-back file instead); false when the store
// can be written or names none.
bool UnwritableStoreChoice(std::string* name);

}  // namespace sx::host
