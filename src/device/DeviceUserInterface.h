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
    DialogResponse showDialog(const DialogRequest& request) override { return inner_->showDialog(request); }
    void showToast(const ToastRequest& toast) override;

private:
    std::shared_ptr<UserInterface> inner_;
    std::function<void(const std::string&)> publish_;
};

}  // namespace tw::device
