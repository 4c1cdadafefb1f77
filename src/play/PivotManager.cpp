#include "play/PivotManager.h"

#include "core/Helper.h"
#include "platform/Platform.h"
#include "platform/UserInterface.h"
#include "recording/Recorder.h"
#include "ui/Localization.h"

namespace tw {

namespace {

void vibrate() {
    if (auto sounds = Platform::current().sounds) sounds->playSystemSound(kSystemSoundVibrate);
}

}  // namespace

PivotManager& PivotManager::sharedInstance() {
    static PivotManager manager;
    return manager;
}

void PivotManager::controlPanelViewDidClickOnRecord() {
    if (Helper::ifVibrateWhenRecordingStartStop()) vibrate();
    startRecording();
}

void PivotManager::stopRecording() {
    tw::stopRecording();
    if (Helper::ifVibrateWhenRecordingStartStop()) vibrate();
    if (Helper::ifShowRecordingFinishedAlert())
        if (auto ui = Platform::current().ui)
            ui->showAlert({Localization::localize("Tapwright"), Localization::localize("Recording Finished!"),
                           {Localization::localize("OK")}});
}

}  // namespace tw
