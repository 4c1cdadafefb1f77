#pragma once
// The local network of a Linux machine: reachable when an interface other than loopback is up and
// running; the address is that interface's first IPv4 address; services are announced through the
// Avahi daemon when one answers on the system bus, and silently not at all otherwise.
#include "platform/LocalNetwork.h"

namespace tw::linuxp {

class LinuxNetwork : public LocalNetwork {
public:
    bool isWiFiReachable() const override;
    std::string localAddress() const override;
    std::shared_ptr<void> advertise(const std::string& serviceType, uint16_t port) override;
};

}  // namespace tw::linuxp
