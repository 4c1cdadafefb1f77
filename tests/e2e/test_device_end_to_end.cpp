// Scripts played on the virtual device, checked from the event trace: hand events with one child
// per finger, points and pixels, keys, text reaching an app's field, and a device that survives
// the death of its input-event role.
#include <gtest/gtest.h>

#include <signal.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>

#include "TestSupport.h"

namespace tw {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

std::vector<json> readTrace(const fs::path& path) {
    std::vector<json> lines;
    std::istringstream in(test::readFile(path));
    std::string line;
    while (std::getline(in, line))
        if (!line.empty()) lines.push_back(json::parse(line));
    return lines;
}

std::vector<json> ofKind(const std::vector<json>& lines, const std::string& kind) {
    std::vector<json> out;
    for (const auto& l : lines)
        if (l.value("kind", "") == kind) out.push_back(l);
    return out;
}

json child(int index, int mask, double x, double y, int active) {
    return {{"index", index}, {"identity", 2}, {"mask", mask}, {"x", x}, {"y", y}, {"range", active}, {"touch", active}};
}

// A hand event as the trace shows it, without its time.
json hand(int mask, int active, double x, double y, std::vector<json> children) {
    return {{"kind", "digitizer"}, {"sender", "0x0000000100000236"}, {"builtIn", 1}, {"displayIntegrated", 1},
            {"mask", mask}, {"range", active}, {"touch", active}, {"x", x}, {"y", y}, {"children", children}};
}

json withoutTime(json j) {
    j.erase("time");
    return j;
}

class DeviceEndToEnd : public ::testing::Test {
protected:
    test::ProcessResult play(const std::string& lua, std::vector<std::string> extra = {}) {
        const fs::path script = scripts.path() / "script.lua";
        test::writeFile(script, lua);
        std::vector<std::string> args = {TW_BINARY, "play", script.string(), "--root", root.str(), "--trace",
                                         trace().string()};
        args.insert(args.end(), extra.begin(), extra.end());
        return test::runProcess(args, {}, 60);
    }
    fs::path trace() const { return scripts.path() / "trace.jsonl"; }
    test::TempDir root{"tw-e2e-root"};
    test::TempDir scripts{"tw-e2e"};
};

TEST_F(DeviceEndToEnd, MultiFingerScriptsProduceTheExactHandEvents) {
    auto r = play(
        "touchDown(1, 150, 667) touchDown(2, 600, 667) usleep(16000)\n"
        "touchMove(1, 300, 400) usleep(16000)\n"
        "touchUp(1, 300, 400) touchUp(2, 600, 667) usleep(16000)\n");
    ASSERT_EQ(r.exitCode, 0) << r.err;
    auto events = ofKind(readTrace(trace()), "digitizer");
    ASSERT_EQ(events.size(), 3u) << test::readFile(trace());
    EXPECT_EQ(withoutTime(events[0]), hand(0x23, 1, 0.5, 0.5, {child(1, 3, 0.2, 0.5, 1), child(2, 3, 0.8, 0.5, 1)}));
    EXPECT_EQ(withoutTime(events[1]), hand(0x27, 1, (0.4 + 0.8) / 2, (400.0 / 1334 + 0.5) / 2,
                                           {child(1, 4, 0.4, 400.0 / 1334, 1), child(2, 3, 0.8, 0.5, 1)}));
    EXPECT_EQ(withoutTime(events[2]), hand(0x27, 0, (0.4 + 0.8) / 2, (400.0 / 1334 + 0.5) / 2,
                                           {child(1, 3, 0.4, 400.0 / 1334, 0), child(2, 3, 0.8, 0.5, 0)}));
    EXPECT_LT(events[0]["time"].get<uint64_t>(), events[1]["time"].get<uint64_t>());
}

TEST_F(DeviceEndToEnd, AScriptInPointsIsScaledAndOneInPixelsIsNot) {
    auto points = play("-- SCREEN_RESOLUTION=\"375x667\"\ntouchDown(5, 187.5, 333.5) usleep(1000) touchUp(5, 187.5, 333.5)");
    ASSERT_EQ(points.exitCode, 0) << points.err;
    auto events = ofKind(readTrace(trace()), "digitizer");
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]["children"][0], child(5, 3, 0.5, 0.5, 1));

    auto pixels = play("-- SCREEN_RESOLUTION=\"750x1334\"\ntouchDown(5, 187.5, 333.5) usleep(1000) touchUp(5, 187.5, 333.5)");
    ASSERT_EQ(pixels.exitCode, 0) << pixels.err;
    events = ofKind(readTrace(trace()), "digitizer");  // the trace starts afresh with every play
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]["children"][0], child(5, 3, 0.25, 0.25, 1));
}

TEST_F(DeviceEndToEnd, KeysBecomeKeyboardEvents) {
    auto r = play("keyDown(KEY_TYPE.HOME_BUTTON) usleep(1000) keyUp(KEY_TYPE.HOME_BUTTON) keyDown(0x1E9)");
    ASSERT_EQ(r.exitCode, 0) << r.err;
    auto keys = ofKind(readTrace(trace()), "keyboard");
    ASSERT_EQ(keys.size(), 3u);
    const json expected[] = {
        {{"kind", "keyboard"}, {"sender", "0xDEFACEDBEEFFECE5"}, {"usagePage", 12}, {"usage", 64}, {"down", 1}},
        {{"kind", "keyboard"}, {"sender", "0xDEFACEDBEEFFECE5"}, {"usagePage", 12}, {"usage", 64}, {"down", 0}},
        {{"kind", "keyboard"}, {"sender", "0xDEFACEDBEEFFECE5"}, {"usagePage", 12}, {"usage", 0x1E9}, {"down", 1}},
    };
    for (size_t i = 0; i < 3; ++i) EXPECT_EQ(withoutTime(keys[i]), expected[i]);
}

