// The injector: the finger table, the hand events of every sync, keys, text, options, the
// real-input watch and malformed requests.
#include <gtest/gtest.h>

#include "injection/HidInjector.h"
#include "injection/records/KeyRecord.h"
#include "injection/records/MessageIds.h"
#include "injection/records/OptionRecord.h"
#include "injection/records/TouchRecord.h"
#include "platform/HidEventSystem.h"
#include "platform/RunLoop.h"
#include "platform/NotificationCenter.h"
#include "platform/linux/ProfileDeviceInfo.h"

namespace tw {
namespace {

using namespace hid;

class RecordingEventSystem : public HidEventSystem {
public:
    void dispatchEvent(HidEvent event) override { events.push_back(std::move(event)); }
    void setConnectionDispatchObserver(ConnectionDispatchObserver o) override { observer = std::move(o); }
    void userEventOccurred() override { ++userEvents; }
    std::vector<HidEvent> events;
    ConnectionDispatchObserver observer;
    int userEvents = 0;
};

class RecordingNotifications : public DistributedNotificationCenter {
public:
    uint64_t addObserver(const std::string&, Observer, RunLoop&) override { return 0; }
    void removeObserver(uint64_t) override {}
    void postNotification(const std::string& name, const NotificationUserInfo& info) override {
        posts.emplace_back(name, info);
    }
    std::vector<std::pair<std::string, NotificationUserInfo>> posts;
};

linuxp::DeviceProfile profile(const std::string& version = "9.3.5") {
    linuxp::DeviceProfile p;  // 375 x 667 points at scale 2: 750 x 1334 pixels
    p.systemVersion = version;
    return p;
}

class HidInjectorTest : public ::testing::Test {
protected:
    explicit HidInjectorTest(const std::string& version = "9.3.5")
        : device(profile(version), "com.apple.backboardd"), injector(events, device, &notifications) {}

    void touch(int32_t type, int32_t finger, double x, double y) {
        injector.myCallBack(kMsgTouch, TouchRecord{type, finger, x, y}.encode());
    }
    void sync() { injector.myCallBack(kMsgSync, std::nullopt); }
    const HidEvent& last() { return events.events.back(); }

