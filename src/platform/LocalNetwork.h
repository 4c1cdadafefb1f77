#pragma once
// The device on its local network: whether the wireless network is reachable, the device's own
// address there, and the advertisement of a service (the WebDAV server) to the network's browsers.
#include <cstdint>
#include <memory>
#include <string>

namespace tw {

class LocalNetwork {
public:
    virtual ~LocalNetwork() = default;
    // True when the device can be reached over the local wireless network.
    virtual bool isWiFiReachable() const = 0;
    // The device's address on the local network ("192.168.1.20"); "" when it has none.
    virtual std::string localAddress() const = 0;
    // Announces a service of `serviceType` ("_webdav._tcp") on `port` under the device's name while
    // the returned handle lives; null, silently, when the network has no advertiser to ask.
    virtual std::shared_ptr<void> advertise(const std::string& serviceType, uint16_t port) = 0;
};

}  // namespace tw
