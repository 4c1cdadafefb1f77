#include "ui/HeadlessUserInterface.h"

namespace tw {

void HeadlessUserInterface::showAlert(const AlertRequest& alert) {
    std::lock_guard lock(mutex_);
    alerts_.push_back(alert);
}

void HeadlessUserInterface::showAlert(const AlertRequest& alert, AlertDelegate delegate) {
    showAlert(alert);
    {
        std::lock_guard lock(mutex_);
        alert_ = delegate;
    }
    if (delegate.didPresent) delegate.didPresent();
}

void HeadlessUserInterface::showControlPanel(const std::vector<ControlPanelScript>& scripts, ControlPanelDelegate delegate) {
    std::lock_guard lock(mutex_);
    panel_.emplace(scripts, std::move(delegate));
}

void HeadlessUserInterface::showPlaySettingsView(const PlaySettingsSheet& sheet, PlaySettingsViewDelegate delegate) {
    std::lock_guard lock(mutex_);
    sheet_.emplace(sheet, std::move(delegate));
}

void HeadlessUserInterface::showTextPrompt(const TextPromptRequest& request, TextPromptDelegate delegate) {
    std::lock_guard lock(mutex_);
    prompt_.emplace(request, std::move(delegate));
}

namespace {
template <typename T>
std::optional<T> take(std::mutex& mutex, std::optional<T>& slot) {
    std::lock_guard lock(mutex);
    return std::exchange(slot, std::nullopt);
}
}  // namespace

std::optional<AlertDelegate> HeadlessUserInterface::takeAlert() { return take(mutex_, alert_); }
std::optional<std::pair<std::vector<ControlPanelScript>, ControlPanelDelegate>> HeadlessUserInterface::takeControlPanel() {
    return take(mutex_, panel_);
}
std::optional<std::pair<PlaySettingsSheet, PlaySettingsViewDelegate>> HeadlessUserInterface::takePlaySettingsView() {
    return take(mutex_, sheet_);
}
std::optional<std::pair<TextPromptRequest, TextPromptDelegate>> HeadlessUserInterface::takeTextPrompt() {
    return take(mutex_, prompt_);
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
    alert_.reset();
    panel_.reset();
    sheet_.reset();
    prompt_.reset();
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
