#include "play/PivotManager.h"

#include <algorithm>
#include <chrono>

#include "core/Global.h"
#include "core/Helper.h"
#include "graphic/Bmp.h"
#include "library/Encrypt.h"
#include "library/FileManager.h"
#include "platform/Platform.h"
#include "platform/RunLoop.h"
#include "platform/UserDefaults.h"
#include "platform/UserInterface.h"
#include "play/ScriptManager.h"
#include "recording/Recorder.h"
#include "schedule/TimerManager.h"
#include "store/DataManager.h"
#include "store/PlaySettingsManager.h"
#include "ui/Localization.h"

namespace tw {

namespace {

constexpr std::chrono::milliseconds kLater(100);

void vibrate() {
    if (auto sounds = Platform::current().sounds) sounds->playSystemSound(kSystemSoundVibrate);
}

void afterALittle(void (PivotManager::*action)()) {
    RunLoop::main().scheduleTimer(RunLoop::Clock::now() + kLater, std::chrono::duration<double>(0),
                                  [action](RunLoop::Timer&) { (PivotManager::sharedInstance().*action)(); });
}

std::string trimmed(const std::string& text) {
    const char* space = " \t\n\r\v\f";
    const size_t first = text.find_first_not_of(space);
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(space) - first + 1);
}

// An alert whose buttons the controller hears about.
void showAlertWithDelegate(const AlertRequest& alert, int tag) {
    auto ui = Platform::current().ui;
    if (!ui) return;
    auto& manager = PivotManager::sharedInstance();
    ui->showAlert(alert, {[&manager] { manager.didPresentAlertView(); },
                          [&manager, tag](int index) { manager.alertViewClickedButtonAtIndex(tag, index); },
                          [&manager](int index) { manager.alertViewDidDismissWithButtonIndex(index); }});
}

}  // namespace

PivotManager& PivotManager::sharedInstance() {
    static PivotManager manager;
    return manager;
}

void PivotManager::initCurrentPlaySettingsFor(const std::string& path) {
    Global::sharedInstance().setCurrentPlaySettings(PlaySettingsManager::currentPlaySettingsFor(path));
}

void PivotManager::forwardToPlay(const std::string& path) { play(path, false); }

void PivotManager::directToPlay(const std::string& path) { play(path, true); }

void PivotManager::play(const std::string& path, bool direct) {
    initCurrentPlaySettingsFor(path);
    auto settings = Global::sharedInstance().currentPlaySettings();
    const std::string extension = FileManager::lowerExtension(path);
    auto goOn = [&] {
        if (direct) settings->playDirectly = true;
        if (settings->playDirectly)
            playScriptNow();
        else
            showPlaySettingsView();
    };
    if (extension == "lua") {
        settings->playType = 0;
        goOn();
    } else if (extension == "e") {
        settings->playType = 1;
        const std::string stored = Encrypt::rememberedPassword(path);
        if (auto text = Encrypt::decryptScript(FileManager::fullPathOfFile(path), stored)) {
            settings->scriptContent = *text;
            goOn();
        } else {
            if (auto defaults = Platform::current().standardDefaults; defaults && !stored.empty())
                defaults->removeObjectForKey(Encrypt::passwordKeyOf(path));
            showDecryptScriptAlertView();
        }
    }
}

void PivotManager::playScriptNow() { afterALittle(&PivotManager::doPlayScriptNow); }

void PivotManager::doPlayScriptNow() { ScriptManager::runScript(); }

void PivotManager::stopPlaying() { ScriptManager::stopPlaying(); }

void PivotManager::quitReadyToPlayStatus() {
    auto& global = Global::sharedInstance();
    if (global.isPlaying()) ScriptManager::stopPlaying();
    global.setCurrentPlaySettings(nullptr);
    global.setIsReadyToPlay(false);
    if (Helper::ifVibrateWhenPlayingStartStop()) vibrate();
    // "OK" is not localized here.
    showAlertWithDelegate({Localization::localize("Tapwright"), Localization::localize("Quited Ready-to-Play Status!"), {"OK"}}, 0);
}

void PivotManager::startRecording() { tw::startRecording(); }

void PivotManager::stopRecording() {
    tw::stopRecording();
    if (Helper::ifVibrateWhenRecordingStartStop()) vibrate();
    if (Helper::ifShowRecordingFinishedAlert())
        showAlertWithDelegate({Localization::localize("Tapwright"), Localization::localize("Recording Finished!"),
                               {Localization::localize("OK")}},
                              0);
}

void PivotManager::doScreenshot() { takeCurrentScreenshot(); }

std::vector<ControlPanelScript> PivotManager::controlPanelScripts() {
    std::vector<ControlPanelScript> scripts;
    const PlaySettingsManager stored;
    const auto timers = TimerManager::archivedScriptPaths();
    for (const auto& path : FileManager::getAllScriptFilePathesOnly()) {
        ControlPanelScript script{path};
        script.hasTrigger = DataManager::getActivatorTriggerByScriptTitle(path).has_value();
        script.hasPlaySettings = stored.hasPlaySettings(path);
        script.hasTimer = std::find(timers.begin(), timers.end(), path) != timers.end();
        scripts.push_back(std::move(script));
    }
    return scripts;
}

