#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "TestSupport.h"
#include "device/EventTrace.h"
#include "device/HidHubClient.h"
#include "device/VirtualHidSystem.h"
#include "platform/HidEvent.h"
#include "platform/linux/AsioRunLoop.h"
#include "platform/linux/UnixMessagePorts.h"

using namespace std::chrono_literals;
using namespace tw::hid;
using tw::device::HidHubClient;
using tw::device::kMaxHidLine;
using tw::device::kMaxSubscriberBacklog;
using tw::device::traceLine;
using tw::device::VirtualHidSystem;
using tw::linuxp::AsioRunLoop;

namespace {

constexpr double kWidth = 750, kHeight = 1334;

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit = 3s) {
    const auto until = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

class LoopThread {
public:
    explicit LoopThread(AsioRunLoop& loop) : loop_(loop) {
        std::promise<void> started;
        auto ready = started.get_future();
        loop_.post([&] { started.set_value(); });
        thread_ = std::thread([this] { loop_.run(); });
        ready.get();
    }
    ~LoopThread() {
        loop_.stop();
        thread_.join();
    }

private:
    AsioRunLoop& loop_;
    std::thread thread_;
};

// A raw stream client on one of the device's sockets.
class RawClient {
public:
    explicit RawClient(const std::string& path) {
        const std::string name = tw::linuxp::abstractSocketName(path);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path + 1, name.data(), name.size());
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
        connected_ = fd_ >= 0 && ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), length) == 0;
    }
    ~RawClient() {
        if (fd_ >= 0) ::close(fd_);
    }
    bool connected() const { return connected_; }

    // False once the peer is gone.
    bool send(const std::string& bytes) {
        size_t sent = 0;
        while (sent < bytes.size()) {
            const ssize_t count = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (count <= 0) return false;
            sent += static_cast<size_t>(count);
        }
        return true;
    }

    // True when the peer closed the connection within `limit` (whatever it sent first is skipped).
    bool closedByPeer(std::chrono::milliseconds limit = 3s) {
        const auto until = std::chrono::steady_clock::now() + limit;
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
            if (left.count() <= 0) return false;
            pollfd entry{fd_, POLLIN, 0};
            if (::poll(&entry, 1, static_cast<int>(left.count())) <= 0) return false;
            char buffer[4096];
            const ssize_t count = ::recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
            if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) return true;
        }
    }

    // Everything the peer sends until it closes; null when it is still open after `limit`.
    std::optional<std::string> readUntilClosed(std::chrono::milliseconds limit = 5s) {
        const auto until = std::chrono::steady_clock::now() + limit;
        std::string data;
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
            if (left.count() <= 0) return std::nullopt;
            pollfd entry{fd_, POLLIN, 0};
            if (::poll(&entry, 1, static_cast<int>(left.count())) <= 0) return std::nullopt;
            char buffer[64 * 1024];
            const ssize_t count = ::recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
            if (count > 0) data.append(buffer, static_cast<size_t>(count));
            else if (count == 0 || (errno != EAGAIN && errno != EINTR)) return data;
        }
    }

private:
    int fd_ = -1;
    bool connected_ = false;
};

HidEvent keyEvent(uint32_t usage, bool down = true) {
    HidEvent key = createKeyboardEvent(absoluteTime(), 7, usage, down, 0);
    key.setSenderID(0xDEFACEDBEEFFECE5ULL);
    return key;
}

// A hand event with `fingers` children, for bulk traffic (about 80 bytes a finger in the trace).
HidEvent wideHand(int fingers, int salt) {
    HidEvent hand = createDigitizerEvent(absoluteTime(), kTransducerTypeHand, 0, 1, 0x23, 0, 0.5, 0.5, 0, 0, 0, true,
                                         true, 0);
    for (int i = 0; i < fingers; ++i)
        hand.appendEvent(createDigitizerFingerEvent(hand.timestamp, i, 2, 3, ((i + salt) % 128) / 128.0, i / 256.0, 0,
                                                    0, 0, true, true, 0));
    return hand;
}

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

struct Seen {
    std::string line;
    std::optional<HidEvent> event;
};

