#include "serve/HttpHost.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <charconv>

namespace sx::host::http {
namespace {

bool AllDigits(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); });
}

}  // namespace

std::string CanonicalAddress(std::string_view text) {
  if (text.size() >= 2 && text.front() == '[' && text.back() == ']') text = text.substr(1, text.size() - 2);
  // A link-local IPv6 address names its interface after '%' ("%25" in a
  // URL); the address is the same on any.
  const std::string copy(text.substr(0, text.find(':') != std::string_view::npos ? text.find('%') : text.size()));
  unsigned char binary[16];
  char out[INET6_ADDRSTRLEN] = {};
  if (inet_pton(AF_INET, copy.c_str(), binary) == 1) return inet_ntop(AF_INET, binary, out, sizeof out);
  if (inet_pton(AF_INET6, copy.c_str(), binary) == 1) return inet_ntop(AF_INET6, binary, out, sizeof out);
  return {};
}

std::string HostPart(std::string_view host) {
  std::string_view name = host, port;
  if (!host.empty() && host.front() == '[') {
    const size_t close = host.find(']');
    if (close == std::string_view::npos) return {};
    name = host.substr(0, close + 1);
    const std::string_view rest = host.substr(close + 1);
    if (!rest.empty() && (rest.front() != ':' || !AllDigits(rest.substr(1)))) return {};
  } else if (const size_t colon = host.rfind(':'); colon != std::string_view::npos) {
    name = host.substr(0, colon);
    port = host.substr(colon + 1);
    if (!AllDigits(port)) return {};
  }
  if (name.size() >= 2 && name.front() == '[') name = name.substr(1, name.size() - 2);
  return std::string(name);
}

bool HostAllowed(std::string_view host, const HostNames& allowed) {
  std::string name = HostPart(host);
  if (name.empty()) return false;
  const std::string address = CanonicalAddress(name);
  if (!address.empty())
    return std::find(allowed.addresses.begin(), allowed.addresses.end(), address) != allowed.addresses.end();
  std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
  if (name.back() == '.') name.pop_back();
  return std::find(allowed.names.begin(), allowed.names.end(), name) != allowed.names.end();
}

bool FromOwnPage(std::string_view origin, std::string_view fetchSite, const HostNames& own, uint16_t port) {
  if (!fetchSite.empty() && fetchSite != "same-origin" && fetchSite != "none") return false;
  if (origin.empty()) return true;
  // Browsers write the scheme in lower case; a page of a file or a sandbox
  // sends "null", which names nobody.
  constexpr std::string_view kScheme = "http://";
  if (origin.substr(0, kScheme.size()) != kScheme) return false;
  const std::string_view authority = origin.substr(kScheme.size());
  if (!HostAllowed(authority, own)) return false;
  const size_t colon = authority.rfind(':'), close = authority.rfind(']');
  const bool hasPort = colon != std::string_view::npos && (close == std::string_view::npos || colon > close);
  constexpr uint16_t kHttpPort = 80;
  uint32_t stated = kHttpPort;
  if (hasPort) {
    const std::string_view text = authority.substr(colon + 1);
    if (std::from_chars(text.data(), text.data() + text.size(), stated).ptr != text.data() + text.size()) return false;
  }
  return stated == port;
}

}  // namespace sx::host::http
