// Process attach and detach of libsxscan.so: the shared object's constructor
// and destructor stand for the library entry point's two notifications.
#include "frame/LibraryState.h"

// Every shared object has its own __dso_handle, which makes it a unique and
// never empty instance handle without asking the loader.
extern "C" void* __dso_handle;

namespace {

__attribute__((constructor)) void AttachLibrary() { sx::ProcessAttach(&__dso_handle); }

__attribute__((destructor)) void DetachLibrary() { sx::ProcessDetach(); }

}  // namespace