class VirtualHidTest : public ::testing::Test {
protected:
    void SetUp() override {
        runDir = (dir.path() / "run").string();
        tracePath = (dir.path() / "trace.jsonl").string();
        system = std::make_unique<VirtualHidSystem>(*loop, runDir, tw::device::ScreenPixels{kWidth, kHeight}, tracePath);
        system->setConnectionDispatchObserver([this](uint32_t type, const HidEvent& event) {
            std::lock_guard lock(mutex);
            observed.emplace_back(type, event.type, event.hardware, seen.size());
        });
        system->addListener([this](const std::string& line, const HidEvent* event) {
            std::lock_guard lock(mutex);
            seen.push_back({line, event && keepEvents ? std::optional<HidEvent>(*event) : std::nullopt});
        });
        std::string error;
        ASSERT_TRUE(system->start(&error)) << error;
        loopThread = std::make_unique<LoopThread>(*loop);
    }

    void TearDown() override {
        loopThread.reset();
        system.reset();
    }

    // Runs `task` on the loop; fails the test when the loop does not get to it in time.
    void onLoop(std::function<void()> task) {
        auto done = std::make_shared<std::promise<void>>();
        auto finished = done->get_future();
        loop->post([task = std::move(task), done] {
            task();
            done->set_value();
        });
        ASSERT_EQ(finished.wait_for(10s), std::future_status::ready) << "the loop is blocked";
    }

    size_t seenCount() {
        std::lock_guard lock(mutex);
        return seen.size();
    }
    std::vector<Seen> seenCopy(size_t from = 0) {
        std::lock_guard lock(mutex);
        return std::vector<Seen>(seen.begin() + static_cast<ptrdiff_t>(std::min(from, seen.size())), seen.end());
    }

    std::unique_ptr<HidHubClient> hub() {
        std::string error;
        auto client = HidHubClient::connect(runDir, &error);
        EXPECT_TRUE(client) << error;
        return client;
    }

    std::unique_ptr<HidHubClient> subscriber() {
        auto client = hub();
        if (!client) return nullptr;
        const size_t before = system->subscriberCount();
        EXPECT_TRUE(client->subscribe());
        EXPECT_TRUE(eventually([&] { return system->subscriberCount() == before + 1; }));
        return client;
    }

    tw::test::TempDir dir{"tw-hid"};
    std::string runDir, tracePath;
    std::shared_ptr<AsioRunLoop> loop = std::make_shared<AsioRunLoop>();
    std::unique_ptr<VirtualHidSystem> system;
    std::unique_ptr<LoopThread> loopThread;

    std::mutex mutex;
    // (connection type, event type, hardware, lines delivered before the call)
    std::vector<std::tuple<uint32_t, uint32_t, bool, size_t>> observed;
    std::vector<Seen> seen;
    bool keepEvents = true;  // copies of the events, not only their lines
};

using Observed = std::tuple<uint32_t, uint32_t, bool, size_t>;

class VirtualHidSystemTest : public VirtualHidTest {};
class VirtualHidHubTest : public VirtualHidTest {};
class HidHubClientTest : public VirtualHidTest {};
class VirtualHidHardwareTest : public VirtualHidTest {};
class VirtualHidRobustnessTest : public VirtualHidTest {};

// --- Connections and counters ----------------------------------------------------------------

TEST_F(VirtualHidSystemTest, InjectedEventsReachTheClientConnectionOnlyHardwareTheSystemOneFirst) {
    onLoop([&] { system->dispatchEvent(keyEvent(4)); });
    onLoop([&] { system->dispatchHardwareEvent(keyEvent(5)); });
    {
        std::lock_guard lock(mutex);
        // The observer runs before the line is delivered.
        EXPECT_EQ(observed, (std::vector<Observed>{{kConnectionTypeClient, kEventTypeKeyboard, false, 0},
                                                   {kConnectionTypeSystem, kEventTypeKeyboard, true, 1},
                                                   {kConnectionTypeClient, kEventTypeKeyboard, true, 1}}));
        ASSERT_EQ(seen.size(), 2u);
        EXPECT_FALSE(seen[0].event->hardware);
        EXPECT_TRUE(seen[1].event->hardware);
        EXPECT_EQ(seen[1].line, traceLine(*seen[1].event));
    }
    EXPECT_EQ(system->dispatchedCount(), 2u);
    EXPECT_EQ(system->hardwareEventCount(), 1u);
    EXPECT_EQ(system->userEventCount(), 0u);
    onLoop([&] {
        system->userEventOccurred();
        system->userEventOccurred();
    });
    EXPECT_EQ(system->userEventCount(), 2u);
    EXPECT_EQ(system->dispatchedCount(), 2u);
}

