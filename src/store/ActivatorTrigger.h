#pragma once
// One trigger binding: a trigger event bound to an action, kept as a row of ACTIVATOR_TRIGGER
// (store/DataManager.h).
#include <cstdint>
#include <optional>
#include <string>

namespace tw {

// What a bound event does (`forWhat`).
inline constexpr int64_t kForWhatControlPanel = 1;      // show the control panel, or end the activity
inline constexpr int64_t kForWhatStartStopPlaying = 2;  // start or stop playing
inline constexpr int64_t kForWhatPlayScript = 3;        // play the script in filePath

struct ActivatorTrigger {
    std::string eventName;
    int64_t forWhat = 0;
    // The script's library path for kForWhatPlayScript; absent for the other actions. An absent
    // path is stored as the text "(null)" (the statement puts the printed form of "no text"
    // between its quotes) and so reads back as that text.
    std::optional<std::string> filePath;

    ActivatorTrigger() = default;
    ActivatorTrigger(std::string eventName, int64_t forWhat, std::optional<std::string> filePath)
        : eventName(std::move(eventName)), forWhat(forWhat), filePath(std::move(filePath)) {}

    bool operator==(const ActivatorTrigger&) const = default;
};

}  // namespace tw
