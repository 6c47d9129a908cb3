// Announcing in a build without Avahi's client library.
#include "serve/EsclAnnounce.h"

namespace sx::host::escl {

std::unique_ptr<Announcer> Announce(const Announcement&, std::string* problem) {
  *problem = "this build has no Avahi client library";
  return nullptr;
}

}  // namespace sx::host::escl
