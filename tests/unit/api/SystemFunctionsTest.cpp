// The system and device script functions against doubles of the platform services: the one audio
// player slot, applications, device facts, the pasteboard, location faking, alert and vibration.
#include "EngineFixture.h"
#include "api/SystemFunctions.h"
#include "core/Paths.h"
#include "core/TWLocationClient.h"

namespace tw {
namespace {

using Texts = std::vector<std::string>;

class SystemFunctionsTest : public test::ScriptFunctionFixture, protected test::FakeServices {
protected:
    void SetUp() override {
        ScriptFunctionFixture::SetUp();
        install(Platform::current());
    }
};

TEST_F(SystemFunctionsTest, TheAudioSlotHoldsOnePlayerAndActsOnlyInTheRightState) {
    struct Step {
        const char* lua;
        Texts journal;
        bool soundEnded = false;
    } steps[] = {
        {"playAudio('a')", {"create a", "loops 0 a", "play a"}},
        {"resumeAudio()", {}},  // playing already
        {"pauseAudio() pauseAudio()", {"pause a"}},
        {"resumeAudio()", {"play a"}},
        {"playAudio('b', 2)", {"create b", "release a", "loops 2 b", "play b"}},  // the new one first
        {"stopAudio()", {"stop b", "release b"}},
        {"resumeAudio() pauseAudio() stopAudio()", {}},  // the slot is empty
        {"playAudio('c') playAudio('broken')", {"create c", "loops 0 c", "play c", "create broken", "release c"}},
        {"resumeAudio()", {}},
        {"playAudio('d', -1) playAudio('d', 4294967301) playAudio('d', '3')",
         {"create d", "loops -1 d", "play d", "create d", "release d", "loops 5 d", "play d", "create d", "release d", "loops 3 d", "play d"}},
        {"pauseAudio()", {}, true},  // the sound ended: nothing to pause or stop
        {"resumeAudio() stopAudio()", {"play d", "release d"}, true},
    };
    for (const auto& step : steps) {
        audio->soundsEnded = step.soundEnded;
        ASSERT_EQ(run(step.lua), "");
        EXPECT_EQ(audio->take(), step.journal) << step.lua;
    }
}

TEST_F(SystemFunctionsTest, ApplicationsAreLaunchedInFrontKilledOnlyWhenRunningAndLookedUpByTheSystemsKey) {
    apps->apps["com.example.run"] = {"com.example.run", 42, "running"};
    apps->apps["com.example.idle"] = {"com.example.idle", 0, "not running"};
    ASSERT_EQ(run("appRun('com.example.idle') appKill('com.example.run') appKill('com.example.idle') appKill('none')"), "");
    EXPECT_EQ(apps->calls, (Texts{"launch com.example.idle", "bundle com.example.run", "signal 42 15",
                                  "bundle com.example.idle", "bundle none"}));
    EXPECT_EQ(results("appState('com.example.run')"), Texts{"running"});
    EXPECT_EQ(results("appState('none')"), Texts{"nil"});
    for (const auto& [version, lookup] : {std::pair{"8.4.1", "display"}, {"9.0", "bundle"}, {"10.3", "bundle"}}) {
        device->version = version;
        apps->calls.clear();
        EXPECT_EQ(results("appState('com.example.run')"), Texts{"running"});
        EXPECT_EQ(apps->calls, Texts{std::string(lookup) + " com.example.run"}) << version;
    }
}

TEST_F(SystemFunctionsTest, DeviceFactsSerialNumberAndProductVersion) {
    const std::pair<std::string, Texts> serials[] = {
        {"C39PQ0ABG5MR", {"C39PQ0ABG5MR"}}, {std::string("F2LQ\0\0\0", 7), {"F2LQ"}}, {std::string("\0X", 2), {"nil"}}, {"", {"nil"}}};
    for (const auto& [serial, result] : serials) {
        device->serial = serial;
        EXPECT_EQ(results("getSN()"), result) << testing::PrintToString(serial);
    }
    bundles->values["me.tapwright.Tapwright.ios8/CFBundleVersion"] = "1207";
    bundles->values["me.tapwright.demo/CFBundleShortVersionString"] = "1.0";
    EXPECT_EQ(results("getVersion()"), Texts{"nil"});
    bundles->values["me.tapwright.Tapwright.ios8/CFBundleShortVersionString"] = "2.1.3";
    EXPECT_EQ(results("getVersion(), rootDir()"), (Texts{"2.1.3", Paths::scriptsDir() + "/"}));
}

TEST_F(SystemFunctionsTest, TextGoesThroughThePasteboardUpToItsFirstNul) {
    EXPECT_EQ(results("clipText()"), Texts{"nil"});
    const std::pair<const char*, const char*> cases[] = {{"'h\\xC3\\xA9llo'", "h\xC3\xA9llo"}, {"3.5", "3.5"}, {"''", ""}, {"'ab\\0cd'", "ab"}};
    for (const auto& [argument, text] : cases) {
        ASSERT_EQ(run(std::string("copyText(") + argument + ")"), "");
        EXPECT_EQ(pasteboard->text, text);
        EXPECT_EQ(results("clipText()"), Texts{text}) << argument;
    }
}

TEST_F(SystemFunctionsTest, FakeLocationTakesNumbersOrTextDefaultsToZeroAndClearsOneApp) {
    ASSERT_EQ(run("fakeLocation('maps', 48.8584, '2.2945') fakeLocation('run') fakeLocation('walk', -33.5) clearFakeLocation('walk')"), "");
    EXPECT_EQ(TWLocationClient::fakedLocationForApp("maps"), (FakedLocation{48.8584, 2.2945}));
    EXPECT_EQ(TWLocationClient::fakedLocationForApp("run"), FakedLocation{});
    EXPECT_FALSE(TWLocationClient::fakedLocationForApp("walk"));
}

TEST_F(SystemFunctionsTest, AlertAndVibrateReachTheUserAndMissingServicesGiveNothing) {
    ASSERT_EQ(run("alert('Saved ' .. 3) vibrate()"), "");
    ASSERT_TRUE(runUntil([&] { return !ui->alerts().empty(); }));
    const auto alert = ui->alerts().front();
    EXPECT_EQ(alert.title + "|" + alert.message, "|Saved 3");
    EXPECT_EQ(alert.buttons, Texts{"OK"});
    EXPECT_EQ(sounds->sounds(), std::vector<uint32_t>{kSystemSoundVibrate});
    Platform::current() = Platform{};
    ASSERT_EQ(run("playAudio('a') pauseAudio() resumeAudio() stopAudio() appRun('x') appKill('x') copyText('x') vibrate() alert('x')"), "");
    EXPECT_EQ(results("appState('x'), getSN(), getVersion(), clipText(), getOrientation()"), (Texts{"nil", "nil", "nil", "nil", "0"}));
}

}  // namespace
}  // namespace tw
