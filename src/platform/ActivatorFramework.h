#pragma once
// The trigger framework: named trigger events (button presses and holds) that the system
// delivers, per mode (the home screen, an app in front, the lock screen), to the listener
// assigned to the event in that mode. Listeners register by name; assignments persist.
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tw {

// The framework's mode names.
inline constexpr const char* kActivatorModeSpringBoard = "springboard";
inline constexpr const char* kActivatorModeApplication = "application";
inline constexpr const char* kActivatorModeLockScreen = "lockscreen";

class ActivatorListener {
public:
    virtual ~ActivatorListener() = default;
    // An event assigned to this listener happened; true when the listener handled it.
    virtual bool receiveEvent(const std::string& eventName, const std::string& mode) = 0;
};

class ActivatorFramework {
public:
    virtual ~ActivatorFramework() = default;

    virtual void registerListener(std::shared_ptr<ActivatorListener> listener, const std::string& name) = 0;

    // Every event assigned to the listener, in any mode, each name once.
    virtual std::vector<std::string> eventsAssignedToListenerWithName(const std::string& listenerName) = 0;
    virtual std::optional<std::string> assignedListenerNameForEvent(const std::string& eventName, const std::string& mode) = 0;
    // The modes in which the listener can be assigned, in the framework's order.
    virtual std::vector<std::string> compatibleEventModesForListenerWithName(const std::string& listenerName) = 0;
    virtual bool eventWithNameIsCompatibleWithMode(const std::string& eventName, const std::string& mode) = 0;
    virtual bool listenerWithNameRequiresAssignment(const std::string& listenerName) = 0;

    virtual void assignEvent(const std::string& eventName, const std::string& mode, const std::string& listenerName) = 0;
    virtual void unassignEvent(const std::string& eventName, const std::string& mode) = 0;

    // Delivers the event in the current mode to its assigned listener: whether it was handled
    // (false when no listener is assigned or registered).
    virtual bool sendEvent(const std::string& eventName) = 0;
};

// The event names of this device's buttons.
inline const std::vector<std::string>& activatorEventNames() {
    static const std::vector<std::string> names{
        "LAEventNameVolumeDownPress",     "LAEventNameVolumeUpPress",      "LAEventNameVolumeDownHoldShort",
        "LAEventNameVolumeUpHoldShort",   "LAEventNameVolumeDownHoldLong", "LAEventNameVolumeUpHoldLong",
        "LAEventNameMenuPressDouble",     "LAEventNameLockPress"};
    return names;
}

}  // namespace tw
