// The programs' exit statuses.
#pragma once

namespace sx::host {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;  // the library or the scanner failed
constexpr int kExitUsage = 2;   // a wrong command line, or a value the scanner does not take
constexpr int kExitCancelled = 130;  // as a shell reports an interrupt

}  // namespace sx::host