TEST_F(VirtualHidSystemTest, SecondDeviceOnTheSameRootFailsUntilTheFirstStops) {
    VirtualHidSystem second(*loop, runDir, {kWidth, kHeight}, std::nullopt);
    std::string error;
    EXPECT_FALSE(second.start(&error));
    EXPECT_NE(error.find("another device is already running on " + runDir), std::string::npos) << error;

    onLoop([&] { system->stop(); });
    std::string none;
    EXPECT_EQ(HidHubClient::connect(runDir, &none), nullptr);
    EXPECT_NE(none.find("no device is running on " + runDir), std::string::npos) << none;

    error.clear();
    onLoop([&] { EXPECT_TRUE(second.start(&error)) << error; });
    EXPECT_NE(HidHubClient::connect(runDir, &none), nullptr) << none;
    onLoop([&] { second.stop(); });
}

TEST_F(VirtualHidSystemTest, DevicesOnOtherRootsDoNotCollide) {
    tw::test::TempDir other("tw-hid-other");
    // A long root: the socket address is derived, not the path itself.
    const std::string otherRun = (other.path() / std::string(150, 'r') / "run").string();
    VirtualHidSystem second(*loop, otherRun, {kWidth, kHeight}, std::nullopt);
    std::string error;
    onLoop([&] { EXPECT_TRUE(second.start(&error)) << error; });
    EXPECT_NE(HidHubClient::connect(otherRun, &error), nullptr) << error;
    onLoop([&] { second.stop(); });
}

// --- Hub -------------------------------------------------------------------------------------

TEST_F(VirtualHidHubTest, SubscriberGetsEveryLineInDispatchOrderWithPublishedLinesAndTrace) {
    auto first = subscriber();
    auto second = subscriber();
    auto publisher = hub();
    ASSERT_TRUE(first && second && publisher);

    onLoop([&] {
        for (uint32_t usage = 0; usage < 50; ++usage) system->dispatchEvent(keyEvent(usage, usage % 2 == 0));
    });
    // Spaces and key order: the line is rewritten compactly, keys kept in their order.
    ASSERT_TRUE(publisher->publish(R"({ "kind" : "text", "bundle":"com.example.notes", "field":"h\u00e9 \"x\"" })"));
    ASSERT_TRUE(eventually([&] { return system->publishedCount() == 1; }));
    onLoop([&] {
        system->dispatchEvent(wideHand(2, 0));
        system->dispatchHardwareEvent(keyEvent(99));
    });

    const auto lines = seenCopy();
    ASSERT_EQ(lines.size(), 53u);
    EXPECT_EQ(lines[50].line, "{\"kind\":\"text\",\"bundle\":\"com.example.notes\",\"field\":\"h\xC3\xA9 \\\"x\\\"\"}");
    EXPECT_FALSE(lines[50].event.has_value());
    for (auto* client : {first.get(), second.get()}) {
        for (size_t i = 0; i < lines.size(); ++i) {
            const auto line = client->readLine(3000);
            ASSERT_TRUE(line) << "line " << i;
            EXPECT_EQ(*line, lines[i].line) << "line " << i;
        }
        EXPECT_FALSE(client->readLine(50));
        EXPECT_FALSE(client->closed());
    }

    std::vector<std::string> expected;
    for (const auto& s : lines) expected.push_back(s.line);
    EXPECT_EQ(splitLines(tw::test::readFile(tracePath)), expected);
}

