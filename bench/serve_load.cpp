// serve_load: load on an eSCL server (`sxscan serve`) over plain sockets.
//
//   serve_load load PORT [CLIENTS REQUESTS]
//     CLIENTS keep-alive connections (default 32, each from an address of
//     its own, 127.0.2.x, as clients on a network are) share REQUESTS
//     requests (default 1600), capabilities and status in turn: requests per
//     second and the p50/p99/max latency of one request.
//   serve_load slow PORT [CONNECTIONS SOURCES]
//     CONNECTIONS (default 256) connections each send part of a request
//     and wait: half stop inside the header, half announce a body and send
//     a few bytes of it. They come from SOURCES addresses 127.0.1.x (default
//     16; 0: the loopback address itself), so that a server's per-address
//     cap does not simply turn them away. Then capabilities requests from
//     127.0.0.1, one at a time on fresh connections: their median and
//     largest latency, and how many partial connections the server still
//     held meanwhile.
//
// One line of `key value` pairs on stdout, for bench/serve_bench.sh.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kServer[] = "127.0.0.1";
// How long one request may take before it counts as never answered.
constexpr int kGiveUpMs = 30000;
// Capabilities requests timed while the partial connections wait.
constexpr int kProbes = 7;
// Source addresses in one 127.0.x.0/24 block.
constexpr int kSourceAddresses = 254;
// The partial connections' time to reach the server before the probes.
constexpr auto kSettle = std::chrono::milliseconds(300);

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

// A TCP connection to the server from `source` (empty: any address); -1 when
// it cannot be made.
int Connect(int port, const std::string& source) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return -1;
  const int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  if (!source.empty()) {
    inet_pton(AF_INET, source.c_str(), &addr.sin_addr);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return close(fd), -1;
  }
  addr.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, kServer, &addr.sin_addr);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return close(fd), -1;
  return fd;
}

bool SendAll(int fd, const std::string& text) {
  for (size_t sent = 0; sent < text.size();) {
    const ssize_t n = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

// Reads more bytes into `buffer` before `deadline`; false on the end of the
// connection or the deadline.
bool ReadMore(int fd, std::string* buffer, Clock::time_point deadline) {
  const int left =
      static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count());
  pollfd p{fd, POLLIN, 0};
  if (left <= 0 || poll(&p, 1, left) <= 0) return false;
  char chunk[16384];
  const ssize_t n = recv(fd, chunk, sizeof chunk, 0);
  if (n <= 0) return false;
  buffer->append(chunk, static_cast<size_t>(n));
  return true;
}

// One response with a Content-Length body; its status, or -1. Bytes past
// it stay in `buffer` for the next response.
int ReadResponse(int fd, std::string* buffer, Clock::time_point deadline) {
  size_t end;
  while ((end = buffer->find("\r\n\r\n")) == std::string::npos) {
    if (!ReadMore(fd, buffer, deadline)) return -1;
  }
  std::string head = buffer->substr(0, end);
  std::transform(head.begin(), head.end(), head.begin(), [](unsigned char c) { return std::tolower(c); });
  const size_t at = head.find("\r\ncontent-length:");
  const size_t length = at == std::string::npos ? 0 : std::strtoul(head.c_str() + at + 17, nullptr, 10);
  while (buffer->size() < end + 4 + length) {
    if (!ReadMore(fd, buffer, deadline)) return -1;
  }
  buffer->erase(0, end + 4 + length);
  return head.size() > 12 ? std::atoi(head.c_str() + 9) : -1;
}

std::string Get(const char* path, bool keepAlive) {
  return std::string("GET ") + path +
         " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: " + (keepAlive ? "keep-alive" : "close") + "\r\n\r\n";
}

double Percentile(std::vector<double> values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, static_cast<size_t>(p * static_cast<double>(values.size())))];
}