    RecordingEventSystem events;
    RecordingNotifications notifications;
    linuxp::ProfileDeviceInfo device;
    HidInjector injector;
};

void expectChild(const HidEvent& child, uint32_t index, uint32_t mask, double x, double y, bool active) {
    EXPECT_EQ(child.integerValue(kFieldDigitizerIndex), index);
    EXPECT_EQ(child.integerValue(kFieldDigitizerIdentity), 2);
    EXPECT_EQ(child.integerValue(kFieldDigitizerType), kTransducerTypeFinger);
    EXPECT_EQ(child.integerValue(kFieldDigitizerEventMask), mask);
    EXPECT_DOUBLE_EQ(child.floatValue(kFieldDigitizerX), x);
    EXPECT_DOUBLE_EQ(child.floatValue(kFieldDigitizerY), y);
    EXPECT_EQ(child.integerValue(kFieldDigitizerRange), active);
    EXPECT_EQ(child.integerValue(kFieldDigitizerTouch), active);
}

TEST_F(HidInjectorTest, TouchesOnlyFillTheTableUntilASync) {
    touch(kTouchDown, 3, 75, 133.4);
    EXPECT_TRUE(events.events.empty());
    ASSERT_EQ(injector.touches().count("3"), 1u);
    EXPECT_EQ(injector.touches().at("3").type, kTouchDown);
}

TEST_F(HidInjectorTest, OneFingerDownBecomesAHandEventWithOneChild) {
    touch(kTouchDown, 1, 375, 667);
    sync();
    ASSERT_EQ(events.events.size(), 1u);
    const HidEvent& hand = last();
    EXPECT_EQ(hand.type, kEventTypeDigitizer);
    EXPECT_EQ(hand.senderId, 0x0000000100000236ULL);
    EXPECT_EQ(hand.integerValue(kFieldIsBuiltIn), 1);
    EXPECT_EQ(hand.integerValue(kFieldDigitizerIsDisplayIntegrated), 1);
    EXPECT_EQ(hand.integerValue(kFieldDigitizerType), kTransducerTypeHand);
    EXPECT_EQ(hand.integerValue(kFieldDigitizerIdentity), 1);
    EXPECT_EQ(hand.integerValue(kFieldDigitizerEventMask), 0x23);
    EXPECT_EQ(hand.integerValue(kFieldDigitizerRange), 1);
    EXPECT_EQ(hand.integerValue(kFieldDigitizerTouch), 1);
    EXPECT_DOUBLE_EQ(hand.floatValue(kFieldDigitizerX), 0.5);
    EXPECT_DOUBLE_EQ(hand.floatValue(kFieldDigitizerY), 0.5);
    ASSERT_EQ(hand.children.size(), 1u);
    expectChild(hand.children[0], 1, 3, 0.5, 0.5, true);
    EXPECT_EQ(events.userEvents, 1);
}

TEST_F(HidInjectorTest, HeldFingersAreSentAgainWithEveryLaterSync) {
    touch(kTouchDown, 1, 150, 267.8);
    sync();
    touch(kTouchDown, 2, 600, 1067.2);
    sync();
    ASSERT_EQ(events.events.size(), 2u);
    const HidEvent& hand = last();
    EXPECT_EQ(hand.integerValue(kFieldDigitizerEventMask), 0x23);
    ASSERT_EQ(hand.children.size(), 2u);
    expectChild(hand.children[0], 1, 3, 0.2, 267.8 / 1334, true);
    expectChild(hand.children[1], 2, 3, 0.8, 1067.2 / 1334, true);
    EXPECT_DOUBLE_EQ(hand.floatValue(kFieldDigitizerX), 0.5);
}

TEST_F(HidInjectorTest, UpOfTheOnlyFingerIsSentOnceThenForgotten) {
    touch(kTouchDown, 1, 100, 100);
    sync();
    touch(kTouchUp, 1, 150, 300);
    sync();
    const HidEvent& hand = last();
    EXPECT_EQ(hand.integerValue(kFieldDigitizerEventMask), 0x27);
    EXPECT_EQ(hand.integerValue(kFieldDigitizerRange), 0);
    EXPECT_EQ(hand.integerValue(kFieldDigitizerTouch), 0);
    ASSERT_EQ(hand.children.size(), 1u);
    expectChild(hand.children[0], 1, 3, 0.2, 300.0 / 1334, false);
    EXPECT_TRUE(injector.touches().empty());

    // The table is empty now: a sync dispatches nothing and does not touch the idle timer.
    const int userEvents = events.userEvents;
    sync();
    EXPECT_EQ(events.events.size(), 2u);
    EXPECT_EQ(events.userEvents, userEvents);
}

TEST_F(HidInjectorTest, AMoveForAFingerNeverDownIsAPositionOnlyChildInRangeAndTouching) {
    touch(kTouchMove, 9, 750, 0);
    sync();
    const HidEvent& hand = last();
    EXPECT_EQ(hand.integerValue(kFieldDigitizerEventMask), 0x4);
    EXPECT_EQ(hand.integerValue(kFieldDigitizerRange), 1);
    ASSERT_EQ(hand.children.size(), 1u);
    expectChild(hand.children[0], 9, 4, 1.0, 0.0, true);
}

TEST_F(HidInjectorTest, HandPositionIsTheMeanOfAllChildrenUpsIncluded) {
    touch(kTouchDown, 1, 0, 0);
    touch(kTouchMove, 2, 375, 667);
    touch(kTouchUp, 3, 750, 1334);
    sync();
    const HidEvent& hand = last();
    EXPECT_DOUBLE_EQ(hand.floatValue(kFieldDigitizerX), 0.5);
    EXPECT_DOUBLE_EQ(hand.floatValue(kFieldDigitizerY), 0.5);
    EXPECT_EQ(hand.integerValue(kFieldDigitizerEventMask), 0x27);  // 0x23 | 4 (move) | 4 (up)
    EXPECT_EQ(hand.children.size(), 3u);
    EXPECT_EQ(injector.touches().size(), 2u);  // the up is forgotten, the others stay
}

TEST_F(HidInjectorTest, PointsAreScaledWhenTheScaleFlagIsOn) {
    injector.myCallBack(kMsgScaleScreen, OptionRecord{1}.encode());
    EXPECT_TRUE(injector.scaleScreen());
    touch(kTouchDown, 1, 187.5, 667);
    sync();
    expectChild(last().children[0], 1, 3, 0.5, 1.0, true);
    injector.myCallBack(kMsgScaleScreen, OptionRecord{0}.encode());
    EXPECT_FALSE(injector.scaleScreen());
    injector.myCallBack(kMsgScaleScreen, Bytes{1, 0, 0});  // wrong length: ignored
    EXPECT_FALSE(injector.scaleScreen());
}

TEST_F(HidInjectorTest, KeysUseTheLow16BitsAndTheLowByteOfDown) {
    injector.myCallBack(kMsgKey, KeyRecord{0x10040, 0x1000C, 0x101}.encode());
    injector.myCallBack(kMsgKey, KeyRecord{0x40, 12, 0x100}.encode());
    ASSERT_EQ(events.events.size(), 2u);
    const HidEvent& down = events.events[0];
    EXPECT_EQ(down.type, kEventTypeKeyboard);
    EXPECT_EQ(down.senderId, 0xDEFACEDBEEFFECE5ULL);
    EXPECT_EQ(down.integerValue(kFieldKeyboardUsage), 0x40);
    EXPECT_EQ(down.integerValue(kFieldKeyboardUsagePage), 12);
    EXPECT_EQ(down.integerValue(kFieldKeyboardDown), 1);
    EXPECT_EQ(events.events[1].integerValue(kFieldKeyboardDown), 0);  // 0x100: low byte 0
    EXPECT_EQ(events.userEvents, 0);  // keys do not touch the idle timer
}

TEST_F(HidInjectorTest, TextIsPostedToTheAppsAsTheInputTextNotification) {
    injector.myCallBack(kMsgText, Bytes{'h', 0xC3, 0xA9, 8, '!'});
    injector.myCallBack(kMsgText, Bytes{});
    injector.myCallBack(kMsgText, std::nullopt);
    ASSERT_EQ(notifications.posts.size(), 1u);
    EXPECT_EQ(notifications.posts[0].first, "me.tapwright.twtweak.inputtext");
    EXPECT_EQ(notifications.posts[0].second, (NotificationUserInfo{{"text", "h\xC3\xA9\b!"}}));
    EXPECT_TRUE(events.events.empty());
}

TEST_F(HidInjectorTest, MalformedRequestsAndUnknownIdsAreDroppedWithoutReply) {
    for (size_t n : {0, 1, 23, 25, 48}) EXPECT_FALSE(injector.myCallBack(kMsgTouch, Bytes(n, 0x41)));
    for (size_t n : {0, 11, 13}) EXPECT_FALSE(injector.myCallBack(kMsgKey, Bytes(n, 0x41)));
    EXPECT_FALSE(injector.myCallBack(kMsgTouch, std::nullopt));
    EXPECT_FALSE(injector.myCallBack(kMsgOrientation, Bytes{3, 0, 0, 0}));
    EXPECT_FALSE(injector.myCallBack(kMsgOrientation, Bytes{3}));
    EXPECT_FALSE(injector.myCallBack(kMsgSync, Bytes{1, 2, 3}));  // data on a sync is not looked at
    for (int32_t id : {0, 7, 20, -1, 1000}) EXPECT_FALSE(injector.myCallBack(id, Bytes(24, 0)));
    EXPECT_TRUE(injector.touches().empty());
    EXPECT_TRUE(events.events.empty());
    EXPECT_TRUE(notifications.posts.empty());
}

TEST_F(HidInjectorTest, ARealTouchForTheSystemConnectionEmptiesTheTable) {
    touch(kTouchDown, 1, 10, 10);
    touch(kTouchDown, 2, 20, 20);
    HidEvent real = createDigitizerEvent(1, kTransducerTypeHand, 0, 1, 0, 0, 0, 0, 0, 0, 0, true, true, 0);
    HidEvent key = createKeyboardEvent(1, 12, 0x40, true, 0);

    injector.onConnectionDispatch(kConnectionTypeClient, real);  // another connection: kept
    injector.onConnectionDispatch(kConnectionTypeSystem, key);   // not a digitizer event: kept
    EXPECT_EQ(injector.touches().size(), 2u);
    injector.onConnectionDispatch(kConnectionTypeSystem, real);
    EXPECT_TRUE(injector.touches().empty());
    sync();
    EXPECT_TRUE(events.events.empty());
}

class OldSystemInjectorTest : public HidInjectorTest {
protected:
    OldSystemInjectorTest() : HidInjectorTest("6.1.3") {}
};

TEST_F(OldSystemInjectorTest, TextBefore7IsDroppedButTouchesWork) {
    injector.myCallBack(kMsgText, Bytes{'a'});
    EXPECT_TRUE(notifications.posts.empty());
    touch(kTouchDown, 1, 1, 1);
    sync();
    EXPECT_EQ(events.events.size(), 1u);
}

TEST(SystemVersionGate, ComparesNumerically) {
    for (const char* version : {"7.0", "7", "7.0.0", "10.0", "9.3.5"}) {
        RecordingEventSystem events;
        RecordingNotifications notifications;
        linuxp::ProfileDeviceInfo device(profile(version), "com.apple.backboardd");
        HidInjector injector(events, device, &notifications);
        injector.myCallBack(kMsgText, Bytes{'x'});
        EXPECT_EQ(notifications.posts.size(), 1u) << version;
    }
}

}  // namespace
}  // namespace tw

