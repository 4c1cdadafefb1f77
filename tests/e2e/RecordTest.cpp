// Recording by hand and playing it back: a tap and a swipe made through the hardware input of a
// running device are recorded into a script, which plays back the same finger events.
#include <gtest/gtest.h>

#include <cmath>

#include "Cli.h"

namespace tw {
namespace {

using nlohmann::json;

struct Touch {
    bool real;
    int64_t mask, touch;
    double x, y;
    uint64_t time;
};

// The one-finger hand events of the trace, from the `skip`th on.
std::vector<Touch> touches(const test::Cli& cli, size_t skip = 0) {
    std::vector<Touch> out;
    for (const auto& hand : cli.traceLines("digitizer")) {
        if (hand["children"].size() != 1) continue;
        const auto& f = hand["children"][0];
        out.push_back({hand.value("hardware", false), f["mask"], f["touch"], f["x"], f["y"], hand["time"]});
    }
    out.erase(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(std::min(skip, out.size())));
    return out;
}

TEST(Record, ATapAndASwipeMadeByHandPlayBackAsTheyWereMade) {
    test::Cli cli;
    ASSERT_TRUE(cli.startDevice()) << cli.device().err();
    const auto start = cli.run({"record", "start"});
    ASSERT_EQ(start.exitCode, 0) << start.err;
    ASSERT_EQ(cli.run({"hardware", "tap", "150", "300", "--ms", "80"}).exitCode, 0);
    ASSERT_EQ(cli.run({"hardware", "button", "volume-down"}).exitCode, 0);  // seen, not recorded
    ASSERT_EQ(cli.run({"hardware", "swipe", "100", "900", "600", "200", "--ms", "200"}).exitCode, 0);
    const auto stop = cli.run({"record", "stop"});
    ASSERT_EQ(stop.exitCode, 0) << stop.err;
    ASSERT_EQ(stop.out, start.out);
    EXPECT_EQ(cli.run({"record", "stop"}).err, "tapwright: cannot stop recording: no recording is running\n");

    const std::string devicePath = start.out.substr(0, start.out.size() - 1);
    const std::string script = test::readFile(cli.root() / devicePath.substr(1));
    EXPECT_NE(script.find("adaptResolution(750, 1334);\n"), std::string::npos) << script;
    EXPECT_NE(script.find("\ntouchDown(1, 150.00, 300.00);\nusleep("), std::string::npos) << script;
    EXPECT_EQ(script.find("keyDown"), std::string::npos) << script;
    EXPECT_TRUE(script.ends_with("touchUp(1, 600.00, 200.00);\n")) << script;

    const auto recorded = touches(cli);
    ASSERT_GE(recorded.size(), 6u);
    const std::string libraryPath = devicePath.substr(devicePath.rfind('/'));
    const auto played = cli.run({"play", libraryPath});
    ASSERT_EQ(played.exitCode, 0) << played.err;
    ASSERT_TRUE(test::eventually([&] { return touches(cli, recorded.size()).size() >= recorded.size(); }));
    const auto replayed = touches(cli, recorded.size());
    ASSERT_EQ(replayed.size(), recorded.size());
    for (size_t i = 0; i < recorded.size(); ++i) {
        SCOPED_TRACE(i);
        const Touch &was = recorded[i], &now = replayed[i];
        EXPECT_TRUE(was.real && !now.real);
        EXPECT_EQ(std::pair(was.mask, was.touch), std::pair(now.mask, now.touch));
        // Positions come back to within the two decimals of a pixel the script keeps.
        EXPECT_NEAR(was.x * 750, now.x * 750, 0.006);
        EXPECT_NEAR(was.y * 1334, now.y * 1334, 0.006);
        if (i == 0) continue;
        // The pauses come back too: within 10 ms here, on a busy machine (the bench measures them).
        const double wasGap = (was.time - recorded[i - 1].time) / 1e6, nowGap = (now.time - replayed[i - 1].time) / 1e6;
        EXPECT_NEAR(wasGap, nowGap, 10) << "ms";
    }
}

}  // namespace
}  // namespace tw
