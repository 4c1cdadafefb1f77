// The event request client against a fake injector that owns the real port.
#include <gtest/gtest.h>

#include <filesystem>

#include "EngineFixture.h"
#include "injection/EventSimulate.h"
#include "injection/records/KeyRecord.h"
#include "injection/records/MessageIds.h"
#include "injection/records/TouchRecord.h"
#include "core/Paths.h"
#include "library/FileManager.h"

namespace tw {
namespace {

using test::ReceivedMessage;

class EventSimulateTest : public test::EngineFixture {
protected:
    std::unique_ptr<test::FakeInjector> startInjector() {
        auto injector = std::make_unique<test::FakeInjector>(*Platform::current().ports);
        EXPECT_TRUE(injector->listening());
        return injector;
    }
};

TEST_F(EventSimulateTest, EveryRequestArrivesWithItsIdAndRecord) {
    auto injector = startInjector();
    EXPECT_EQ(EventSimulate::touchDown(1, 10.5, 20.25), 0);
    EXPECT_EQ(EventSimulate::touchMove(1, 11, 21), 0);
    EXPECT_EQ(EventSimulate::touchUp(1, 12, 22), 0);
    EXPECT_EQ(EventSimulate::syncEvent(), 0);
    EXPECT_EQ(EventSimulate::keyDown(0x40, 12), 0);
    EXPECT_EQ(EventSimulate::keyUp(0x40, 12), 0);
    EventSimulate::input("h\xC3\xA9llo");
    EventSimulate::input("");
    EXPECT_EQ(EventSimulate::setScaleScreen(1), 0);
    EXPECT_EQ(EventSimulate::setAdaptOrientation(3), 0);
    ASSERT_TRUE(injector->waitForMessages(10));

    const std::vector<ReceivedMessage> expected = {
        {kMsgTouch, TouchRecord{kTouchDown, 1, 10.5, 20.25}.encode()},
        {kMsgTouch, TouchRecord{kTouchMove, 1, 11, 21}.encode()},
        {kMsgTouch, TouchRecord{kTouchUp, 1, 12, 22}.encode()},
        {kMsgSync, std::nullopt},  // null data, not an empty record
        {kMsgKey, KeyRecord{0x40, 12, 1}.encode()},
        {kMsgKey, KeyRecord{0x40, 12, 0}.encode()},
        {kMsgText, Bytes{'h', 0xC3, 0xA9, 'l', 'l', 'o'}},
        {kMsgText, Bytes{}},  // an empty text is an empty payload
        {kMsgScaleScreen, Bytes{1, 0, 0, 0}},
        {kMsgOrientation, Bytes{3, 0, 0, 0}},
    };
    EXPECT_EQ(injector->messages(), expected);
}

TEST_F(EventSimulateTest, NoInjectorGivesMinusOneQuietly) {
    EXPECT_FALSE(keep_message_port_fresh());
    EXPECT_EQ(EventSimulate::touchDown(1, 1, 1), -1);
    EXPECT_EQ(EventSimulate::syncEvent(), -1);
    EXPECT_EQ(EventSimulate::keyDown(0x40, 12), -1);
    EXPECT_EQ(EventSimulate::setScaleScreen(0), -1);
    EXPECT_EQ(EventSimulate::setAdaptOrientation(1), -1);
    EventSimulate::input("dropped");
    EXPECT_FALSE(std::filesystem::exists(Paths::logFile()));  // nothing is logged
}

TEST_F(EventSimulateTest, ARestartedInjectorIsReachedAgain) {
    auto first = startInjector();
    EXPECT_EQ(EventSimulate::touchDown(1, 1, 1), 0);
    ASSERT_TRUE(first->waitForMessages(1));
    first.reset();  // the injector's process goes away

    EXPECT_EQ(EventSimulate::touchDown(2, 2, 2), -1);
    auto second = startInjector();
    EXPECT_TRUE(keep_message_port_fresh());
    EXPECT_EQ(EventSimulate::touchDown(3, 3, 3), 0);
    ASSERT_TRUE(second->waitForMessages(1));
    EXPECT_EQ(second->messages().front().data, TouchRecord({kTouchDown, 3, 3, 3}).encode());
}

class ScaleScreenTest : public EventSimulateTest {};

TEST_F(ScaleScreenTest, TextScriptsUseTheirResolutionMark) {
    EXPECT_TRUE(decideScaleScreen("adaptResolution(375, 667)\n-- SCREEN_RESOLUTION=\"375x667\"\n", 2));
    EXPECT_TRUE(decideScaleScreen("SCREEN_RESOLUTION=\"768x1024\"", 2));
    EXPECT_FALSE(decideScaleScreen("SCREEN_RESOLUTION=\"640x1136\"", 2));
    EXPECT_FALSE(decideScaleScreen("touchDown(1, 2, 3)", 2));            // no mark: pixels
    EXPECT_FALSE(decideScaleScreen("screen_resolution=\"375x667\"", 2));  // case matters
    // Only the first mark counts.
    EXPECT_FALSE(decideScaleScreen("SCREEN_RESOLUTION=\"640x1136\" SCREEN_RESOLUTION=\"375x667\"", 2));
    EXPECT_FALSE(decideScaleScreen("SCREEN_RESOLUTION=\"375x667\"", 3));  // unknown kind
}

TEST_F(ScaleScreenTest, FilesAreReadOnlyInTheirFirst128Bytes) {
    const std::string mark = "-- SCREEN_RESOLUTION=\"320x568\"\n";
    const std::string early = addScript("early.lua", mark + "touchDown(1, 2, 3)\n");
    const std::string late = addScript("late.lua", std::string(120, '-') + "\n" + mark);
    const std::string pixels = addScript("pixels.lua", "-- SCREEN_RESOLUTION=\"640x1136\"\n");
    EXPECT_TRUE(decideScaleScreen(FileManager::fullPathOfFile(early), 1));
    // New files without a readable mark fall to the creation date: made today, so pixels.
    EXPECT_FALSE(decideScaleScreen(FileManager::fullPathOfFile(late), 1));
    EXPECT_FALSE(decideScaleScreen(FileManager::fullPathOfFile(pixels), 1));
    EXPECT_FALSE(decideScaleScreen(FileManager::fullPathOfFile("/missing.lua"), 1));
}

TEST_F(ScaleScreenTest, AHeadCutInsideACharacterCountsAsNoText) {
    // 127 bytes, then a 2-byte character across the 128-byte boundary; the mark is early.
    std::string head = "-- SCREEN_RESOLUTION=\"375x667\"\n";
    head += std::string(127 - head.size(), '-');
    const std::string path = addScript("cut.lua", head + "\xC3\xA9\n");
    const std::string whole = addScript("whole.lua", head.substr(0, 126) + "\xC3\xA9\n");
    EXPECT_FALSE(decideScaleScreen(FileManager::fullPathOfFile(path), 1));
    EXPECT_TRUE(decideScaleScreen(FileManager::fullPathOfFile(whole), 1));
}

TEST_F(ScaleScreenTest, TheDecisionIsSentAsOneWayFlag) {
    auto injector = startInjector();
    EXPECT_TRUE(setScaleScreen("SCREEN_RESOLUTION=\"414x736\"", 2));
    EXPECT_FALSE(setScaleScreen("print(1)", 2));
    ASSERT_TRUE(injector->waitForMessages(2));
    EXPECT_EQ(injector->messages(), (std::vector<ReceivedMessage>{{kMsgScaleScreen, Bytes{1, 0, 0, 0}},
                                                                  {kMsgScaleScreen, Bytes{0, 0, 0, 0}}}));
}

}  // namespace
}  // namespace tw

