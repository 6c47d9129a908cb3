// The server's announcement on the local network (mDNS/DNS-SD, service type
// _uscan._tcp), so that phones and computers list the scanner without being
// told its address.
#pragma once
#include <cstdint>
#include <memory>
#include <string>

#include "serve/EsclModel.h"

namespace sx::host::escl {

constexpr char kServiceType[] = "_uscan._tcp";

class Announcer {
 public:
  virtual ~Announcer() = default;
};

struct Announcement {
  ScannerFacts facts;  // its name and the TXT record (DiscoveryTxt)
  std::string listen;  // the address served: only the network it is on hears of it
  uint16_t port = 0;
  // The path of the scanner's icon, announced as a URL on the host's mDNS
  // name; empty: none.
  std::string iconPath;
};

// Announces until the object is destroyed. Null with the reason in *problem
// when announcing is unavailable (a build without Avahi, no Avahi daemon
// running); serving goes on without it.
std::unique_ptr<Announcer> Announce(const Announcement& announcement, std::string* problem);

}  // namespace sx::host::escl
