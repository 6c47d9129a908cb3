#include "serve/HttpServer.h"

#include <microhttpd.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "serve/Network.h"

namespace sx::host::http {
namespace {

using namespace std::chrono_literals;

// Threads that run handlers: one may wait for the scanner to take a job's
// settings while the others answer everything else.
constexpr unsigned kWorkers = 4;
// How often waits and deadlines are looked at: a wait ends at most this
// late, a late header or body is cut at most this late.
constexpr auto kSweepEvery = 100ms;
// The most a streamed body hands the event thread at once.
constexpr size_t kStreamBlock = 64 * 1024;

// Where a connection is, for its deadlines.
enum Phase { kAwaitingRequest, kReadingBody, kHandling, kCut };

bool SameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](unsigned char x, unsigned char y) {
           return std::tolower(x) == std::tolower(y);
         });
}

std::string ClientAddress(MHD_Connection* connection) {
  const MHD_ConnectionInfo* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
  if (!info || !info->client_addr) return "?";
  // An IPv4 client of an IPv6 socket is named as IPv4 clients are.
  const std::string text = net::AddressText(info->client_addr);
  return text.rfind("::ffff:", 0) == 0 && text.find('.') != std::string::npos ? text.substr(7) : text;
}

MHD_Result CollectHeader(void* cls, MHD_ValueKind, const char* key, const char* value) {
  static_cast<Fields*>(cls)->emplace_back(key, value ? value : "");
  return MHD_YES;
}

void Refuse(Response* res, int status, const std::string& why) {
  res->status = status;
  res->contentType = "text/plain";
  res->body = why + "\n";
}

}  // namespace

std::string Request::Header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (SameName(key, name)) return value;
  }
  return {};
}

struct Server::Entry {
  std::string method;
  std::regex pattern;
  Handler handler;
};

struct Server::Stream {
  Server* server;
  MHD_Connection* connection;
  std::shared_ptr<BodySource> source;
  std::string pending;  // bytes read from the source, not yet handed over
  size_t at = 0;
  bool ended = false;  // the source said End
};

// One request, from its header to the end of its response. Touched by the
// event thread, and by one worker while the connection is suspended for it;
// `answered` is set under parkLock_ before the worker resumes the connection.
struct Server::Exchange {
  Request request;
  const Entry* route = nullptr;
  Response response;
  bool answered = false;
  bool tooLarge = false;
  std::shared_ptr<Stream> stream;
};

struct Server::Link {
  int socket;
  Phase phase;
  Clock::time_point since;
};

// libmicrohttpd's callbacks, which reach the server's private side.
struct Server::Calls {
  static MHD_Result Access(void* cls, MHD_Connection* connection, const char* url, const char* method, const char*,
                           const char* upload, size_t* uploadSize, void** context) {
    return static_cast<Server*>(cls)->Access(connection, url, method, upload, uploadSize, context) ? MHD_YES : MHD_NO;
  }
  static void Completed(void* cls, MHD_Connection* connection, void** context, MHD_RequestTerminationCode code) {
    static_cast<Server*>(cls)->Completed(connection, context, code == MHD_REQUEST_TERMINATED_COMPLETED_OK);
  }
  static void Connection(void* cls, MHD_Connection* connection, void** socketContext,
                         MHD_ConnectionNotificationCode code) {
    static_cast<Server*>(cls)->Connection(connection, socketContext, code == MHD_CONNECTION_NOTIFY_STARTED);
  }
  static ssize_t Read(void* cls, uint64_t, char* buffer, size_t max) {
    Stream& stream = **static_cast<std::shared_ptr<Stream>*>(cls);
    return stream.server->Pull(stream, buffer, max);
  }
  static void FreeStream(void* cls) { delete static_cast<std::shared_ptr<Stream>*>(cls); }
  // libmicrohttpd's own messages say why the server does not start; once it
  // runs they tell of clients that leave or are turned away, which is no
  // news (one line per connection of a client that opens hundreds).
  static void Log(void* cls, const char* format, va_list args) {
    if (static_cast<Server*>(cls)->started_.load()) return;
    char text[512];
    std::vsnprintf(text, sizeof text, format, args);
    std::fprintf(stderr, "sxscan: http: %s%s", text, *text && text[std::strlen(text) - 1] == '\n' ? "" : "\n");
  }
};

Server::Server(const Limits& limits) : limits_(limits) {}

Server::~Server() { Stop(); }

