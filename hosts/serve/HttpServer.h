// The HTTP side of `sxscan serve`: a small layer over libmicrohttpd. One
// event thread does the socket work of every connection, so a slow or idle
// client costs a socket, never a thread; connections are capped in total and
// per client address, and a request's header and body must arrive within
// deadlines. Handlers run on a few worker threads. A handler whose answer is
// not there yet (the next page of a scan) says Wait instead of blocking: it
// is called again after the next Wake, or at its deadline. A streamed body
// is read the same way, on the event thread, never blocking it.
//
// Thread contract: Route, SetGate and SetCommonHeaders before Start; Wake from any thread; Stop
// from the thread that started the server, once.
#pragma once
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_set>
#include <utility>
#include <vector>

struct MHD_Connection;
struct MHD_Daemon;

namespace sx::host::http {

using Clock = std::chrono::steady_clock;
using Fields = std::vector<std::pair<std::string, std::string>>;

struct Request {
  std::string method;  // as sent: GET, HEAD, POST, ...
  std::string path;    // without the query
  std::string remoteAddress;
  Fields headers;
  std::string body;
  std::vector<std::string> matches;  // the groups of the route's pattern
  Clock::time_point arrived;         // when its header was in
  // A header's value (names in any case); empty when absent.
  std::string Header(std::string_view name) const;
};

// A body made while it is sent (a page being scanned), read on the event
// thread: Read never waits.
class BodySource {
 public:
  virtual ~BodySource() = default;
  enum class Pull { Bytes, Later, End, Failed };
  // Bytes: the next bytes, in *chunk. Later: none yet; read again after the
  // next Wake, or at *waitUntil at the latest. End: the body is whole.
  // Failed: it cannot be finished (the client learns the body is cut).
  virtual Pull Read(std::string* chunk, Clock::time_point* waitUntil) = 0;
  // The response is over: `whole` when the client received all of it.
  virtual void Finished(bool whole) = 0;
};

struct Response {
  int status = 200;
  std::string contentType = "text/plain";
  std::string body;
  Fields headers;
  std::shared_ptr<BodySource> stream;  // set: the body comes from it, chunked
  // With Reply::Wait: when the handler is called again at the latest.
  Clock::time_point waitUntil;
};

enum class Reply { Answered, Wait };
using Handler = std::function<Reply(const Request&, Response*)>;
// Looks at a request once its header is in, before its body is read: false
// refuses it with the answer in *res.
using Gate = std::function<bool(const Request&, Response*)>;

struct Limits {
  unsigned connections = 0;            // at once, in all
  unsigned connectionsPerAddress = 0;  // at once, from one client address
  // From the connection's start, or the end of its previous response, to the
  // whole request header: also how long an idle connection is kept.
  std::chrono::seconds header{0};
  std::chrono::seconds body{0};     // from the header's end to the body's end
  std::chrono::seconds stalled{0};  // a client that takes no byte of a response
  size_t bodyBytes = 0;             // larger bodies are refused (413)
};

class Server {
 public:
  explicit Server(const Limits& limits);
  ~Server();  // stops the server if it runs
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // `pattern` is a regular expression the whole path must match; its groups
  // become Request::matches. A HEAD request without a route of its own is
  // answered by the GET route, without the body.
  void Route(const std::string& method, const std::string& pattern, Handler handler);
  void SetGate(Gate gate);
  // Headers every response carries, refusals included.
  void SetCommonHeaders(Fields headers);
  // Serves on a bound, listening socket, which the server then owns.
  bool Start(int listeningSocket, std::string* error);
  // Waiting handlers and streams look again.
  void Wake();
  // Answers what waits (503), lets workers finish, closes every connection.
  void Stop();

 private:
  struct Calls;
  struct Entry;
  struct Exchange;
  struct Link;
  struct Stream;
  struct Parked {
    MHD_Connection* connection;
    Clock::time_point until;
  };

  bool Access(MHD_Connection* connection, const char* url, const char* method, const char* upload, size_t* uploadSize,
              void** context);
  Exchange* Begin(MHD_Connection* connection, const char* url, const char* method);
  void Work(MHD_Connection* connection, Exchange* exchange);
  bool Answer(MHD_Connection* connection, Exchange& exchange);
  void Completed(MHD_Connection* connection, void** context, bool sent);
  void Connection(MHD_Connection* connection, void** socketContext, bool started);
  std::ptrdiff_t Pull(Stream& stream, char* buffer, size_t max);
  void SetPhase(MHD_Connection* connection, int phase);
  void WorkLoop();
  void SweepLoop();
  void Sweep();
  std::string TooLarge() const;

  const Limits limits_;
  std::vector<Entry> routes_;
  Gate gate_;
  Fields commonHeaders_;
  MHD_Daemon* daemon_ = nullptr;
  std::atomic<bool> started_{false};

  // Suspended connections waiting for a Wake or their deadline, and the
  // count of Wakes, so that a wait decided on before a Wake is not slept
  // through. Guarded by parkLock_, which is held while suspending or
  // resuming a connection.
  std::mutex parkLock_;
  uint64_t generation_ = 0;
  bool stopping_ = false;
  std::vector<Parked> parked_;

  // Open connections, for their header and body deadlines; guarded by
  // linkLock_ (the event thread removes a connection under it before its
  // socket is closed).
  std::mutex linkLock_;
  std::unordered_set<Link*> links_;

  // Handlers waiting for a worker; guarded by workLock_, as workEnds_ (the
  // workers and the sweeper end).
  std::mutex workLock_;
  std::condition_variable workChanged_;
  std::condition_variable sweepEnds_;
  std::deque<std::function<void()>> work_;
  bool workEnds_ = false;
  std::vector<std::thread> workers_;
  std::thread sweeper_;
};

}  // namespace sx::host::http
