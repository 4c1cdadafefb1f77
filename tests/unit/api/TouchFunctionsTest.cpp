// The touch, key and text script functions: what reaches the injector, and usleep's wait in single
// precision at the play speed.
#include "EngineFixture.h"
#include "api/TouchFunctions.h"
#include "core/Global.h"
#include "injection/records/KeyRecord.h"
#include "injection/records/MessageIds.h"
#include "injection/records/TouchRecord.h"

namespace tw {
namespace {

using TouchFunctionsTest = test::ScriptFunctionFixture;

TEST_F(TouchFunctionsTest, FingersKeysTextAndOrientationBecomeTheirRequests) {
    test::FakeInjector injector(*Platform::current().ports);
    ASSERT_EQ(run("touchDown(2, 100.75, '200') touchMove(2, 101, 201) touchUp(2, 102, 202) keyDown(64) keyUp(64)"
                  "inputText('hi') inputText(42) adaptOrientation(1) adaptOrientation(6) adaptResolution('x', {})"),
              "");
    ASSERT_TRUE(injector.waitForMessages(9));
    const std::vector<test::ReceivedMessage> expected = {
        {kMsgTouch, TouchRecord{kTouchDown, 2, 100.75, 200}.encode()},
        {kMsgTouch, TouchRecord{kTouchMove, 2, 101, 201}.encode()},
        {kMsgTouch, TouchRecord{kTouchUp, 2, 102, 202}.encode()},
        {kMsgKey, KeyRecord{64, 12, 1}.encode()},
        {kMsgKey, KeyRecord{64, 12, 0}.encode()},
        {kMsgText, Bytes{'h', 'i'}},
        {kMsgText, Bytes{'4', '2'}},
        {kMsgOrientation, Bytes{1, 0, 0, 0}},
        {kMsgOrientation, Bytes{6, 0, 0, 0}},
    };
    EXPECT_EQ(injector.messages(), expected);
    auto device = std::make_shared<test::FakeDeviceInfo>();
    device->orientationValue = 4;
    Platform::current().device = device;
    EXPECT_EQ(results("getOrientation(), adaptResolution()"), std::vector<std::string>{"4"});
}

TEST_F(TouchFunctionsTest, UsleepSyncsFirstThenWaitsScaledByTheCurrentSpeed) {
    test::FakeInjector injector(*Platform::current().ports);
    sleeper->setHook([&](uint64_t) { EXPECT_EQ(injector.messages().size(), sleeper->sleeps().size()); });  // a sync each, first
    auto settings = std::make_shared<PlaySettings>();
    settings->playSpeed = 1.5f;
    Global::sharedInstance().setCurrentPlaySettings(settings);
    ASSERT_EQ(run("usleep(1000000)"), "");
    Global::sharedInstance().setCurrentPlaySettings(nullptr);  // no settings: speed 0, twice the time
    ASSERT_EQ(run("usleep(300)"), "");
    EXPECT_EQ(sleeper->sleeps(), (std::vector<uint64_t>{500000, 600}));
}

TEST(ScaledWait, IsComputedInSinglePrecisionAndSaturates) {
    const std::tuple<const char*, uint32_t, float, uint32_t> cases[] = {  // name, microseconds, speed, wait
        {"speed 1 waits the time", 1000000, 1.0f, 1000000},
        {"speed 2 waits nothing", 1000000, 2.0f, 0},
        {"speed 1.5 waits half", 1000000, 1.5f, 500000},
        {"speed 0.5 waits one and a half", 1000000, 0.5f, 1500000},
        {"past 2^24 the low bits are lost", 16777217, 1.0f, 16777216},
        {"and rounded to even", 33554435, 1.0f, 33554436},
        {"2 - 1.1f is 0.9f: 900000, not the 899999 of doubles", 1000000, 1.1f, 900000},
        {"a negative product waits nothing", 1000, 3.0f, 0},
        {"past 32 bits the longest wait", 4000000000u, 0.0f, 4294967295u},
    };
    for (const auto& [name, microseconds, speed, wait] : cases) EXPECT_EQ(scaledWaitMicroseconds(microseconds, speed), wait) << name;
}

}  // namespace
}  // namespace tw
