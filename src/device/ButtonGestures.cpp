#include "device/ButtonGestures.h"

namespace tw::device {

namespace {

constexpr uint32_t kConsumerPage = 12;
constexpr uint32_t kVolumeUp = 0xE9, kVolumeDown = 0xEA, kPower = 0x30, kMenu = 0x40;

const char* volumeName(uint32_t usage) { return usage == kVolumeUp ? "VolumeUp" : "VolumeDown"; }

std::string event(uint32_t usage, const char* gesture) { return std::string("LAEventName") + volumeName(usage) + gesture; }

}  // namespace

std::vector<std::string> ButtonGestures::button(uint32_t usagePage, uint32_t usage, bool down, int64_t nowMs) {
    std::vector<std::string> fired = tick(nowMs);
    if (usagePage != kConsumerPage) return fired;
    if (usage == kVolumeUp || usage == kVolumeDown) {
        if (down) {
            held_[usage] = Held{nowMs};
        } else if (auto it = held_.find(usage); it != held_.end()) {
            if (!it->second.shortFired) fired.push_back(event(usage, "Press"));
            held_.erase(it);
        }
    } else if (usage == kPower && !down) {
        fired.push_back("LAEventNameLockPress");
    } else if (usage == kMenu && down) {
        if (lastHomeDown_ && nowMs - *lastHomeDown_ < kDoublePressMs) {
            fired.push_back("LAEventNameMenuPressDouble");
            lastHomeDown_.reset();  // a third press starts anew
        } else {
            lastHomeDown_ = nowMs;
        }
    }
    return fired;
}

std::vector<std::string> ButtonGestures::tick(int64_t nowMs) {
    std::vector<std::string> fired;
    for (auto& [usage, held] : held_) {
        if (!held.shortFired && nowMs >= held.downAt + kShortHoldMs) {
            held.shortFired = true;
            fired.push_back(event(usage, "HoldShort"));
        }
        if (!held.longFired && nowMs >= held.downAt + kLongHoldMs) {
            held.longFired = true;
            fired.push_back(event(usage, "HoldLong"));
        }
    }
    return fired;
}

std::optional<int64_t> ButtonGestures::nextDeadline() const {
    std::optional<int64_t> next;
    for (const auto& [usage, held] : held_) {
        const std::optional<int64_t> due = !held.shortFired  ? std::optional(held.downAt + kShortHoldMs)
                                           : !held.longFired ? std::optional(held.downAt + kLongHoldMs)
                                                             : std::nullopt;
        if (due && (!next || *due < *next)) next = due;
    }
    return next;
}

}  // namespace tw::device
