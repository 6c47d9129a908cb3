// The eSCL server's own parts without a network: the ScanSettings parser and
// its check against the scanner, the documents clients read, the discovery
// record, the bounded queue between the scanner and a response, the one PDF
// of a batch, and which hosts and pages the server answers.
#include <gtest/gtest.h>

#ifdef SX_SERVE_BUILT
#include <pugixml.hpp>
#include <regex>
#include <thread>

#include "serve/EsclBatch.h"
#include "serve/EsclModel.h"
#include "serve/EsclQueue.h"
#include "serve/HttpHost.h"
#include "tests/hosts/sxscan/ImageRead.h"

namespace sx::host::escl {
namespace {

using namespace std::chrono_literals;

// A scanner like the virtual one: Letter-wide platen and feeder, every mode.
ScannerFacts Facts() {
  ScannerFacts f;
  f.makeAndModel = "CORVANE QM7110V";
  f.serialNumber = "VS0001234";
  f.uuid = StableUuid("CORVANE QM7110V");
  f.name = f.makeAndModel;
  f.platen = {true, 2550, 3508};
  f.feeder = {true, 2550, 4200};
  f.modes = {ColourMode::BlackAndWhite1, ColourMode::Grayscale8, ColourMode::Rgb24};
  f.resolutions = {75, 100, 150, 300, 600};
  f.brightness = {true, -1000, 1000, 10};
  f.feederLoaded = true;
  return f;
}

// ScanSettings as clients send them; `body` goes inside the root element.
std::string Settings(const std::string& body, const std::string& prefix = "scan") {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><" + prefix + ":ScanSettings xmlns:" + prefix +
         "=\"http://schemas.hp.com/imaging/escl/2011/05/03\" xmlns:pwg=\"http://www.pwg.org/schemas/2010/12/sm\">"
         "<pwg:Version>2.0</pwg:Version>" + body + "</" + prefix + ":ScanSettings>";
}

std::string Region(const std::string& x, const std::string& y, const std::string& w, const std::string& h) {
  return "<pwg:ScanRegions><pwg:ScanRegion><pwg:Height>" + h +
         "</pwg:Height><pwg:ContentRegionUnits>escl:ThreeHundredthsOfInches</pwg:ContentRegionUnits><pwg:Width>" + w +
         "</pwg:Width><pwg:XOffset>" + x + "</pwg:XOffset><pwg:YOffset>" + y + "</pwg:YOffset></pwg:ScanRegion></pwg:ScanRegions>";
}

TEST(EsclSettings, ReadsWhatClientsSendWhateverThePrefixes) {
  const std::string body = Region("30", "60", "600", "300") +
                           "<pwg:InputSource>Feeder</pwg:InputSource><scan:ColorMode>Grayscale8</scan:ColorMode>"
                           "<scan:XResolution>150</scan:XResolution><scan:YResolution>150</scan:YResolution>"
                           "<pwg:DocumentFormat>application/octet-stream</pwg:DocumentFormat>"
                           "<scan:DocumentFormatExt>image/png</scan:DocumentFormatExt><scan:Intent>Document</scan:Intent>"
                           "<scan:Brightness>1204</scan:Brightness><sx:BatchPdf>true</sx:BatchPdf>";
  for (const std::string prefix : {"scan", "e"}) {
    std::string text = body;
    if (prefix != "scan") text = std::regex_replace(text, std::regex("scan:"), prefix + ":");
    ScanRequest r;
    std::string error;
    ASSERT_TRUE(ParseScanSettings(Settings(text, prefix), &r, &error)) << error;
    EXPECT_EQ(r.source, InputSource::Feeder);
    EXPECT_EQ(r.mode, ColourMode::Grayscale8);
    EXPECT_EQ(r.xResolution, 150u);
    EXPECT_TRUE(r.hasRegion && r.region.x == 30 && r.region.y == 60 && r.region.width == 600 && r.region.height == 300);
    EXPECT_EQ(r.format, Format::Png) << "DocumentFormatExt wins over DocumentFormat";
    EXPECT_TRUE(r.batchPdf);
    ASSERT_TRUE(ResolveScanRequest(Facts(), &r, &error)) << error;
    EXPECT_EQ(r.brightness, 200) << "eSCL's 0 is the library's least; the nearest step";
    EXPECT_FALSE(r.contrast);
  }
  // Nothing but the version: the platen's whole area in colour at 300 dpi.
  ScanRequest r;
  std::string error;
  ASSERT_TRUE(ParseScanSettings(Settings(""), &r, &error)) << error;
  ASSERT_TRUE(ResolveScanRequest(Facts(), &r, &error)) << error;
  EXPECT_TRUE(r.source == InputSource::Platen && r.mode == ColourMode::Rgb24 && r.xResolution == 300 &&
              r.yResolution == 300 && r.region.width == 2550 && r.region.height == 3508);
}

// The client's fault: 400, and the request is left as it was.
TEST(EsclSettings, RefusesDocumentsThatAreNotScanSettings) {
  const std::string refused[] = {
      "",
      "not xml at all",
      Settings("<scan:ColorMode>RGB24</scan:ColorMode").substr(0, 200),
      "<ScannerStatus/>",
      Settings("<scan:ColorMode>Sepia48</scan:ColorMode>"),
      Settings("<pwg:InputSource>Camera</pwg:InputSource>"),
      Settings("<scan:XResolution>-300</scan:XResolution>"),
      Settings("<scan:XResolution>3e2</scan:XResolution>"),
      Settings("<scan:XResolution>99999999999999999999</scan:XResolution>"),
      Settings("<scan:DocumentFormatExt>text/html</scan:DocumentFormatExt>"),
      Settings("<scan:Duplex>true</scan:Duplex>"),
      Settings("<scan:Brightness>-5</scan:Brightness>"),
      Settings("<sx:BatchPdf>maybe</sx:BatchPdf>"),
      Settings(Region("0", "0", "600", "300") + Region("0", "0", "600", "300")),
      Settings(std::regex_replace(Region("0", "0", "600", "300"), std::regex("escl:ThreeHundredthsOfInches"), "Millimeters")),
      Settings("<pwg:ScanRegions><pwg:ScanRegion><pwg:Width>600</pwg:Width></pwg:ScanRegion></pwg:ScanRegions>"),
      Settings("<scan:ColorMode>RGB24</scan:ColorMode>") + std::string(kMaxSettingsBytes, ' '),
  };
  for (const std::string& body : refused) {
    ScanRequest r;
    r.xResolution = 4242;
    std::string error;
    EXPECT_FALSE(ParseScanSettings(body, &r, &error)) << body.substr(0, 300);
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(r.xResolution, 4242u) << "unchanged";
  }
  // An entity the document declares is not expanded (nor any file read).
  ScanRequest r;
  std::string error;
  const std::string entity = "<!DOCTYPE s [<!ENTITY x SYSTEM \"file:///etc/passwd\">]>" +
                             Settings("<scan:ColorMode>&x;</scan:ColorMode>").substr(38);
  EXPECT_FALSE(ParseScanSettings(entity, &r, &error));
}

// Well-formed but more than the scanner can give: 409.
TEST(EsclSettings, RefusesWhatTheScannerCannotGive) {
  struct Case {
    const char* what;
    std::string body;
    ScannerFacts facts = Facts();
  } cases[] = {
      {"past the bed's width", Settings(Region("2000", "0", "600", "300"))},
      {"past the feeder's length", Settings("<pwg:InputSource>Feeder</pwg:InputSource>" + Region("0", "4000", "600", "300"))},
      {"offset and size overflowing", Settings(Region("1000000", "0", "1000000", "300"))},
      {"narrower than 32 pixels", Settings("<scan:XResolution>75</scan:XResolution>" + Region("0", "0", "120", "300"))},
      {"a resolution not offered", Settings("<scan:XResolution>7</scan:XResolution>")},
      {"unequal resolutions", Settings("<scan:XResolution>150</scan:XResolution><scan:YResolution>300</scan:YResolution>")},
      {"a zero-sized region", Settings(Region("0", "0", "0", "0"))},
      {"brightness past the range", Settings("<scan:Brightness>2001</scan:Brightness>")},
      {"a tone the scanner has not", Settings("<scan:Contrast>1000</scan:Contrast>")},
  };
  for (auto& c : cases) {
    ScanRequest r;
    std::string error;
    ASSERT_TRUE(ParseScanSettings(c.body, &r, &error)) << c.what << ": " << error;
    EXPECT_FALSE(ResolveScanRequest(c.facts, &r, &error)) << c.what;
  }
  ScannerFacts flatbedOnly = Facts();
  flatbedOnly.feeder = {};
  flatbedOnly.modes = {ColourMode::Rgb24};
  for (const std::string body : {"<pwg:InputSource>Feeder</pwg:InputSource>", "<scan:ColorMode>Grayscale8</scan:ColorMode>"}) {
    ScanRequest r;
    std::string error;
    ASSERT_TRUE(ParseScanSettings(Settings(body), &r, &error));
    EXPECT_FALSE(ResolveScanRequest(flatbedOnly, &r, &error)) << body;
  }
}

std::string ChildText(const pugi::xml_node& node, const char* path) {
  return node.first_element_by_path(path).child_value();
}

TEST(EsclDocuments, CapabilitiesAndStatusStateWhatTheScannerOffersAndDoes) {
  ScannerFacts facts = Facts();
  facts.makeAndModel = "Corvane <Q&M> 7110";
  pugi::xml_document doc;
  ASSERT_TRUE(doc.load_string(CapabilitiesXml(facts, "").c_str()));
  pugi::xml_node caps = doc.child("scan:ScannerCapabilities");
  EXPECT_EQ(ChildText(caps, "pwg:MakeAndModel"), facts.makeAndModel);
  EXPECT_EQ(ChildText(caps, "scan:UUID"), facts.uuid);
  EXPECT_EQ(ChildText(caps, "scan:Platen/scan:PlatenInputCaps/scan:MaxHeight"), "3508");
  EXPECT_EQ(ChildText(caps, "scan:Adf/scan:AdfSimplexInputCaps/scan:MaxHeight"), "4200");
  // 32 pixels at the coarsest resolution, 75 dpi.
  EXPECT_EQ(ChildText(caps, "scan:Platen/scan:PlatenInputCaps/scan:MinWidth"), "128");
  pugi::xml_node profile = caps.first_element_by_path("scan:Platen/scan:PlatenInputCaps/scan:SettingProfiles/scan:SettingProfile");
  std::vector<std::string> modes, formats, resolutions;
  for (auto m : profile.child("scan:ColorModes").children()) modes.push_back(m.child_value());
  for (auto f : profile.child("scan:DocumentFormats").children("scan:DocumentFormatExt")) formats.push_back(f.child_value());
  for (auto r : profile.first_element_by_path("scan:SupportedResolutions/scan:DiscreteResolutions").children())
    resolutions.push_back(r.child("scan:XResolution").child_value());
  EXPECT_EQ(modes, (std::vector<std::string>{"BlackAndWhite1", "Grayscale8", "RGB24"}));
  EXPECT_EQ(formats, (std::vector<std::string>{"image/png", "image/jpeg", "application/pdf"}));
  EXPECT_EQ(resolutions, (std::vector<std::string>{"75", "100", "150", "300", "600"}));
  for (const auto& [path, value] : {std::pair{"scan:BrightnessSupport/scan:Min", "0"}, {"scan:BrightnessSupport/scan:Max", "2000"},
                                    {"scan:BrightnessSupport/scan:Normal", "1000"}, {"scan:BrightnessSupport/scan:Step", "10"}})
    EXPECT_EQ(ChildText(caps, path), value) << path;
  EXPECT_FALSE(caps.child("scan:ContrastSupport")) << "no range, no support stated";
  facts.feeder = {};
  ASSERT_TRUE(doc.load_string(CapabilitiesXml(facts, "").c_str()));
  EXPECT_FALSE(doc.first_element_by_path("scan:ScannerCapabilities/scan:Adf")) << "no feeder, no Adf";

  JobSummary job{"0c5b1d7e-0000-4000-8000-000000000001", JobState::Canceled, 1, 1, 3};
  ASSERT_TRUE(doc.load_string(StatusXml(Facts(), true, {job}).c_str()));
  pugi::xml_node status = doc.child("scan:ScannerStatus");
  EXPECT_EQ(ChildText(status, "pwg:State"), "Processing");
  EXPECT_EQ(ChildText(status, "scan:AdfState"), "ScannerAdfLoaded");
  EXPECT_EQ(ChildText(status, "scan:Jobs/scan:JobInfo/pwg:JobUri"), "/eSCL/ScanJobs/" + job.uuid);
  EXPECT_EQ(ChildText(status, "scan:Jobs/scan:JobInfo/pwg:JobState"), "Canceled");
  facts = Facts();
  facts.feederLoaded = false;
  ASSERT_TRUE(doc.load_string(StatusXml(facts, false, {}).c_str()));
  EXPECT_EQ(ChildText(doc.child("scan:ScannerStatus"), "pwg:State"), "Idle");
  EXPECT_EQ(ChildText(doc.child("scan:ScannerStatus"), "scan:AdfState"), "ScannerAdfEmpty");
}

TEST(EsclDocuments, DiscoveryRecordAndUuids) {
  ScannerFacts facts = Facts();
  facts.name = std::string(300, 'n') + "\xc3\xa9";  // a --name longer than a text string holds
  const TxtRecord txt = DiscoveryTxt(facts, "http://host:8090/eSCL/icon.png", "");
  ASSERT_FALSE(txt.empty());
  EXPECT_EQ(txt.front(), (std::pair<std::string, std::string>{"txtvers", "1"}));
  std::map<std::string, std::string> keys(txt.begin(), txt.end());
  EXPECT_EQ(keys["rs"], "eSCL");
  EXPECT_EQ(keys["ty"], "CORVANE QM7110V");
  EXPECT_EQ(keys["pdl"], "image/png,image/jpeg,application/pdf");
  EXPECT_EQ(keys["cs"], "binary,grayscale,color");
  EXPECT_EQ(keys["is"], "platen,adf");
  EXPECT_EQ(keys["UUID"], facts.uuid);
  EXPECT_EQ(keys["representation"], "http://host:8090/eSCL/icon.png");
  for (const auto& [key, value] : txt) EXPECT_LE(key.size() + 1 + value.size(), 255u) << key;
  EXPECT_EQ(keys["note"], std::string(250, 'n'));
  EXPECT_EQ(DiscoveryTxt(facts, "", "").size(), txt.size() - 1) << "no icon, no representation";

  const std::regex uuid("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
  EXPECT_EQ(StableUuid("a scanner"), StableUuid("a scanner"));
  EXPECT_NE(StableUuid("a scanner"), StableUuid("a scannes"));
  EXPECT_TRUE(std::regex_match(StableUuid("a scanner"), uuid));
  EXPECT_TRUE(std::regex_match(RandomUuid(), uuid));
  EXPECT_NE(RandomUuid(), RandomUuid());
}

TEST(EsclQueue, HoldsAtMostItsCapacityAndKeepsDocumentsApart) {
  DocumentQueue queue(1000);
  std::thread producer([&] {
    const std::string page(5000, 'a');
    EXPECT_TRUE(queue.Write(page.data(), page.size(), 5s));
    queue.EndDocument();
    EXPECT_TRUE(queue.Write("b", 1, 5s));
    queue.EndDocument();
    queue.Finish();
  });
  std::string first, chunk;
  ASSERT_EQ(queue.WaitForDocument(5s), DocumentQueue::Wait::Ready);
  for (DocumentQueue::Read r; (r = queue.Next(&chunk, 5s)) == DocumentQueue::Read::Bytes;) {
    first += chunk;
    EXPECT_LE(queue.QueuedBytes(), 1000u);
  }
  EXPECT_EQ(first, std::string(5000, 'a'));
  ASSERT_EQ(queue.WaitForDocument(5s), DocumentQueue::Wait::Ready);
  ASSERT_EQ(queue.Next(&chunk, 5s), DocumentQueue::Read::Bytes);
  EXPECT_EQ(chunk, "b");
  EXPECT_EQ(queue.Next(&chunk, 5s), DocumentQueue::Read::DocumentEnd);
  producer.join();
  EXPECT_EQ(queue.WaitForDocument(5s), DocumentQueue::Wait::NoMore);
  EXPECT_LE(queue.HighWater(), 1000u);
}

TEST(EsclQueue, AWriterIsReleasedByCloseOrByAReaderThatStopped) {
  DocumentQueue closed(10);
  std::thread closer([&] {
    std::this_thread::sleep_for(50ms);
    closed.Close();
  });
  EXPECT_FALSE(closed.Write("more than ten bytes", 19, 30s)) << "released by Close";
  closer.join();
  std::string chunk;
  EXPECT_EQ(closed.Next(&chunk, 1s), DocumentQueue::Read::Failed);

  DocumentQueue stalled(10);
  EXPECT_FALSE(stalled.Write("more than ten bytes", 19, 50ms)) << "nobody read";
  // A producer that finished inside a document leaves the reader a failure,
  // not a short document.
  DocumentQueue cut(100);
  ASSERT_TRUE(cut.Write("half", 4, 1s));
  cut.Finish();
  ASSERT_EQ(cut.Next(&chunk, 1s), DocumentQueue::Read::Bytes);
  EXPECT_EQ(cut.Next(&chunk, 1s), DocumentQueue::Read::Failed);
}

// The Host header must name the server: names in any case, with a port or
// a final dot; addresses by value, never a name that merely begins with one.
// A page that changes anything must be one of the server's own: its origin
// names the server and its port.
TEST(HttpHost, OnlyTheServersOwnNamesAddressesAndPages) {
  const http::HostNames allowed{{"localhost", "vm", "vm.local"}, {"127.0.0.1", "192.0.2.2", "fd00::2", "fe80::1"}};
  for (const char* host : {"localhost", "LocalHost:8090", "vm.local.", "vm:80", "127.0.0.1:8090", "192.0.2.2",
                           "[fd00::2]:8090", "[FD00:0::2]", "[fe80::1%25eth0]:8090"})
    EXPECT_TRUE(http::HostAllowed(host, allowed)) << host;
  for (const char* host : {"", ":8090", "evil.example", "vm.evil.example", "127.0.0.1.evil.example", "localhost:http",
                           "[fd00::2", "[fd00::2]x", "192.0.2.3", "[::1]:8090", "0x7f.0.0.1", "localhost:8090:80"})
    EXPECT_FALSE(http::HostAllowed(host, allowed)) << host;

  const struct {
    const char* origin;
    const char* site;
    bool own;
  } pages[] = {
      {"", "", true},  // no browser
      {"http://127.0.0.1:8090", "same-origin", true},
      {"http://vm.local:8090", "", true},
      {"http://[fd00::2]:8090", "none", true},
      {"", "cross-site", false},
      {"http://127.0.0.1:8090", "same-site", false},  // the browser's word is enough
      {"http://127.0.0.1:8091", "", false},
      {"http://127.0.0.1", "", false},
      {"http://evil.example:8090", "", false},
      {"https://127.0.0.1:8090", "", false},
      {"null", "", false},
      {"http://127.0.0.1:8090/", "", false},
      {"http://127.0.0.1:08090x", "", false},
  };
  for (const auto& p : pages) EXPECT_EQ(http::FromOwnPage(p.origin, p.site, allowed, 8090), p.own) << p.origin << " " << p.site;
  EXPECT_TRUE(http::FromOwnPage("http://localhost", "", allowed, 80)) << "the default port";
}

// The pages of a job in one PDF, read back in blocks once the job ended
// with every page; a page cut short or a job that stopped leaves none.
TEST(EsclBatch, GathersEveryPageIntoOnePdfOrNone) {
  PageFormat grey;
  grey.kind = PixelKind::Gray;
  grey.width = grey.bytesPerLine = 64, grey.lines = 20;
  std::vector<uint8_t> raster(64 * 20);
  for (size_t i = 0; i < raster.size(); ++i) raster[i] = static_cast<uint8_t>(i * 7);
  BatchPdf whole, cut, stopped, empty;
  std::string error;
  for (BatchPdf* batch : {&whole, &whole, &stopped})
    ASSERT_TRUE(batch->BeginPage(grey, &error) && batch->WriteLines(raster.data(), 20, &error) && batch->EndPage(&error));
  ASSERT_TRUE(cut.BeginPage(grey, &error));
  cut.DropPage();
  EXPECT_EQ(whole.Current(), BatchPdf::State::Writing);
  for (BatchPdf* batch : {&whole, &cut, &empty}) batch->Finish(true);
  stopped.Finish(false);

  ASSERT_EQ(whole.Current(), BatchPdf::State::Ready);
  std::vector<uint8_t> bytes;
  char block[1000];
  bool failed = false;
  for (size_t n; (n = whole.Read(bytes.size(), block, sizeof block, &failed)) > 0;) bytes.insert(bytes.end(), block, block + n);
  EXPECT_TRUE(!failed && bytes.size() == whole.Size());
  const std::vector<PdfPage> pages = ReadPdf(bytes);
  ASSERT_EQ(pages.size(), 2u);
  EXPECT_TRUE(pages[0].raster == raster && pages[1].raster == raster);
  for (const BatchPdf* none : {&cut, &stopped, &empty}) {
    EXPECT_EQ(none->Current(), BatchPdf::State::Failed);
    EXPECT_EQ(none->Read(0, block, sizeof block, &failed), 0u);
  }
}

}  // namespace
}  // namespace sx::host::escl
#endif
