// The server's announcement on the local network (mDNS/DNS-SD, service type
// _uscan._tcp), so that phones and computers list the scanner without being
// told its address.
#pragma once
#include <cstdint>
#include <memory>
#include <string>

#include "EsclModel.h"

namespace sx::host::escl {

constexpr char kServiceType[] = "_uscan._tcp";

class Announcer {
 public:
  virtual ~Announcer() = default;
};

// Announces `name` on `port` with `txt` until the object is destroyed. Null
// with the reason in *problem when announcing is unavailable (a build without
// Avahi, no Avahi daemon running); serving goes on without it.
std::unique_ptr<Announcer> Announce(const std::string& name, uint16_t port, const TxtRecord& txt,
                                    std::string* problem);

}  // namespace sx::host::escl
