// `sxscan serve` on loopback over a virtual scanner, driven by a real eSCL
// client (scanimage through sane-airscan) and by plain HTTP requests for
// what a well-behaved client never sends. Pages are compared with what
// `sxscan scan` writes for the same settings.
#include <gtest/gtest.h>

#ifdef SX_SERVE_BUILT
#include <arpa/inet.h>
#include <httplib.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "tests/hosts/sxscan/ImageRead.h"
#include "tests/hosts/sxscan/RunSxscan.h"

namespace sx::host {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using sxtest::Started;

constexpr char kVscanDir[] = "Corvane/VScan";
constexpr char kDevice[] = "airscan:e0:sxscan";

// Connections from one of loopback's many addresses (127.x.y.z), which the
// server counts as many clients.
class Sockets {
 public:
  ~Sockets() {
    for (int fd : fds_) close(fd);
  }
  // Connects from `source` and sends `text`; the connection stays open.
  void Open(const std::string& source, int port, const std::string& text = "") {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    inet_pton(AF_INET, source.c_str(), &addr.sin_addr);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0) << source;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, "127.0.0.1", &addr.sin_addr);
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(send(fd, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
    fds_.push_back(fd);
  }
  // How many the server has closed.
  size_t Closed() const {
    size_t closed = 0;
    for (int fd : fds_) {
      pollfd p{fd, POLLIN, 0};
      char byte;
      if (poll(&p, 1, 0) == 1 && recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) <= 0) ++closed;
    }
    return closed;
  }
  size_t Size() const { return fds_.size(); }

 private:
  std::vector<int> fds_;
};

// An HTTP client whose connections come from `source`.
std::unique_ptr<httplib::Client> ClientFrom(const std::string& source, int port) {
  auto client = std::make_unique<httplib::Client>("127.0.0.1", port);
  client->set_socket_options([source](int fd) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    inet_pton(AF_INET, source.c_str(), &addr.sin_addr);
    bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  });
  client->set_read_timeout(5, 0);
  return client;
}