TEST_F(VirtualHidHubTest, BadHubLinesCloseOnlyTheirConnection) {
    auto listener = subscriber();
    auto good = hub();
    ASSERT_TRUE(listener && good);

    const std::string tooDeep = "publish {\"a\":" + std::string(100, '[') + std::string(100, ']') + "}";
    for (const std::string bad : {"publish not json", "publish [1,2]", "publish \"text\"", "publish {\"a\":1",
                                  "publish {\"a\":\"\xff\"}", "publish", "publish{}", "subscribe now", "hello", "",
                                  tooDeep.c_str()}) {
        auto client = hub();
        ASSERT_TRUE(client);
        RawClient raw(tw::device::hubSocketPath(runDir));
        ASSERT_TRUE(raw.connected());
        ASSERT_TRUE(raw.send(bad + "\n"));
        EXPECT_TRUE(raw.closedByPeer()) << "'" << bad << "'";
        // The same through the client: publish() sends it, the hub hangs up.
        if (bad.rfind("publish ", 0) == 0) {
            ASSERT_TRUE(client->publish(bad.substr(8)));
            EXPECT_FALSE(client->readLine(3000));
            EXPECT_TRUE(client->closed()) << "'" << bad << "'";
        }
    }

    // Brackets inside a string (after an escaped quote) are text, not nesting.
    const std::string brackets = R"({"kind":"text","bundle":"b","field":"\")" + std::string(100, '[') + "\"}";
    for (const std::string& text : {std::string(R"({"kind":"text","bundle":"b","field":"after"})"), brackets}) {
        ASSERT_TRUE(good->publish(text));
        const auto line = listener->readLine(3000);
        ASSERT_TRUE(line);
        EXPECT_EQ(*line, text);
    }
    EXPECT_EQ(system->publishedCount(), 2u);
    EXPECT_EQ(system->subscriberCount(), 1u);
    EXPECT_EQ(splitLines(tw::test::readFile(tracePath)),
              (std::vector<std::string>{R"({"kind":"text","bundle":"b","field":"after"})", brackets}));
}

TEST_F(VirtualHidHubTest, HubLineLengthLimit) {
    auto listener = subscriber();
    auto client = hub();
    ASSERT_TRUE(listener && client);

    // "publish " plus a JSON object, exactly at the limit.
    const std::string prefix = R"({"kind":"text","bundle":"b","field":")";
    const std::string longest = prefix + std::string(kMaxHidLine - 8 - prefix.size() - 2, 'x') + "\"}";
    ASSERT_EQ(longest.size() + 8, kMaxHidLine);
    ASSERT_TRUE(client->publish(longest));
    auto line = listener->readLine(3000);
    ASSERT_TRUE(line);
    EXPECT_EQ(*line, longest);

    // One byte more is refused by the client without hanging up, and by the hub with a hang-up.
    const std::string tooLong = prefix + std::string(kMaxHidLine - 8 - prefix.size() - 1, 'x') + "\"}";
    EXPECT_FALSE(client->publish(tooLong));
    EXPECT_FALSE(client->publish("{\"a\":\n1}"));
    EXPECT_FALSE(client->closed());
    EXPECT_TRUE(client->publish(R"({"still":"open"})"));
    line = listener->readLine(3000);
    ASSERT_TRUE(line);
    EXPECT_EQ(*line, R"({"still":"open"})");

    RawClient raw(tw::device::hubSocketPath(runDir));
    ASSERT_TRUE(raw.send("publish " + tooLong + "\n"));
    EXPECT_TRUE(raw.closedByPeer());
    RawClient endless(tw::device::hubSocketPath(runDir));
    ASSERT_TRUE(endless.send("publish {\"x\":\"" + std::string(kMaxHidLine + 100, 'y')));  // no newline yet
    EXPECT_TRUE(endless.closedByPeer());
    EXPECT_EQ(system->publishedCount(), 2u);
    EXPECT_FALSE(listener->closed());
}

TEST_F(HidHubClientTest, TellsATimeoutFromAClosedHub) {
    auto listener = subscriber();
    ASSERT_TRUE(listener);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_FALSE(listener->readLine(100));
    EXPECT_GE(std::chrono::steady_clock::now() - before, 100ms);
    EXPECT_FALSE(listener->closed());

    onLoop([&] { system->stop(); });
    EXPECT_FALSE(listener->readLine(3000));
    EXPECT_TRUE(listener->closed());
    EXPECT_FALSE(listener->publish("{}"));
    EXPECT_FALSE(listener->subscribe());
}

