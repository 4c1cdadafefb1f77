#include <gtest/gtest.h>
#include <poll.h>

#include <future>
#include <nlohmann/json.hpp>
#include <sstream>

#include "LoopThread.h"
#include "TestSupport.h"
#include "device/EventTrace.h"
#include "device/HidHubClient.h"
#include "device/VirtualHidSystem.h"
#include "platform/linux/UnixMessagePorts.h"

namespace tw::device {
namespace {

using namespace hid;

// Sends `bytes` on a new connection to `path`; true when the device then hangs up within 5 s.
bool hangsUpOn(const std::string& path, const std::string& bytes) {
    sockaddr_un address;
    const socklen_t length = linuxp::abstractSocketAddress(path, address);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool open = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0;
    if (open) (void)::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    char buffer[4096];
    for (pollfd entry{fd, POLLIN, 0}; open && ::poll(&entry, 1, 5000) > 0;) open = ::recv(fd, buffer, sizeof buffer, 0) > 0;
    ::close(fd);
    return !open;
}

std::string touch(const char* phase, int finger, double x, double y) {
    return nlohmann::json{{"kind", "touch"}, {"phase", phase}, {"finger", finger}, {"x", x}, {"y", y}}.dump();
}

class VirtualHidSystemTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(system->start(nullptr));
        thread = std::make_unique<test::LoopThread>(runLoop);
    }
    std::vector<std::string> traced() {
        std::vector<std::string> lines;
        std::istringstream in(test::readFile(trace));
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }

    test::TempDir dir{"tw-hid"};
    const std::string runDir = dir.str() + "/run", trace = dir.str() + "/trace";
    std::shared_ptr<linuxp::AsioRunLoop> runLoop = std::make_shared<linuxp::AsioRunLoop>();
    std::unique_ptr<VirtualHidSystem> system = std::make_unique<VirtualHidSystem>(*runLoop, runDir, ScreenPixels{400, 800}, trace);
    std::unique_ptr<test::LoopThread> thread;  // stopped before the system goes
};

std::string hand(const std::string& line) {
    const auto j = nlohmann::json::parse(line);
    std::string s = j["mask"].dump() + " " + j["touch"].dump() + " " + j["x"].dump() + "," + j["y"].dump();
    for (const auto& c : j["children"])
        s += " | " + c["index"].dump() + ":" + c["mask"].dump() + ":" + c["touch"].dump() + "@" + c["x"].dump() + "," + c["y"].dump();
    return s;
}

TEST_F(VirtualHidSystemTest, FingersAndButtonsOnTheHardwareSocketBecomeRealEvents) {
    // Each touch and the hand event it makes: "mask touch x,y | finger:mask:touch@x,y | ...".
    const std::pair<std::string, std::string> steps[] = {
        {touch("down", 1, 200, 400), "35 1 0.5,0.5 | 1:3:1@0.5,0.5"},
        {touch("down", 2, 100, 200), "35 1 0.375,0.375 | 1:3:1@0.5,0.5 | 2:3:1@0.25,0.25"},
        {touch("move", 1, 300, 600), "39 1 0.5,0.5 | 1:4:1@0.75,0.75 | 2:3:1@0.25,0.25"},
        {touch("move", 2, 50, 100), "4 1 0.4375,0.4375 | 1:4:1@0.75,0.75 | 2:4:1@0.125,0.125"},
        {touch("up", 1, 400, 800), "39 1 0.5625,0.5625 | 1:3:0@1.0,1.0 | 2:4:1@0.125,0.125"},
        {touch("up", 2, 100, 200), "39 0 0.25,0.25 | 2:3:0@0.25,0.25"},
        {touch("down", 3, 0, 0), "35 1 0.0,0.0 | 3:3:1@0.0,0.0"},
    };
    std::string input;
    for (const auto& [line, expected] : steps) input += line + "\n";
    input += R"({"kind":"button","usage":233,"down":true})" "\n";
    for (int finger = 10; finger <= 41; ++finger) input += touch("down", finger, 1, 1) + "\n";  // the 33rd: too many
    ASSERT_TRUE(sendHardwareInput(runDir, input + touch("down", 3, 4, 8)));  // a finger that is down may land again
    ASSERT_TRUE(test::eventually([&] { return traced().size() == 40; }));
    const auto all = traced();
    ASSERT_EQ(all.size(), 40u);
    for (size_t i = 0; i < std::size(steps); ++i) EXPECT_EQ(hand(all[i]), steps[i].second) << steps[i].first;
    EXPECT_NE(all[7].find(R"("sender":"0x000000010000027E","usagePage":12,"usage":233,"down":1,"hardware":true})"), std::string::npos);
    EXPECT_EQ(nlohmann::json::parse(all[39])["children"].size() * 100 + system->badInputCount(), 3201u);  // 1 bad line
}

