// `sxscan serve`: the eSCL server. Its resources are routes on the HTTP
// layer (HttpServer.h), whose handlers run on worker threads; the scanner
// and its jobs (EsclScanner.h) keep the library to one thread at a time.
#include <algorithm>
#include <atomic>
#include <cctype>
#include <csignal>
#include <cstdio>
#include <thread>
#include <vector>

#include "documents/DocumentStream.h"
#include "kit/Capabilities.h"
#include "kit/Exit.h"
#include "serve/EsclAnnounce.h"
#include "serve/EsclScanner.h"
#include "serve/EsclServer.h"
#include "serve/HttpHost.h"
#include "serve/HttpServer.h"
#include "serve/Network.h"
#include "serve/WebPage.h"

namespace sx::host {
namespace {

using namespace std::chrono_literals;
using escl::Job;
using escl::Scanner;
using http::Reply;
using http::Request;
using http::Response;

// What one client, and all of them, may hold open at once: a scanning
// client uses two or three connections, a browser six; a client past its
// share is turned away without taking anyone else's.
constexpr unsigned kConnections = 512;
constexpr unsigned kConnectionsPerAddress = 16;
// A request's header must be in whole this long after its connection opened
// or its previous response ended (so an idle connection is closed after it
// too), and its body this long after the header: clients send both at once.
constexpr auto kHeaderDeadline = 5s;
constexpr auto kBodyDeadline = 5s;
// A client that takes no byte of a response for this long is dropped.
constexpr auto kStalledClient = 30s;
// What a client is told to wait before asking again while the scanner is busy.
constexpr char kRetryAfterSeconds[] = "5";
// How long NextDocument waits for a page to begin (a lamp warming up), and
// a response for the next bytes of a page being scanned.
constexpr auto kFirstBytesWait = 120s;
constexpr auto kNextBytesWait = 120s;
// How often the server looks for a stop signal and for jobs nobody fetched.
constexpr auto kHousekeeping = 100ms;
// How often, at most, the machine's addresses are read again for a Host
// header that names none of them (an address may come with a new network).
constexpr auto kAddressesRefresh = 5s;
constexpr char kJobPath[] = "/eSCL/ScanJobs/";
constexpr char kJobPattern[] = "/eSCL/ScanJobs/([0-9a-f-]{36})";  // the UUIDs this server makes
constexpr char kIconPath[] = "/eSCL/icon.png";
constexpr char kXml[] = "text/xml";
// What the batch PDF hands a response at a time.
constexpr size_t kBatchBlock = 64 * 1024;
// Every response: the page's script and style come from this server only
// and never run inside another site's frame; nothing is taken for another
// type than the one stated; no address of the page travels to other sites;
// no other site's page may embed or read what this server answers. (No
// header here allows another origin to read anything.)
const http::Fields kCommonHeaders = {
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' blob:; connect-src 'self'; "
     "base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"X-Frame-Options", "DENY"},
    {"Referrer-Policy", "no-referrer"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Cross-Origin-Opener-Policy", "same-origin"},
};

std::atomic<bool> g_stop{false};
extern "C" void OnStopSignal(int) { g_stop.store(true); }

Reply Answer(Response* res, int status, const std::string& why) {
  res->status = status;
  res->contentType = "text/plain";
  res->body = why + "\n";
  return Reply::Answered;
}

Reply Busy(Response* res, const std::string& why) {
  res->headers.emplace_back("Retry-After", kRetryAfterSeconds);
  return Answer(res, 503, why);
}

Reply Content(Response* res, std::string body, const char* type) {
  res->body = std::move(body);
  res->contentType = type;
  return Reply::Answered;
}

// The picture clients show beside the scanner's name: a flatbed seen from
// the front, lid over glass, drawn once at start.
std::string ScannerIconPng() {
  constexpr uint32_t kSide = 128;
  struct StringSink : ByteSink {
    std::string bytes;
    bool Write(const void* data, size_t n) override {
      bytes.append(static_cast<const char*>(data), n);
      return true;
    }
  } sink;
  PageFormat format;
  format.kind = PixelKind::Rgb;
  format.width = format.lines = kSide;
  format.bytesPerLine = kSide * 3;
  std::vector<uint8_t> line(format.bytesPerLine);
  auto encoder = MakeDocumentEncoder(DocumentFormat::Png, sink, 0);
  std::string error;
  if (!encoder || !encoder->BeginPage(format, &error)) return {};
  for (uint32_t y = 0; y < kSide; ++y) {
    for (uint32_t x = 0; x < kSide; ++x) {
      const bool body = x >= 12 && x < 116 && y >= 44 && y < 96;
      const bool lid = x >= 12 && x < 116 && y >= 36 && y < 44;
      const bool glass = body && y >= 52 && y < 58 && x >= 20 && x < 108;
      const uint8_t rgb[3] = {static_cast<uint8_t>(glass ? 90 : lid ? 60 : body ? 120 : 255),
                              static_cast<uint8_t>(glass ? 170 : lid ? 60 : body ? 120 : 255),
                              static_cast<uint8_t>(glass ? 230 : lid ? 70 : body ? 130 : 255)};
      std::copy(rgb, rgb + 3, line.begin() + x * 3);
    }
    if (!encoder->WriteLines(line.data(), 1, &error)) return {};
  }
  if (!encoder->EndPage(&error) || !encoder->Finish(&error)) return {};
  return sink.bytes;
}

// What the handlers work on.
struct Service {
  Scanner& scanner;
  http::Server& server;
  const std::string icon;
};

Reply Icon(Service& s, const Request&, Response* res) { return Content(res, s.icon, "image/png"); }

Reply Capabilities(Service& s, const Request&, Response* res) {
  return Content(res, escl::CapabilitiesXml(s.scanner.Facts(), ""), kXml);
}

Reply Status(Service& s, const Request&, Response* res) {
  s.scanner.RefreshWhenIdle();
  return Content(res, escl::StatusXml(s.scanner.Facts(), s.scanner.Busy(), s.scanner.Summaries()), kXml);
}

Reply PostJob(Service& s, const Request& req, Response* res) {
  escl::ScanRequest request;
  std::string error;
  if (!escl::ParseScanSettings(req.body, &request, &error)) return Answer(res, 400, error);
  if (!escl::ResolveScanRequest(s.scanner.Facts(), &request, &error)) return Answer(res, 409, error);
  std::shared_ptr<Job> job;
  switch (s.scanner.StartJob(request, &job, &error)) {
    case Scanner::Start::Busy: return Busy(res, "the scanner is busy with another job");
    case Scanner::Start::Refused: return Answer(res, 409, error);
    case Scanner::Start::Started: break;
  }
  std::fprintf(stderr, "sxscan: job %s: %s %s at %u dpi, %ux%u+%u+%u, %s\n", job->uuid.c_str(),
               request.source == escl::InputSource::Feeder ? "feeder" : "platen", ColourModeName(request.mode),
               request.xResolution, request.region.width, request.region.height, request.region.x, request.region.y,
               MimeType(request.format));
  res->status = 201;
  res->headers.emplace_back("Location", kJobPath + job->uuid);
  return Reply::Answered;
}

// Why a job that sent nothing (more) has no document: 404 for a job that is
// over as it should be, the failure otherwise.
Reply NoDocument(Job& job, Response* res) {
  std::lock_guard<std::mutex> guard(job.lock);
  if (job.pagesSent > 0 || job.state == escl::JobState::Completed || job.state == escl::JobState::Canceled)
    return Answer(res, 404, "the job has no more pages");
  if (job.noPaper) return Answer(res, 409, "the feeder holds no paper");
  if (job.unfetched) return Answer(res, 410, "the job was aborted: nobody asked for its pages in time");
  return Answer(res, 500, "the scan failed: " + (job.failure.empty() ? ResultText(job.result) : job.failure));
}

// A page streamed to one response while it is scanned. The job's reader
// slot, taken by the request, is given back once: at the page's end (before
// the client can see it, so that its next request finds the slot free) or
// when the response ends. A response that ends before its page does (the
// client went away) cancels the job.
class PageStream : public http::BodySource {
 public:
  PageStream(std::shared_ptr<Job> job, http::Server& server) : job_(std::move(job)), server_(server) {}

  Pull Read(std::string* chunk, http::Clock::time_point* waitUntil) override {
    switch (job_->queue.Next(chunk, 0s)) {
      case escl::DocumentQueue::Read::Bytes: Touch(false); return Pull::Bytes;
      case escl::DocumentQueue::Read::DocumentEnd:
        complete_ = true;
        Touch(true);
        Give();
        return Pull::End;
      case escl::DocumentQueue::Read::Failed: return Pull::Failed;
      case escl::DocumentQueue::Read::Empty: break;
    }
    *waitUntil = lastBytes_ + kNextBytesWait;
    return http::Clock::now() < *waitUntil ? Pull::Later : Pull::Failed;
  }

  void Finished(bool whole) override {
    if (!complete_ || !whole) {
      std::fprintf(stderr, "sxscan: job %s: the page was not sent whole; the job is cancelled\n", job_->uuid.c_str());
      job_->Cancel();
      // The scan may have ended before the client left; the page it never
      // got makes the job cancelled all the same.
      std::lock_guard<std::mutex> guard(job_->lock);
      if (!job_->unfetched) job_->state = escl::JobState::Canceled;
    }
    Give();
  }

 private:
  void Touch(bool pageEnd) {
    lastBytes_ = http::Clock::now();
    std::lock_guard<std::mutex> guard(job_->lock);
    job_->lastRead = Job::Clock::now();
    if (pageEnd) ++job_->pagesSent;
  }
  void Give() {
    if (given_) return;
    given_ = true;
    job_->reader.Give();
    server_.Wake();  // a request may wait for the slot
  }

  std::shared_ptr<Job> job_;
  http::Server& server_;
  http::Clock::time_point lastBytes_ = http::Clock::now();
  bool complete_ = false;
  bool given_ = false;
};

// The next page of a job, streamed while it is scanned. A client asks for
// the next page as soon as the last one's end reached it, which may be
// before the response that sent it has let go, or before the page begins
// (a lamp warming up): the request waits rather than being turned away.
Reply NextDocument(Service& s, const Request& req, Response* res) {
  std::shared_ptr<Job> job = s.scanner.Find(req.matches[1]);
  if (!job) return Answer(res, 404, "no such job");
  job->MarkFetched();
  const bool late = http::Clock::now() - req.arrived >= kFirstBytesWait;
  res->waitUntil = req.arrived + kFirstBytesWait;
  switch (job->queue.WaitForDocument(0s)) {
    case escl::DocumentQueue::Wait::NoMore: return NoDocument(*job, res);
    case escl::DocumentQueue::Wait::TimedOut: return late ? Busy(res, "the page has not begun yet") : Reply::Wait;
    case escl::DocumentQueue::Wait::Ready: break;
  }
  if (!job->reader.TakeWithin(0s)) return late ? Busy(res, "another request is reading this job") : Reply::Wait;
  res->stream = std::make_shared<PageStream>(job, s.server);
  res->contentType = MimeType(job->request.format);
  return Reply::Answered;
}

// The headers a GET would get depend on whether a next page comes, which is
// known only by waiting for it and taking it: HEAD is refused rather than
// using up the page.
Reply HeadNextDocument(Service& s, const Request& req, Response* res) {
  if (!s.scanner.Find(req.matches[1])) return Answer(res, 404, "no such job");
  res->headers.emplace_back("Allow", "GET");
  return Answer(res, 405, "a page is known only by taking it: ask with GET");
}

// The job's pages as one PDF (ScanRequest::batchPdf), read from its
// temporary file.
class BatchStream : public http::BodySource {
 public:
  explicit BatchStream(std::shared_ptr<Job> job) : job_(std::move(job)) {}
  Pull Read(std::string* chunk, http::Clock::time_point*) override {
    chunk->resize(kBatchBlock);
    bool failed = false;
    const size_t n = job_->batch->Read(at_, chunk->data(), chunk->size(), &failed);
    if (failed) return Pull::Failed;
    if (n == 0) return Pull::End;
    chunk->resize(n);
    at_ += n;
    return Pull::Bytes;
  }
  void Finished(bool) override {}

 private:
  std::shared_ptr<Job> job_;
  uint64_t at_ = 0;
};

// The batch is whole once the job is over: a client asks for it after the
// job's last page, maybe before the scanner has let go; it waits then.
Reply BatchDocument(Service& s, const Request& req, Response* res) {
  std::shared_ptr<Job> job = s.scanner.Find(req.matches[1]);
  if (!job) return Answer(res, 404, "no such job");
  if (!job->batch) return Answer(res, 404, "the job was not asked for one PDF of its pages (BatchPdf)");
  switch (job->batch->Current()) {
    case escl::BatchPdf::State::Failed:
      return Answer(res, 409, "the job ended before all its pages were scanned: there is no PDF of them");
    case escl::BatchPdf::State::Writing:
      if (http::Clock::now() - req.arrived >= kFirstBytesWait) return Busy(res, "the job is not over yet");
      res->waitUntil = req.arrived + kFirstBytesWait;
      return Reply::Wait;
    case escl::BatchPdf::State::Ready: break;
  }
  res->stream = std::make_shared<BatchStream>(job);
  res->contentType = MimeType(escl::Format::Pdf);
  res->headers.emplace_back("Content-Disposition", "attachment; filename=\"scan.pdf\"");
  return Reply::Answered;
}

Reply DeleteJob(Service& s, const Request& req, Response* res) {
  std::shared_ptr<Job> job = s.scanner.Find(req.matches[1]);
  if (!job) return Answer(res, 404, "no such job");
  job->Cancel();
  res->status = 200;
  return Reply::Answered;
}

void AddRoutes(http::Server& server, Service& service) {
  using Handler = Reply (*)(Service&, const Request&, Response*);
  const std::string job = kJobPattern;
  const struct {
    const char* method;
    std::string pattern;
    Handler handler;
  } routes[] = {
      {"GET", kIconPath, Icon},
      {"GET", "/eSCL/ScannerCapabilities", Capabilities},
      {"GET", "/eSCL/ScannerStatus", Status},
      {"POST", "/eSCL/ScanJobs", PostJob},
      {"GET", job + "/NextDocument", NextDocument},
      {"HEAD", job + "/NextDocument", HeadNextDocument},
      {"GET", job + "/BatchPdf", BatchDocument},
      {"DELETE", job, DeleteJob},
  };
  for (const auto& r : routes) {
    server.Route(r.method, r.pattern, [&service, h = r.handler](const Request& req, Response* res) {
      return h(service, req, res);
    });
  }
  // The page's files, each at its own path (a '.' in it taken literally).
  for (size_t i = 0; i < web::kFileCount; ++i) {
    const web::File& file = web::kFiles[i];
    std::string pattern;
    for (const char* c = file.path; *c; ++c) pattern += *c == '.' ? std::string("\\.") : std::string(1, *c);
    server.Route("GET", pattern, [&file](const Request&, Response* res) {
      res->headers.emplace_back("Cache-Control", "no-cache");
      return Content(res, std::string(reinterpret_cast<const char*>(file.bytes), file.size), file.contentType);
    });
  }
}

bool IsLoopback(const std::string& address) {
  return address.rfind("127.", 0) == 0 || address == "::1" || address == "localhost";
}

// The addresses and names the server is reached by, as a person types them.
struct Reach {
  std::vector<std::string> addresses;  // for a wildcard, the machine's; loopback last
  std::vector<std::string> names;      // the host name (.local when announced); `--listen` when a name
};

Reach ReachOf(const std::string& listen, const net::Listening& listening, bool announced) {
  Reach reach;
  reach.addresses =
      listening.wildcard ? net::InterfaceAddresses(listening.ipv6, false) : std::vector{listening.address};
  const std::string host = net::HostName();
  if (!host.empty() && host != "localhost") reach.names.push_back(announced ? host + ".local" : host);
  if (http::CanonicalAddress(listen).empty() && !listening.wildcard && listen != "localhost")
    reach.names.push_back(listen);
  return reach;
}

// The eSCL root by default; with `path` "/", the web page.
std::string Url(const std::string& host, int port, const char* path = "/eSCL") {
  const bool ipv6 = host.find(':') != std::string::npos;
  return "http://" + (ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(port) + path;
}

// The first line names the address to use. A wildcard is no address to
// type: the machine's addresses and names follow it instead (a name
// survives a change of address). The web page's address comes last.
void PrintReach(const std::string& scanner, const std::string& listen, const net::Listening& listening,
                const Reach& reach) {
  std::vector<std::string> hosts = {listen};
  if (listening.wildcard) {
    hosts = reach.addresses;
    hosts.insert(hosts.begin() + (hosts.empty() ? 0 : 1), reach.names.begin(), reach.names.end());
  }
  const std::string shown = hosts.empty() ? "localhost" : hosts[0];
  std::printf("serving %s at %s\n", scanner.c_str(), Url(shown, listening.port).c_str());
  for (size_t i = 1; i < hosts.size(); ++i) std::printf("  also at %s\n", Url(hosts[i], listening.port).c_str());
  std::printf("scan from a browser at %s\n", Url(shown, listening.port, "/").c_str());
  std::fflush(stdout);
}

// A ScanSettings document is XML. A form on another site's page can post
// text/plain without the browser asking first; XML it cannot.
bool IsXml(std::string_view type) {
  std::string media(type.substr(0, type.find(';')));
  std::erase_if(media, [](unsigned char c) { return std::isspace(c); });
  std::transform(media.begin(), media.end(), media.begin(), [](unsigned char c) { return std::tolower(c); });
  return media == "text/xml" || media == "application/xml";
}

bool ChangesState(const std::string& method) { return method != "GET" && method != "HEAD" && method != "OPTIONS"; }

// Requests must name this server: its addresses, localhost, its host name;
// those that change anything must come from its own pages, or from no page
// at all (see HttpHost.h); and what they send must be XML. Runs on the
// event thread only.
class RequestGate {
 public:
  RequestGate(const Reach& reach, const net::Listening& listening) : listening_(listening) {
    allowed_.names = {"localhost"};
    for (const auto& name : reach.names) allowed_.names.push_back(Lower(name));
    // `foo.local` is reached as `foo` too on networks with a DNS of their own.
    const std::string host = net::HostName();
    if (!host.empty()) allowed_.names.push_back(host);
    Addresses();
  }

  bool operator()(const Request& req, Response* res) {
    if (!Named(req.Header("Host"))) {
      Answer(res, 421, "this server answers requests addressed to this computer's own names and addresses only");
      return false;
    }
    if (ChangesState(req.method) && !http::FromOwnPage(req.Header("Origin"), req.Header("Sec-Fetch-Site"), allowed_,
                                                       static_cast<uint16_t>(listening_.port))) {
      Answer(res, 403, "a page of another site may not start or stop scans here");
      return false;
    }
    if ((req.method == "POST" || req.method == "PUT") && !IsXml(req.Header("Content-Type"))) {
      Answer(res, 415, "this server takes XML documents only (text/xml or application/xml)");
      return false;
    }
    return true;
  }

 private:
  bool Named(const std::string& host) {
    // Only HTTP/1.0 clients send none; a browser always does.
    if (host.empty() || http::HostAllowed(host, allowed_)) return true;
    if (listening_.wildcard && !http::CanonicalAddress(http::HostPart(host)).empty() &&
        http::Clock::now() - read_ >= kAddressesRefresh) {
      Addresses();
      return http::HostAllowed(host, allowed_);
    }
    return false;
  }
  static std::string Lower(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
  }
  void Addresses() {
    allowed_.addresses.clear();
    const std::vector<std::string> texts =
        listening_.wildcard ? net::InterfaceAddresses(listening_.ipv6, true) : std::vector{listening_.address};
    for (const auto& text : texts) allowed_.addresses.push_back(http::CanonicalAddress(text));
    read_ = http::Clock::now();
  }

  const net::Listening listening_;
  http::HostNames allowed_;
  http::Clock::time_point read_;
};

// Announces the server unless told not to, or unless it listens on loopback
// only, where nobody on the network could reach it.
std::unique_ptr<escl::Announcer> StartAnnouncing(const ServeOptions& options, const escl::ScannerFacts& facts,
                                                 int port) {
  if (!options.announce) return nullptr;
  if (IsLoopback(options.listen)) {
    std::fprintf(stderr, "sxscan: not announced: the server listens on loopback only (give --listen to serve the "
                         "network)\n");
    return nullptr;
  }
  std::string problem;
  auto announcer = escl::Announce({facts, options.listen, static_cast<uint16_t>(port), kIconPath}, &problem);
  if (!announcer) std::fprintf(stderr, "sxscan: announcing is unavailable: %s; serving goes on\n", problem.c_str());
  return announcer;
}

const http::Limits kLimits = {kConnections, kConnectionsPerAddress, kHeaderDeadline, kBodyDeadline,
                              kStalledClient, escl::kMaxSettingsBytes};

}  // namespace

int RunServer(const ServeOptions& options) {
  escl::ScannerFacts facts;
  if (!escl::ReadScannerFacts(options.source, options.name, &facts)) return kExitFailed;
  net::Listening listening;
  std::string error;
  if (!net::Listen(options.listen, options.port, &listening, &error)) {
    std::fprintf(stderr, "sxscan: cannot listen on %s port %d (in use, or not an address of this host): %s\n",
                 options.listen.c_str(), options.port, error.c_str());
    return kExitFailed;
  }
  // The server outlives the scanner: the scanner's job thread wakes it.
  http::Server server(kLimits);
  Scanner scanner(options.source, facts);
  scanner.OnJobChange([&server] { server.Wake(); });
  Service service{scanner, server, ScannerIconPng()};
  AddRoutes(server, service);
  const bool announced = options.announce && !IsLoopback(options.listen);
  const Reach reach = ReachOf(options.listen, listening, announced);
  server.SetGate(RequestGate(reach, listening));
  server.SetCommonHeaders(kCommonHeaders);
  if (!server.Start(listening.socket, &error)) {
    std::fprintf(stderr, "sxscan: %s\n", error.c_str());
    return kExitFailed;
  }
  // A client that goes away mid-response must not end the server.
  std::signal(SIGPIPE, SIG_IGN);
  g_stop.store(false);
  std::signal(SIGINT, OnStopSignal);
  std::signal(SIGTERM, OnStopSignal);
  PrintReach(facts.name, options.listen, listening, reach);
  auto announcer = StartAnnouncing(options, facts, listening.port);
  while (!g_stop.load()) {
    std::this_thread::sleep_for(kHousekeeping);
    scanner.AbortUnfetched();
  }
  // A page being sent is cut, which cancels its scan; a scan nobody reads
  // is cancelled as the scanner goes.
  server.Stop();
  announcer.reset();
  std::fprintf(stderr, "sxscan: server stopped\n");
  return kExitOk;
}

}  // namespace sx::host
