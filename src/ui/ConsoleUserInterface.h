#pragma once
// The command line's user interface: alerts are printed on standard error, sounds are named there
// too when asked to be.
#include <cstdio>
#include <deque>
#include <string>

#include "platform/UserInterface.h"

namespace tw {

// Dialogs are answered from an answers file first (one JSON object per dialog, in order: the
// answers by key, or {"cancel": true}, and for a form with buttons {"button": FLAG, ...}), then by
// asking on the terminal; with neither, a dialog is cancelled with a message (a form with buttons
// gets its first button). Toasts are printed as "[toast] text".
class ConsoleUserInterface : public UserInterface {
public:
    explicit ConsoleUserInterface(std::FILE* out = stderr, std::FILE* in = stdin) : out_(out), in_(in) {}
    void showAlert(const AlertRequest& alert) override;
    DialogResponse showDialog(const DialogRequest& request) override;
    void showToast(const ToastRequest& toast) override;
    // The console shows the control panel, the play settings sheet and the password prompt as a
    // line each and, having nobody to ask, closes them at once.
    using UserInterface::showAlert;
    void showControlPanel(const std::vector<ControlPanelScript>& scripts, ControlPanelDelegate delegate) override;
    void showPlaySettingsView(const PlaySettingsSheet& sheet, PlaySettingsViewDelegate delegate) override;
    void showTextPrompt(const TextPromptRequest& request, TextPromptDelegate delegate) override;

    // Loads the answers file: a JSON array of objects. Throws std::runtime_error with the reason.
    void loadAnswers(const std::string& path);
    // Whether dialogs may be asked on the terminal (the input is a terminal).
    void setInteractive(bool interactive) { interactive_ = interactive; }

private:
    DialogResponse ask(const DialogRequest& request);

    std::FILE* out_;
    std::FILE* in_;
    bool interactive_ = false;
    std::deque<std::string> answers_;  // JSON texts, one per dialog
};

// The response for `request` given one answers object (JSON text); throws on a malformed one.
DialogResponse dialogResponseFromJson(const DialogRequest& request, const std::string& json);

class ConsoleSoundService : public SoundService {
public:
    explicit ConsoleSoundService(bool verbose = false, std::FILE* out = stderr) : verbose_(verbose), out_(out) {}
    void playSystemSound(uint32_t soundId) override;

private:
    bool verbose_;
    std::FILE* out_;
};

}  // namespace tw
