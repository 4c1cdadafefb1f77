// The injector: the script's finger table, the hand event of every sync, keys, text, real touches.
#include <gtest/gtest.h>

#include <sstream>

#include "InjectionSupport.h"
#include "injection/HidInjector.h"
#include "injection/records/KeyRecord.h"
#include "injection/records/MessageIds.h"
#include "injection/records/OptionRecord.h"
#include "injection/records/TouchRecord.h"
#include "platform/HidEventSystem.h"
#include "platform/linux/ProfileDeviceInfo.h"

namespace tw {
namespace {

using namespace hid;

struct RecordingEventSystem : HidEventSystem {
    void dispatchEvent(HidEvent event) override { events.push_back(std::move(event)); }
    void setConnectionDispatchObserver(ConnectionDispatchObserver) override {}
    void userEventOccurred() override { ++userEvents; }
    std::vector<HidEvent> events;
    int userEvents = 0;
};

// An injector on a 375 x 667 point screen at scale 2 (750 x 1334 pixels), with doubles around it.
struct Rig {
    explicit Rig(const char* version = "9.3.5")
        : device([&] { linuxp::DeviceProfile p; p.systemVersion = version; return p; }(), "injector"),
          injector(events, device, &notifications) {}
    void send(int32_t msgid, const Payload& data) { EXPECT_FALSE(injector.myCallBack(msgid, data)) << "a reply"; }
    void touch(int32_t type, int32_t finger, double x = 0, double y = 0) {
        send(kMsgTouch, TouchRecord{type, finger, x, y}.encode());
    }
    HidEvent sync() { return send(kMsgSync, std::nullopt), events.events.empty() ? HidEvent{} : events.events.back(); }
    RecordingEventSystem events;
    test::RecordingNotifications notifications;
    linuxp::ProfileDeviceInfo device;
    HidInjector injector;
};

// A hand as "mask(hex) range+touch (x, y)", then " | index: ..." the same for each of its fingers.
std::string describe(const HidEvent& hand) {
    std::ostringstream out;
    const auto add = [&](const HidEvent& e) {
        out << std::hex << e.integerValue(kFieldDigitizerEventMask) << " " << e.integerValue(kFieldDigitizerRange)
            << e.integerValue(kFieldDigitizerTouch) << " (" << e.floatValue(kFieldDigitizerX) << ", "
            << e.floatValue(kFieldDigitizerY) << ")";
    };
    add(hand);
    for (const HidEvent& finger : hand.children) {
        out << " | " << finger.integerValue(kFieldDigitizerIndex) << ": ";
        add(finger);
    }
    return out.str();
}

TEST(HidInjectorTest, HandAndFingerMasksFollowEachFingersPhaseAndPositionsAreSharesOfThePixelScreen) {
    struct Touch { int32_t type, finger; double x, y; };
    struct Case { const char* name; std::vector<Touch> touches; const char* hand; };
    for (const Case& c : {Case{"a finger down", {{kTouchDown, 1, 375, 667}}, "23 11 (0.5, 0.5) | 1: 3 11 (0.5, 0.5)"},
                          Case{"a move, never down", {{kTouchMove, 9, 750, 0}}, "4 11 (1, 0) | 9: 4 11 (1, 0)"},
                          Case{"the only finger up", {{kTouchUp, 1, 0, 1334}}, "27 00 (0, 1) | 1: 3 00 (0, 1)"},
                          Case{"all three: the hand at their mean", {{kTouchDown, 1, 0, 0}, {kTouchMove, 2, 375, 667},
                                                                      {kTouchUp, 3, 750, 0}},
                               "27 11 (0.5, 0.166667) | 1: 3 11 (0, 0) | 2: 4 11 (0.5, 0.5) | 3: 3 00 (1, 0)"}}) {
        Rig rig;
        for (const Touch& t : c.touches) rig.touch(t.type, t.finger, t.x, t.y);
        EXPECT_EQ(describe(rig.sync()), c.hand) << c.name;
    }
}

TEST(HidInjectorTest, HeldFingersAreSentAgainAtEverySyncUntilARealTouchAndAnUpOnlyOnce) {
    Rig rig;
    rig.touch(kTouchDown, 1, 0, 0);
    rig.touch(kTouchUp, 2, 750, 1334);
    const HidEvent hand = rig.sync();
    EXPECT_EQ(std::tuple(hand.type, hand.senderId, hand.integerValue(kFieldDigitizerType),
                         hand.integerValue(kFieldDigitizerIdentity), hand.integerValue(kFieldIsBuiltIn),
                         hand.integerValue(kFieldDigitizerIsDisplayIntegrated)),
              std::tuple(kEventTypeDigitizer, 0x0000000100000236ULL, kTransducerTypeHand, 1, 1, 1));
    ASSERT_EQ(hand.children.size(), 2u);
    EXPECT_EQ(hand.children[0].integerValue(kFieldDigitizerType), kTransducerTypeFinger);
    EXPECT_EQ(hand.children[0].integerValue(kFieldDigitizerIdentity), 2);
    // With the scale flag on, coordinates are points; an option of the wrong length is ignored.
    rig.send(kMsgScaleScreen, OptionRecord{1}.encode());
    rig.send(kMsgScaleScreen, Bytes{0, 0, 0});
    rig.touch(kTouchMove, 3, 93.75, 667);
    EXPECT_EQ(describe(rig.sync()), "27 11 (0.125, 0.5) | 1: 3 11 (0, 0) | 3: 4 11 (0.25, 1)");
    rig.send(kMsgScaleScreen, OptionRecord{0}.encode());
    EXPECT_FALSE(rig.injector.scaleScreen());
    // A real touch on the system's own connection, and only there, makes the script's fingers go.
    const HidEvent real = createDigitizerEvent(1, kTransducerTypeHand, 0, 1, 0, 0, 0, 0, 0, 0, 0, true, true, 0);
    rig.injector.onConnectionDispatch(kConnectionTypeClient, real);
    rig.injector.onConnectionDispatch(kConnectionTypeSystem, createKeyboardEvent(1, 12, 0x40, true, 0));
    EXPECT_EQ(rig.injector.touches().size(), 2u);
    rig.injector.onConnectionDispatch(kConnectionTypeSystem, real);
    rig.send(kMsgSync, std::nullopt);  // nothing left to send, and the idle timer is left alone
    EXPECT_EQ(rig.events.userEvents, 2);
}

TEST(HidInjectorTest, KeysUseTheLow16BitsOfUsageAndPageAndTheLowByteOfDownAndOtherRecordsAreDropped) {
    Rig rig;
    for (auto [id, size] : {std::pair<int32_t, int>(kMsgTouch, 23), {kMsgTouch, 25}, {kMsgKey, 13}, {0, 24}, {7, 24}})
        rig.send(id, Bytes(size, 0x41));
    for (const KeyRecord& key : {KeyRecord{0x40, 12, 1}, KeyRecord{0x10040, 0x1000C, 0x101}, KeyRecord{0xE9, 7, 0x100}})
        rig.send(kMsgKey, key.encode());
    std::vector<std::tuple<int64_t, int64_t, int64_t>> keys;
    for (const HidEvent& e : rig.events.events) {
        EXPECT_EQ(std::pair(e.type, e.senderId), std::pair(kEventTypeKeyboard, uint64_t{0xDEFACEDBEEFFECE5}));
        keys.emplace_back(e.integerValue(kFieldKeyboardUsage), e.integerValue(kFieldKeyboardUsagePage),
                          e.integerValue(kFieldKeyboardDown));
    }
    EXPECT_EQ(keys, (decltype(keys){{0x40, 12, 1}, {0x40, 12, 1}, {0xE9, 7, 0}}));
    EXPECT_EQ(rig.events.userEvents + rig.notifications.posts.size(), 0u);  // the idle timer is left alone
}

TEST(HidInjectorTest, Utf8TextIsPostedToTheAppsFromSystem7On) {
    struct Case { const char* version; Payload data; std::optional<std::string> posted; };
    for (const Case& c : {Case{"9.3.5", Bytes{'h', 0xC3, 0xA9, 8, '!'}, "h\xC3\xA9\b!"},
                          Case{"9.3.5", Bytes{'a', 0, 'b'}, "a"}, Case{"9.3.5", Bytes{'a', 0xFF}, std::nullopt},
                          Case{"9.3.5", Bytes{}, std::nullopt}, Case{"7.0", Bytes{'x'}, "x"},
                          Case{"6.1.3", Bytes{'x'}, std::nullopt}}) {
        Rig rig(c.version);
        rig.send(kMsgText, c.data);
        std::vector<std::pair<std::string, NotificationUserInfo>> expected;
        if (c.posted) expected.push_back({"me.tapwright.twtweak.inputtext", {{"text", *c.posted}}});
        EXPECT_EQ(rig.notifications.posts, expected) << c.version << ", " << c.posted.value_or("nothing posted");
    }
}

}  // namespace
}  // namespace tw
