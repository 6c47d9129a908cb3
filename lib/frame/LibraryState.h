// Library-wide state created at process attach, by SxLoad, and released by
// SxFree. All of it is touched on the host's thread only, except the events
// and thread handles, which the acquisition's workers use (see acquire/).
#pragma once
#include <cstdint>

#include "platform/Thread.h"
#include "platform/Ui.h"

namespace sx {

inline constexpr uint32_t kPathBufferSize = 144;
inline constexpr uint32_t kTextBufferSize = 64;
inline constexpr uint32_t kLanguageSectionSize = 64;

struct LibraryState {
  void* Instance = nullptr;     // the shared object's own handle
  void* HostWindow = nullptr;   // window passed to SxLoad
  char LanguageSection[kLanguageSectionSize] = {};
  char PathBuffer[kPathBufferSize] = {};   // shared scratch path
  char TextBuffer[kTextBufferSize] = {};   // shared scratch text
  plat::FontHandle DialogFont = nullptr;
  plat::ThreadHandle ReadThread = nullptr;
  plat::ThreadHandle IPThread = nullptr;
  plat::EventHandle PageEvent = nullptr;
  plat::EventHandle BlockFreeEvent = nullptr;
  plat::EventHandle RawReadyEvent = nullptr;
  plat::EventHandle ProcessedEvent = nullptr;
};

extern LibraryState gLib;

// (Re)creates the dialog font from the "LOCALIZE" profile's language section
// ("FontSize", default 8; "Font", default "Arial"), deleting any current one.
void CreateDialogFont();

// Process attach and detach (called by the shared object's constructor and
// destructor; tests call them directly).
void ProcessAttach(void* instance);
void ProcessDetach();

}  // namespace sx
