#include "ui/HeadlessUserInterface.h"

namespace tw {

void HeadlessUserInterface::showAlert(const AlertRequest& alert) {
    std::lock_guard lock(mutex_);
    alerts_.push_back(alert);
}

DialogResponse HeadlessUserInterface::showDialog(const DialogRequest& request) {
    std::lock_guard lock(mutex_);
    dialogs_.push_back(request);
    if (responses_.empty()) return DialogResponse{true, false, {}};
    DialogResponse response = std::move(responses_.front());
    responses_.pop_front();
    return response;
}

void HeadlessUserInterface::showToast(const ToastRequest& toast) {
    std::lock_guard lock(mutex_);
    toasts_.push_back(toast);
}

std::vector<ToastRequest> HeadlessUserInterface::toasts() const {
    std::lock_guard lock(mutex_);
    return toasts_;
}

std::vector<DialogRequest> HeadlessUserInterface::dialogs() const {
    std::lock_guard lock(mutex_);
    return dialogs_;
}

void HeadlessUserInterface::queueDialogResponse(DialogResponse response) {
    std::lock_guard lock(mutex_);
    responses_.push_back(std::move(response));
}

std::vector<AlertRequest> HeadlessUserInterface::alerts() const {
    std::lock_guard lock(mutex_);
    return alerts_;
}

void HeadlessUserInterface::clear() {
    std::lock_guard lock(mutex_);
    alerts_.clear();
    dialogs_.clear();
    toasts_.clear();
    responses_.clear();
}

void RecordingSoundService::playSystemSound(uint32_t soundId) {
    std::lock_guard lock(mutex_);
    sounds_.push_back(soundId);
}

std::vector<uint32_t> RecordingSoundService::sounds() const {
    std::lock_guard lock(mutex_);
    return sounds_;
}

void RecordingSoundService::clear() {
    std::lock_guard lock(mutex_);
    sounds_.clear();
}

}  // namespace tw
