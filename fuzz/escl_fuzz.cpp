// Fuzz target: ScanSettings documents as a client posts them to the eSCL
// server, through the parser and the check against a scanner's offer. Any
// input must give a request within the scanner's areas and resolutions, or a
// refusal with its reason; never a crash, a hang or a read past the body.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "serve/EsclModel.h"

namespace {

using namespace sx::host::escl;

ScannerFacts Facts() {
  ScannerFacts f;
  f.platen = {true, 2550, 3508};
  f.feeder = {true, 2550, 4200};
  f.modes = {ColourMode::BlackAndWhite1, ColourMode::Grayscale8, ColourMode::Rgb24};
  f.resolutions = {75, 100, 150, 300, 600};
  return f;
}

// What the server passes on to the scanner when the check accepts.
void CheckAccepted(const ScannerFacts& facts, const ScanRequest& r) {
  const SourceArea& area = r.source == InputSource::Feeder ? facts.feeder : facts.platen;
  const bool fits = uint64_t{r.region.x} + r.region.width <= area.maxWidth &&
                    uint64_t{r.region.y} + r.region.height <= area.maxHeight;
  if (!fits || r.xResolution != r.yResolution || r.region.width == 0 || r.region.height == 0) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const ScannerFacts facts = Facts();
  ScanRequest request;
  std::string error;
  if (!ParseScanSettings(std::string_view(reinterpret_cast<const char*>(data), size), &request, &error)) return 0;
  if (ResolveScanRequest(facts, &request, &error)) CheckAccepted(facts, request);
  return 0;
}
