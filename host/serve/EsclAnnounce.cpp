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

#include <cstdio>

#include "EsclAnnounce.h"

namespace sx::host::escl {
namespace {

class AvahiAnnouncer : public Announcer {
 public:
  AvahiAnnouncer(std::string name, uint16_t port, TxtRecord txt)
      : name_(std::move(name)), port_(port), txt_(std::move(txt)) {}
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
    AvahiStringList* list = nullptr;
    for (const auto& [key, value] : txt_) list = avahi_string_list_add_pair(list, key.c_str(), value.c_str());
    // The record is kept in the order given: clients read txtvers first.
    list = avahi_string_list_reverse(list);
    const int result = avahi_entry_group_add_service_strlst(group_, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                                            AvahiPublishFlags(0), name_.c_str(), kServiceType,
                                                            nullptr, nullptr, port_, list);
    avahi_string_list_free(list);
    if (result < 0 || avahi_entry_group_commit(group_) < 0)
      std::fprintf(stderr, "sxscan: cannot announce: %s\n", avahi_strerror(avahi_client_errno(client)));
  }

  std::string name_;
  uint16_t port_;
  TxtRecord txt_;
  AvahiThreadedPoll* poll_ = nullptr;
  AvahiClient* client_ = nullptr;
  AvahiEntryGroup* group_ = nullptr;
};

}  // namespace

std::unique_ptr<Announcer> Announce(const std::string& name, uint16_t port, const TxtRecord& txt,
                                    std::string* problem) {
  auto announcer = std::make_unique<AvahiAnnouncer>(name, port, txt);
  if (!announcer->Start(problem)) return nullptr;
  return announcer;
}

}  // namespace sx::host::escl
