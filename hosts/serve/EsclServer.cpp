// `sxscan serve`: the HTTP side of the eSCL server. Requests are answered on
// the HTTP library's worker threads; the scanner and its jobs (EsclScanner.h)
// keep the library to one thread at a time.
#include <httplib.h>

#include <atomic>
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

namespace sx::host {
namespace {

using namespace std::chrono_literals;
using escl::Job;
using escl::Scanner;

// A client that sends a request slower than this, or does not take the
// response, is dropped: an idle connection never holds a worker for long.
constexpr time_t kReadTimeoutSeconds = 10;
constexpr time_t kWriteTimeoutSeconds = 30;
constexpr time_t kKeepAliveSeconds = 5;
// Requests on one connection before the server closes it: a scan takes
// about eight, and a client that sends another on a connection the server
// has just closed may wait for its answer for ever.
constexpr size_t kRequestsPerConnection = 100;
// What a client is told to wait before asking again while the scanner is busy.
constexpr char kRetryAfterSeconds[] = "5";
// How long NextDocument waits for a page to begin (a lamp warming up).
constexpr auto kFirstBytesWait = 120s;
// How long a response waits for the next bytes of a page being scanned.
constexpr auto kNextBytesWait = 120s;
constexpr auto kStopPoll = 100ms;
constexpr char kJobPath[] = "/eSCL/ScanJobs/";
constexpr char kIconPath[] = "/eSCL/icon.png";
constexpr char kXml[] = "text/xml";

std::atomic<bool> g_stop{false};
extern "C" void OnStopSignal(int) { g_stop.store(true); }

void Fail(httplib::Response& res, int status, const std::string& why) {
  res.status = status;
  res.set_content(why + "\n", "text/plain");
}

void Busy(httplib::Response& res, const std::string& why) {
  res.set_header("Retry-After", kRetryAfterSeconds);
  Fail(res, 503, why);
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

void PostJob(Scanner& scanner, const httplib::Request& req, httplib::Response& res) {
  escl::ScanRequest request;
  std::string error;
  if (!escl::ParseScanSettings(req.body, &request, &error)) return Fail(res, 400, error);
  if (!escl::ResolveScanRequest(scanner.Facts(), &request, &error)) return Fail(res, 409, error);
  std::shared_ptr<Job> job;
  switch (scanner.StartJob(request, &job, &error)) {
    case Scanner::Start::Busy: return Busy(res, "the scanner is busy with another job");
    case Scanner::Start::Refused: return Fail(res, 409, error);
    case Scanner::Start::Started: break;
  }
  std::fprintf(stderr, "sxscan: job %s: %s %s at %u dpi, %ux%u+%u+%u, %s\n", job->uuid.c_str(),
               request.source == escl::InputSource::Feeder ? "feeder" : "platen", ColourModeName(request.mode),
               request.xResolution, request.region.width, request.region.height, request.region.x, request.region.y,
               MimeType(request.format));
  res.status = 201;
  res.set_header("Location", kJobPath + job->uuid);
}

// Why a job that sent nothing (more) has no document: 404 for a job that is
// over as it should be, the failure otherwise.
void NoDocument(Job& job, httplib::Response& res) {
  std::lock_guard<std::mutex> guard(job.lock);
  if (job.pagesSent > 0 || job.state == escl::JobState::Completed || job.state == escl::JobState::Canceled)
    return Fail(res, 404, "the job has no more pages");
  if (job.noPaper) return Fail(res, 409, "the feeder holds no paper");
  Fail(res, 500, "the scan failed: " + (job.failure.empty() ? ResultText(job.result) : job.failure));
}

// The next page of a job, streamed while it is scanned. A response that
// ends before its page does (the client went away) cancels the job.
void NextDocument(Scanner& scanner, const httplib::Request& req, httplib::Response& res) {
  std::shared_ptr<Job> job = scanner.Find(req.matches[1]);
  if (!job) return Fail(res, 404, "no such job");
  // A client asks for the next page as soon as the last one's end reached
  // it, which may be before the response that sent it has let go: the
  // request waits for it rather than being turned away.
  if (!job->reader.TakeWithin(kFirstBytesWait)) return Busy(res, "another request is reading this job");
  // Given back once, by whichever comes first: the page's end, the
  // response's release, or this request ending without a response.
  struct Hold {
    std::shared_ptr<Job> job;
    std::atomic<bool> held{true};
    void Give() {
      if (held.exchange(false)) job->reader.Give();
    }
    ~Hold() { Give(); }
  };
  auto reader = std::make_shared<Hold>();
  reader->job = job;
  switch (job->queue.WaitForDocument(kFirstBytesWait)) {
    case escl::DocumentQueue::Wait::TimedOut: return Busy(res, "the page has not begun yet");
    case escl::DocumentQueue::Wait::NoMore: return NoDocument(*job, res);
    case escl::DocumentQueue::Wait::Ready: break;
  }
  auto complete = std::make_shared<bool>(false);
  const auto provider = [job, complete, reader](size_t, httplib::DataSink& sink) {
    std::string chunk;
    switch (job->queue.Next(&chunk, kNextBytesWait)) {
      case escl::DocumentQueue::Read::Bytes: {
        std::lock_guard<std::mutex> guard(job->lock);
        job->lastRead = Job::Clock::now();
        break;
      }
      case escl::DocumentQueue::Read::DocumentEnd: {
        *complete = true;
        {
          std::lock_guard<std::mutex> guard(job->lock);
          ++job->pagesSent;
          job->lastRead = Job::Clock::now();
        }
        // Free for the next request before the client can see the end.
        reader->Give();
        sink.done();
        return true;
      }
      case escl::DocumentQueue::Read::Failed: return false;
    }
    return sink.write(chunk.data(), chunk.size());
  };
  const auto release = [job, complete, reader](bool) {
    if (!*complete) {
      std::fprintf(stderr, "sxscan: job %s: the page was not sent whole; the job is cancelled\n", job->uuid.c_str());
      job->Cancel();
      // The scan may have ended before the client left; the page it never
      // got makes the job cancelled all the same.
      std::lock_guard<std::mutex> guard(job->lock);
      job->state = escl::JobState::Canceled;
    }
    reader->Give();
  };
  res.set_chunked_content_provider(MimeType(job->request.format), provider, release);
}

void DeleteJob(Scanner& scanner, const httplib::Request& req, httplib::Response& res) {
  std::shared_ptr<Job> job = scanner.Find(req.matches[1]);
  if (!job) return Fail(res, 404, "no such job");
  job->Cancel();
  res.status = 200;
}

void Route(httplib::Server& server, Scanner& scanner, const std::string& icon) {
  server.Get(kIconPath, [&](const httplib::Request&, httplib::Response& res) { res.set_content(icon, "image/png"); });
  server.Get("/eSCL/ScannerCapabilities", [&](const httplib::Request&, httplib::Response& res) {
    res.set_content(escl::CapabilitiesXml(scanner.Facts(), ""), kXml);
  });
  server.Get("/eSCL/ScannerStatus", [&](const httplib::Request&, httplib::Response& res) {
    scanner.RefreshWhenIdle();
    res.set_content(escl::StatusXml(scanner.Facts(), scanner.Busy(), scanner.Summaries()), kXml);
  });
  server.Post("/eSCL/ScanJobs", [&](const httplib::Request& req, httplib::Response& res) {
    PostJob(scanner, req, res);
  });
  // Job names are the UUIDs this server made; anything else is no job.
  server.Get(R"(/eSCL/ScanJobs/([0-9a-f-]{36})/NextDocument)",
             [&](const httplib::Request& req, httplib::Response& res) { NextDocument(scanner, req, res); });
  server.Delete(R"(/eSCL/ScanJobs/([0-9a-f-]{36}))",
                [&](const httplib::Request& req, httplib::Response& res) { DeleteJob(scanner, req, res); });
  server.set_logger([](const httplib::Request& req, const httplib::Response& res) {
    std::fprintf(stderr, "sxscan: %s %s %s: %d\n", req.remote_addr.c_str(), req.method.c_str(), req.path.c_str(),
                 res.status);
  });
  server.set_exception_handler([](const httplib::Request&, httplib::Response& res, std::exception_ptr) {
    Fail(res, 500, "internal error");
  });
}

void Limit(httplib::Server& server) {
  server.set_payload_max_length(escl::kMaxSettingsBytes);
  server.set_read_timeout(kReadTimeoutSeconds, 0);
  server.set_write_timeout(kWriteTimeoutSeconds, 0);
  server.set_keep_alive_timeout(kKeepAliveSeconds);
  server.set_keep_alive_max_count(kRequestsPerConnection);
}

bool IsLoopback(const std::string& address) {
  return address.rfind("127.", 0) == 0 || address == "::1" || address == "localhost";
}

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

int Bind(httplib::Server& server, const ServeOptions& options) {
  if (options.port == 0) return server.bind_to_any_port(options.listen);
  return server.bind_to_port(options.listen, options.port) ? options.port : -1;
}

}  // namespace

int RunServer(const ServeOptions& options) {
  escl::ScannerFacts facts;
  if (!escl::ReadScannerFacts(options.source, options.name, &facts)) return kExitFailed;
  Scanner scanner(options.source, facts);
  const std::string icon = ScannerIconPng();
  httplib::Server server;
  Limit(server);
  Route(server, scanner, icon);
  const int port = Bind(server, options);
  if (port <= 0) {
    std::fprintf(stderr, "sxscan: cannot listen on %s port %d (in use, or not an address of this host)\n",
                 options.listen.c_str(), options.port);
    return kExitFailed;
  }
  // A client that goes away mid-response must not end the server.
  std::signal(SIGPIPE, SIG_IGN);
  g_stop.store(false);
  std::signal(SIGINT, OnStopSignal);
  std::signal(SIGTERM, OnStopSignal);
  const std::string host = options.listen.find(':') != std::string::npos ? "[" + options.listen + "]" : options.listen;
  std::printf("serving %s at http://%s:%d/eSCL\n", facts.name.c_str(), host.c_str(), port);
  std::fflush(stdout);
  auto announcer = StartAnnouncing(options, facts, port);
  std::thread stopper([&] {
    while (!g_stop.load()) std::this_thread::sleep_for(kStopPoll);
    server.stop();
  });
  server.listen_after_bind();
  g_stop.store(true);
  stopper.join();
  announcer.reset();
  std::fprintf(stderr, "sxscan: server stopped\n");
  return kExitOk;
}

}  // namespace sx::host
