#pragma once
// A user interface and sound service that show nothing and remember everything they were asked
// to show, for tests and for processes without a screen.
#include <deque>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "platform/UserInterface.h"

namespace tw {

class HeadlessUserInterface : public UserInterface {
public:
    void showAlert(const AlertRequest& alert) override;
    // Answers from the queue, first in first out; "Cancel" once it is empty.
    DialogResponse showDialog(const DialogRequest& request) override;
    void showToast(const ToastRequest& toast) override;
    // The views with delegates stay "on screen" until the test acts through take...(); an alert
    // with a delegate is also in alerts().
    void showAlert(const AlertRequest& alert, AlertDelegate delegate) override;
    void showControlPanel(const std::vector<ControlPanelScript>& scripts, ControlPanelDelegate delegate) override;
    void showPlaySettingsView(const PlaySettingsSheet& sheet, PlaySettingsViewDelegate delegate) override;
    void showTextPrompt(const TextPromptRequest& request, TextPromptDelegate delegate) override;

    // What is on screen now, taken off it: the caller acts on the delegate as the user would.
    std::optional<AlertDelegate> takeAlert();
    std::optional<std::pair<std::vector<ControlPanelScript>, ControlPanelDelegate>> takeControlPanel();
    std::optional<std::pair<PlaySettingsSheet, PlaySettingsViewDelegate>> takePlaySettingsView();
    std::optional<std::pair<TextPromptRequest, TextPromptDelegate>> takeTextPrompt();

    std::vector<AlertRequest> alerts() const;
    std::vector<ToastRequest> toasts() const;
    std::vector<DialogRequest> dialogs() const;
    void queueDialogResponse(DialogResponse response);
    void clear();

private:
    mutable std::mutex mutex_;
    std::vector<AlertRequest> alerts_;
    std::vector<DialogRequest> dialogs_;
    std::vector<ToastRequest> toasts_;
    std::deque<DialogResponse> responses_;
    std::optional<AlertDelegate> alert_;
    std::optional<std::pair<std::vector<ControlPanelScript>, ControlPanelDelegate>> panel_;
    std::optional<std::pair<PlaySettingsSheet, PlaySettingsViewDelegate>> sheet_;
    std::optional<std::pair<TextPromptRequest, TextPromptDelegate>> prompt_;
};

class RecordingSoundService : public SoundService {
public:
    void playSystemSound(uint32_t soundId) override;
    std::vector<uint32_t> sounds() const;
    void clear();

private:
    mutable std::mutex mutex_;
    std::vector<uint32_t> sounds_;
};

}  // namespace tw
