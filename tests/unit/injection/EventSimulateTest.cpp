// The event request client: what each request sends and how, the scale decision, a restarted injector.
#include <gtest/gtest.h>

#include <ctime>
#include <set>

#include "EngineFixture.h"
#include "injection/EventSimulate.h"
#include "injection/records/KeyRecord.h"
#include "injection/records/MessageIds.h"
#include "injection/records/TouchRecord.h"

namespace tw {
namespace {

using Sent = std::tuple<int32_t, Payload, bool>;  // id, data, whether a reply is awaited

// Stands in for the port service: its one remote port records every request and answers `reply`.
struct RecordingPorts : MessagePortService, RemotePort {
    std::shared_ptr<LocalPort> createLocal(const std::string&, LocalPortCallback, RunLoop&) override { return nullptr; }
    std::shared_ptr<RemotePort> createRemote(const std::string& name) override {
        names.push_back(name);
        return std::shared_ptr<RemotePort>(std::shared_ptr<RemotePort>(), this);  // not owned
    }
    bool isValid() override { return true; }
    PortStatus sendRequest(int32_t msgid, const Payload& data, double sendTimeout, double receiveTimeout,
                           bool expectReply, Payload* replyOut) override {
        sent.push_back({msgid, data, expectReply});
        timeouts.insert({sendTimeout, receiveTimeout});
        if (expectReply && replyOut) *replyOut = reply;
        return PortStatus::Success;
    }
    std::vector<std::string> names;
    std::vector<Sent> sent;
    std::set<std::pair<double, double>> timeouts;
    Payload reply;
};

class EventSimulateTest : public test::EngineFixture {
protected:
    void SetUp() override {
        EngineFixture::SetUp();
        Platform::current().ports = ports;
    }
    std::shared_ptr<RecordingPorts> ports = std::make_shared<RecordingPorts>();
};

TEST_F(EventSimulateTest, EachRequestSendsItsIdAndRecordAndOnlyOptionsGoWithoutAReply) {
    EXPECT_EQ(EventSimulate::touchDown(1, 10.5, 20.25), 0);  // no reply data: 0
    EventSimulate::keyDown(0x40, 12);
    EventSimulate::keyUp(0xE9, 12);
    EventSimulate::input("h\xC3\xA9");
    EXPECT_EQ(EventSimulate::setScaleScreen(1) + EventSimulate::setAdaptOrientation(3), 0);
    ports->reply = Bytes{0x01, 0x01, 0, 0, 0xFF};  // the reply word is up to four bytes of the reply
    EXPECT_EQ(EventSimulate::syncEvent(), 257);
    EXPECT_EQ(ports->sent, (std::vector<Sent>{
        {kMsgTouch, TouchRecord{kTouchDown, 1, 10.5, 20.25}.encode(), true},
        {kMsgKey, KeyRecord{0x40, 12, 1}.encode(), true}, {kMsgKey, KeyRecord{0xE9, 12, 0}.encode(), true},
        {kMsgText, Bytes{'h', 0xC3, 0xA9}, true}, {kMsgScaleScreen, Bytes{1, 0, 0, 0}, false},
        {kMsgOrientation, Bytes{3, 0, 0, 0}, false}, {kMsgSync, std::nullopt, true}}));
    EXPECT_EQ(ports->timeouts, (std::set<std::pair<double, double>>{{1.0, 1.0}}));
    EXPECT_EQ(ports->names, std::vector<std::string>{"me.tapwright.twtweak.backboardd"});  // one handle, kept
}

TEST_F(EventSimulateTest, ScriptsArePointsOnlyWhenTheirFirstMarkNamesAPointSizeAndTheInjectorIsTold) {
    struct Case { const char* name; std::string text; int kind; bool points; };
    const std::string mark = "-- SCREEN_RESOLUTION=\"375x667\"\n", head = mark + std::string(127 - mark.size(), '-');
    const Case cases[] = {{"a point size", "adapt()\n" + mark, 2, true},
                          {"the largest point size", "SCREEN_RESOLUTION=\"768x1024\"", 2, true},
                          {"a pixel size", "SCREEN_RESOLUTION=\"640x1136\"", 2, false},
                          {"a pixel mark first", "SCREEN_RESOLUTION=\"640x1136\" " + mark, 2, false},
                          // Files: the mark counts in the first 128 bytes only; without one a new file is pixels.
                          {"a file's mark", mark, 1, true},
                          {"a mark past byte 128", std::string(120, '-') + "\n" + mark, 1, false},
                          {"a character cut at byte 128", head + "\xC3\xA9", 1, false}};
    const std::string file = (root->path() / "s.lua").string();
    for (const Case& c : cases) {
        if (c.kind == 1) test::writeFile(file, c.text);
        EXPECT_EQ(setScaleScreen(c.kind == 1 ? file : c.text, c.kind), c.points) << c.name;
    }
    ASSERT_EQ(ports->sent.size(), std::size(cases));
    for (size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(ports->sent[i], (Sent{kMsgScaleScreen, Bytes{cases[i].points, 0, 0, 0}, false})) << cases[i].name;
    EXPECT_FALSE(decideScaleScreen(file + ".missing", 1));
}

TEST(ScaleDecisionDate, FilesWithoutAMarkArePointsWhenMadeBeforeTheFirstOfOctober2015LocalTime) {
    auto local = [](int year, int month, int day, int hour, int minute, int second) {
        std::tm tm{};
        tm.tm_year = year - 1900, tm.tm_mon = month - 1, tm.tm_mday = day;
        tm.tm_hour = hour, tm.tm_min = minute, tm.tm_sec = second, tm.tm_isdst = -1;
        return std::chrono::system_clock::from_time_t(std::mktime(&tm));
    };
    EXPECT_TRUE(createdBeforePointsCutoff(local(2015, 9, 30, 23, 59, 59)));
    EXPECT_FALSE(createdBeforePointsCutoff(local(2015, 10, 1, 0, 0, 0)));
    EXPECT_FALSE(createdBeforePointsCutoff(local(2016, 1, 1, 0, 0, 0)));
}

using EventSimulateRestartTest = test::EngineFixture;

TEST_F(EventSimulateRestartTest, WithoutAnInjectorRequestsGiveMinusOneAndARestartedOneIsReachedAgain) {
    EXPECT_EQ(EventSimulate::setAdaptOrientation(1), -1);  // no injector yet
    auto first = std::make_unique<test::FakeInjector>(*Platform::current().ports);
    EXPECT_EQ(EventSimulate::touchDown(2, 2, 2), 0);
    ASSERT_TRUE(first->waitForMessages(1));
    first.reset();  // the injector's process goes away
    EXPECT_EQ(EventSimulate::keyDown(0x40, 12), -1);
    test::FakeInjector second(*Platform::current().ports);
    EXPECT_EQ(EventSimulate::touchDown(3, 3, 3), 0);
    ASSERT_TRUE(second.waitForMessages(1));
    EXPECT_EQ(second.messages(),
              (std::vector<test::ReceivedMessage>{{kMsgTouch, TouchRecord{kTouchDown, 3, 3, 3}.encode()}}));
}

}  // namespace
}  // namespace tw
