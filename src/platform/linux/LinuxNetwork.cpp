#include "platform/linux/LinuxNetwork.h"

#include <arpa/inet.h>
#include <avahi-client/client.h>
#include <avahi-client/publish.h>
#include <avahi-common/error.h>
#include <avahi-common/thread-watch.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <unistd.h>

#include <climits>
#include <optional>
#include <string>

namespace tw::linuxp {

namespace {

// The first IPv4 address of an interface that is up and running and not loopback.
std::optional<std::string> firstOutsideAddress() {
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) return std::nullopt;
    std::optional<std::string> found;
    for (ifaddrs* it = list; it && !found; it = it->ifa_next) {
        if (!it->ifa_addr || it->ifa_addr->sa_family != AF_INET) continue;
        if ((it->ifa_flags & IFF_LOOPBACK) || !(it->ifa_flags & IFF_UP) || !(it->ifa_flags & IFF_RUNNING)) continue;
        char text[INET_ADDRSTRLEN] = "";
        const auto* in = reinterpret_cast<const sockaddr_in*>(it->ifa_addr);
        if (::inet_ntop(AF_INET, &in->sin_addr, text, sizeof text)) found = text;
    }
    ::freeifaddrs(list);
    return found;
}

// One announced service: its own poll thread, client and entry group, all freed together.
class AvahiAnnouncement {
public:
    static std::shared_ptr<AvahiAnnouncement> create(const std::string& type, uint16_t port) {
        auto self = std::shared_ptr<AvahiAnnouncement>(new AvahiAnnouncement);
        self->poll_ = avahi_threaded_poll_new();
        if (!self->poll_) return nullptr;
        int error = 0;
        // Without a daemon the client cannot be made: nothing to announce to.
        self->client_ = avahi_client_new(avahi_threaded_poll_get(self->poll_), AvahiClientFlags(0), nullptr, nullptr, &error);
        if (!self->client_ || avahi_client_get_state(self->client_) != AVAHI_CLIENT_S_RUNNING) return nullptr;
        self->group_ = avahi_entry_group_new(self->client_, nullptr, nullptr);
        if (!self->group_) return nullptr;
        char host[HOST_NAME_MAX + 1] = "";
        ::gethostname(host, sizeof host);
        const std::string name = std::string("Tapwright on ") + (host[0] ? host : "this device");
        if (avahi_entry_group_add_service(self->group_, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, AvahiPublishFlags(0),
                                          name.c_str(), type.c_str(), nullptr, nullptr, port, nullptr) < 0 ||
            avahi_entry_group_commit(self->group_) < 0)
            return nullptr;
        if (avahi_threaded_poll_start(self->poll_) < 0) return nullptr;
        self->started_ = true;
        return self;
    }

    ~AvahiAnnouncement() {
        if (started_) avahi_threaded_poll_stop(poll_);
        if (group_) avahi_entry_group_free(group_);
        if (client_) avahi_client_free(client_);
        if (poll_) avahi_threaded_poll_free(poll_);
    }

private:
    AvahiAnnouncement() = default;
    AvahiThreadedPoll* poll_ = nullptr;
    AvahiClient* client_ = nullptr;
    AvahiEntryGroup* group_ = nullptr;
    bool started_ = false;
};

}  // namespace

bool LinuxNetwork::isWiFiReachable() const { return firstOutsideAddress().has_value(); }

std::string LinuxNetwork::localAddress() const { return firstOutsideAddress().value_or(""); }

std::shared_ptr<void> LinuxNetwork::advertise(const std::string& serviceType, uint16_t port) {
    return AvahiAnnouncement::create(serviceType, port);
}

}  // namespace tw::linuxp
