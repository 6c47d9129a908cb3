#include "serve/Network.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace sx::host::net {
namespace {

// Connections the system holds for the server before it accepts them.
constexpr int kBacklog = 128;

// A socket bound to `info` and listening; -1 with the reason in *error.
int BindOne(const addrinfo& info, std::string* error) {
  const int fd = socket(info.ai_family, info.ai_socktype | SOCK_CLOEXEC, info.ai_protocol);
  if (fd < 0) {
    *error = std::strerror(errno);
    return -1;
  }
  // SO_REUSEADDR lets a restarted server bind while its old connections
  // linger in TIME_WAIT; on Linux it never lets two sockets listen on one
  // port (SO_REUSEPORT would, and clients would then alternate between two
  // servers), so a second server is refused.
  const int on = 1, off = 0;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  // `::` serves IPv4 clients too, as `0.0.0.0` would.
  if (info.ai_family == AF_INET6) setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
  if (bind(fd, info.ai_addr, info.ai_addrlen) != 0 || listen(fd, kBacklog) != 0) {
    *error = std::strerror(errno);
    close(fd);
    return -1;
  }
  return fd;
}

bool IsWildcard(const sockaddr* address) {
  if (address->sa_family == AF_INET)
    return reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr == htonl(INADDR_ANY);
  return address->sa_family == AF_INET6 &&
         IN6_IS_ADDR_UNSPECIFIED(&reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr);
}

}  // namespace

bool Listen(const std::string& address, int port, Listening* out, std::string* error) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int resolved = getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found);
  if (resolved != 0) {
    *error = gai_strerror(resolved);
    return false;
  }
  for (const addrinfo* info = found; info; info = info->ai_next) {
    const int fd = BindOne(*info, error);
    if (fd < 0) continue;
    sockaddr_storage bound{};
    socklen_t length = sizeof bound;
    getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length);
    const auto* b = reinterpret_cast<const sockaddr*>(&bound);
    out->socket = fd;
    out->port = ntohs(b->sa_family == AF_INET ? reinterpret_cast<const sockaddr_in*>(b)->sin_port
                                              : reinterpret_cast<const sockaddr_in6*>(b)->sin6_port);
    out->address = AddressText(b);
    out->wildcard = IsWildcard(b);
    out->ipv6 = b->sa_family == AF_INET6;
    freeaddrinfo(found);
    return true;
  }
  freeaddrinfo(found);
  return false;
}

std::string AddressText(const sockaddr* address) {
  char text[INET6_ADDRSTRLEN] = {};
  if (address->sa_family == AF_INET) {
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text, sizeof text);
  } else if (address->sa_family == AF_INET6) {
    inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr, text, sizeof text);
  }
  return text;
}

void Cut(int socket) { shutdown(socket, SHUT_RDWR); }

std::vector<std::string> InterfaceAddresses(bool ipv6, bool linkLocal) {
  std::vector<std::string> outside, loopback;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return {};
  for (const ifaddrs* i = list; i; i = i->ifa_next) {
    if (!i->ifa_addr || !(i->ifa_flags & IFF_UP)) continue;
    const int family = i->ifa_addr->sa_family;
    if (family != AF_INET && !(ipv6 && family == AF_INET6)) continue;
    if (family == AF_INET6 && !linkLocal &&
        IN6_IS_ADDR_LINKLOCAL(&reinterpret_cast<const sockaddr_in6*>(i->ifa_addr)->sin6_addr))
      continue;
    auto& into = (i->ifa_flags & IFF_LOOPBACK) ? loopback : outside;
    const std::string text = AddressText(i->ifa_addr);
    if (std::find(into.begin(), into.end(), text) == into.end()) into.push_back(text);
  }
  freeifaddrs(list);
  // IPv4 first: the shorter address to type.
  std::stable_partition(outside.begin(), outside.end(),
                        [](const std::string& a) { return a.find(':') == std::string::npos; });
  outside.insert(outside.end(), loopback.begin(), loopback.end());
  return outside;
}

std::string HostName() {
  char name[256] = {};
  if (gethostname(name, sizeof name - 1) != 0) return {};
  std::string text = name;
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

}  // namespace sx::host::net
