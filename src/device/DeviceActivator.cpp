#include "device/DeviceActivator.h"

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "core/AtomicFile.h"
#include "core/Diagnostics.h"
#include "device/ButtonGestures.h"
#include "platform/HidEvent.h"
#include "platform/RunLoop.h"

namespace tw::device {

DeviceActivator::DeviceActivator(std::string root, std::function<std::string()> frontApp)
    : file_(root + "/Library/Activator/assignments.json"), frontApp_(std::move(frontApp)) {}

DeviceActivator::Assignments DeviceActivator::read() const {
    Assignments assignments;
    const auto text = readWholeFile(file_);
    if (!text) return assignments;
    const auto json = nlohmann::json::parse(*text, nullptr, false);
    if (!json.is_object()) return assignments;  // unreadable: no assignments
    for (const auto& [event, modes] : json.items()) {
        if (!modes.is_object()) continue;
        for (const auto& [mode, listener] : modes.items())
            if (listener.is_string()) assignments[event][mode] = listener.get<std::string>();
    }
    return assignments;
}

void DeviceActivator::write(const Assignments& assignments) const {
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(file_).parent_path(), ec);
    std::string error;
    if (!writeFileAtomically(file_, nlohmann::json(assignments).dump(2) + "\n", &error))
        diagnostic("trigger assignments: %s", error.c_str());
}

void DeviceActivator::registerListener(std::shared_ptr<ActivatorListener> listener, const std::string& name) {
    std::lock_guard lock(mutex_);
    listeners_[name] = std::move(listener);
}

std::vector<std::string> DeviceActivator::eventsAssignedToListenerWithName(const std::string& listenerName) {
    std::vector<std::string> events;
    for (const auto& [event, modes] : read())
        if (std::any_of(modes.begin(), modes.end(), [&](const auto& m) { return m.second == listenerName; }))
            events.push_back(event);
    return events;
}

std::optional<std::string> DeviceActivator::assignedListenerNameForEvent(const std::string& eventName, const std::string& mode) {
    const auto assignments = read();
    const auto event = assignments.find(eventName);
    if (event == assignments.end()) return std::nullopt;
    const auto listener = event->second.find(mode);
    if (listener == event->second.end()) return std::nullopt;
    return listener->second;
}

std::vector<std::string> DeviceActivator::compatibleEventModesForListenerWithName(const std::string&) {
    return {kActivatorModeSpringBoard, kActivatorModeApplication, kActivatorModeLockScreen};
}

bool DeviceActivator::eventWithNameIsCompatibleWithMode(const std::string& eventName, const std::string&) {
    const auto& names = activatorEventNames();
    return std::find(names.begin(), names.end(), eventName) != names.end();
}

bool DeviceActivator::listenerWithNameRequiresAssignment(const std::string&) { return false; }

void DeviceActivator::assignEvent(const std::string& eventName, const std::string& mode, const std::string& listenerName) {
    std::lock_guard lock(mutex_);
    auto assignments = read();
    assignments[eventName][mode] = listenerName;
    write(assignments);
}

void DeviceActivator::unassignEvent(const std::string& eventName, const std::string& mode) {
    std::lock_guard lock(mutex_);
    auto assignments = read();
    auto event = assignments.find(eventName);
    if (event == assignments.end() || !event->second.erase(mode)) return;
    if (event->second.empty()) assignments.erase(event);
    write(assignments);
}

struct DeviceActivator::ButtonWatch {
    std::shared_ptr<HidEventClient> client;
    ButtonGestures gestures;
    std::shared_ptr<RunLoop::Timer> holdTimer;
    // Sends what is due, then waits for the next hold, if a button is held.
    std::function<void(const std::vector<std::string>&)> fire;
};

namespace {
int64_t millisecondsOf(uint64_t ticks) { return static_cast<int64_t>(ticks / (hid::kAbsoluteTicksPerMicrosecond * 1000)); }
}  // namespace

void DeviceActivator::watchButtons(HidEventClientFactory& clients) {
    buttons_ = std::make_shared<ButtonWatch>();
    buttons_->client = clients.createClient();
    std::weak_ptr<ButtonWatch> weak = buttons_;
    buttons_->fire = [this, weak](const std::vector<std::string>& events) {
        for (const auto& event : events) sendEvent(event);
        auto watch = weak.lock();
        if (!watch) return;
        if (watch->holdTimer) watch->holdTimer->invalidate();
        const auto next = watch->gestures.nextDeadline();
        if (!next) return;
        const auto wait = std::chrono::milliseconds(std::max<int64_t>(0, *next - millisecondsOf(hid::absoluteTime())));
        watch->holdTimer = RunLoop::main().scheduleTimer(RunLoop::Clock::now() + wait, std::chrono::duration<double>(0),
                                                         [weak](RunLoop::Timer&) {
                                                             if (auto watch = weak.lock())
                                                                 watch->fire(watch->gestures.tick(millisecondsOf(hid::absoluteTime())));
                                                         });
    };
    buttons_->client->registerEventCallback([weak](const hid::HidEvent& event) {
        auto watch = weak.lock();
        if (!watch || !event.hardware || event.type != hid::kEventTypeKeyboard) return;  // a script's keys fire nothing
        watch->fire(watch->gestures.button(static_cast<uint32_t>(event.integerValue(hid::kFieldKeyboardUsagePage)),
                                           static_cast<uint32_t>(event.integerValue(hid::kFieldKeyboardUsage)),
                                           event.integerValue(hid::kFieldKeyboardDown) != 0, millisecondsOf(event.timestamp)));
    });
}

bool DeviceActivator::watchingButtons() const { return buttons_ && buttons_->client->isListening(); }

std::string DeviceActivator::currentMode() const {
    return frontApp_ && !frontApp_().empty() ? kActivatorModeApplication : kActivatorModeSpringBoard;
}

bool DeviceActivator::sendEvent(const std::string& eventName) {
    const std::string mode = currentMode();
    const auto name = assignedListenerNameForEvent(eventName, mode);
    if (!name) return false;
    std::shared_ptr<ActivatorListener> listener;
    {
        std::lock_guard lock(mutex_);
        auto it = listeners_.find(*name);
        if (it == listeners_.end()) return false;
        listener = it->second;
    }
    return listener->receiveEvent(eventName, mode);
}

}  // namespace tw::device
