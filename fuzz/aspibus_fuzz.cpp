// The simulated SCSI bus file: any text parses into a bus whose every field
// stays inside its bounds (adapter numbers, inquiry lengths, identifiers).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "modules/aspisim/AspiBus.h"

using namespace sx::aspisim;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Bus bus = ParseBus(std::string(reinterpret_cast<const char*>(data), size));
  if (bus.Adapters.size() > kMaxAdapters) std::abort();
  for (const Adapter& a : bus.Adapters) {
    if (a.Identifier.size() > 16) std::abort();
    for (const Target& t : a.Targets)
      if (t.InquiryLength > t.Inquiry.size() || (!t.Present && t.InquiryLength)) std::abort();
  }
  return 0;
}
