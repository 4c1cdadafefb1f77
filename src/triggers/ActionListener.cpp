#include "triggers/ActionListener.h"

#include "core/Global.h"
#include "library/FileManager.h"
#include "platform/Platform.h"
#include "play/PivotManager.h"
#include "store/DataManager.h"
#include "store/PlaySettings.h"
#include "triggers/ActivatorManager.h"

namespace tw {

std::shared_ptr<ActionListener> ActionListener::sharedInstance() {
    static const auto listener = std::make_shared<ActionListener>();
    return listener;
}

void ActionListener::load() {
    auto listener = sharedInstance();
    if (auto activator = Platform::current().activator) activator->registerListener(listener, kActivatorListenerName);
    FileManager::prepareDirectories();
    DataManager::initDb();
    const auto delay = std::chrono::duration_cast<RunLoop::Clock::duration>(std::chrono::duration<double>(kControlActionsDelaySeconds));
    listener->controlActionsLimitTimer = RunLoop::main().scheduleTimer(
        RunLoop::Clock::now() + delay, std::chrono::duration<double>(0),
        [](RunLoop::Timer&) { sharedInstance()->initControlActions(); });
}

void ActionListener::initControlActions() { ActivatorManager::inspectActivators(); }

bool ActionListener::receiveEvent(const std::string& eventName, const std::string&) {
    auto& pivot = PivotManager::sharedInstance();
    if (pivot.isAnyPopupViewShowing()) return false;
    const auto trigger = ActivatorManager::getActivatorTriggerByEventName(eventName);
    if (!trigger) return false;
    auto& global = Global::sharedInstance();
    const bool P = global.isPlaying(), R = global.isRecording(), Y = global.isReadyToPlay();
    switch (trigger->forWhat) {
        case kForWhatControlPanel:
            if (!P && !R && !Y) pivot.showControlPanel();
            else if (R && !P && !Y) pivot.stopRecording();
            else if (P && !R && !Y) pivot.stopPlaying();
            else if (Y && !R) pivot.quitReadyToPlayStatus();
            else return false;
            return true;
        case kForWhatStartStopPlaying:
            if (!Y || R) return false;
            P ? pivot.stopPlaying() : pivot.playScriptNow();
            return true;
        case kForWhatPlayScript: {
            const auto current = global.currentPlaySettings();
            if (trigger->filePath && current && current->filePath != *trigger->filePath) return false;
            if (!P && !R && !Y) pivot.forwardToPlay(trigger->filePath.value_or(""));
            else if (P && !R && !Y) pivot.stopPlaying();
            else if (Y && !R) pivot.quitReadyToPlayStatus();
            else return false;
            return true;
        }
        default:
            return false;
    }
}

}  // namespace tw