TEST_F(VirtualHidHubTest, SlowSubscriberIsDroppedWithoutHoldingUpTheLoopOrOthers) {
    {
        std::lock_guard lock(mutex);
        keepEvents = false;
    }
    RawClient slow(tw::device::hubSocketPath(runDir));
    ASSERT_TRUE(slow.send("subscribe\n"));
    ASSERT_TRUE(eventually([&] { return system->subscriberCount() == 1; }));
    auto reader = subscriber();
    ASSERT_TRUE(reader);

    size_t total = 0;
    int batch = 0;
    // Three times what a subscriber may fall behind by, in batches a reading subscriber keeps up with.
    while (total < 3 * kMaxSubscriberBacklog) {
        const size_t firstLine = seenCount();
        onLoop([&] {
            for (int i = 0; i < 50; ++i) system->dispatchEvent(wideHand(100, batch * 50 + i));
        });
        const auto lines = seenCopy(firstLine);
        ASSERT_EQ(lines.size(), 50u);
        // The reader keeps up, so it never falls behind by more than a batch.
        for (size_t i = 0; i < lines.size(); ++i) {
            total += lines[i].line.size() + 1;
            const auto line = reader->readLine(5000);
            ASSERT_TRUE(line) << "batch " << batch;
            ASSERT_EQ(*line, lines[i].line);
        }
        ++batch;
    }
    ASSERT_TRUE(eventually([&] { return system->subscriberCount() == 1; }));
    EXPECT_FALSE(reader->closed());
    // The dropped subscriber still gets what reached its socket before the drop, then the end:
    // the start of the stream, in order.
    const auto received = slow.readUntilClosed();
    ASSERT_TRUE(received);
    EXPECT_GT(received->size(), 0u);
    EXPECT_LT(received->size(), total);
    std::string stream;
    for (const auto& s : seenCopy()) {
        stream += s.line;
        stream += '\n';
        if (stream.size() >= received->size()) break;
    }
    EXPECT_TRUE(stream.compare(0, received->size(), *received) == 0);
}

// --- Hardware input ------------------------------------------------------------------------------

struct FingerExpectation {
    uint32_t index;
    uint32_t mask;
    bool active;
    double px, py;
};

void expectHand(const HidEvent& hand, uint32_t mask, const std::vector<FingerExpectation>& fingers, int step) {
    SCOPED_TRACE("step " + std::to_string(step));
    EXPECT_EQ(hand.type, kEventTypeDigitizer);
    EXPECT_TRUE(hand.hardware);
    EXPECT_EQ(hand.senderId, tw::device::kHardwareDigitizerSenderID);
    EXPECT_EQ(hand.integerValue(kFieldDigitizerType), kTransducerTypeHand);
    EXPECT_EQ(hand.integerValue(kFieldIsBuiltIn), 1);
    EXPECT_EQ(hand.integerValue(kFieldDigitizerIsDisplayIntegrated), 1);
    EXPECT_EQ(hand.integerValue(kFieldDigitizerEventMask), mask);
    ASSERT_EQ(hand.children.size(), fingers.size());
    double sumX = 0, sumY = 0;
    bool anyActive = false;
    for (size_t i = 0; i < fingers.size(); ++i) {
        const HidEvent& child = hand.children[i];
        const auto& want = fingers[i];
        EXPECT_EQ(child.integerValue(kFieldDigitizerType), kTransducerTypeFinger);
        EXPECT_EQ(child.integerValue(kFieldDigitizerIndex), want.index);
        EXPECT_EQ(child.integerValue(kFieldDigitizerIdentity), 2);
        EXPECT_EQ(child.integerValue(kFieldDigitizerEventMask), want.mask);
        EXPECT_EQ(child.integerValue(kFieldDigitizerRange), want.active ? 1 : 0);
        EXPECT_EQ(child.integerValue(kFieldDigitizerTouch), want.active ? 1 : 0);
        EXPECT_DOUBLE_EQ(child.floatValue(kFieldDigitizerX), want.px / kWidth);
        EXPECT_DOUBLE_EQ(child.floatValue(kFieldDigitizerY), want.py / kHeight);
        EXPECT_EQ(child.timestamp, hand.timestamp);
        sumX += want.px / kWidth;
        sumY += want.py / kHeight;
        anyActive = anyActive || want.active;
    }
    EXPECT_DOUBLE_EQ(hand.floatValue(kFieldDigitizerX), sumX / fingers.size());
    EXPECT_DOUBLE_EQ(hand.floatValue(kFieldDigitizerY), sumY / fingers.size());
    EXPECT_EQ(hand.integerValue(kFieldDigitizerRange), anyActive ? 1 : 0);
    EXPECT_EQ(hand.integerValue(kFieldDigitizerTouch), anyActive ? 1 : 0);
}