void PivotManager::showControlPanel() {
    auto ui = Platform::current().ui;
    if (!ui) return;
    const auto scripts = controlPanelScripts();
    isControlPanelShowing = true;
    ui->showControlPanel(scripts, {[this] { controlPanelViewDidClickOnRecord(); },
                                   [this](const std::string& path) { controlPanelViewDidSelectScript(path); },
                                   [this] { controlPanelViewDidClickOnScreenshot(); },
                                   [this] { controlPanelViewDidDismiss(); }});
}

void PivotManager::showPlaySettingsView() {
    auto ui = Platform::current().ui;
    auto settings = Global::sharedInstance().currentPlaySettings();
    if (!ui || !settings) return;
    const PlaySettingsSheet sheet{settings->filePath, settings->repeatTime, settings->repeatInterval,
                                  settings->playSpeed, settings->playDirectly, settings->playNowOrLater};
    isPlaySettingsViewShowing = true;
    ui->showPlaySettingsView(sheet, {[this](const PlaySettingsSheet& chosen) {
                                         // The sheet keeps what the user chose as the script's settings.
                                         if (auto current = Global::sharedInstance().currentPlaySettings()) {
                                             current->repeatTime = chosen.repeatTime;
                                             current->repeatInterval = chosen.repeatInterval;
                                             current->playSpeed = static_cast<float>(chosen.playSpeed);
                                             current->playDirectly = chosen.playDirectly;
                                             current->playNowOrLater = chosen.playNowOrLater;
                                             if (PlaySettingsManager().hasPlaySettings(current->filePath))
                                                 DataManager::updatePlaySettings(*current);
                                             else
                                                 DataManager::insertPlaySettings(*current);
                                         }
                                         playSettingsViewDidConfirmToPlay();
                                     },
                                     [this] { playSettingsViewDidDismiss(); }});
}

void PivotManager::showDecryptScriptAlertView() {
    isDecryptScriptAlertViewShowing = true;
    DecryptScriptAlertView::show(*this);
}

void PivotManager::showPlayLaterTipAlertView() {
    showAlertWithDelegate({Localization::localize("Tip"), Localization::localize("PLAY_LATER_TIP"),
                           {Localization::localize("OK"), Localization::localize("Don't show again")}},
                          kPlayLaterTipTag);
}

bool PivotManager::isAnyPopupViewShowing() const {
    return isControlPanelShowing || isPlaySettingsViewShowing || isDecryptScriptAlertViewShowing || isAnyAlertViewShowing;
}

void PivotManager::controlPanelViewDidClickOnRecord() {
    if (Helper::ifVibrateWhenRecordingStartStop()) vibrate();
    startRecording();
}

void PivotManager::controlPanelViewDidSelectScript(const std::string& path) { forwardToPlay(path); }

void PivotManager::controlPanelViewDidClickOnScreenshot() {
    afterALittle(&PivotManager::doScreenshot);  // the panel is gone from the screen by then
}

void PivotManager::playSettingsViewDidConfirmToPlay() {
    auto& global = Global::sharedInstance();
    auto settings = global.currentPlaySettings();
    if (!settings) return;
    if (settings->playNowOrLater == 0) {
        playScriptNow();
    } else if (settings->playNowOrLater == 1) {
        global.setIsReadyToPlay(true);
        auto defaults = Platform::current().standardDefaults;
        if (!defaults || !defaults->boolForKey(kPlayLaterTipHideKey)) showPlayLaterTipAlertView();
    }
}

void PivotManager::decryptScriptAlertViewDidConfirmToPlay() {
    auto settings = Global::sharedInstance().currentPlaySettings();
    if (settings && settings->playDirectly)
        playScriptNow();
    else
        showPlaySettingsView();
}

void PivotManager::alertViewClickedButtonAtIndex(int tag, int buttonIndex) {
    if (tag == kPlayLaterTipTag && buttonIndex == 1)
        if (auto defaults = Platform::current().standardDefaults) defaults->setBool(kPlayLaterTipHideKey, true);
}

void DecryptScriptAlertView::show(PivotManager& delegate) {
    auto ui = Platform::current().ui;
    if (!ui) {
        delegate.decryptScriptAlertViewDidDismiss();
        return;
    }
    const TextPromptRequest prompt{Localization::localize("Tapwright"), Localization::localize("Dencrypt Password"),
                                   {Localization::localize("Cancel"), Localization::localize("Confirm")}};
    ui->showTextPrompt(prompt, {[&delegate](int index, const std::string& text) {
                                    if (index != 1) return;
                                    auto settings = Global::sharedInstance().currentPlaySettings();
                                    if (!settings) return;
                                    const std::string password = trimmed(text);
                                    auto plain = Encrypt::decryptScript(FileManager::fullPathOfFile(settings->filePath), password);
                                    if (!plain) {
                                        if (auto ui = Platform::current().ui)
                                            ui->showAlert({"", Localization::localize("Wrong password!"), {Localization::localize("OK")}});
                                        return;
                                    }
                                    if (auto defaults = Platform::current().standardDefaults)
                                        defaults->setString(Encrypt::passwordKeyOf(settings->filePath), password);
                                    settings->scriptContent = *plain;
                                    delegate.decryptScriptAlertViewDidConfirmToPlay();
                                },
                                [&delegate] { delegate.decryptScriptAlertViewDidDismiss(); }});
}

}  // namespace tw
