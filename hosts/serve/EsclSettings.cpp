// The ScanSettings document a client posts to start a job, and its check
// against what the scanner offers.
//
// Elements are matched by their local name: clients put the same element in
// the scan or the pwg namespace (InputSource, DocumentFormat), and bind the
// namespaces to prefixes of their choice. Elements this server does not know
// are left alone, as eSCL documents grow new ones; a known element with a
// value that is not eSCL's is refused.
#include <algorithm>
#include <cctype>
#include <charconv>
#include <optional>
#include <pugixml.hpp>

#include "kit/Keywords.h"
#include "serve/EsclModel.h"

namespace sx::host::escl {
namespace {

// Larger numbers are no length or resolution any scanner has.
constexpr uint32_t kLargestNumber = 1000000;
// What a request gets when it names no resolution.
constexpr uint32_t kDefaultResolution = 300;

std::string_view LocalName(const pugi::xml_node& node) {
  std::string_view name = node.name();
  const size_t colon = name.rfind(':');
  return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

std::string_view Trimmed(std::string_view text) {
  const auto blank = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
  while (!text.empty() && blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && blank(text.back())) text.remove_suffix(1);
  return text;
}

// The text of the first child element called `name`; null when there is none.
const char* ChildText(const pugi::xml_node& parent, std::string_view name) {
  for (pugi::xml_node child : parent.children()) {
    if (child.type() == pugi::node_element && LocalName(child) == name) return child.child_value();
  }
  return nullptr;
}

bool ParseNumber(const char* text, const char* what, uint32_t* out, std::string* error) {
  const std::string_view t = Trimmed(text);
  uint32_t value = 0;
  const auto [end, ec] = std::from_chars(t.data(), t.data() + t.size(), value);
  if (t.empty() || ec != std::errc{} || end != t.data() + t.size() || value > kLargestNumber) {
    *error = std::string(what) + " is not a number from 0 to " + std::to_string(kLargestNumber);
    return false;
  }
  *out = value;
  return true;
}

template <typename T, size_t N>
bool ParseWord(const char* text, const Keyword<T> (&words)[N], const char* what, T* out, std::string* error) {
  const std::string_view t = Trimmed(text);
  const Keyword<T>* found = FindKeyword(words, t);
  if (!found) {
    *error = std::string(what) + " '" + std::string(t.substr(0, 64)) + "' is not one this server knows";
    return false;
  }
  *out = found->value;
  return true;
}

constexpr Keyword<InputSource> kSources[] = {{"Platen", InputSource::Platen}, {"Feeder", InputSource::Feeder}};
constexpr Keyword<ColourMode> kModes[] = {{"BlackAndWhite1", ColourMode::BlackAndWhite1},
                                       {"Grayscale8", ColourMode::Grayscale8},
                                       {"RGB24", ColourMode::Rgb24}};
constexpr Keyword<Format> kFormats[] = {
    {"image/png", Format::Png}, {"image/jpeg", Format::Jpeg}, {"application/pdf", Format::Pdf}};
constexpr Keyword<bool> kBooleans[] = {{"true", true}, {"false", false}, {"1", true}, {"0", false}};

// `count` is the regions seen so far, in this and earlier ScanRegions.
bool ParseRegion(const pugi::xml_node& regions, ScanRequest* request, int* count, std::string* error) {
  for (pugi::xml_node region : regions.children()) {
    if (region.type() != pugi::node_element || LocalName(region) != "ScanRegion") continue;
    if (++*count > 1) {
      *error = "only one ScanRegion is taken";
      return false;
    }
    const char* units = ChildText(region, "ContentRegionUnits");
    if (units && Trimmed(units) != "escl:ThreeHundredthsOfInches") {
      *error = "ContentRegionUnits must be escl:ThreeHundredthsOfInches";
      return false;
    }
    Region r;
    const std::pair<const char*, uint32_t*> fields[] = {
        {"XOffset", &r.x}, {"YOffset", &r.y}, {"Width", &r.width}, {"Height", &r.height}};
    for (const auto& [name, out] : fields) {
      const char* text = ChildText(region, name);
      if (!text) {
        *error = std::string("ScanRegion has no ") + name;
        return false;
      }
      if (!ParseNumber(text, name, out, error)) return false;
    }
    request->region = r;
    request->hasRegion = true;
  }
  return true;
}

// DocumentFormatExt says what the client wants when both are given; the
// older DocumentFormat may name a container.
bool ParseFormat(const pugi::xml_node& root, ScanRequest* request, std::string* error) {
  const char* ext = ChildText(root, "DocumentFormatExt");
  const char* plain = ChildText(root, "DocumentFormat");
  if (ext) return ParseWord(ext, kFormats, "DocumentFormatExt", &request->format, error);
  if (plain) return ParseWord(plain, kFormats, "DocumentFormat", &request->format, error);
  return true;
}

bool ParseFields(const pugi::xml_node& root, ScanRequest* request, std::string* error) {
  if (const char* t = ChildText(root, "InputSource"); t && !ParseWord(t, kSources, "InputSource", &request->source, error))
    return false;
  if (const char* t = ChildText(root, "ColorMode"); t && !ParseWord(t, kModes, "ColorMode", &request->mode, error))
    return false;
  if (const char* t = ChildText(root, "XResolution"); t && !ParseNumber(t, "XResolution", &request->xResolution, error))
    return false;
  if (const char* t = ChildText(root, "YResolution"); t && !ParseNumber(t, "YResolution", &request->yResolution, error))
    return false;
  if (const char* t = ChildText(root, "Duplex")) {
    bool duplex = false;
    if (!ParseWord(t, kBooleans, "Duplex", &duplex, error)) return false;
    if (duplex) {
      *error = "no source scans both sides";
      return false;
    }
  }
  const std::pair<const char*, std::optional<int32_t>*> tones[] = {{"Brightness", &request->brightness},
                                                                    {"Contrast", &request->contrast}};
  for (const auto& [name, out] : tones) {
    uint32_t value = 0;
    const char* t = ChildText(root, name);
    if (t && !ParseNumber(t, name, &value, error)) return false;
    if (t) *out = static_cast<int32_t>(value);
  }
  if (const char* t = ChildText(root, "BatchPdf"); t && !ParseWord(t, kBooleans, "BatchPdf", &request->batchPdf, error))
    return false;
  int regions = 0;
  for (pugi::xml_node child : root.children()) {
    if (child.type() == pugi::node_element && LocalName(child) == "ScanRegions" &&
        !ParseRegion(child, request, &regions, error))
      return false;
  }
  return ParseFormat(root, request, error);
}

uint32_t Nearest(const std::vector<uint32_t>& offered, uint32_t wanted) {
  uint32_t best = offered.front();
  for (uint32_t r : offered) {
    const auto distance = [&](uint32_t v) { return v > wanted ? v - wanted : wanted - v; };
    if (distance(r) < distance(best)) best = r;
  }
  return best;
}

bool ResolveResolution(const ScannerFacts& facts, ScanRequest* request, std::string* error) {
  if (facts.resolutions.empty()) {
    *error = "the scanner lists no resolution";
    return false;
  }
  if (!request->xResolution && !request->yResolution) {
    request->xResolution = request->yResolution = Nearest(facts.resolutions, kDefaultResolution);
  }
  if (!request->xResolution) request->xResolution = request->yResolution;
  if (!request->yResolution) request->yResolution = request->xResolution;
  // The library scans both directions at one resolution.
  if (request->xResolution != request->yResolution) {
    *error = "XResolution and YResolution must be equal";
    return false;
  }
  if (std::find(facts.resolutions.begin(), facts.resolutions.end(), request->xResolution) == facts.resolutions.end()) {
    *error = "resolution " + std::to_string(request->xResolution) + " is not among the SupportedResolutions";
    return false;
  }
  return true;
}

bool ResolveRegion(const SourceArea& area, ScanRequest* request, std::string* error) {
  if (!request->hasRegion) {
    request->region = {0, 0, area.maxWidth, area.maxHeight};
    request->hasRegion = true;
  }
  const Region& r = request->region;
  // 64-bit sums: offsets and sizes are each bounded, their sum is not.
  if (uint64_t{r.x} + r.width > area.maxWidth || uint64_t{r.y} + r.height > area.maxHeight) {
    *error = "the region runs past the source's " + std::to_string(area.maxWidth) + " x " +
             std::to_string(area.maxHeight) + " three-hundredths of an inch";
    return false;
  }
  // The narrowest line in pixels at this resolution, not only at the
  // coarsest: a width the library would refuse is refused here first.
  if (uint64_t{r.width} * request->xResolution < uint64_t{kNarrowestPixels} * 300 ||
      uint64_t{r.height} * request->yResolution < 300) {
    *error = "the region is smaller than " + std::to_string(kNarrowestPixels) +
             " pixels wide or one line high at this resolution";
    return false;
  }
  return true;
}

// From eSCL's value (0 up) to the library's, on the library's steps.
bool ResolveTone(const ToneRange& range, const char* what, std::optional<int32_t>* value, std::string* error) {
  if (!*value) return true;
  const int64_t span = int64_t{range.most} - range.least;
  if (!range.present || **value > span) {
    *error = range.present ? std::string(what) + " runs from 0 to " + std::to_string(span)
                           : std::string("the scanner has no ") + what + " setting";
    return false;
  }
  const int64_t step = std::max(range.step, 1);
  const int64_t steps = (**value + step / 2) / step;
  *value = static_cast<int32_t>(std::min<int64_t>(range.least + steps * step, range.most));
  return true;
}

}  // namespace

bool ParseScanSettings(std::string_view body, ScanRequest* request, std::string* error) {
  if (body.size() > kMaxSettingsBytes) {
    *error = "the ScanSettings document is too large";
    return false;
  }
  pugi::xml_document doc;
  // The parser expands only XML's own five entities and reads nothing
  // beyond the body: a document cannot name a file or grow in memory.
  const pugi::xml_parse_result parsed = doc.load_buffer(body.data(), body.size(), pugi::parse_default);
  if (!parsed) {
    *error = std::string("the ScanSettings document is not well-formed XML: ") + parsed.description();
    return false;
  }
  const pugi::xml_node root = doc.document_element();
  if (LocalName(root) != "ScanSettings") {
    *error = "the document is not ScanSettings";
    return false;
  }
  ScanRequest parsedRequest;
  if (!ParseFields(root, &parsedRequest, error)) return false;
  *request = parsedRequest;
  return true;
}

bool ResolveScanRequest(const ScannerFacts& facts, ScanRequest* request, std::string* error) {
  const SourceArea& area = request->source == InputSource::Feeder ? facts.feeder : facts.platen;
  if (!area.present) {
    *error = request->source == InputSource::Feeder ? "the scanner has no feeder" : "the scanner has no platen";
    return false;
  }
  if (std::find(facts.modes.begin(), facts.modes.end(), request->mode) == facts.modes.end()) {
    *error = std::string("the scanner does not scan ") + ColourModeName(request->mode);
    return false;
  }
  ScanRequest resolved = *request;
  if (!ResolveResolution(facts, &resolved, error) || !ResolveRegion(area, &resolved, error) ||
      !ResolveTone(facts.brightness, "Brightness", &resolved.brightness, error) ||
      !ResolveTone(facts.contrast, "Contrast", &resolved.contrast, error))
    return false;
  *request = resolved;
  return true;
}

uint32_t MinWidth(const ScannerFacts& facts) {
  const uint32_t coarsest = facts.resolutions.empty() ? 300 : facts.resolutions.front();
  return (kNarrowestPixels * 300 + coarsest - 1) / coarsest;
}

uint32_t MinHeight(const ScannerFacts& facts) {
  const uint32_t coarsest = facts.resolutions.empty() ? 300 : facts.resolutions.front();
  return (300 + coarsest - 1) / coarsest;
}

const char* MimeType(Format format) { return WordOf(kFormats, format, "application/octet-stream"); }

const char* ColourModeName(ColourMode mode) { return WordOf(kModes, mode, ""); }

}  // namespace sx::host::escl