void Server::Route(const std::string& method, const std::string& pattern, Handler handler) {
  routes_.push_back({method, std::regex(pattern), std::move(handler)});
}

void Server::SetGate(Gate gate) { gate_ = std::move(gate); }

void Server::SetCommonHeaders(Fields headers) { commonHeaders_ = std::move(headers); }

bool Server::Start(int listeningSocket, std::string* error) {
  daemon_ =
      MHD_start_daemon(MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ERROR_LOG, 0, nullptr,
                       nullptr, &Calls::Access, this, MHD_OPTION_EXTERNAL_LOGGER, &Calls::Log, this,
                       MHD_OPTION_LISTEN_SOCKET, listeningSocket, MHD_OPTION_CONNECTION_LIMIT, limits_.connections,
                       MHD_OPTION_PER_IP_CONNECTION_LIMIT, limits_.connectionsPerAddress, MHD_OPTION_CONNECTION_TIMEOUT,
                       static_cast<unsigned>(limits_.stalled.count()), MHD_OPTION_NOTIFY_COMPLETED, &Calls::Completed,
                       this, MHD_OPTION_NOTIFY_CONNECTION, &Calls::Connection, this, MHD_OPTION_END);
  if (!daemon_) {
    *error = "the HTTP server did not start";
    return false;
  }
  started_.store(true);
  for (unsigned i = 0; i < kWorkers; ++i) workers_.emplace_back([this] { WorkLoop(); });
  sweeper_ = std::thread([this] { SweepLoop(); });
  return true;
}

void Server::Wake() {
  std::lock_guard<std::mutex> guard(parkLock_);
  ++generation_;
  for (const Parked& p : parked_) MHD_resume_connection(p.connection);
  parked_.clear();
}

void Server::Stop() {
  if (!daemon_) return;
  {
    std::lock_guard<std::mutex> guard(parkLock_);
    stopping_ = true;
  }
  // Every suspended connection is resumed before the daemon stops: what
  // waits is answered 503, streams end cut.
  Wake();
  {
    std::lock_guard<std::mutex> guard(workLock_);
    workEnds_ = true;
  }
  workChanged_.notify_all();
  sweepEnds_.notify_all();
  for (auto& worker : workers_) worker.join();
  workers_.clear();
  sweeper_.join();
  MHD_stop_daemon(daemon_);  // closes the listening socket too
  daemon_ = nullptr;
}

// Called by libmicrohttpd with the header (*context still null), with each
// piece of the body, and once the body is whole (*uploadSize 0); again
// after the connection is resumed. False closes the connection.
bool Server::Access(MHD_Connection* connection, const char* url, const char* method, const char* upload,
                    size_t* uploadSize, void** context) {
  auto* exchange = static_cast<Exchange*>(*context);
  if (!exchange) {
    exchange = Begin(connection, url, method);
    *context = exchange;
    const std::string length = exchange->request.Header("Content-Length");
    const uint64_t announced = std::strtoull(length.c_str(), nullptr, 10);
    const bool body = !length.empty() ? announced > 0 : !exchange->request.Header("Transfer-Encoding").empty();
    SetPhase(connection, body ? kReadingBody : kHandling);
    if (announced > limits_.bodyBytes && !exchange->answered) {
      exchange->answered = true;
      Refuse(&exchange->response, 413, TooLarge());
    }
    // Refused before its body is read: libmicrohttpd reads the body and
    // drops it (within the body deadline), then answers.
    if (exchange->answered) return Answer(connection, *exchange);
    return true;
  }
  if (*uploadSize > 0) {
    // A chunked body announces no length: past the limit, the rest is read
    // and dropped (within the body deadline) so that 413 can be answered.
    exchange->tooLarge = exchange->tooLarge || exchange->request.body.size() + *uploadSize > limits_.bodyBytes;
    if (exchange->tooLarge) {
      exchange->request.body.clear();
    } else {
      exchange->request.body.append(upload, *uploadSize);
    }
    *uploadSize = 0;
    return true;
  }
  SetPhase(connection, kHandling);
  if (exchange->tooLarge) {
    Refuse(&exchange->response, 413, TooLarge());
    return Answer(connection, *exchange);
  }
  std::unique_lock<std::mutex> guard(parkLock_);
  if (exchange->answered) {
    guard.unlock();
    return Answer(connection, *exchange);
  }
  if (stopping_) {
    guard.unlock();
    Refuse(&exchange->response, 503, "the server is stopping");
    return Answer(connection, *exchange);
  }
  // Posted under parkLock_, so that Stop cannot end the workers between the
  // suspension and the post and leave the connection suspended.
  MHD_suspend_connection(connection);
  {
    std::lock_guard<std::mutex> work(workLock_);
    work_.push_back([this, connection, exchange] { Work(connection, exchange); });
  }
  workChanged_.notify_one();
  return true;
}

