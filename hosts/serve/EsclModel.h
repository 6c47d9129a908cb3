// The eSCL server's own terms: what the scanner offers (read from the library
// once, then cached), what a client asks for in a ScanSettings document, and
// the XML documents and discovery record built from them. Pure functions: no
// library calls, no sockets, so the parser can be fuzzed and the documents
// unit-tested.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sx::host::escl {

enum class InputSource : uint8_t { Platen, Feeder };
// In the order of CAP_PIXELTYPE's values (line art, grey, colour).
enum class ColourMode : uint8_t { BlackAndWhite1, Grayscale8, Rgb24 };
enum class Format : uint8_t { Png, Jpeg, Pdf };

// Lengths in three-hundredths of an inch, as eSCL and the library state them.
struct SourceArea {
  bool present = false;
  uint32_t maxWidth = 0, maxHeight = 0;
};

// A tone setting the library states as a range (brightness, contrast). eSCL
// states it from 0 up: its value is the library's less `least`.
struct ToneRange {
  bool present = false;
  int32_t least = 0, most = 0, step = 1;
};

// What the capabilities and status documents say. Read from the library when
// the server starts.
struct ScannerFacts {
  std::string makeAndModel;
  std::string serialNumber;
  std::string uuid;  // stable for this source (StableUuid)
  std::string name;  // what discovery shows; the model unless --name
  SourceArea platen, feeder;
  std::vector<ColourMode> modes;
  std::vector<uint32_t> resolutions;  // dots per inch, ascending
  ToneRange brightness, contrast;
  bool feederLoaded = false;
};

struct Region {
  uint32_t x = 0, y = 0, width = 0, height = 0;
};

// One ScanSettings document. Elements a client leaves out take the values a
// person expects: the platen's whole area in colour at 300 dpi (or the
// nearest resolution offered), as JPEG.
struct ScanRequest {
  InputSource source = InputSource::Platen;
  ColourMode mode = ColourMode::Rgb24;
  uint32_t xResolution = 0, yResolution = 0;  // 0: not stated
  bool hasRegion = false;
  Region region;
  Format format = Format::Jpeg;
  // In eSCL's terms (ToneRange) until ResolveScanRequest, then the library's.
  std::optional<int32_t> brightness, contrast;
  // This server's own element: every page also goes into one PDF of the
  // whole job, fetched once the job is over (a feeder batch as one file).
  bool batchPdf = false;
};

// Request bodies larger than this are refused before they are parsed: a
// ScanSettings document is a few hundred bytes.
constexpr size_t kMaxSettingsBytes = 64 * 1024;

// Reads a ScanSettings document. False with the reason for a document that
// is not well-formed XML, is not ScanSettings, or holds a value that is not
// one of eSCL's (an unknown colour mode, a resolution that is no number):
// the client's fault, answered 400.
bool ParseScanSettings(std::string_view body, ScanRequest* request, std::string* error);

// Checks a well-formed request against what this scanner offers, fills in
// what it left out and puts brightness and contrast in the library's terms.
// False with the reason for a source, mode, resolution, region or tone the
// scanner cannot give: answered 409, nothing changed.
bool ResolveScanRequest(const ScannerFacts& facts, ScanRequest* request, std::string* error);

// The narrowest area the library scans: narrower lines than this many
// pixels are refused by some models.
constexpr uint32_t kNarrowestPixels = 32;
uint32_t MinWidth(const ScannerFacts& facts);
uint32_t MinHeight(const ScannerFacts& facts);

const char* MimeType(Format format);
const char* ColourModeName(ColourMode mode);

std::string CapabilitiesXml(const ScannerFacts& facts, const std::string& adminUrl);

enum class JobState : uint8_t { Pending, Processing, Completed, Canceled, Aborted };
struct JobSummary {
  std::string uuid;
  JobState state = JobState::Pending;
  uint32_t imagesCompleted = 0;
  uint32_t imagesToTransfer = 0;  // 0: unknown
  uint32_t ageSeconds = 0;
};
std::string StatusXml(const ScannerFacts& facts, bool busy, const std::vector<JobSummary>& jobs);

// The discovery record's keys and values, in order.
using TxtRecord = std::vector<std::pair<std::string, std::string>>;
TxtRecord DiscoveryTxt(const ScannerFacts& facts, const std::string& representationUrl,
                       const std::string& adminUrl);

// A name-based UUID: the same text gives the same UUID on every run, so
// clients that remember a scanner by it find it again.
std::string StableUuid(std::string_view name);
// A fresh random UUID, for a job.
std::string RandomUuid();

}  // namespace sx::host::escl
