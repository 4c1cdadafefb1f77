#include "ui/HeadlessUserInterface.h"

namespace tw {

void HeadlessUserInterface::showAlert(const AlertRequest& alert) {
    std::lock_guard lock(mutex_);
    alerts_.push_back(alert);
}

std::vector<AlertRequest> HeadlessUserInterface::alerts() const {
    std::lock_guard lock(mutex_);
    return alerts_;
}

void HeadlessUserInterface::clear() {
    std::lock_guard lock(mutex_);
    alerts_.clear();
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
