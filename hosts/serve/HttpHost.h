// Which Host headers the server answers, and which pages may start and stop
// scans. A web page in a person's browser may name the server through a
// host name its author controls and points at the person's machine (DNS
// rebinding): the browser then treats the server as part of that page's
// site, and the page could start scans. Such a request names a host the
// server is not, and is refused. A page of another site may also send a
// request to the server by its own name: the browser then says where the
// page came from (Origin, Sec-Fetch-Site), and only the server's own pages
// may change anything.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace sx::host::http {

struct HostNames {
  std::vector<std::string> names;      // in lower case, without a final dot
  std::vector<std::string> addresses;  // literal addresses, as CanonicalAddress gives them
};

// Whether a Host header value ("name", "name:8090", "192.0.2.1:8090",
// "[fd00::2]:8090") names one of `allowed`, with or without a port. Names
// compare in any case and with a final dot or not; addresses compare by
// value (a literal is never taken for a name).
bool HostAllowed(std::string_view host, const HostNames& allowed);

// `text` in the form inet_ntop writes it when it is a literal IPv4 or IPv6
// address (brackets around an IPv6 one and an interface after '%' are
// allowed); empty otherwise.
std::string CanonicalAddress(std::string_view text);

// Whether a request that changes state comes from one of this server's own
// pages, served at `port`: its Origin (when sent) an http origin naming one
// of `own` and that port, and its Sec-Fetch-Site (when sent) same-origin or
// none. eSCL clients, being no browsers, send neither, and pass.
bool FromOwnPage(std::string_view origin, std::string_view fetchSite, const HostNames& own, uint16_t port);

// The host part of a Host header value, without the port and brackets;
// empty when the value is malformed (a port that is no number, an empty
// host).
std::string HostPart(std::string_view host);

}  // namespace sx::host::http
