#include "triggers/ActivatorManager.h"

#include <algorithm>

#include "library/FileManager.h"
#include "platform/Platform.h"
#include "store/DataManager.h"

namespace tw {

namespace {

ActivatorFramework* framework() { return Platform::current().activator.get(); }

bool contains(const std::vector<std::string>& list, const std::string& item) {
    return std::find(list.begin(), list.end(), item) != list.end();
}

void ensureDefault(int64_t forWhat, const char* eventName) {
    const auto existing = forWhat == kForWhatControlPanel ? DataManager::getActivatorTriggerForControlPanel()
                                                          : DataManager::getActivatorTriggerForStartStopPlaying();
    if (existing) return;
    const ActivatorTrigger trigger(eventName, forWhat, std::nullopt);
    ActivatorManager::assignActivatorTrigger(trigger, ActivatorManager::compatibleModesOfEvent(eventName));
}

}  // namespace

void ActivatorManager::assignActivatorTrigger(const ActivatorTrigger& trigger, const std::vector<std::string>& modes) {
    if (auto* activator = framework())
        for (const auto& mode : modes) activator->assignEvent(trigger.eventName, mode, kActivatorListenerName);
    DataManager::addActivatorTrigger(trigger);
}

void ActivatorManager::unassignActivatorTrigger(const ActivatorTrigger& trigger, const std::vector<std::string>& modes) {
    if (auto* activator = framework())
        for (const auto& mode : modes) activator->unassignEvent(trigger.eventName, mode);
    DataManager::removeActivatorTrigger(trigger.eventName);
}

bool ActivatorManager::isEventAssigned(const std::string& eventName, int64_t forWhat, const std::string& filePath) {
    const auto trigger = getActivatorTriggerByEventName(eventName);
    if (!trigger) return false;
    if (forWhat == kForWhatControlPanel || forWhat == kForWhatStartStopPlaying) return trigger->forWhat == forWhat;
    if (forWhat == kForWhatPlayScript) return trigger->forWhat == kForWhatPlayScript && trigger->filePath == filePath;
    return false;
}

std::vector<ActivatorTrigger> ActivatorManager::getActivatorTriggersAll() {
    inspectActivators();
    return DataManager::getActivatorTriggersAll().value_or(std::vector<ActivatorTrigger>{});
}

std::optional<ActivatorTrigger> ActivatorManager::getActivatorTriggerForControlPanel() {
    inspectActivators();
    return DataManager::getActivatorTriggerForControlPanel();
}

std::optional<ActivatorTrigger> ActivatorManager::getActivatorTriggerForStartStopPlaying() {
    inspectActivators();
    return DataManager::getActivatorTriggerForStartStopPlaying();
}

std::optional<ActivatorTrigger> ActivatorManager::getActivatorTriggerByEventName(const std::string& eventName) {
    return DataManager::getActivatorTriggerByEventName(eventName);
}

std::optional<ActivatorTrigger> ActivatorManager::getActivatorTriggerByFilePath(const std::string& filePath) {
    return DataManager::getActivatorTriggerByScriptTitle(filePath);
}

std::vector<std::string> ActivatorManager::compatibleModesOfEvent(const std::string& eventName) {
    std::vector<std::string> modes;
    auto* activator = framework();
    if (!activator) return modes;
    for (const auto& mode : activator->compatibleEventModesForListenerWithName(kActivatorListenerName))
        if (activator->eventWithNameIsCompatibleWithMode(eventName, mode)) modes.push_back(mode);
    return modes;
}

std::vector<std::string> ActivatorManager::compatibleModesOfEventAssigned(const std::string& eventName) {
    std::vector<std::string> modes;
    auto* activator = framework();
    if (!activator) return modes;
    for (const auto& mode : activator->compatibleEventModesForListenerWithName(kActivatorListenerName))
        if (activator->assignedListenerNameForEvent(eventName, mode) == kActivatorListenerName) modes.push_back(mode);
    return modes;
}

bool ActivatorManager::allowedToUnassignEvent(const std::string& eventName, const std::string& listenerName) {
    auto* activator = framework();
    if (!activator || !activator->listenerWithNameRequiresAssignment(listenerName)) return true;
    // A listener that requires an assignment keeps its last assigned event.
    if (activator->eventsAssignedToListenerWithName(listenerName).size() > 1) return true;
    for (const auto& mode : activator->compatibleEventModesForListenerWithName(listenerName))
        if (activator->assignedListenerNameForEvent(eventName, mode) == listenerName) return false;
    return true;
}

void ActivatorManager::keepConsistentAmongFilesAndActivatorAndDb() {
    const auto scripts = FileManager::getAllScriptFilePathesOnly();
    auto* activator = framework();
    const auto assigned = activator ? activator->eventsAssignedToListenerWithName(kActivatorListenerName)
                                    : std::vector<std::string>{};
    const auto rows = DataManager::getActivatorTriggersAll().value_or(std::vector<ActivatorTrigger>{});
    std::vector<std::string> rowEvents;
    for (const auto& row : rows) rowEvents.push_back(row.eventName);
    for (const auto& row : rows) {
        if (row.forWhat == kForWhatPlayScript && !contains(scripts, row.filePath.value_or("")))
            DataManager::removeActivatorTriggerByScriptTitle(row.filePath.value_or(""));
        if (!contains(assigned, row.eventName)) DataManager::removeActivatorTrigger(row.eventName);
    }
    if (!activator) return;
    for (const auto& event : assigned) {
        if (contains(rowEvents, event)) continue;
        for (const auto& mode : activator->compatibleEventModesForListenerWithName(kActivatorListenerName))
            if (activator->assignedListenerNameForEvent(event, mode) == kActivatorListenerName) activator->unassignEvent(event, mode);
    }
}

void ActivatorManager::makeSureControlActionsAreSet() {
    ensureDefault(kForWhatControlPanel, kDefaultControlPanelEvent);
    ensureDefault(kForWhatStartStopPlaying, kDefaultStartStopEvent);
}

void ActivatorManager::inspectActivators() {
    keepConsistentAmongFilesAndActivatorAndDb();
    makeSureControlActionsAreSet();
}

}  // namespace tw
