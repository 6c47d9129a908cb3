// The server's socket and what the machine is reached by: the system's
// socket, interface and host-name calls, kept out of the HTTP and eSCL code.
#pragma once
#include <string>
#include <vector>

struct sockaddr;

namespace sx::host::net {

struct Listening {
  int socket = -1;
  int port = 0;
  std::string address;    // the address bound, as text ("0.0.0.0", "::1")
  bool wildcard = false;  // every address of the machine (0.0.0.0, ::)
  bool ipv6 = false;      // an IPv6 socket (`::` takes IPv4 clients too)
};

// Binds `address` (a literal address or a name) and `port` (0: any free
// one) and listens. A port another socket listens on is refused, never
// shared. False with the system's reason.
bool Listen(const std::string& address, int port, Listening* out, std::string* error);

// An IPv4 or IPv6 address as text ("192.0.2.1", "fd00::2").
std::string AddressText(const sockaddr* address);

// Ends a connection's traffic both ways without closing its descriptor: its
// owner sees the end at its next look and closes it.
void Cut(int socket);

// The machine's interface addresses, as text: IPv4 ones and, with `ipv6`,
// IPv6 ones, link-local ones only with `linkLocal` (a person cannot type
// them without naming an interface); loopback ones last.
std::vector<std::string> InterfaceAddresses(bool ipv6, bool linkLocal);

// The machine's host name, in lower case; empty when it has none.
std::string HostName();

}  // namespace sx::host::net
