#pragma once
// The input system of the device: events dispatched into it reach its connections (the system's
// own display client among them) and its subscribers.
#include <cstdint>
#include <functional>
#include <memory>

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

// A client of the event system that hears every event the system delivers (the recorder's).
class HidEventClient {
public:
    using EventCallback = std::function<void(const hid::HidEvent& event)>;
    virtual ~HidEventClient() = default;

    // Schedules the client on the main run loop and registers `callback`: from then on every
    // delivered event is handed to it there, in delivery order.
    virtual void registerEventCallback(EventCallback callback) = 0;
    // Unregisters the callback and unschedules the client; no call follows.
    virtual void unregisterEventCallback() = 0;
    // Whether the client hears the system now (a client that reaches the system over a connection
    // is not yet, or no longer, connected otherwise).
    virtual bool isListening() const { return true; }
};

class HidEventClientFactory {
public:
    virtual ~HidEventClientFactory() = default;
    virtual std::shared_ptr<HidEventClient> createClient() = 0;
};

}  // namespace tw