std::string touch(const char* phase, int finger, double x, double y) {
    nlohmann::ordered_json line{{"kind", "touch"}, {"phase", phase}, {"finger", finger}, {"x", x}, {"y", y}};
    return line.dump() + "\n";
}

TEST_F(VirtualHidHardwareTest, TouchesOfTwoFingersMakeHandEvents) {
    RawClient input(tw::device::hardwareSocketPath(runDir));
    ASSERT_TRUE(input.connected());
    // Integer and fractional pixel coordinates both count as numbers.
    ASSERT_TRUE(input.send(R"({"kind":"touch","phase":"down","finger":1,"x":375,"y":667})"
                           "\n" +
                           touch("down", 2, 187.5, 333.5) + touch("move", 1, 562.5, 1000.5) +
                           touch("move", 2, 75, 133.4) + touch("up", 1, 600, 1100) + touch("move", 2, 150, 200) +
                           touch("up", 2, 150, 200) + touch("move", 2, 10, 10) + touch("up", 1, 10, 10) +
                           touch("down", 3, 0, 0)));
    ASSERT_TRUE(eventually([&] { return seenCount() == 8; }));
    EXPECT_EQ(system->badInputCount(), 2u);  // move and up of fingers that had lifted

    const auto events = seenCopy();
    expectHand(*events[0].event, 0x23, {{1, 3, true, 375, 667}}, 1);
    expectHand(*events[1].event, 0x23, {{1, 3, true, 375, 667}, {2, 3, true, 187.5, 333.5}}, 2);
    expectHand(*events[2].event, 0x27, {{1, 4, true, 562.5, 1000.5}, {2, 3, true, 187.5, 333.5}}, 3);
    expectHand(*events[3].event, 0x04, {{1, 4, true, 562.5, 1000.5}, {2, 4, true, 75, 133.4}}, 4);
    expectHand(*events[4].event, 0x27, {{1, 3, false, 600, 1100}, {2, 4, true, 75, 133.4}}, 5);
    expectHand(*events[5].event, 0x04, {{2, 4, true, 150, 200}}, 6);  // finger 1 is gone
    expectHand(*events[6].event, 0x27, {{2, 3, false, 150, 200}}, 7);
    expectHand(*events[7].event, 0x23, {{3, 3, true, 0, 0}}, 8);  // the table was empty again

    for (const auto& e : events) {
        EXPECT_EQ(e.line, traceLine(*e.event));
        EXPECT_NE(e.line.find(R"("sender":"0x000000010000027F")"), std::string::npos);
    }
    std::lock_guard lock(mutex);
    ASSERT_EQ(observed.size(), 16u);
    for (size_t i = 0; i < observed.size(); i += 2) {
        EXPECT_EQ(std::get<0>(observed[i]), kConnectionTypeSystem);
        EXPECT_EQ(std::get<0>(observed[i + 1]), kConnectionTypeClient);
        EXPECT_EQ(std::get<3>(observed[i]), i / 2);  // both before the line went out
        EXPECT_EQ(std::get<3>(observed[i + 1]), i / 2);
    }
}

