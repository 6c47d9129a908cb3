// The procedures of the two acquisition workers. Process attach creates a
// thread for each, suspended; a buffered acquisition resumes them and each
// parks itself again at the end of its job.
#pragma once
#include <cstdint>

namespace sx {

// Thread contract: each runs on its own worker thread; between acquisitions
// it is parked in plat::SuspendCurrentThread and returns once that reports
// that the thread is being terminated.
uint32_t ReadThreadProc(void* argument);
uint32_t IPThreadProc(void* argument);

}  // namespace sx
