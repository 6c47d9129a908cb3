// The commands of the sxscan program. Each returns the process exit code.
#pragma once
#include <string>
#include <vector>

#include "sxscan/CommandLine.h"
#include "kit/ScanPlan.h"
#include "kit/StoreChecks.h"

namespace sx::host {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitCancelled = 130;  // as a shell reports an interrupt

int RunSources();
int RunSelect(const std::string& name);
int RunInfo();
int RunCaps();
int RunGet(const std::vector<std::string>& names);
int RunSet(const std::vector<std::string>& pairs);
int RunScan(const ScanOptions& options);
int RunDoctor();

// Opens the chosen source; with none chosen and exactly one installed, that
// one, saying so (the library stores it as the choice).
bool OpenSourceForScan();
// What the open scanner lists about its sources and their areas.
SourceFacts ReadSourceFacts();

}  // namespace sx::host