std::string Server::TooLarge() const {
  return "the request body is larger than " + std::to_string(limits_.bodyBytes) + " bytes";
}

Server::Exchange* Server::Begin(MHD_Connection* connection, const char* url, const char* method) {
  auto* exchange = new Exchange;
  Request& request = exchange->request;
  request.method = method;
  request.path = url;
  request.remoteAddress = ClientAddress(connection);
  request.arrived = Clock::now();
  MHD_get_connection_values(connection, MHD_HEADER_KIND, &CollectHeader, &request.headers);
  // A HEAD request takes the GET route when it has none of its own.
  std::smatch match;
  const Entry* get = nullptr;
  std::string allowed;
  for (const Entry& entry : routes_) {
    if (!std::regex_match(request.path, match, entry.pattern)) continue;
    allowed += (allowed.empty() ? "" : ", ") + entry.method;
    if (entry.method == request.method) {
      exchange->route = &entry;
      request.matches.assign(match.begin(), match.end());
    } else if (entry.method == "GET" && request.method == "HEAD" && !get) {
      get = &entry;
      request.matches.assign(match.begin(), match.end());
    }
  }
  if (!exchange->route) exchange->route = get;
  Response& res = exchange->response;
  if (allowed.empty()) {
    Refuse(&res, 404, "no such resource");
  } else if (!exchange->route) {
    Refuse(&res, 405, request.method + " is not answered here");
    res.headers.emplace_back("Allow", allowed);
  } else if (!gate_ || gate_(request, &res)) {
    return exchange;
  }
  exchange->answered = true;
  return exchange;
}

void Server::Work(MHD_Connection* connection, Exchange* exchange) {
  for (;;) {
    uint64_t generation;
    bool stopping;
    {
      std::lock_guard<std::mutex> guard(parkLock_);
      generation = generation_;
      stopping = stopping_;
    }
    Response response;
    Reply reply = Reply::Answered;
    if (stopping) {
      Refuse(&response, 503, "the server is stopping");
    } else {
      try {
        reply = exchange->route->handler(exchange->request, &response);
      } catch (const std::exception& e) {
        std::fprintf(stderr, "sxscan: %s %s: %s\n", exchange->request.method.c_str(), exchange->request.path.c_str(),
                     e.what());
        response = {};
        Refuse(&response, 500, "internal error");
      }
    }
    std::lock_guard<std::mutex> guard(parkLock_);
    if (reply == Reply::Answered) {
      exchange->response = std::move(response);
      exchange->answered = true;
      MHD_resume_connection(connection);
      return;
    }
    // It waits, unless something changed while the handler looked.
    if (!stopping_ && generation == generation_) {
      parked_.push_back({connection, response.waitUntil});
      return;
    }
  }
}

bool Server::Answer(MHD_Connection* connection, Exchange& exchange) {
  Response& r = exchange.response;
  MHD_Response* response;
  if (r.stream) {
    exchange.stream = std::make_shared<Stream>();
    *exchange.stream = {this, connection, r.stream, {}, 0, false};
    response = MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, kStreamBlock, &Calls::Read,
                                                 new std::shared_ptr<Stream>(exchange.stream), &Calls::FreeStream);
  } else {
    response = MHD_create_response_from_buffer(r.body.size(), r.body.data(), MHD_RESPMEM_MUST_COPY);
  }
  if (!response) return false;
  MHD_add_response_header(response, "Content-Type", r.contentType.c_str());
  for (const auto& [name, value] : commonHeaders_) MHD_add_response_header(response, name.c_str(), value.c_str());
  for (const auto& [name, value] : r.headers) MHD_add_response_header(response, name.c_str(), value.c_str());
  const bool queued = MHD_queue_response(connection, static_cast<unsigned>(r.status), response) == MHD_YES;
  MHD_destroy_response(response);
  std::fprintf(stderr, "sxscan: %s %s %s: %d\n", exchange.request.remoteAddress.c_str(),
               exchange.request.method.c_str(), exchange.request.path.c_str(), r.status);
  return queued;
}