std::string HostName() {
  char name[256] = {};
  gethostname(name, sizeof name - 1);
  std::string text = name;
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

class Serve : public ::testing::Test {
 protected:
  void SetUp() override {
    Pace(0);
    server_ = std::make_unique<Started>("'" SX_TEST_SXSCAN "' serve --port 0 2>'" + Log() + "'");
    const std::string line = server_->Line();
    const size_t colon = line.rfind(':');
    ASSERT_NE(line.find("serving CORVANE QM7110V at http://127.0.0.1:"), std::string::npos) << line << ReadLog();
    port_ = std::stoi(line.substr(colon + 1));
    client_ = std::make_unique<httplib::Client>("127.0.0.1", port_);
    client_->set_read_timeout(30, 0);
  }
  void TearDown() override {
    if (HasFailure()) std::fprintf(stderr, "server log:\n%s\n", ReadLog().c_str());
  }
  // The scanner's feeder stack and how long it takes a line (0: at once).
  // Read each time a job opens the scanner.
  void Pace(int lineDelayUs) const {
    root_.InstallVscan(kVscanDir, "[Feeder]\nSheets=3\n[Page]\nLineDelayUs=" + std::to_string(lineDelayUs) + "\n");
  }
  std::string Log() const { return (root_.Path() / "serve.log").string(); }
  std::string ReadLog() const { return sxtest::ReadFile(Log()); }
  std::string Path(const std::string& name) const { return (root_.Path() / name).string(); }

  // The same page from `sxscan scan`, as written to `output`.
  void LocalScan(const std::string& options, const std::string& output) const {
    const sxtest::Outcome scan =
        sxtest::RunSxscan(root_, "scan " + options + " --units 300ths --output '" + Path(output) + "'");
    ASSERT_EQ(scan.exitCode, 0) << scan.text;
  }
  // Waits (up to 20 s) until the server's log holds `text` `count` times.
  bool WaitForLog(const std::string& text, int count) const {
    for (int i = 0; i < 200; ++i) {
      const std::string log = ReadLog();
      int found = 0;
      for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++found;
      if (found >= count) return true;
      std::this_thread::sleep_for(100ms);
    }
    return false;
  }
  // Posts ScanSettings; the job's address ("" when refused, which fails the test).
  std::string StartJob(const std::string& settings) const {
    auto res = client_->Post("/eSCL/ScanJobs", settings, "text/xml");
    EXPECT_TRUE(res && res->status == 201) << (res ? res->body : "no answer");
    return res && res->status == 201 ? res->get_header_value("Location") : "";
  }
  // ScannerStatus once the scanner is idle again (or after 20 s).
  std::string IdleStatus() const {
    std::string body;
    for (int i = 0; i < 200; ++i) {
      auto res = client_->Get("/eSCL/ScannerStatus");
      body = res ? res->body : "";
      if (body.find("<pwg:State>Idle</pwg:State>") != std::string::npos) break;
      std::this_thread::sleep_for(100ms);
    }
    return body;
  }

  sxtest::TempRoot root_;
  std::unique_ptr<Started> server_;
  std::unique_ptr<httplib::Client> client_;
  int port_ = 0;
};

// Through sane-airscan, as a desktop scans: the client chooses PNG.
class ServeToAirscan : public Serve {
 protected:
  void SetUp() override {
    int status = 0;
    if (sxtest::RunShell("command -v scanimage 2>/dev/null", &status).empty() ||
        sxtest::RunShell("ls /usr/lib/*/sane/libsane-airscan.so* 2>/dev/null", &status).empty())
      GTEST_SKIP() << "scanimage or sane-airscan is absent";
    Serve::SetUp();
    sxtest::WriteFile(root_.Path() / "conf/dll.conf", "airscan\n");
    sxtest::WriteFile(root_.Path() / "conf/airscan.conf", "[devices]\n\"sxscan\" = http://127.0.0.1:" +
                                                               std::to_string(port_) + "/eSCL\n[options]\ndiscovery = disable\n");
  }
  // A client that never ends is stopped after `seconds` (exit status 124),
  // or killed 10 s after that or after an interrupt when it does not stop
  // (137): time enough for it to cancel its job on a loaded machine.
  std::string Scanimage(const std::string& args, int seconds = 20) const {
    return "env SANE_CONFIG_DIR='" + Path("conf") + "' timeout -k 10 " + std::to_string(seconds) + " scanimage " + args;
  }
  // sane-airscan now and then never returns from sane_close after its page
  // arrived whole and every request was answered (seen about once in a
  // hundred runs, on a loaded machine): such a run counts as done when the
  // server's log shows the client deleting the job it had started.
  bool LastJobDeletedByClient() const {
    const std::string log = ReadLog();
    const std::string started = "sxscan: job ";
    const size_t at = log.rfind(started);
    if (at == std::string::npos) return false;
    const std::string uuid = log.substr(at + started.size(), 36);
    return log.find("DELETE /eSCL/ScanJobs/" + uuid + ": 200", at) != std::string::npos;
  }
  std::string Scan(const std::string& args, int* status) const {
    const std::string out = sxtest::RunShell(Scanimage("-d " + std::string(kDevice) + " " + args + " 2>/dev/null", 10), status);
    const int code = sxtest::ExitCode(*status);
    if ((code == 124 || code == 137) && LastJobDeletedByClient()) {
      std::fprintf(stderr, "note: scanimage did not return from sane_close after a whole page; stopped\n");
      *status = 0;
    }
    return out;
  }
  // scanimage's page against `sxscan scan`'s PNG of the same settings: the
  // same pixels, where the client asked for a width the scanner narrows to
  // its alignment, widened with white to the asked `width`.
  void ExpectSamePage(const std::string& pnm, const std::string& png, int width, const std::string& what) const {
    int w = 0, h = 0;
    const std::vector<uint8_t> pixels = PnmPixels(pnm, &w, &h);
    const PngRead local = ReadPng(Path(png));
    ASSERT_TRUE(local.ok) << what;
    EXPECT_TRUE(w == width && h == static_cast<int>(local.height)) << what << ": " << w << "x" << h;
    const size_t bytes = local.colour == PNG_COLOR_TYPE_RGB ? 3 : 1;
    std::vector<uint8_t> expected;
    for (size_t y = 0; y < local.height; ++y) {
      const auto row = local.raster.begin() + static_cast<long>(y * local.width * bytes);
      expected.insert(expected.end(), row, row + static_cast<long>(local.width * bytes));
      expected.resize(expected.size() + (static_cast<size_t>(width) - local.width) * bytes, 0xFF);
    }
    EXPECT_TRUE(pixels == expected) << what;
  }
};

TEST_F(ServeToAirscan, ListsOffersAndScansEachModeAsALocalScanDoes) {
  int status = 0;
  EXPECT_NE(sxtest::RunShell(Scanimage("-L"), &status).find(std::string("`") + kDevice + "' is a eSCL sxscan"), std::string::npos);
  const std::string options = Scan("-A", &status);
  for (const char* text : {"--resolution 75|100|150|200|300|400|600dpi [300]", "--mode Color|Gray [Color]",
                           "--source Flatbed|ADF [Flatbed]", "-x 0..215.9mm", "-y 0..297.011mm"})
    EXPECT_NE(options.find(text), std::string::npos) << text << "\n" << options;
  // Every mode and resolution the client offers: 2 by 1 inches, half an
  // inch in and an inch down (150 pixels wide at 75 dpi, which the scanner
  // narrows to 128).
  for (const auto& [mode, local] : {std::pair{"Gray", "gray"}, std::pair{"Color", "color"}}) {
    for (int dpi : {75, 100, 150, 200, 300, 400, 600}) {
      const std::string what = std::string(mode) + " " + std::to_string(dpi);
      const std::string pnm = Scan("--format=pnm -l 12.7 -t 25.4 -x 50.8 -y 25.4 --mode " + std::string(mode) +
                                       " --resolution " + std::to_string(dpi), &status);
      ASSERT_EQ(status, 0) << what;
      LocalScan("--source flatbed --area 150,300,600,300 --mode " + std::string(local) + " --resolution " +
                    std::to_string(dpi), "local.png");
      ExpectSamePage(pnm, "local.png", 2 * dpi, what);
    }
  }
}

TEST_F(ServeToAirscan, FeederBatchGivesEachPageOnceAndAnEmptyFeederIsSaid) {
  int status = 0;
  sxtest::RunShell("cd '" + root_.Path().string() + "' && " +
            Scanimage("-d " + std::string(kDevice) + " --source ADF --batch=adf%d.pnm --format=pnm --mode Gray "
                      "--resolution 100 -x 50.8 -y 25.4 2>&1", 10), &status);
  LocalScan("--source feeder --pages 3 --area 0,0,600,300 --mode gray --resolution 100", "local.tif");
  const std::vector<TiffPage> local = ReadTiff(Path("local.tif"));
  ASSERT_EQ(local.size(), 3u);
  for (int page = 1; page <= 3; ++page) {
    int w = 0, h = 0;
    const std::vector<uint8_t> pixels = PnmPixels(sxtest::ReadFile(Path("adf" + std::to_string(page) + ".pnm")), &w, &h);
    EXPECT_TRUE(pixels == local[page - 1].raster) << "page " << page;
  }
  EXPECT_FALSE(fs::exists(Path("adf4.pnm")));
  // One request per page, and a fourth that finds none.
  EXPECT_NE(ReadLog().find("NextDocument: 404"), std::string::npos);
  // An empty feeder: the job is refused and the client says so.
  root_.InstallVscan(kVscanDir, "[Feeder]\nSheets=0\n");
  Scan("--source ADF --format=pnm --mode Gray --resolution 100 -x 50.8 -y 25.4", &status);
  EXPECT_EQ(sxtest::ExitCode(status), 7) << "SANE_STATUS_NO_DOCS";
  EXPECT_NE(ReadLog().find("POST /eSCL/ScanJobs: 409"), std::string::npos);
}

// A person stops a scan part-way (one interrupt: the client cancels the
// job), and another client scanning at the same time waits its turn.
TEST_F(ServeToAirscan, CancelMidPageAndTwoClientsAtOnce) {
  Pace(4000);  // 8 inches at 100 dpi: 3.2 s a page
  const std::string slow = "-d " + std::string(kDevice) + " --format=pnm --mode Gray --resolution 100 -x 50.8 -y 203.2";
  const std::string started = "POST /eSCL/ScanJobs: 201";
  {
    Started stopped(Scanimage(slow + " >/dev/null 2>&1"));
    ASSERT_TRUE(WaitForLog(started, 1));
    std::this_thread::sleep_for(500ms);
    stopped.Wait(SIGINT);  // what scanimage then answers depends on where the interrupt found it
  }
  const std::string status = IdleStatus();
  EXPECT_NE(status.find("<pwg:State>Idle</pwg:State>"), std::string::npos) << status;
  EXPECT_NE(status.find("<pwg:JobState>Canceled</pwg:JobState>"), std::string::npos) << status;

  Pace(2000);  // 1.6 s a page
  Started first(Scanimage(slow + " >'" + Path("first.pnm") + "' 2>/dev/null"));
  ASSERT_TRUE(WaitForLog(started, 2));
  int second = 0;
  const std::string pnm = Scan("--format=pnm --mode Gray --resolution 100 -x 50.8 -y 25.4", &second);
  const int firstStatus = first.Wait();
  EXPECT_TRUE(firstStatus == 0 || firstStatus == 124 || firstStatus == 137) << firstStatus;  // stopped in sane_close
  EXPECT_EQ(second, 0) << "the second client waits for the scanner and scans";
  EXPECT_NE(ReadLog().find("POST /eSCL/ScanJobs: 503"), std::string::npos) << "it was told to wait";
  int w = 0, h = 0;
  EXPECT_EQ(PnmPixels(sxtest::ReadFile(Path("first.pnm")), &w, &h).size(), 200u * 800u);
  EXPECT_EQ(PnmPixels(pnm, &w, &h).size(), 200u * 100u);
}

// Raw requests: the server's answers to what clients may send.
std::string Settings(const std::string& body) {
  return "<?xml version=\"1.0\"?><scan:ScanSettings xmlns:scan=\"http://schemas.hp.com/imaging/escl/2011/05/03\" "
         "xmlns:pwg=\"http://www.pwg.org/schemas/2010/12/sm\"><pwg:Version>2.0</pwg:Version>" + body +
         "</scan:ScanSettings>";
}
// A page's settings, naming XResolution only, as some clients do.
std::string Page(const std::string& mode, int dpi, const std::string& format, int width = 600, int height = 300,
                 const std::string& source = "Platen", const std::string& more = "") {
  return Settings("<pwg:ScanRegions><pwg:ScanRegion><pwg:Height>" + std::to_string(height) +
                  "</pwg:Height><pwg:Width>" + std::to_string(width) +
                  "</pwg:Width><pwg:XOffset>0</pwg:XOffset><pwg:YOffset>0</pwg:YOffset></pwg:ScanRegion>"
                  "</pwg:ScanRegions><pwg:InputSource>" + source + "</pwg:InputSource><scan:ColorMode>" + mode +
                  "</scan:ColorMode><scan:XResolution>" + std::to_string(dpi) +
                  "</scan:XResolution><scan:DocumentFormatExt>" + format + "</scan:DocumentFormatExt>" + more);
}

TEST_F(Serve, HostileAndImpossibleRequestsChangeNothing) {
  auto caps = client_->Get("/eSCL/ScannerCapabilities");
  ASSERT_TRUE(caps);
  EXPECT_EQ(caps->status, 200);
  EXPECT_NE(caps->body.find("<scan:DiscreteResolution>"), std::string::npos);
  const std::string before = client_->Get("/eSCL/ScannerStatus")->body;
  const std::string page = Page("Grayscale8", 100, "image/png"), own = "http://127.0.0.1:" + std::to_string(port_);
  struct Case {
    std::string body;
    int status;
    httplib::Headers headers = {};
    const char* type = "text/xml";
  } posts[] = {
      // Which settings are refused, and why, is the eSCL suite's: here one of
      // each answer.
      {"<<<", 400},
      {Page("RGB24", 300, "image/png", 2600, 300), 409},
      {Settings(std::string(100 * 1024, ' ')), 413},
      // Another site's page, which the browser names; a form's types.
      {page, 403, {{"Origin", "http://evil.example"}}},
      {page, 403, {{"Origin", own}, {"Sec-Fetch-Site", "cross-site"}}},
      {page, 415, {}, "text/plain"},
      {page, 415, {}, "application/x-www-form-urlencoded"},
  };
  for (const auto& c : posts) {
    auto res = client_->Post("/eSCL/ScanJobs", c.headers, c.body, c.type);
    ASSERT_TRUE(res) << c.body.substr(0, 200);
    EXPECT_EQ(res->status, c.status) << c.body.substr(0, 300);
    EXPECT_FALSE(res->has_header("Location"));
  }
  // A body that announces no length (chunked) is held to the same limit.
  auto chunked = client_->Post(
      "/eSCL/ScanJobs",
      [](size_t offset, httplib::DataSink& sink) {
        const std::string block(16 * 1024, ' ');
        return offset < 100 * 1024 ? sink.write(block.data(), block.size()) : (sink.done(), true);
      },
      "text/xml");
  ASSERT_TRUE(chunked);
  EXPECT_EQ(chunked->status, 413);
  for (const char* path : {"/eSCL/ScanJobs/00000000-0000-4000-8000-000000000000/NextDocument",
                           "/eSCL/ScanJobs/..%2F..%2Fetc%2Fpasswd/NextDocument", "/eSCL/../etc/passwd", "/etc/passwd",
                           "/eSCL/ScanJobs/x/NextDocument"}) {
    auto res = client_->Get(path);
    ASSERT_TRUE(res) << path;
    EXPECT_EQ(res->status, 404) << path;
  }
  EXPECT_EQ(client_->Delete("/eSCL/ScanJobs/00000000-0000-4000-8000-000000000000")->status, 404);
  EXPECT_EQ(client_->Get("/eSCL/ScannerStatus")->body, before) << "no job was made";

  // Every answer, the web page's too, keeps other sites' pages from framing,
  // reading or reinterpreting it; none lets another origin read it.
  for (const char* path : {"/", "/sxscan.js", "/eSCL/ScannerStatus", "/nothing"}) {
    auto res = client_->Get(path);
    ASSERT_TRUE(res) << path;
    EXPECT_NE(res->get_header_value("Content-Security-Policy").find("frame-ancestors 'none'"), std::string::npos) << path;
    EXPECT_EQ(res->get_header_value("X-Content-Type-Options"), "nosniff") << path;
    EXPECT_EQ(res->get_header_value("Referrer-Policy"), "no-referrer") << path;
    EXPECT_FALSE(res->has_header("Access-Control-Allow-Origin")) << path;
  }
  auto html = client_->Get("/");
  EXPECT_EQ(html->get_header_value("Content-Type"), "text/html; charset=utf-8");
  EXPECT_NE(html->body.find("<script src=\"/sxscan.js\""), std::string::npos);
}

TEST_F(Serve, JpegAndPdfPagesAndOneJobAtATime) {
  // As the server's own page posts.
  const std::string own = "http://127.0.0.1:" + std::to_string(port_);
  auto post = client_->Post("/eSCL/ScanJobs", {{"Origin", own}, {"Sec-Fetch-Site", "same-origin"}},
                            Page("Grayscale8", 100, "image/jpeg"), "application/xml; charset=utf-8");
  ASSERT_TRUE(post);
  ASSERT_EQ(post->status, 201) << post->body;
  const std::string job = post->get_header_value("Location");
  ASSERT_EQ(job.rfind("/eSCL/ScanJobs/", 0), 0u) << job;
  // The page waits for its client: the scanner is not free for another job.
  auto busy = client_->Post("/eSCL/ScanJobs", Page("RGB24", 100, "image/png"), "text/xml");
  ASSERT_TRUE(busy);
  EXPECT_EQ(busy->status, 503);
  EXPECT_EQ(busy->get_header_value("Retry-After"), "5");

  // HEAD cannot say whether a page comes without taking it: it is refused,
  // and the page is still there for GET.
  auto head = client_->Head(job + "/NextDocument");
  ASSERT_TRUE(head);
  EXPECT_EQ(head->status, 405);
  EXPECT_EQ(head->get_header_value("Allow"), "GET");
  auto page = client_->Get(job + "/NextDocument");
  ASSERT_TRUE(page);
  ASSERT_EQ(page->status, 200);
  EXPECT_EQ(page->get_header_value("Content-Type"), "image/jpeg");
  LocalScan("--source flatbed --area 0,0,600,300 --mode gray --resolution 100", "local.jpg");
  const JpegRead served = DecodeJpeg(std::vector<uint8_t>(page->body.begin(), page->body.end()));
  const JpegRead local = DecodeJpeg(ReadBytes(Path("local.jpg")));
  ASSERT_TRUE(served.ok && local.ok);
  EXPECT_TRUE(served.width == 200 && served.height == 100 && served.raster == local.raster);
  EXPECT_EQ(client_->Get(job + "/NextDocument")->status, 404);
  EXPECT_EQ(client_->Delete(job, {{"Origin", "http://evil.example"}})->status, 403);
  EXPECT_EQ(client_->Delete(job, {{"Origin", own}})->status, 200);

  page = client_->Get(StartJob(Page("BlackAndWhite1", 150, "application/pdf")) + "/NextDocument");
  ASSERT_TRUE(page);
  const std::vector<PdfPage> pdf = ReadPdf(std::vector<uint8_t>(page->body.begin(), page->body.end()));
  ASSERT_EQ(pdf.size(), 1u);
  EXPECT_TRUE(pdf[0].imageWidth == 300 && pdf[0].imageHeight == 150 && pdf[0].bits == 1) << pdf[0].imageWidth;
}

// A feeder batch asked for as one PDF as well: each page comes as a document
// of its own as it is scanned, the PDF of them all once the job is over.
// Brightness reaches the scanner as `sxscan scan --set brightness` does.
TEST_F(Serve, AFeederBatchAsOnePdfAndBrightness) {
  const std::string batch = Page("Grayscale8", 100, "image/png", 600, 300, "Feeder",
                                 "<scan:Brightness>1200</scan:Brightness>"
                                 "<sx:BatchPdf xmlns:sx=\"urn:sxscan:escl\">true</sx:BatchPdf>");
  const std::string job = StartJob(batch);
  std::vector<PngRead> pages;
  for (auto res = client_->Get(job + "/NextDocument"); res && res->status == 200; res = client_->Get(job + "/NextDocument")) {
    sxtest::WriteFile(Path("page.png"), res->body);
    pages.push_back(ReadPng(Path("page.png")));
  }
  ASSERT_EQ(pages.size(), 3u);
  auto pdf = client_->Get(job + "/BatchPdf");
  ASSERT_TRUE(pdf);
  ASSERT_EQ(pdf->status, 200) << pdf->body;
  EXPECT_EQ(pdf->get_header_value("Content-Type"), "application/pdf");
  const std::vector<PdfPage> inPdf = ReadPdf(std::vector<uint8_t>(pdf->body.begin(), pdf->body.end()));
  ASSERT_EQ(inPdf.size(), 3u);
  for (size_t i = 0; i < 3; ++i) EXPECT_TRUE(inPdf[i].raster == pages[i].raster) << "page " << i + 1;
  LocalScan("--source feeder --pages 1 --area 0,0,600,300 --mode gray --resolution 100 --set brightness=200", "bright.png");
  EXPECT_TRUE(ReadPng(Path("bright.png")).raster == pages[0].raster);
  EXPECT_EQ(client_->Get(job + "/BatchPdf")->body, pdf->body) << "fetched again";

  // Not asked for, or a job that did not end whole: no PDF.
  IdleStatus();
  const std::string single = StartJob(Page("Grayscale8", 100, "image/png"));
  EXPECT_EQ(client_->Get(single + "/BatchPdf")->status, 404);
  EXPECT_EQ(client_->Get(single + "/NextDocument")->status, 200);
  IdleStatus();
  Pace(4000);  // 0.4 s a page: the job is cancelled mid-batch
  const std::string cancelled = StartJob(batch);
  EXPECT_EQ(client_->Delete(cancelled)->status, 200);
  EXPECT_EQ(client_->Get(cancelled + "/BatchPdf")->status, 409);
}

// A client that goes away mid-page: the scan stops, and the next job runs.
// Meanwhile the server holds no more than its bounded queue of the page.
TEST_F(Serve, AClientThatLeavesMidPageCancelsTheScan) {
  Pace(1000);  // a Letter page at 300 dpi: 3.3 s
  const std::string letter = Page("RGB24", 300, "image/png", 2550, 3300);
  size_t received = 0;
  auto page = client_->Get(StartJob(letter) + "/NextDocument",
                           [&](const char*, size_t n) { return (received += n) < 100000; });
  EXPECT_FALSE(page) << "the client stopped reading";
  const std::string status = IdleStatus();
  EXPECT_NE(status.find("<pwg:JobState>Canceled</pwg:JobState>"), std::string::npos) << status;
  EXPECT_NE(ReadLog().find("the job is cancelled"), std::string::npos);

  Pace(0);
  page = client_->Get(StartJob(letter) + "/NextDocument");
  ASSERT_TRUE(page);
  EXPECT_EQ(page->status, 200);
  sxtest::WriteFile(Path("served.png"), page->body);
  const PngRead png = ReadPng(Path("served.png"));
  EXPECT_TRUE(png.ok && png.height == 3300);
  // A 25 MB page went through; the server's peak stayed far below it. (A
  // sanitizer's shadow memory would count too.)
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  const std::string proc = sxtest::ReadFile("/proc/" + std::to_string(server_->Pid()) + "/status");
  const size_t at = proc.find("VmHWM:");
  ASSERT_NE(at, std::string::npos);
  EXPECT_LT(std::stol(proc.substr(at + 6)), 24 * 1024) << "kB";
#endif

  // A server told to stop mid-page stops at once, and the scan with it.
  Pace(1000);
  const std::string job = StartJob(letter);
  std::atomic<size_t> streamed{0};
  std::thread reader([&] {
    client_->Get(job + "/NextDocument", [&](const char*, size_t n) {
      streamed += n;
      return true;
    });
  });
  for (int i = 0; i < 500 && streamed == 0; ++i) std::this_thread::sleep_for(10ms);
  const auto stopping = std::chrono::steady_clock::now();
  EXPECT_EQ(server_->Wait(SIGTERM), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - stopping, 1s);
  reader.join();
  EXPECT_TRUE(WaitForLog("the job is cancelled", 2)) << "the scan in progress was cancelled";
}

// The server is reached only by its own port, addresses and names: a second
// server on its port is refused rather than sharing it; a wildcard address,
// which nobody can type, is shown as the machine's addresses and names; and
// a request must name one of them (a web page that points a name of its own
// at this machine must not reach the scanner).
TEST_F(Serve, AnswersOnItsOwnPortAddressesAndNamesOnly) {
  const std::string port = std::to_string(port_);
  int status = 0;
  const std::string second =
      sxtest::RunShell("timeout 10 '" SX_TEST_SXSCAN "' serve --no-announce --port " + port + " 2>&1", &status);
  EXPECT_EQ(WEXITSTATUS(status), 1) << second;
  EXPECT_NE(second.find("cannot listen on 127.0.0.1 port " + port), std::string::npos) << second;

  const std::string host = HostName();
  for (const auto& [name, expected] :
       {std::pair{"127.0.0.1:" + port, 200}, {"LocalHost", 200}, {host + ":" + port, 200},
        {"evil.example:" + port, 421}, {"127.0.0.1.evil.example", 421}, {"[::1]", 421}}) {
    auto res = client_->Get("/eSCL/ScannerCapabilities", {{"Host", name}});
    ASSERT_TRUE(res) << name;
    EXPECT_EQ(res->status, expected) << name;
  }

  Started wide("'" SX_TEST_SXSCAN "' serve --listen 0.0.0.0 --port 0 --no-announce 2>/dev/null");
  const std::string first = wide.Line();
  const size_t colon = first.rfind(':');
  ASSERT_NE(colon, std::string::npos) << first;
  ASSERT_EQ(first.find("0.0.0.0"), std::string::npos) << first;
  // Loopback comes last.
  std::string lines = first;
  while (lines.find("127.0.0.1") == std::string::npos) lines += wide.Line();
  EXPECT_NE(lines.find("http://" + host + ":"), std::string::npos) << lines;
  EXPECT_NE(lines.find("http://127.0.0.1:"), std::string::npos) << lines;
  // The first address shown is one the server answers to.
  const size_t from = first.find("http://") + 7;
  httplib::Client toWide("127.0.0.1", std::stoi(first.substr(colon + 1)));
  auto res = toWide.Get("/eSCL/ScannerCapabilities", {{"Host", first.substr(from, colon - from)}});
  ASSERT_TRUE(res) << first;
  EXPECT_EQ(res->status, 200) << first;
  EXPECT_EQ(wide.Wait(SIGTERM), 0);
}

// Clients that open connections and send part of a request hold a socket
// each, never the server: another client is answered at once. One client
// address holds at most its share. What clients leave behind is let go in
// time: partial requests after the header and body deadlines, a job whose
// pages nobody asks for after its timeout (the scanner is free again).
TEST_F(Serve, SlowAndAbandonedClientsCannotTakeTheServerAway) {
  using Clock = std::chrono::steady_clock;
  ASSERT_NE(StartJob(Page("Grayscale8", 100, "image/png")), "");
  const auto created = Clock::now();
  Sockets partial;
  for (int i = 0; i < 256; ++i) {
    partial.Open("127.0.1." + std::to_string(1 + i % 16), port_,
                 i % 2 ? "GET /eSCL/ScannerStatus HTTP/1.1\r\nHost: 127.0.0.1\r\n"
                       : "POST /eSCL/ScanJobs HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: text/xml\r\n"
                         "Content-Length: 1000\r\n\r\n<?xml");
  }
  const auto asked = Clock::now();
  auto caps = client_->Get("/eSCL/ScannerCapabilities");
  ASSERT_TRUE(caps);
  EXPECT_EQ(caps->status, 200);
  // 250 ms on an idle machine; this leaves room for a loaded one.
  EXPECT_LT(Clock::now() - asked, 1s) << "answered among 256 partial requests";

  Sockets greedy;
  for (int i = 0; i < 16; ++i) greedy.Open("127.0.0.5", port_);
  EXPECT_FALSE(ClientFrom("127.0.0.5", port_)->Get("/eSCL/ScannerCapabilities")) << "a 17th connection is refused";
  auto other = ClientFrom("127.0.0.6", port_)->Get("/eSCL/ScannerCapabilities");
  ASSERT_TRUE(other) << "while another client is served";
  EXPECT_EQ(other->status, 200);
  EXPECT_EQ(partial.Closed(), 0u);

  std::this_thread::sleep_until(asked + 6s);
  EXPECT_EQ(partial.Closed(), partial.Size()) << "closed after the header and body deadlines";
  EXPECT_EQ(greedy.Closed(), greedy.Size());

  const std::string status = IdleStatus();
  EXPECT_GE(Clock::now() - created, 4s) << status;
  EXPECT_NE(status.find("<pwg:JobState>Aborted</pwg:JobState>"), std::string::npos) << status;
  EXPECT_NE(status.find("<pwg:JobStateReason>AbortedBySystem</pwg:JobStateReason>"), std::string::npos) << status;
  // The scanner is free again.
  EXPECT_EQ(client_->Get(StartJob(Page("Grayscale8", 100, "image/png")) + "/NextDocument")->status, 200);
}

}  // namespace
}  // namespace sx::host
#endif
