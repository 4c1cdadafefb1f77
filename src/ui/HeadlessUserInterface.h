#pragma once
// A user interface and sound service that show nothing and remember everything they were asked
// to show, for tests and for processes without a screen.
#include <deque>
#include <mutex>
#include <vector>

#include "platform/UserInterface.h"

namespace tw {

class HeadlessUserInterface : public UserInterface {
public:
    void showAlert(const AlertRequest& alert) override;
    // Answers from the queue, first in first out; "Cancel" once it is empty.
    DialogResponse showDialog(const DialogRequest& request) override;
    void showToast(const ToastRequest& toast) override;

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