void Server::Completed(MHD_Connection* connection, void** context, bool sent) {
  auto* exchange = static_cast<Exchange*>(*context);
  *context = nullptr;
  if (exchange && exchange->stream) exchange->stream->source->Finished(sent && exchange->stream->ended);
  delete exchange;
  SetPhase(connection, kAwaitingRequest);
}

void Server::Connection(MHD_Connection* connection, void** socketContext, bool started) {
  std::lock_guard<std::mutex> guard(linkLock_);
  if (started) {
    const MHD_ConnectionInfo* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    auto* link = new Link{info ? info->connect_fd : -1, kAwaitingRequest, Clock::now()};
    links_.insert(link);
    *socketContext = link;
  } else if (auto* link = static_cast<Link*>(*socketContext)) {
    links_.erase(link);
    delete link;
    *socketContext = nullptr;
  }
}

// The content reader of a streamed body, on the event thread. Returns 0
// only with the connection suspended (libmicrohttpd would otherwise ask
// again at once, spinning).
std::ptrdiff_t Server::Pull(Stream& stream, char* buffer, size_t max) {
  for (;;) {
    if (stream.at < stream.pending.size()) {
      const size_t n = std::min(max, stream.pending.size() - stream.at);
      std::memcpy(buffer, stream.pending.data() + stream.at, n);
      stream.at += n;
      return static_cast<std::ptrdiff_t>(n);
    }
    uint64_t generation;
    {
      std::lock_guard<std::mutex> guard(parkLock_);
      generation = generation_;
    }
    stream.pending.clear();
    stream.at = 0;
    Clock::time_point until = Clock::now();
    switch (stream.source->Read(&stream.pending, &until)) {
      case BodySource::Pull::Bytes: continue;
      case BodySource::Pull::End: stream.ended = true; return MHD_CONTENT_READER_END_OF_STREAM;
      case BodySource::Pull::Failed: return MHD_CONTENT_READER_END_WITH_ERROR;
      case BodySource::Pull::Later: break;
    }
    std::lock_guard<std::mutex> guard(parkLock_);
    if (stopping_) return MHD_CONTENT_READER_END_WITH_ERROR;
    if (generation == generation_) {
      MHD_suspend_connection(stream.connection);
      parked_.push_back({stream.connection, until});
      return 0;
    }
  }
}

void Server::SetPhase(MHD_Connection* connection, int phase) {
  const MHD_ConnectionInfo* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
  auto* link = info ? static_cast<Link*>(info->socket_context) : nullptr;
  if (!link) return;
  std::lock_guard<std::mutex> guard(linkLock_);
  if (link->phase == kCut) return;
  link->phase = static_cast<Phase>(phase);
  link->since = Clock::now();
}

void Server::WorkLoop() {
  for (;;) {
    std::function<void()> task;
    {
      std::unique_lock<std::mutex> guard(workLock_);
      workChanged_.wait(guard, [this] { return workEnds_ || !work_.empty(); });
      // Work posted before the end is done: its connections are resumed.
      if (work_.empty()) return;
      task = std::move(work_.front());
      work_.pop_front();
    }
    task();
  }
}

void Server::SweepLoop() {
  for (;;) {
    {
      std::unique_lock<std::mutex> guard(workLock_);
      if (sweepEnds_.wait_for(guard, kSweepEvery, [this] { return workEnds_; })) return;
    }
    Sweep();
  }
}

// Resumes waits past their deadline, and cuts connections whose header or
// body is late: the event thread then sees their end and closes them.
void Server::Sweep() {
  const Clock::time_point now = Clock::now();
  {
    std::lock_guard<std::mutex> guard(parkLock_);
    const auto late =
        std::stable_partition(parked_.begin(), parked_.end(), [&](const Parked& p) { return p.until > now; });
    for (auto p = late; p != parked_.end(); ++p) MHD_resume_connection(p->connection);
    parked_.erase(late, parked_.end());
  }
  std::lock_guard<std::mutex> guard(linkLock_);
  for (Link* link : links_) {
    const std::chrono::seconds limit = link->phase == kAwaitingRequest ? limits_.header
                                       : link->phase == kReadingBody   ? limits_.body
                                                                       : std::chrono::seconds(0);
    if (limit.count() == 0 || now - link->since < limit || link->socket < 0) continue;
    net::Cut(link->socket);
    link->phase = kCut;
  }
}

}  // namespace sx::host::http
