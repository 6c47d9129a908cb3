// Process attach and detach of libsxscan.so: the shared object's constructor
// and destructor stand for the library entry point's two notifications.
#include "frame/LibraryState.h"

// Every shared object has its own __dso_handle, which makes it a unique and
// never empty instance handle without asking the loader.
extern "C" void* __dso_handle;

namespace {

// Nothing may escape a loader notification: the process would end.
__attribute__((constructor)) void AttachLibrary() {
  try {
    sx::ProcessAttach(&__dso_handle);
  } catch (...) {
  }
}

__attribute__((destructor)) void DetachLibrary() {
  try {
    sx::ProcessDetach();
  } catch (...) {
  }
}

}  // namespace
