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

}  // namespace sx::host
