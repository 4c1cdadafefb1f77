#pragma once
// One schedule: a script that starts by itself at a date, once or every `interval` seconds after.
// It travels and is kept as a keyed archive (schedule/KeyedArchive.h).
#include <chrono>
#include <optional>
#include <string>

namespace tw {

struct Timer {
    using Clock = std::chrono::system_clock;

    Timer() = default;
    // The four fields, in this order.
    Timer(std::string scriptFilePath, std::optional<Clock::time_point> fireDate, bool repeat, double interval)
        : scriptFilePath(std::move(scriptFilePath)), fireDate(fireDate), repeat(repeat), interval(interval) {}

    std::string scriptFilePath;                // library path, "/name.lua"; "" when the archive had none
    std::optional<Clock::time_point> fireDate;  // first firing; nullopt when the archive had none
    bool repeat = false;                       // fire again every `interval` seconds
    double interval = 0.0;

    bool operator==(const Timer&) const = default;
};

}  // namespace tw