TEST_F(VirtualHidHardwareTest, ButtonsBecomeKeyboardEvents) {
    RawClient input(tw::device::hardwareSocketPath(runDir));
    ASSERT_TRUE(input.send(R"({"kind":"button","usage":233,"down":true})"
                           "\n"
                           R"({"down":false,"usagePage":7,"usage":4,"kind":"button","extra":[1]})"
                           "\n"));
    ASSERT_TRUE(eventually([&] { return seenCount() == 2; }));
    const auto events = seenCopy();
    EXPECT_EQ(events[0].line, R"({"kind":"keyboard","time":)" + std::to_string(events[0].event->timestamp) +
                                  R"(,"sender":"0x000000010000027E","usagePage":12,"usage":233,"down":1,"hardware":true})");
    EXPECT_EQ(events[1].line, R"({"kind":"keyboard","time":)" + std::to_string(events[1].event->timestamp) +
                                  R"(,"sender":"0x000000010000027E","usagePage":7,"usage":4,"down":0,"hardware":true})");
    EXPECT_EQ(system->hardwareEventCount(), 2u);
    EXPECT_EQ(system->badInputCount(), 0u);
}

TEST_F(VirtualHidHardwareTest, BadLinesAreCountedAndIgnored) {
    const std::vector<std::string> bad = {
        "",
        "not json",
        "[1,2]",
        "{}",
        R"({"kind":"swipe"})",
        R"({"kind":7})",
        R"({"kind":"touch","phase":"hover","finger":1,"x":1,"y":1})",
        R"({"kind":"touch","phase":2,"finger":1,"x":1,"y":1})",
        R"({"kind":"touch","phase":"down","x":1,"y":1})",
        R"({"kind":"touch","phase":"down","finger":"1","x":1,"y":1})",
        R"({"kind":"touch","phase":"down","finger":-1,"x":1,"y":1})",
        R"({"kind":"touch","phase":"down","finger":1.5,"x":1,"y":1})",
        R"({"kind":"touch","phase":"down","finger":4294967296,"x":1,"y":1})",
        R"({"kind":"touch","phase":"down","finger":1,"x":"1","y":1})",
        R"({"kind":"touch","phase":"down","finger":1,"x":1})",
        R"({"kind":"touch","phase":"down","finger":1,"x":1e999,"y":1})",
        R"({"kind":"touch","phase":"down","finger":1,"x":1,"y":null})",
        R"({"kind":"touch","phase":"move","finger":1,"x":1,"y":1})",
        R"({"kind":"touch","phase":"up","finger":1,"x":1,"y":1})",
        R"({"kind":"button","usage":1})",
        R"({"kind":"button","usage":1,"down":1})",
        R"({"kind":"button","usage":-1,"down":true})",
        R"({"kind":"button","usage":65536,"down":true})",
        R"({"kind":"button","usage":1,"usagePage":"12","down":true})",
        R"({"kind":"button","down":true})",
        std::string(20000, '[') + std::string(20000, ']'),
        "{\"kind\":\"button\",\"usage\":1,\"down\":true,\"s\":\"\xff\"}",
    };
    RawClient input(tw::device::hardwareSocketPath(runDir));
    std::string all;
    for (const auto& line : bad) all += line + "\n";
    ASSERT_TRUE(input.send(all + R"({"kind":"button","usage":5,"down":true})" + "\n"));
    ASSERT_TRUE(eventually([&] { return seenCount() == 1; }));
    EXPECT_EQ(system->badInputCount(), bad.size());
    EXPECT_EQ(seenCopy()[0].event->integerValue(kFieldKeyboardUsage), 5);
    EXPECT_EQ(system->dispatchedCount(), 1u);
}

TEST_F(VirtualHidHardwareTest, FingerTableIsBounded) {
    RawClient input(tw::device::hardwareSocketPath(runDir));
    std::string lines;
    for (size_t finger = 0; finger <= tw::device::kMaxHardwareFingers; ++finger) lines += touch("down", finger, 1, 1);
    lines += touch("down", 0, 2, 2);  // a finger already down may land again
    ASSERT_TRUE(input.send(lines));
    ASSERT_TRUE(eventually([&] { return seenCount() == tw::device::kMaxHardwareFingers + 1; }));
    EXPECT_EQ(system->badInputCount(), 1u);
    EXPECT_EQ(seenCopy().back().event->children.size(), tw::device::kMaxHardwareFingers);
}

TEST_F(VirtualHidHardwareTest, OverlongLineClosesOnlyThatConnection) {
    RawClient first(tw::device::hardwareSocketPath(runDir));
    RawClient second(tw::device::hardwareSocketPath(runDir));
    ASSERT_TRUE(first.send(std::string(kMaxHidLine + 10, ' ')));
    EXPECT_TRUE(first.closedByPeer());
    ASSERT_TRUE(second.send(R"({"kind":"button","usage":5,"down":true})"
                            "\n"));
    EXPECT_TRUE(eventually([&] { return seenCount() == 1; }));
    EXPECT_EQ(system->badInputCount(), 0u);
}

