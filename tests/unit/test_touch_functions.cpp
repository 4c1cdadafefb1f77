// The touch, key and text script functions: argument checks, what reaches the injector, and the
// single-precision wait.
#include <gtest/gtest.h>

#include <set>

#include "EngineFixture.h"
#include "api/Registry.h"
#include "api/TouchFunctions.h"
#include "core/Global.h"
#include "store/PlaySettings.h"
#include "injection/records/KeyRecord.h"
#include "injection/records/MessageIds.h"
#include "injection/records/TouchRecord.h"
#include "platform/Lua.h"

namespace tw {
namespace {

class TouchFunctionsTest : public test::EngineFixture {
protected:
    void SetUp() override {
        EngineFixture::SetUp();
        L = luaL_newstate();
        luaL_openlibs(L);
        registerFunctions(L);
    }
    void TearDown() override {
        lua_close(L);
        EngineFixture::TearDown();
    }
    // Runs `lua`; returns "" on success, else the error message.
    std::string run(const std::string& lua) {
        if (luaL_loadstring(L, lua.c_str()) != LUA_OK || lua_pcall(L, 0, 0, 0) != LUA_OK) {
            std::string message = lua_tostring(L, -1);
            lua_pop(L, 1);
            return message;
        }
        return "";
    }
    lua_State* L = nullptr;
};

TEST_F(TouchFunctionsTest, FingersKeysAndTextBecomeTheirRequests) {
    test::FakeInjector injector(*Platform::current().ports);
    ASSERT_EQ(run("touchDown(2, 100.75, '200') touchMove(2, 101, 201) touchUp(2, 102, 202)"
                  "keyDown(KEY or 64) keyUp(64) inputText('hi') inputText(42)"),
              "");
    ASSERT_TRUE(injector.waitForMessages(7));
    const std::vector<test::ReceivedMessage> expected = {
        {kMsgTouch, TouchRecord{kTouchDown, 2, 100.75, 200}.encode()},
        {kMsgTouch, TouchRecord{kTouchMove, 2, 101, 201}.encode()},
        {kMsgTouch, TouchRecord{kTouchUp, 2, 102, 202}.encode()},
        {kMsgKey, KeyRecord{64, 12, 1}.encode()},
        {kMsgKey, KeyRecord{64, 12, 0}.encode()},
        {kMsgText, Bytes{'h', 'i'}},
        {kMsgText, Bytes{'4', '2'}},  // a number is accepted as text
    };
    EXPECT_EQ(injector.messages(), expected);
}

TEST_F(TouchFunctionsTest, WrongArgumentsRaiseTheStandardMessages) {
    EXPECT_EQ(run("touchDown(1, '10', 20)"), "");
    EXPECT_EQ(run("touchDown(1, 'a', 20)"), "[string \"touchDown(1, 'a', 20)\"]:1: bad argument #2 to 'touchDown' (number expected, got string)");
    EXPECT_NE(run("touchMove(1, 2)").find("bad argument #3 to 'touchMove' (number expected, got no value)"), std::string::npos);
    EXPECT_NE(run("touchUp('x', 1, 2)").find("bad argument #1 to 'touchUp' (number expected, got string)"), std::string::npos);
    EXPECT_NE(run("keyDown()").find("bad argument #1 to 'keyDown'"), std::string::npos);
    EXPECT_NE(run("inputText({})").find("bad argument #1 to 'inputText' (string expected, got table)"), std::string::npos);
    EXPECT_NE(run("usleep('soon')").find("bad argument #1 to 'usleep'"), std::string::npos);
}

TEST_F(TouchFunctionsTest, OrientationMustBeOneToSix) {
    test::FakeInjector injector(*Platform::current().ports);
    EXPECT_EQ(run("adaptOrientation(0)"), "[string \"adaptOrientation(0)\"]:1: Invalid argument for orientation.");
    EXPECT_EQ(run("adaptOrientation(7)"), "[string \"adaptOrientation(7)\"]:1: Invalid argument for orientation.");
    EXPECT_EQ(run("adaptOrientation(1) adaptOrientation(5) adaptOrientation(6)"), "");
    ASSERT_TRUE(injector.waitForMessages(3));
    auto messages = injector.messages();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[1], (test::ReceivedMessage{kMsgOrientation, Bytes{5, 0, 0, 0}}));
}

TEST_F(TouchFunctionsTest, AdaptResolutionReadsNothingAndGetOrientationReportsTheDevice) {
    EXPECT_EQ(run("adaptResolution() adaptResolution(640, 1136) adaptResolution('x', {}, nil)"), "");
    EXPECT_EQ(run("assert(getOrientation() == 1, 'orientation ' .. tostring(getOrientation()))"), "");
    EXPECT_EQ(run("assert(select('#', adaptResolution()) == 0)"), "");
}

TEST_F(TouchFunctionsTest, UsleepSyncsFirstThenWaitsScaledByTheSpeed) {
    test::FakeInjector injector(*Platform::current().ports);
    auto settings = std::make_shared<PlaySettings>();
    Global::sharedInstance().setCurrentPlaySettings(settings);
    settings->playSpeed = 1.0f;
    ASSERT_EQ(run("usleep(1000000)"), "");
    settings->playSpeed = 2.0f;
    ASSERT_EQ(run("usleep(1000000)"), "");  // no wait, but still a sync
    settings->playSpeed = 1.5f;
    ASSERT_EQ(run("usleep(1000000)"), "");
    settings->playSpeed = 0.5f;
    ASSERT_EQ(run("usleep(1000000)"), "");
    EXPECT_EQ(sleeper->sleeps(), (std::vector<uint64_t>{1000000, 0, 500000, 1500000}));
    EXPECT_EQ(injector.count(kMsgSync), 4u);

    // Without current settings the speed reads as 0: twice the time.
    Global::sharedInstance().setCurrentPlaySettings(nullptr);
    sleeper->clear();
    ASSERT_EQ(run("usleep(300)"), "");
    EXPECT_EQ(sleeper->sleeps(), std::vector<uint64_t>{600});
}

TEST(ScaledWait, IsComputedInSinglePrecision) {
    EXPECT_EQ(scaledWaitMicroseconds(1000000, 1.0f), 1000000u);
    EXPECT_EQ(scaledWaitMicroseconds(1000000, 2.0f), 0u);
    EXPECT_EQ(scaledWaitMicroseconds(1000000, 1.5f), 500000u);
    EXPECT_EQ(scaledWaitMicroseconds(1000000, 0.5f), 1500000u);
    // Past 2^24 a float keeps no low bits: 16777217 becomes 16777216.
    EXPECT_EQ(scaledWaitMicroseconds(16777217, 1.0f), 16777216u);
    EXPECT_EQ(scaledWaitMicroseconds(33554435, 1.0f), 33554436u);
    // The speed is a float too: 1.1f is not 1.1, so 2 - 1.1f = 0.9f (0.899999976).
    EXPECT_EQ(scaledWaitMicroseconds(1000000, 1.1f), static_cast<uint32_t>(1000000.0f * (2.0f - 1.1f)));
    // Out of range products saturate instead of wrapping.
    EXPECT_EQ(scaledWaitMicroseconds(1000, 3.0f), 0u);
    EXPECT_EQ(scaledWaitMicroseconds(4000000000u, 0.0f), 4294967295u);
}

TEST(ScriptFunctionRegistry, NamesAreUniqueAndRegisteredAsGlobalFunctions) {
    lua_State* L = luaL_newstate();
    registerFunctions(L);
    std::set<std::string> seen;
    for (const auto& f : scriptFunctions()) {
        EXPECT_TRUE(seen.insert(f.name).second) << f.name << " registered twice";
        lua_getglobal(L, f.name);
        EXPECT_TRUE(lua_iscfunction(L, -1)) << f.name;
        lua_pop(L, 1);
    }
    EXPECT_TRUE(seen.count("usleep") && seen.count("touchDown") && seen.count("getOrientation"));
    lua_close(L);
}

}  // namespace
}  // namespace tw
