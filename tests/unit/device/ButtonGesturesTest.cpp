// A person's button presses as trigger events: presses, holds, the home button's double press,
// and buttons that fire nothing.
#include <gtest/gtest.h>

#include "device/ButtonGestures.h"

namespace tw::device {
namespace {

constexpr uint32_t kUp = 0xE9, kDown = 0xEA, kPower = 0x30, kMenu = 0x40;

struct Step {
    uint32_t usage;  // 0: only time passes
    bool down;
    int64_t at;
};

struct GestureCase {
    const char* name;
    std::vector<Step> steps;
    std::vector<std::string> fired;
};
void PrintTo(const GestureCase& c, std::ostream* os) { *os << c.name; }

class ButtonGesturesTest : public ::testing::TestWithParam<GestureCase> {};

TEST_P(ButtonGesturesTest, FiresTheEventsOfAPersonsPresses) {
    ButtonGestures gestures;
    std::vector<std::string> fired;
    for (const auto& step : GetParam().steps) {
        // The hold timer fires on time, as the run loop would make it.
        while (gestures.nextDeadline() && *gestures.nextDeadline() <= step.at)
            for (auto& e : gestures.tick(*gestures.nextDeadline())) fired.push_back(e);
        const auto now = step.usage ? gestures.button(12, step.usage, step.down, step.at) : gestures.tick(step.at);
        fired.insert(fired.end(), now.begin(), now.end());
    }
    EXPECT_EQ(fired, GetParam().fired);
}

INSTANTIATE_TEST_SUITE_P(
    Buttons, ButtonGesturesTest,
    ::testing::Values(
        GestureCase{"VolumeDownReleasedAt399IsAPress", {{kDown, true, 0}, {kDown, false, 399}}, {"LAEventNameVolumeDownPress"}},
        GestureCase{"VolumeUpHeld400IsAShortHoldOnly", {{kUp, true, 0}, {kUp, false, 400}}, {"LAEventNameVolumeUpHoldShort"}},
        GestureCase{"HeldLongFiresBothHoldsOnTime",
                    {{kDown, true, 100}, {0, false, 1599}, {kDown, false, 2000}},
                    {"LAEventNameVolumeDownHoldShort", "LAEventNameVolumeDownHoldLong"}},
        GestureCase{"TwoVolumeButtonsAtOnceEachTheirOwn",
                    {{kDown, true, 0}, {kUp, true, 100}, {kUp, false, 200}, {kDown, false, 450}},
                    {"LAEventNameVolumeUpPress", "LAEventNameVolumeDownHoldShort"}},
        GestureCase{"LockReleasedIsAPress", {{kPower, true, 0}, {kPower, false, 3000}}, {"LAEventNameLockPress"}},
        GestureCase{"HomeTwiceWithin350IsADoublePress",
                    {{kMenu, true, 0}, {kMenu, false, 50}, {kMenu, true, 349}, {kMenu, false, 400}, {kMenu, true, 500}},
                    {"LAEventNameMenuPressDouble"}},
        GestureCase{"HomeTwice350ApartIsNot", {{kMenu, true, 0}, {kMenu, false, 50}, {kMenu, true, 350}}, {}},
        GestureCase{"AnUpWithoutItsDownFiresNothing", {{kDown, false, 10}, {0x99, true, 20}}, {}}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tw::device
