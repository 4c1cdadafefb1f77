#pragma once
// The virtual device's screen for what the engine shows: a user interface (the console's, say)
// whose toasts also go into the device's event trace as
// {"kind":"toast","time":T,"text":S,"seconds":N,"position":P}.
#include <functional>
#include <memory>
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
    void showPlaySettingsView(const PlaySettingsSheet& sheet, PlaySettingsViewDelegate delegate) override {
        inner_->showPlaySettingsView(sheet, std::move(delegate));
    }
    void showTextPrompt(const TextPromptRequest& request, TextPromptDelegate delegate) override {
        inner_->showTextPrompt(request, std::move(delegate));
    }
    DialogResponse showDialog(const DialogRequest& request) override { return inner_->showDialog(request); }
    void showToast(const ToastRequest& toast) override;

private:
    std::shared_ptr<UserInterface> inner_;
    std::function<void(const std::string&)> publish_;
};

}  // namespace tw::device
