#pragma once
// The input system of the device: events dispatched into it reach its connections (the system's
// own display client among them) and its subscribers.
#include <cstdint>
#include <functional>

#include "platform/HidEvent.h"

namespace tw {

class HidEventSystem {
public:
    virtual ~HidEventSystem() = default;

    // Dispatches an event as a client of the system would (the injector's synthetic events).
    virtual void dispatchEvent(hid::HidEvent event) = 0;

    // Called for every event the system hands to one of its connections, with that connection's
    // type, before the connection gets it. One observer; setting another replaces it.
    using ConnectionDispatchObserver = std::function<void(uint32_t connectionType, const hid::HidEvent& event)>;
    virtual void setConnectionDispatchObserver(ConnectionDispatchObserver observer) = 0;

    // Tells the system a user event happened (resets the idle timer).
    virtual void userEventOccurred() = 0;
};

}  // namespace tw