int Load(int port, int clients, int requests) {
  std::atomic<int> next{0}, failed{0};
  std::vector<std::vector<double>> latencies(static_cast<size_t>(clients));
  const auto start = Clock::now();
  std::vector<std::thread> threads;
  for (int c = 0; c < clients; ++c) {
    threads.emplace_back([&, c] {
      const std::string source = "127.0.2." + std::to_string(1 + c % kSourceAddresses);
      int fd = -1;
      std::string buffer;
      for (int i; (i = next.fetch_add(1)) < requests;) {
        if (fd < 0) fd = Connect(port, source);
        const auto sent = Clock::now();
        const bool ok = fd >= 0 &&
                        SendAll(fd, Get(i % 2 ? "/eSCL/ScannerStatus" : "/eSCL/ScannerCapabilities", true)) &&
                        ReadResponse(fd, &buffer, sent + std::chrono::milliseconds(kGiveUpMs)) == 200;
        if (ok) {
          latencies[static_cast<size_t>(c)].push_back(Ms(Clock::now() - sent));
          continue;
        }
        ++failed;
        if (fd >= 0) close(fd);
        fd = -1;
        buffer.clear();
      }
      if (fd >= 0) close(fd);
    });
  }
  for (auto& t : threads) t.join();
  const double seconds = Ms(Clock::now() - start) / 1000;
  std::vector<double> all;
  for (const auto& l : latencies) all.insert(all.end(), l.begin(), l.end());
  std::printf("requests %zu failed %d seconds %.2f rps %.0f p50_ms %.2f p99_ms %.2f max_ms %.2f\n", all.size(),
              failed.load(), seconds, static_cast<double>(all.size()) / seconds, Percentile(all, 0.5),
              Percentile(all, 0.99), Percentile(all, 1.0));
  return failed.load() == 0 ? 0 : 1;
}

// Connections that are still open: the server has not closed them.
int StillOpen(const std::vector<int>& fds) {
  int open = 0;
  for (int fd : fds) {
    pollfd p{fd, POLLIN, 0};
    char byte;
    if (poll(&p, 1, 0) == 0 || (p.revents & POLLIN && recv(fd, &byte, 1, MSG_PEEK) > 0)) ++open;
  }
  return open;
}

int Slow(int port, int connections, int sources) {
  std::vector<int> fds;
  for (int i = 0; i < connections; ++i) {
    const std::string source =
        sources > 0 ? "127.0.1." + std::to_string(1 + i % std::min(sources, kSourceAddresses)) : "";
    const int fd = Connect(port, source);
    if (fd < 0) continue;
    SendAll(fd, i % 2 ? "GET /eSCL/ScannerStatus HTTP/1.1\r\nHost: 127.0.0.1\r\n"
                      : "POST /eSCL/ScanJobs HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: text/xml\r\n"
                        "Content-Length: 4096\r\n\r\n<?xml version=\"1.0\"?>");
    fds.push_back(fd);
  }
  std::this_thread::sleep_for(kSettle);
  std::vector<double> probes;
  int unanswered = 0;
  for (int i = 0; i < kProbes; ++i) {
    const auto sent = Clock::now();
    const int fd = Connect(port, "");
    std::string buffer;
    const bool ok = fd >= 0 && SendAll(fd, Get("/eSCL/ScannerCapabilities", false)) &&
                    ReadResponse(fd, &buffer, sent + std::chrono::milliseconds(kGiveUpMs)) == 200;
    if (fd >= 0) close(fd);
    if (ok) {
      probes.push_back(Ms(Clock::now() - sent));
    } else {
      ++unanswered;
    }
  }
  std::printf("connections %zu held %d probe_p50_ms %.2f probe_max_ms %.2f unanswered %d\n", fds.size(), StillOpen(fds),
              Percentile(probes, 0.5), Percentile(probes, 1.0), unanswered);
  for (int fd : fds) close(fd);
  return unanswered == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (argc < 3 || (mode != "load" && mode != "slow")) {
    std::fprintf(stderr, "usage: serve_load load PORT [CLIENTS REQUESTS] | slow PORT [CONNECTIONS SOURCES]\n");
    return 2;
  }
  const int port = std::atoi(argv[2]);
  const auto arg = [&](int i, int fallback) { return argc > i ? std::atoi(argv[i]) : fallback; };
  return mode == "load" ? Load(port, arg(3, 32), arg(4, 1600)) : Slow(port, arg(3, 256), arg(4, 16));
}
