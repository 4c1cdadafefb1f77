#pragma once
// Trigger bindings, kept twice: as the trigger framework's assignments (event and mode to this
// system's listener) and as rows of the ACTIVATOR_TRIGGER table. ActivatorManager keeps the two in
// step; ActionListener turns received events into the play controller's calls. Home-screen
// process, main run loop only.
#include <optional>
#include <string>
#include <vector>

#include "platform/ActivatorFramework.h"
#include "store/ActivatorTrigger.h"

namespace tw {

inline constexpr const char* kActivatorListenerName = "me.tapwright.TWTweak";

class ActivatorManager {
public:
    static void assignActivatorTrigger(const ActivatorTrigger& trigger, const std::vector<std::string>& modes);
    static void unassignActivatorTrigger(const ActivatorTrigger& trigger, const std::vector<std::string>& modes);
    static bool isEventAssigned(const std::string& eventName, int64_t forWhat, const std::string& filePath);

    // Each runs inspectActivators first.
    static std::vector<ActivatorTrigger> getActivatorTriggersAll();
    static std::optional<ActivatorTrigger> getActivatorTriggerForControlPanel();
    static std::optional<ActivatorTrigger> getActivatorTriggerForStartStopPlaying();

    static std::optional<ActivatorTrigger> getActivatorTriggerByEventName(const std::string& eventName);
    static std::optional<ActivatorTrigger> getActivatorTriggerByFilePath(const std::string& filePath);

    static std::vector<std::string> compatibleModesOfEvent(const std::string& eventName);
    static std::vector<std::string> compatibleModesOfEventAssigned(const std::string& eventName);
    static bool allowedToUnassignEvent(const std::string& eventName, const std::string& listenerName);

    // Drops rows of scripts that are gone and of events not assigned, and assignments without rows.
    static void keepConsistentAmongFilesAndActivatorAndDb();
    // Creates the default binding of each control action that has none.
    static void makeSureControlActionsAreSet();
    static void inspectActivators();
};

// The default bindings: the control panel on a short hold of volume down, start/stop on its press.
inline constexpr const char* kDefaultControlPanelEvent = "LAEventNameVolumeDownHoldShort";
inline constexpr const char* kDefaultStartStopEvent = "LAEventNameVolumeDownPress";

}  // namespace tw