#include "device/TextField.h"
#include "injection/TextInput.h"

namespace tw {
namespace {

// Types into a field as a keyboard of an app does, without the notification transport.
class NullCenter : public DistributedNotificationCenter {
public:
    uint64_t addObserver(const std::string& name, Observer, RunLoop&) override {
        names.push_back(name);
        return 7;
    }
    void removeObserver(uint64_t id) override { removed.push_back(id); }
    void postNotification(const std::string&, const NotificationUserInfo&) override {}
    std::vector<std::string> names;
    std::vector<uint64_t> removed;
};

class NoLoop : public RunLoop {
public:
    void post(Task) override {}
    void postAndWait(Task) override {}
    std::shared_ptr<Timer> scheduleTimer(Clock::time_point, std::chrono::duration<double>, TimerCallback) override {
        return nullptr;
    }
    bool isCurrent() const override { return true; }
    void run() override {}
    bool runUntil(const std::function<bool()>&, std::chrono::milliseconds) override { return false; }
    void stop() override {}
};

TEST(KeyboardTextInput, ObservesTheNotificationFromCreationToDestruction) {
    NullCenter center;
    NoLoop loop;
    device::TextField field;
    {
        Keyboard keyboard(center, loop, field);
        EXPECT_TRUE(keyboard.observing());
        EXPECT_EQ(center.names, std::vector<std::string>{"me.tapwright.twtweak.inputtext"});
        EXPECT_TRUE(center.removed.empty());
    }
    EXPECT_EQ(center.removed, std::vector<uint64_t>{7});
}

TEST(KeyboardTextInput, InsertsEachUnitAndDeletesBackwardOnCodeUnit8) {
    NullCenter center;
    NoLoop loop;
    device::TextField field;
    std::vector<std::string> edits;
    field.setOnEdited([&](const std::string& text) { edits.push_back(text); });
    Keyboard keyboard(center, loop, field);

    keyboard.callbackWithNotification("ab\b");
    EXPECT_EQ(field.text(), "a");
    keyboard.callbackWithNotification("\b\b\bxy");  // backspaces at the start delete what is there
    EXPECT_EQ(field.text(), "xy");
    keyboard.callbackWithNotification("");  // ignored: no edit reported
    EXPECT_EQ(edits, (std::vector<std::string>{"a", "xy"}));
}

TEST(KeyboardTextInput, CharactersBeyondTheBasicPlaneGoInOneUnitAtATime) {
    class UnitLog : public KeyboardTarget {
    public:
        void insertText(const std::u16string& t) override { units.push_back(t); }
        void deleteBackward() override { units.push_back(u"<del>"); }
        std::vector<std::u16string> units;
    } log;
    NullCenter center;
    NoLoop loop;
    Keyboard keyboard(center, loop, log);
    keyboard.callbackWithNotification("\xF0\x9F\x98\x80\xC3\xA9\b");  // 😀é then backspace
    EXPECT_EQ(log.units, (std::vector<std::u16string>{u"\xD83D", u"\xDE00", u"\u00E9", u"<del>"}));

    device::TextField field;
    Keyboard second(center, loop, field);
    second.callbackWithNotification("a\xF0\x9F\x98\x80");
    EXPECT_EQ(field.units().size(), 3u);
    EXPECT_EQ(field.text(), "a\xF0\x9F\x98\x80");
    second.callbackWithNotification("\b");  // the pair is one character
    EXPECT_EQ(field.text(), "a");
}

TEST(KeyboardTextInput, OnlySystemsAbove800TakeForwardedText) {
    linuxp::DeviceProfile p;
    p.coreFoundationVersionNumber = 800.0;
    EXPECT_FALSE(textInputSupported(linuxp::ProfileDeviceInfo(p, "app")));
    p.coreFoundationVersionNumber = 847.2;
    EXPECT_TRUE(textInputSupported(linuxp::ProfileDeviceInfo(p, "app")));
}

TEST(Utf16Conversion, RoundTripsAndReplacesBrokenInput) {
    const std::string text = "h\xC3\xA9llo \xE6\x97\xA5 \xF0\x9F\x98\x80";
    EXPECT_EQ(utf16ToUtf8(utf8ToUtf16(text)), text);
    EXPECT_EQ(utf8ToUtf16("\xFF" "a"), u"\uFFFDa");
    EXPECT_EQ(utf16ToUtf8(u"\xD83D" "a"), "\xEF\xBF\xBD" "a");
}

}  // namespace
}  // namespace tw
