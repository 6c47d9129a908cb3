// Announcing through the Avahi daemon. Avahi's callbacks run on its own poll
// thread once started; before that, inside avahi_client_new on the caller's.
// Thread contract: the announcer's state is touched by Avahi's callbacks
// only, and by the destructor after the poll thread has stopped.
#include <avahi-client/client.h>
#include <avahi-client/publish.h>
#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-common/thread-watch.h>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>

#include <cstdio>
#include <cstring>

#include "serve/EsclAnnounce.h"

namespace sx::host::escl {
namespace {

struct Where {
  AvahiIfIndex interface = AVAHI_IF_UNSPEC;
  AvahiProtocol protocol = AVAHI_PROTO_UNSPEC;
};

// The interface that holds `address`, so that a server listening on one
// network is not announced on the others (where its address is unreachable).
// Any address (0.0.0.0, ::) is announced everywhere.
Where InterfaceOf(const std::string& address) {
  Where where;
  in_addr v4{};
  in6_addr v6{};
  const bool isV4 = inet_pton(AF_INET, address.c_str(), &v4) == 1;
  const bool isV6 = !isV4 && inet_pton(AF_INET6, address.c_str(), &v6) == 1;
  if ((isV4 && v4.s_addr == htonl(INADDR_ANY)) || (isV6 && IN6_IS_ADDR_UNSPECIFIED(&v6)) || (!isV4 && !isV6))
    return where;
  where.protocol = isV4 ? AVAHI_PROTO_INET : AVAHI_PROTO_INET6;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return where;
  for (ifaddrs* a = list; a; a = a->ifa_next) {
    if (!a->ifa_addr) continue;
    const bool match =
        isV4 ? a->ifa_addr->sa_family == AF_INET &&
                   reinterpret_cast<const sockaddr_in*>(a->ifa_addr)->sin_addr.s_addr == v4.s_addr
             : a->ifa_addr->sa_family == AF_INET6 &&
                   std::memcmp(&reinterpret_cast<const sockaddr_in6*>(a->ifa_addr)->sin6_addr, &v6, sizeof v6) == 0;
    if (match) {
      where.interface = static_cast<AvahiIfIndex>(if_nametoindex(a->ifa_name));
      break;
    }
  }
  freeifaddrs(list);
  return where;
}

class AvahiAnnouncer : public Announcer {
 public:
  explicit AvahiAnnouncer(const Announcement& a)
      : name_(a.facts.name), port_(a.port), facts_(a.facts), iconPath_(a.iconPath), where_(InterfaceOf(a.listen)) {}
  ~AvahiAnnouncer() override {
    if (poll_) avahi_threaded_poll_stop(poll_);
    if (client_) avahi_client_free(client_);  // frees the entry group too
    if (poll_) avahi_threaded_poll_free(poll_);
  }

  bool Start(std::string* problem) {
    poll_ = avahi_threaded_poll_new();
    if (!poll_) {
      *problem = "Avahi's poll thread cannot be made";
      return false;
    }
    int error = 0;
    client_ = avahi_client_new(avahi_threaded_poll_get(poll_), AvahiClientFlags(0), &OnClient, this, &error);
    if (!client_) {
      *problem = error == AVAHI_ERR_NO_DAEMON ? "no Avahi daemon is running" : avahi_strerror(error);
      return false;
    }
    if (avahi_threaded_poll_start(poll_) < 0) {
      *problem = "Avahi's poll thread cannot be started";
      return false;
    }
    return true;
  }

 private:
  static void OnClient(AvahiClient* client, AvahiClientState state, void* self) {
    auto& a = *static_cast<AvahiAnnouncer*>(self);
    if (state == AVAHI_CLIENT_S_RUNNING) a.Publish(client);
    if (state == AVAHI_CLIENT_FAILURE)
      std::fprintf(stderr, "sxscan: announcing stopped: %s\n", avahi_strerror(avahi_client_errno(client)));
  }

  static void OnGroup(AvahiEntryGroup* group, AvahiEntryGroupState state, void* self) {
    auto& a = *static_cast<AvahiAnnouncer*>(self);
    if (state == AVAHI_ENTRY_GROUP_ESTABLISHED) {
      std::fprintf(stderr, "sxscan: announced on the local network as '%s' (%s)\n", a.name_.c_str(), kServiceType);
    } else if (state == AVAHI_ENTRY_GROUP_COLLISION) {
      // Another host has the name: the next free variant ("name #2").
      char* other = avahi_alternative_service_name(a.name_.c_str());
      a.name_ = other;
      avahi_free(other);
      avahi_entry_group_reset(group);
      a.Publish(avahi_entry_group_get_client(group));
    }
  }

  void Publish(AvahiClient* client) {
    if (!group_) group_ = avahi_entry_group_new(client, &OnGroup, this);
    if (!group_) return;
    // The icon's URL names the host as the network knows it.
    const char* host = avahi_client_get_host_name_fqdn(client);
    const std::string icon =
        iconPath_.empty() || !host ? "" : "http://" + std::string(host) + ":" + std::to_string(port_) + iconPath_;
    const TxtRecord txt = DiscoveryTxt(facts_, icon, "");
    AvahiStringList* list = nullptr;
    for (const auto& [key, value] : txt) list = avahi_string_list_add_pair(list, key.c_str(), value.c_str());
    // The record is kept in the order given: clients read txtvers first.
    list = avahi_string_list_reverse(list);
    const int result = avahi_entry_group_add_service_strlst(group_, where_.interface, where_.protocol,
                                                            AvahiPublishFlags(0), name_.c_str(), kServiceType,
                                                            nullptr, nullptr, port_, list);
    avahi_string_list_free(list);
    if (result < 0 || avahi_entry_group_commit(group_) < 0)
      std::fprintf(stderr, "sxscan: cannot announce: %s\n", avahi_strerror(avahi_client_errno(client)));
  }

  std::string name_;
  uint16_t port_;
  ScannerFacts facts_;
  std::string iconPath_;
  Where where_;
  AvahiThreadedPoll* poll_ = nullptr;
  AvahiClient* client_ = nullptr;
  AvahiEntryGroup* group_ = nullptr;
};

}  // namespace

std::unique_ptr<Announcer> Announce(const Announcement& announcement, std::string* problem) {
  auto announcer = std::make_unique<AvahiAnnouncer>(announcement);
  if (!announcer->Start(problem)) return nullptr;
  return announcer;
}

}  // namespace sx::host::escl
