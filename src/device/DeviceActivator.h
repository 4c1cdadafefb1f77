#pragma once
// The virtual device's trigger framework: assignments kept in "<root>/Library/Activator/
// assignments.json" ({"EVENT": {"MODE": "LISTENER", ...}, ...}, replaced atomically on each
// change and read afresh by every query, so every process of the device sees the same), listeners
// registered in this process, and the mode taken from the app in front.
#include <functional>
#include <map>
#include <mutex>

#include "platform/ActivatorFramework.h"
#include "platform/HidEventSystem.h"

namespace tw::device {

class DeviceActivator final : public ActivatorFramework {
public:
    // `frontApp` says which app is in front (empty: the home screen).
    DeviceActivator(std::string root, std::function<std::string()> frontApp);

    void registerListener(std::shared_ptr<ActivatorListener> listener, const std::string& name) override;
    std::vector<std::string> eventsAssignedToListenerWithName(const std::string& listenerName) override;
    std::optional<std::string> assignedListenerNameForEvent(const std::string& eventName, const std::string& mode) override;
    std::vector<std::string> compatibleEventModesForListenerWithName(const std::string& listenerName) override;
    bool eventWithNameIsCompatibleWithMode(const std::string& eventName, const std::string& mode) override;
    bool listenerWithNameRequiresAssignment(const std::string& listenerName) override;
    void assignEvent(const std::string& eventName, const std::string& mode, const std::string& listenerName) override;
    void unassignEvent(const std::string& eventName, const std::string& mode) override;
    bool sendEvent(const std::string& eventName) override;

    // From now on a person's button presses (the hardware buttons among the events that `clients`
    // hear) fire the events of ButtonGestures, on the main run loop.
    void watchButtons(HidEventClientFactory& clients);
    // Whether the buttons are heard now.
    bool watchingButtons() const;

    std::string currentMode() const;
    std::string assignmentsFile() const { return file_; }

private:
    using Assignments = std::map<std::string, std::map<std::string, std::string>>;
    Assignments read() const;
    void write(const Assignments& assignments) const;

    std::string file_;
    std::function<std::string()> frontApp_;
    std::mutex mutex_;
    std::map<std::string, std::shared_ptr<ActivatorListener>> listeners_;
    struct ButtonWatch;
    std::shared_ptr<ButtonWatch> buttons_;
};

}  // namespace tw::device
