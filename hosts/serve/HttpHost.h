// Which Host headers the server answers. A web page in a person's browser
// may name the server through a host name its author controls and points at
// the person's machine (DNS rebinding): the browser then treats the server
// as part of that page's site, and the page could start scans. Such a
// request names a host the server is not, and is refused.
#pragma once
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

// The host part of a Host header value, without the port and brackets;
// empty when the value is malformed (a port that is no number, an empty
// host).
std::string HostPart(std::string_view host);

}  // namespace sx::host::http
