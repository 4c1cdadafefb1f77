#pragma once
// The virtual device's screen for what the engine shows: a user interface (the console's, say)
// whose toasts also go into the device's event trace as
// {"kind":"toast","time":T,"text":S,"seconds":N,"position":P}.
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/UserInterface.h"

namespace tw::device {

class DeviceUserInterface : public UserInterface {
public:
    DeviceUserInterface(std::shared_ptr<UserInterface> inner, std::function<void(const std::string&)> publish)
        : inner_(std::move(inner)), publish_(std::move(publish)) {}

    void showAlert(const AlertRequest& alert) override { inner_->showAlert(alert); }
    void showAlert(const AlertRequest& alert, AlertDelegate delegate) override { inner_->showAlert(alert, std::move(delegate)); }
    void showControlPanel(const std::vector<ControlPanelScript>& scripts, ControlPanelDelegate delegate) override {
        inner_->showControlPanel(scripts, std::move(delegate));
    }
    void showPlaySettingsView(const PlaySettingsSheet& sheet, PlaySettingsViewDelegate delegate) override;
    void showTextPrompt(const TextPromptRequest& request, TextPromptDelegate delegate) override;

    // A person at the command line's panel answers the next play settings sheet (confirmed with
    // `chosen`) and the next password prompt ("Confirm" with `password`) in place of the screen.
    // Main run loop only; clearAnswers() drops what was not asked.
    void answerNextPlaySettingsView(const PlaySettingsSheet& chosen) { sheetAnswer_ = chosen; }
    void answerNextTextPrompt(const std::string& password) { promptAnswer_ = password; }
    void clearAnswers() { sheetAnswer_.reset(), promptAnswer_.reset(); }
    DialogResponse showDialog(const DialogRequest& request) override { return inner_->showDialog(request); }
    void showToast(const ToastRequest& toast) override;

private:
    std::shared_ptr<UserInterface> inner_;
    std::optional<PlaySettingsSheet> sheetAnswer_;
    std::optional<std::string> promptAnswer_;
    std::function<void(const std::string&)> publish_;
};

}  // namespace tw::device
