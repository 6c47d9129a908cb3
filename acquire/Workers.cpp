// Stand-in worker procedures until the acquisition pipeline lands: each parks
// until the thread is terminated, which is all the lifecycle relies on.
#include "acquire/Workers.h"

#include "platform/Thread.h"

namespace sx {

uint32_t ReadThreadProc(void*) {
  while (plat::SuspendCurrentThread()) {
  }
  return 0;
}

uint32_t IPThreadProc(void*) {
  while (plat::SuspendCurrentThread()) {
  }
  return 0;
}

}  // namespace sx