namespace tw {
namespace {

// A port service double that records how each request was sent.
struct SentRequest {
    int32_t msgid;
    double sendTimeout;
    double receiveTimeout;
    bool expectReply;
};

class RecordingRemotePort : public RemotePort {
public:
    RecordingRemotePort(std::vector<SentRequest>& log, const Payload& replyData) : log_(log), reply_(replyData) {}
    bool isValid() override { return true; }
    PortStatus sendRequest(int32_t msgid, const Payload&, double sendTimeout, double receiveTimeout, bool expectReply,
                           Payload* reply) override {
        log_.push_back({msgid, sendTimeout, receiveTimeout, expectReply});
        if (expectReply && reply) *reply = reply_;
        return PortStatus::Success;
    }

private:
    std::vector<SentRequest>& log_;
    const Payload& reply_;
};

class RecordingPorts : public MessagePortService {
public:
    std::shared_ptr<LocalPort> createLocal(const std::string&, LocalPortCallback, RunLoop&) override { return nullptr; }
    std::shared_ptr<RemotePort> createRemote(const std::string& name) override {
        names.push_back(name);
        return std::make_shared<RecordingRemotePort>(sent, reply);
    }
    std::vector<std::string> names;
    std::vector<SentRequest> sent;
    Payload reply;
};

TEST(EventSimulateReplyModes, RequestsWaitForRepliesAndOptionsAreOneWay) {
    auto ports = std::make_shared<RecordingPorts>();
    Platform saved = Platform::current();
    Platform platform;
    platform.ports = ports;
    Platform::install(platform);
    EventSimulate::resetPort();

    EventSimulate::syncEvent();
    EventSimulate::touchDown(1, 1, 1);
    EventSimulate::keyUp(1, 12);
    EventSimulate::input("x");
    EventSimulate::setScaleScreen(1);
    EventSimulate::setAdaptOrientation(1);

    ASSERT_EQ(ports->sent.size(), 6u);
    EXPECT_EQ(ports->names, std::vector<std::string>{"me.tapwright.twtweak.backboardd"});  // one handle, kept
    const bool expectReply[] = {true, true, true, true, false, false};
    const int32_t ids[] = {1, 2, 3, 4, 5, 6};
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(ports->sent[i].msgid, ids[i]);
        EXPECT_EQ(ports->sent[i].expectReply, expectReply[i]) << "id " << ids[i];
        EXPECT_EQ(ports->sent[i].sendTimeout, 1.0);
        EXPECT_EQ(ports->sent[i].receiveTimeout, 1.0);
    }

    // The reply word is whatever up to four bytes came back.
    ports->reply = Bytes{0x65, 0, 0, 0, 0xFF};
    EXPECT_EQ(EventSimulate::syncEvent(), 101);
    ports->reply = Bytes{0x07};
    EXPECT_EQ(EventSimulate::touchUp(1, 1, 1), 7);

    EventSimulate::resetPort();
    Platform::install(saved);
}

}  // namespace
}  // namespace tw
