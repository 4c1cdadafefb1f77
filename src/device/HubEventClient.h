#pragma once
// The event-system client of the virtual device: a subscriber of the HID hub (see
// VirtualHidSystem.h) on the process's main loop, which reads each event line back into its event.
// When the hub goes away (the input-event role restarts) it subscribes again.
#include <memory>
#include <string>

#include "platform/HidEventSystem.h"

namespace tw::linuxp {
class AsioRunLoop;
}

namespace tw::device {

class HubEventClients final : public HidEventClientFactory {
public:
    HubEventClients(std::shared_ptr<linuxp::AsioRunLoop> loop, std::string runDir)
        : loop_(std::move(loop)), runDir_(std::move(runDir)) {}
    std::shared_ptr<HidEventClient> createClient() override;

private:
    std::shared_ptr<linuxp::AsioRunLoop> loop_;
    std::string runDir_;
};

}  // namespace tw::device