TEST_F(VirtualHidSystemTest, BadInputIsDroppedWithoutHarm) {
    struct Case { const char* name; bool hub; std::string line; } cases[] = {
        // The hub hangs up on a line it does not take; the hardware socket counts it and reads on.
        {"not JSON", true, "publish not json"},
        {"not an object", true, "publish [1,2]"},
        {"deep JSON", true, "publish {\"a\":" + std::string(100, '[') + std::string(100, ']') + "}"},
        {"over-long line", true, std::string(kMaxHidLine + 1, ' ')},
        {"move of a finger that is not down", false, touch("move", 1, 1, 1)},
        {"lift of a finger that is not down", false, touch("up", 1, 1, 1)},
        {"infinite x", false, R"({"kind":"touch","phase":"down","finger":1,"x":1e999,"y":1})"},
        {"usage page as text", false, R"({"kind":"button","usage":1,"usagePage":"12","down":true})"},
    };
    size_t bad = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.hub ? "hub: " : "hardware: ") + c.name);
        if (c.hub) {
            EXPECT_TRUE(hangsUpOn(hubSocketPath(runDir), c.line + "\n"));
            continue;
        }
        ASSERT_TRUE(sendHardwareInput(runDir, c.line + "\n" + R"({"kind":"button","usage":5,"down":true})"));
        EXPECT_TRUE(test::eventually([&] { return traced().size() == bad + 1; }));  // the good line after it counts
        EXPECT_EQ(system->badInputCount(), ++bad);
    }
    EXPECT_TRUE(hangsUpOn(hardwareSocketPath(runDir), std::string(kMaxHidLine + 9, ' ')));  // only an over-long line
    EXPECT_EQ(system->dispatchedCount(), bad);
}

TEST_F(VirtualHidSystemTest, SubscribersGetEveryLineInOrderAndOneThatStopsReadingIsDroppedWithoutStallingTheOthers) {
    auto slow = HidHubClient::connect(runDir, nullptr), reader = HidHubClient::connect(runDir, nullptr),
         publisher = HidHubClient::connect(runDir, nullptr);
    ASSERT_TRUE(slow && reader && publisher && slow->subscribe() && reader->subscribe());
    ASSERT_TRUE(test::eventually([&] { return system->subscriberCount() == 2; }));
    // Written compactly, keys in their order; brackets in a string are no nesting; a line may be as long as the limit.
    const std::string longest = R"({"f":")" + std::string(kMaxHidLine - 16, 'x') + "\"}";
    ASSERT_TRUE(publisher->publish(R"({ "f" : "h\u00e9 \")" + std::string(70, '[') + "\" }") && publisher->publish(longest));
    EXPECT_FALSE(publisher->publish(longest + " ") || publisher->publish("{\"a\":\n1}"));  // refused before sending
    // The long line may still be on its way into the file: wait for both, whole.
    const std::vector<std::string> published = {"{\"f\":\"h\xC3\xA9 \\\"" + std::string(70, '[') + "\"}", longest};
    EXPECT_TRUE(test::eventually([&] { return traced() == published; })) << traced().size() << " lines";
    HidEvent hand = createDisplayHandEvent(0, 1);
    for (uint32_t i = 0; i < 100; ++i) hand.appendEvent(createDigitizerFingerEvent(0, i, 2, 3, 0.5, 0.5, 0, 0, 0, true, true, 0));
    std::vector<std::string> read = {reader->readLine(5000).value_or(""), reader->readLine(5000).value_or("")};
    for (size_t sent = 0; sent < 3 * kMaxSubscriberBacklog; sent += 50 * traceLine(hand).size()) {
        std::promise<void> dispatched;
        runLoop->post([&] {
            for (int i = 0; i < 50; ++i) ++hand.timestamp, system->dispatchEvent(hand);
            dispatched.set_value();
        });
        dispatched.get_future().get();
        for (int i = 0; i < 50; ++i) read.push_back(reader->readLine(5000).value_or("(nothing)"));  // it keeps up
    }
    EXPECT_EQ(system->subscriberCount(), 1u);
    const auto all = traced();
    EXPECT_TRUE(read == all);
    size_t received = 0;  // what reached the dropped one before its end is the start of the stream
    for (auto line = slow->readLine(5000); line; line = slow->readLine(5000), ++received) {
        ASSERT_LT(received, all.size() / 2);
        ASSERT_EQ(*line, all[received]);
    }
    EXPECT_TRUE(slow->closed());
}

}  // namespace
}  // namespace tw::device