// --- Robustness -----------------------------------------------------------------------------------

TEST_F(VirtualHidRobustnessTest, RandomBytesOnBothSocketsLeaveTheDeviceWorking) {
    std::mt19937 random(20240611);
    auto pick = [&](size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(random); };
    const std::vector<std::string> hubSeeds = {"subscribe", "publish {\"kind\":\"text\",\"bundle\":\"b\",\"field\":\"f\"}",
                                               "publish {\"a\":[1,{\"b\":null}],\"c\":-1.5e3}"};
    const std::vector<std::string> hardwareSeeds = {
        R"({"kind":"touch","phase":"down","finger":1,"x":10,"y":20})",
        R"({"kind":"touch","phase":"move","finger":1,"x":10.5,"y":20})",
        R"({"kind":"touch","phase":"up","finger":1,"x":10,"y":20})",
        R"({"kind":"button","usage":233,"usagePage":12,"down":true})"};
    auto chunk = [&](const std::vector<std::string>& seeds) {
        std::string bytes;
        switch (pick(3)) {
            case 0:  // noise
                bytes.resize(1 + pick(400));
                for (auto& c : bytes) c = static_cast<char>(pick(256));
                break;
            case 1:  // noise that mostly looks like lines
                bytes.resize(1 + pick(200));
                for (auto& c : bytes) c = pick(10) == 0 ? '\n' : static_cast<char>(32 + pick(95));
                break;
            default: {  // a real line with a few bytes flipped, dropped or cut
                bytes = seeds[pick(seeds.size())];
                for (size_t flips = pick(4); flips > 0 && !bytes.empty(); --flips) {
                    const size_t at = pick(bytes.size());
                    if (pick(2)) bytes[at] = static_cast<char>(pick(256));
                    else bytes.erase(at, 1);
                }
                if (pick(4) == 0) bytes.resize(pick(bytes.size() + 1));
                bytes += '\n';
            }
        }
        return bytes;
    };

    std::unique_ptr<RawClient> hubClient, hardwareClient;
    int connects = 0;
    for (int i = 0; i < 3000; ++i) {
        const bool toHub = i % 2 == 0;
        auto& client = toHub ? hubClient : hardwareClient;
        if (!client) {
            client = std::make_unique<RawClient>(toHub ? tw::device::hubSocketPath(runDir)
                                                       : tw::device::hardwareSocketPath(runDir));
            ASSERT_TRUE(client->connected());
            ++connects;
        }
        if (!client->send(chunk(toHub ? hubSeeds : hardwareSeeds))) client.reset();  // hung up on: start over
    }
    hubClient.reset();
    hardwareClient.reset();
    EXPECT_GT(connects, 2);
    // Wait until the device has read everything that was sent.
    const size_t before = seenCount();
    RawClient marker(tw::device::hardwareSocketPath(runDir));
    ASSERT_TRUE(marker.send(R"({"kind":"button","usage":4321,"down":false})"
                            "\n"));
    ASSERT_TRUE(eventually([&] {
        const auto lines = seenCopy(before);
        for (size_t i = 0; i < lines.size(); ++i)
            if (lines[i].event && lines[i].event->integerValue(kFieldKeyboardUsage) == 4321) return true;
        return false;
    }));
    EXPECT_GT(system->badInputCount(), 0u);

    auto listener = subscriber();
    ASSERT_TRUE(listener);
    HidEvent key = keyEvent(77);
    onLoop([&] { system->dispatchEvent(key); });
    auto line = listener->readLine(3000);
    ASSERT_TRUE(line);
    EXPECT_EQ(*line, traceLine(key));
    ASSERT_TRUE(hub()->publish(R"({"kind":"text","bundle":"b","field":"done"})"));
    line = listener->readLine(3000);
    ASSERT_TRUE(line);
    EXPECT_EQ(*line, R"({"kind":"text","bundle":"b","field":"done"})");
}

}  // namespace
