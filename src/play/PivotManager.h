#pragma once
// The play controller of the home-screen process: the one object that turns what a person asks
// for (a script chosen on the control panel, a trigger, the command line, the confirmation of the
// play settings sheet or of an encrypted script's password prompt) into plays and recordings. It
// prepares the current play settings, decrypts encrypted scripts, shows the sheets and prompts a
// play needs, keeps the ready-to-play mode (a script armed to be started and stopped by a trigger)
// and tracks its pop-ups, so that triggers are ignored while one shows. The play and record state
// lives in Global. Main run loop only.
#include <string>
#include <vector>

#include "platform/UserInterface.h"

namespace tw {

class PivotManager {
public:
    static PivotManager& sharedInstance();
    // No pop-up showing, as in a fresh process.
    void reset() { isControlPanelShowing = isPlaySettingsViewShowing = isDecryptScriptAlertViewShowing = isAnyAlertViewShowing = false; }

    // Plays the script the way the user asked for it: the play settings sheet first, unless the
    // script's settings say to play directly. Encrypted scripts (".e") are decrypted with the
    // remembered password, or the password prompt is shown.
    void forwardToPlay(const std::string& path);
    // The same without ever showing the sheet (the web's start request).
    void directToPlay(const std::string& path);
    void initCurrentPlaySettingsFor(const std::string& path);
    // Starts the play 0.1 s later, on the main run loop.
    void playScriptNow();
    void doPlayScriptNow();
    void stopPlaying();
    void quitReadyToPlayStatus();
    void startRecording();
    void stopRecording();
    void doScreenshot();

    void showControlPanel();
    // The control panel's list: the scripts of the library root with their marks.
    static std::vector<ControlPanelScript> controlPanelScripts();
    void showPlaySettingsView();
    void showDecryptScriptAlertView();
    void showPlayLaterTipAlertView();
    bool isAnyPopupViewShowing() const;

    // What the views report.
    void controlPanelViewDidClickOnRecord();
    void controlPanelViewDidSelectScript(const std::string& path);
    void controlPanelViewDidClickOnScreenshot();
    void controlPanelViewDidDismiss() { isControlPanelShowing = false; }
    void playSettingsViewDidConfirmToPlay();
    void playSettingsViewDidDismiss() { isPlaySettingsViewShowing = false; }
    void decryptScriptAlertViewDidConfirmToPlay();
    void decryptScriptAlertViewDidDismiss() { isDecryptScriptAlertViewShowing = false; }
    void didPresentAlertView() { isAnyAlertViewShowing = true; }
    void alertViewDidDismissWithButtonIndex(int) { isAnyAlertViewShowing = false; }
    void alertViewClickedButtonAtIndex(int tag, int buttonIndex);

    bool isControlPanelShowing = false;
    bool isPlaySettingsViewShowing = false;
    bool isDecryptScriptAlertViewShowing = false;
    bool isAnyAlertViewShowing = false;

private:
    PivotManager() = default;
    void play(const std::string& path, bool direct);
};

// The password prompt of an encrypted script: "Confirm" decrypts the current script with the
// trimmed text, remembers the password and tells the controller; a wrong one says "Wrong
// password!". Either way the prompt goes away.
class DecryptScriptAlertView {
public:
    static void show(PivotManager& delegate);
};

inline constexpr int kPlayLaterTipTag = 2001;
inline constexpr const char* kPlayLaterTipHideKey = "tapwright.settings.playlatertiphide";

}  // namespace tw
