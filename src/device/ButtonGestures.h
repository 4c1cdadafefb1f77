#pragma once
// What a person's presses of the device's buttons mean to the trigger framework: a volume button
// released before 400 ms is a press, held it is a short hold at 400 ms and a long hold at 1500 ms;
// the lock button released is a press; two presses of the home button whose downs are less than
// 350 ms apart are a double press. Only real input counts: the caller feeds it the buttons of the
// hardware input, never keys a script injects. Time is the caller's, in milliseconds.
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tw::device {

class ButtonGestures {
public:
    // A button went down or up; the events it fires now.
    std::vector<std::string> button(uint32_t usagePage, uint32_t usage, bool down, int64_t nowMs);
    // The hold events due by `nowMs`.
    std::vector<std::string> tick(int64_t nowMs);
    // When tick() has something to fire next, if ever.
    std::optional<int64_t> nextDeadline() const;

    static constexpr int64_t kShortHoldMs = 400;
    static constexpr int64_t kLongHoldMs = 1500;
    static constexpr int64_t kDoublePressMs = 350;

private:
    struct Held {
        int64_t downAt = 0;
        bool shortFired = false;
        bool longFired = false;
    };
    std::map<uint32_t, Held> held_;  // volume buttons down now, by usage
    std::optional<int64_t> lastHomeDown_;
};

}  // namespace tw::device