TEST_F(DeviceEndToEnd, InputTextReachesTheFocusedFieldOfTheApp) {
    auto r = play("inputText('h\\xC3\\xA9llo') usleep(1000) inputText('\\b\\b!') usleep(1000) inputText('\\xF0\\x9F\\x98\\x80')");
    ASSERT_EQ(r.exitCode, 0) << r.err;
    auto texts = ofKind(readTrace(trace()), "text");
    ASSERT_EQ(texts.size(), 3u) << test::readFile(trace());
    EXPECT_EQ(texts[0], json({{"kind", "text"}, {"bundle", "me.tapwright.demo.notes"}, {"field", "h\xC3\xA9llo"}}));
    EXPECT_EQ(texts[1]["field"], "h\xC3\xA9l!");
    EXPECT_EQ(texts[2]["field"], "h\xC3\xA9l!\xF0\x9F\x98\x80");
}

TEST_F(DeviceEndToEnd, ARunningDeviceIsUsedAndSurvivesTheDeathOfItsInputEventRole) {
    const fs::path deviceTrace = scripts.path() / "device.jsonl";
    test::BackgroundProcess device({TW_BINARY, "device", "--root", root.str(), "--trace", deviceTrace.string()});
    ASSERT_TRUE(test::eventually([&] { return device.err().find("ready") != std::string::npos; }, 10000)) << device.err();
    auto roles = test::findProcesses({"role", "com.apple.backboardd", root.str()});
    ASSERT_EQ(roles.size(), 1u);

    // The play kills the input-event role from inside, after its first touch, then touches again.
    const std::string lua =
        "touchDown(1, 75, 133.4) usleep(1000) touchUp(1, 75, 133.4) usleep(1000)\n"
        "os.execute('kill -9 " + std::to_string(roles[0]) + "')\n"
        "usleep(1500000)\n"  // the supervisor restarts the role meanwhile
        "touchDown(2, 375, 667) usleep(1000) touchUp(2, 375, 667) usleep(1000)\n";
    auto r = play(lua);
    ASSERT_EQ(r.exitCode, 0) << r.err;

    auto events = ofKind(readTrace(deviceTrace), "digitizer");
    ASSERT_EQ(events.size(), 4u) << test::readFile(deviceTrace);
    EXPECT_EQ(events[2]["children"][0], child(2, 3, 0.5, 0.5, 1));
    // The play's own trace followed the running device too.
    EXPECT_EQ(ofKind(readTrace(trace()), "digitizer").size(), 4u);
    auto restarted = test::findProcesses({"role", "com.apple.backboardd", root.str()});
    ASSERT_EQ(restarted.size(), 1u);
    EXPECT_NE(restarted[0], roles[0]);

    // Shutting the device down ends every role.
    EXPECT_EQ(device.stop(SIGINT), 0) << device.err();
    EXPECT_TRUE(test::findProcesses({"role", root.str()}).empty());
}

TEST_F(DeviceEndToEnd, ARealTouchMakesTheInjectorForgetTheScriptsHeldFingers) {
    const fs::path deviceTrace = scripts.path() / "device.jsonl";
    test::BackgroundProcess device({TW_BINARY, "device", "--root", root.str(), "--trace", deviceTrace.string()});
    ASSERT_TRUE(test::eventually([&] { return device.err().find("ready") != std::string::npos; }, 10000)) << device.err();
    const std::string hardware = std::string(TW_BINARY) + " hardware touch %s 7 300 600 --root " + root.str();
    char down[512], up[512];
    std::snprintf(down, sizeof down, hardware.c_str(), "down");
    std::snprintf(up, sizeof up, hardware.c_str(), "up");
    auto r = play("touchDown(1, 75, 667) usleep(1000)\n"
                  "os.execute('" + std::string(down) + "') os.execute('" + up + "')\n"
                  "usleep(1000)\n"                      // nothing held any more: no event
                  "touchMove(1, 150, 667) usleep(1000)"); // the finger comes back as a move
    ASSERT_EQ(r.exitCode, 0) << r.err;
    auto events = ofKind(readTrace(deviceTrace), "digitizer");
    // The run's last sync sends the held finger once more.
    ASSERT_EQ(events.size(), 5u) << test::readFile(deviceTrace);
    EXPECT_EQ(events[0]["children"][0], child(1, 3, 0.1, 0.5, 1));
    EXPECT_EQ(events[1]["hardware"], true);
    EXPECT_EQ(events[1]["children"][0]["index"], 7);
    EXPECT_EQ(events[2]["hardware"], true);
    EXPECT_FALSE(events[3].contains("hardware"));
    EXPECT_EQ(events[3]["children"].size(), 1u);
    EXPECT_EQ(events[3]["children"][0], child(1, 4, 0.2, 0.5, 1));
    EXPECT_EQ(withoutTime(events[4]), withoutTime(events[3]));
    EXPECT_EQ(device.stop(SIGINT), 0);
}

TEST_F(DeviceEndToEnd, RolesOfAPlayEndWithThePlay) {
    auto r = play("touchDown(1, 1, 1) usleep(1000)");
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_TRUE(test::findProcesses({"role", root.str()}).empty());
    auto again = play("touchUp(1, 1, 1) usleep(1000)");  // the same root again: nothing left in the way
    EXPECT_EQ(again.exitCode, 0) << again.err;
}

}  // namespace
}  // namespace tw
