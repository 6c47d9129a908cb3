// The documents a client reads: ScannerCapabilities and ScannerStatus, the
// discovery record, and the UUIDs that name the scanner and its jobs.
#include <algorithm>
#include <array>
#include <cstdio>
#include <pugixml.hpp>
#include <random>
#include <sstream>

#include "serve/EsclModel.h"

namespace sx::host::escl {
namespace {

constexpr char kScanNamespace[] = "http://schemas.hp.com/imaging/escl/2011/05/03";
constexpr char kPwgNamespace[] = "http://www.pwg.org/schemas/2010/12/sm";
constexpr char kProtocolVersion[] = "2.63";
constexpr Format kFormats[] = {Format::Png, Format::Jpeg, Format::Pdf};
// What clients may ask for; the server scans the same for each.
constexpr const char* kIntents[] = {"Document", "TextAndGraphic", "Photo", "Preview"};
// The feeder's stack is not a capability of the library; a usual size.
constexpr int kFeederCapacity = 50;

pugi::xml_node Add(pugi::xml_node parent, const char* name, const std::string& text = {}) {
  pugi::xml_node node = parent.append_child(name);
  if (!text.empty()) node.text().set(text.c_str());
  return node;
}

pugi::xml_node Root(pugi::xml_document& doc, const char* name) {
  pugi::xml_node decl = doc.append_child(pugi::node_declaration);
  decl.append_attribute("version") = "1.0";
  decl.append_attribute("encoding") = "UTF-8";
  pugi::xml_node root = doc.append_child(name);
  root.append_attribute("xmlns:scan") = kScanNamespace;
  root.append_attribute("xmlns:pwg") = kPwgNamespace;
  Add(root, "pwg:Version", kProtocolVersion);
  return root;
}

std::string Text(const pugi::xml_document& doc) {
  std::ostringstream out;
  doc.save(out, "  ", pugi::format_default, pugi::encoding_utf8);
  return out.str();
}

void AddProfile(pugi::xml_node caps, const ScannerFacts& facts) {
  pugi::xml_node profile = Add(Add(caps, "scan:SettingProfiles"), "scan:SettingProfile");
  pugi::xml_node modes = Add(profile, "scan:ColorModes");
  for (ColourMode mode : facts.modes) Add(modes, "scan:ColorMode", ColourModeName(mode));
  pugi::xml_node formats = Add(profile, "scan:DocumentFormats");
  for (Format f : kFormats) Add(formats, "pwg:DocumentFormat", MimeType(f));
  for (Format f : kFormats) Add(formats, "scan:DocumentFormatExt", MimeType(f));
  pugi::xml_node list = Add(Add(profile, "scan:SupportedResolutions"), "scan:DiscreteResolutions");
  for (uint32_t r : facts.resolutions) {
    pugi::xml_node one = Add(list, "scan:DiscreteResolution");
    Add(one, "scan:XResolution", std::to_string(r));
    Add(one, "scan:YResolution", std::to_string(r));
  }
  Add(Add(profile, "scan:ColorSpaces"), "scan:ColorSpace", "RGB");
}

void AddInputCaps(pugi::xml_node parent, const char* name, const SourceArea& area, const ScannerFacts& facts) {
  pugi::xml_node caps = Add(parent, name);
  Add(caps, "scan:MinWidth", std::to_string(MinWidth(facts)));
  Add(caps, "scan:MaxWidth", std::to_string(area.maxWidth));
  Add(caps, "scan:MinHeight", std::to_string(MinHeight(facts)));
  Add(caps, "scan:MaxHeight", std::to_string(area.maxHeight));
  Add(caps, "scan:MaxScanRegions", "1");
  AddProfile(caps, facts);
  pugi::xml_node intents = Add(caps, "scan:SupportedIntents");
  for (const char* intent : kIntents) Add(intents, "scan:Intent", intent);
  const std::string finest = facts.resolutions.empty() ? "0" : std::to_string(facts.resolutions.back());
  Add(caps, "scan:MaxOpticalXResolution", finest);
  Add(caps, "scan:MaxOpticalYResolution", finest);
}

// A tone range as eSCL states one: from 0, the library's neutral value as
// Normal.
void AddTone(pugi::xml_node parent, const char* name, const ToneRange& range) {
  if (!range.present) return;
  pugi::xml_node support = Add(parent, name);
  Add(support, "scan:Min", "0");
  Add(support, "scan:Max", std::to_string(int64_t{range.most} - range.least));
  Add(support, "scan:Normal", std::to_string(std::clamp<int64_t>(-int64_t{range.least}, 0, int64_t{range.most} - range.least)));
  Add(support, "scan:Step", std::to_string(std::max(range.step, 1)));
}

const char* JobStateName(JobState state) {
  switch (state) {
    case JobState::Pending: return "Pending";
    case JobState::Processing: return "Processing";
    case JobState::Completed: return "Completed";
    case JobState::Canceled: return "Canceled";
    case JobState::Aborted: return "Aborted";
  }
  return "Aborted";
}

const char* JobReason(JobState state) {
  switch (state) {
    case JobState::Pending:
    case JobState::Processing: return "JobScanning";
    case JobState::Completed: return "JobCompletedSuccessfully";
    case JobState::Canceled: return "JobCanceledByUser";
    case JobState::Aborted: return "AbortedBySystem";
  }
  return "AbortedBySystem";
}

// A DNS-SD text string holds at most 255 bytes: a longer value (a long
// --name) is cut at a character boundary.
constexpr size_t kTxtStringBytes = 255;

std::string Fitted(const std::string& key, std::string value) {
  const size_t room = kTxtStringBytes - key.size() - 1;
  if (value.size() <= room) return value;
  size_t cut = room;
  while (cut > 0 && (static_cast<uint8_t>(value[cut]) & 0xC0) == 0x80) --cut;  // inside a UTF-8 sequence
  value.resize(cut);
  return value;
}

std::string Join(const std::vector<std::string>& parts) {
  std::string out;
  for (const auto& p : parts) out += (out.empty() ? "" : ",") + p;
  return out;
}

std::string FormatUuid(std::array<uint8_t, 16> b, int version) {
  b[6] = static_cast<uint8_t>((b[6] & 0x0f) | (version << 4));
  b[8] = static_cast<uint8_t>((b[8] & 0x3f) | 0x80);  // the RFC variant
  char text[37];
  std::snprintf(text, sizeof text, "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", b[0], b[1],
                b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
  return text;
}

}  // namespace

std::string CapabilitiesXml(const ScannerFacts& facts, const std::string& adminUrl) {
  pugi::xml_document doc;
  pugi::xml_node root = Root(doc, "scan:ScannerCapabilities");
  Add(root, "pwg:MakeAndModel", facts.makeAndModel);
  Add(root, "pwg:SerialNumber", facts.serialNumber);
  Add(root, "scan:UUID", facts.uuid);
  if (!adminUrl.empty()) Add(root, "scan:AdminURI", adminUrl);
  if (facts.platen.present) AddInputCaps(Add(root, "scan:Platen"), "scan:PlatenInputCaps", facts.platen, facts);
  if (facts.feeder.present) {
    pugi::xml_node adf = Add(root, "scan:Adf");
    AddInputCaps(adf, "scan:AdfSimplexInputCaps", facts.feeder, facts);
    Add(adf, "scan:FeederCapacity", std::to_string(kFeederCapacity));
    Add(Add(adf, "scan:AdfOptions"), "scan:AdfOption", "DetectPaperLoaded");
  }
  AddTone(root, "scan:BrightnessSupport", facts.brightness);
  AddTone(root, "scan:ContrastSupport", facts.contrast);
  return Text(doc);
}

std::string StatusXml(const ScannerFacts& facts, bool busy, const std::vector<JobSummary>& jobs) {
  pugi::xml_document doc;
  pugi::xml_node root = Root(doc, "scan:ScannerStatus");
  Add(root, "pwg:State", busy ? "Processing" : "Idle");
  if (facts.feeder.present) Add(root, "scan:AdfState", facts.feederLoaded ? "ScannerAdfLoaded" : "ScannerAdfEmpty");
  pugi::xml_node list = Add(root, "scan:Jobs");
  for (const JobSummary& job : jobs) {
    pugi::xml_node info = Add(list, "scan:JobInfo");
    Add(info, "pwg:JobUri", "/eSCL/ScanJobs/" + job.uuid);
    Add(info, "pwg:JobUuid", job.uuid);
    Add(info, "scan:Age", std::to_string(job.ageSeconds));
    Add(info, "pwg:ImagesCompleted", std::to_string(job.imagesCompleted));
    Add(info, "pwg:ImagesToTransfer", std::to_string(job.imagesToTransfer));
    Add(info, "pwg:JobState", JobStateName(job.state));
    Add(Add(info, "pwg:JobStateReasons"), "pwg:JobStateReason", JobReason(job.state));
  }
  return Text(doc);
}

TxtRecord DiscoveryTxt(const ScannerFacts& facts, const std::string& representationUrl, const std::string& adminUrl) {
  std::vector<std::string> formats, modes, sources;
  for (Format f : kFormats) formats.push_back(MimeType(f));
  for (ColourMode m : facts.modes) {
    modes.push_back(m == ColourMode::Rgb24 ? "color" : m == ColourMode::Grayscale8 ? "grayscale" : "binary");
  }
  if (facts.platen.present) sources.push_back("platen");
  if (facts.feeder.present) sources.push_back("adf");
  TxtRecord txt = {{"txtvers", "1"},
                   {"ty", facts.makeAndModel},
                   {"rs", "eSCL"},
                   {"vers", kProtocolVersion},
                   {"pdl", Join(formats)},
                   {"cs", Join(modes)},
                   {"is", Join(sources)},
                   {"duplex", "F"},
                   {"UUID", facts.uuid},
                   {"representation", representationUrl},
                   {"note", facts.name}};
  if (!adminUrl.empty()) txt.emplace_back("adminurl", adminUrl);
  if (representationUrl.empty()) std::erase_if(txt, [](const auto& kv) { return kv.first == "representation"; });
  for (auto& [key, value] : txt) value = Fitted(key, value);
  return txt;
}

std::string StableUuid(std::string_view name) {
  // Two FNV-1a hashes of the name with different starting points; the UUID
  // is marked as the vendor-defined version (8), being no RFC hash.
  constexpr uint64_t kPrime = 0x100000001b3ULL;
  uint64_t h[2] = {0xcbf29ce484222325ULL, 0x84222325cbf29ce4ULL};
  for (uint64_t& v : h) {
    for (char c : name) v = (v ^ static_cast<uint8_t>(c)) * kPrime;
    v ^= v >> 29;
  }
  std::array<uint8_t, 16> bytes{};
  for (int i = 0; i < 16; ++i) bytes[i] = static_cast<uint8_t>(h[i / 8] >> (8 * (i % 8)));
  return FormatUuid(bytes, 8);
}

std::string RandomUuid() {
  static thread_local std::mt19937_64 engine{std::random_device{}()};
  std::array<uint8_t, 16> bytes{};
  const uint64_t a = engine(), b = engine();
  for (int i = 0; i < 16; ++i) bytes[i] = static_cast<uint8_t>((i < 8 ? a : b) >> (8 * (i % 8)));
  return FormatUuid(bytes, 4);
}

}  // namespace sx::host::escl
