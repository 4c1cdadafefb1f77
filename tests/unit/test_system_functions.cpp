// The system and device script functions: the audio player slot, applications, device facts, the
// pasteboard and location faking, against test doubles of the platform services, plus the
// argument checks and what each function leaves on the Lua stack.
#include <gtest/gtest.h>
#include <plist/plist.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "EngineFixture.h"
#include "SeamDoubles.h"
#include "api/Registry.h"
#include "api/SystemFunctions.h"
#include "core/Paths.h"
#include "platform/Lua.h"
#include "platform/linux/ProfileDeviceInfo.h"
#include "platform/AppService.h"
#include "platform/AudioPlayer.h"
#include "platform/BundleInfo.h"
#include "platform/DeviceInfo.h"
#include "platform/Pasteboard.h"
#include "platform/UserInterface.h"

namespace tw {
namespace {

using test::FakeAppService;
using test::FakeAudioService;
using test::FakeBundleInfo;
using test::FakePasteboard;

class SystemFunctionsTest : public test::EngineFixture {
protected:
    void SetUp() override {
        EngineFixture::SetUp();
        auto& platform = Platform::current();
        platform.audio = audio;
        platform.apps = apps;
        platform.pasteboard = pasteboard;
        platform.bundles = bundles;
        L = luaL_newstate();
        luaL_openlibs(L);
        registerFunctions(L);
    }
    void TearDown() override {
        releaseAudioPlayer();
        lua_close(L);
        EngineFixture::TearDown();
    }

    // Runs `lua`; "" on success, else the error message.
    std::string run(const std::string& lua) {
        if (luaL_loadstring(L, lua.c_str()) != LUA_OK || lua_pcall(L, 0, 0, 0) != LUA_OK) {
            std::string message = lua_tostring(L, -1);
            lua_pop(L, 1);
            return message;
        }
        return "";
    }

    // The values `call` returns, each as "nil", a string as it is, or "<type>".
    std::vector<std::string> results(const std::string& call) {
        const int base = lua_gettop(L);
        const std::string chunk = "return " + call;
        if (luaL_loadstring(L, chunk.c_str()) != LUA_OK || lua_pcall(L, 0, LUA_MULTRET, 0) != LUA_OK) {
            ADD_FAILURE() << call << ": " << lua_tostring(L, -1);
            lua_settop(L, base);
            return {};
        }
        std::vector<std::string> out;
        for (int i = base + 1; i <= lua_gettop(L); ++i) {
            if (lua_isnil(L, i))
                out.push_back("nil");
            else if (lua_type(L, i) == LUA_TSTRING)
                out.push_back(lua_tostring(L, i));
            else
                out.push_back(std::string("<") + luaL_typename(L, i) + ">");
        }
        lua_settop(L, base);
        return out;
    }

    void useSystemVersion(const std::string& version) {
        linuxp::DeviceProfile profile;
        profile.systemVersion = version;
        Platform::current().device = std::make_shared<linuxp::ProfileDeviceInfo>(profile, "com.apple.springboard");
    }

    void useSerialNumber(const std::string& serial) {
        linuxp::DeviceProfile profile;
        profile.serialNumber = serial;
        Platform::current().device = std::make_shared<linuxp::ProfileDeviceInfo>(profile, "com.apple.springboard");
    }

    std::shared_ptr<FakeAudioService> audio = std::make_shared<FakeAudioService>();
    std::shared_ptr<FakeAppService> apps = std::make_shared<FakeAppService>();
    std::shared_ptr<FakePasteboard> pasteboard = std::make_shared<FakePasteboard>();
    std::shared_ptr<FakeBundleInfo> bundles = std::make_shared<FakeBundleInfo>();
    lua_State* L = nullptr;
};

using Journal = std::vector<std::string>;

TEST(SystemFunctionRegistry, KeepsTheRegistrationOrderOfTheScriptApi) {
    const std::vector<std::string> expected = {
        "keyDown", "keyUp", "touchDown", "touchMove", "touchUp", "rootDir", "log", "usleep", "alert", "vibrate",
        "playAudio", "pauseAudio", "resumeAudio", "stopAudio", "appRun", "appKill", "appState", "getSN",
        "getVersion", "copyText", "clipText", "inputText", "fakeLocation", "clearFakeLocation", "adaptResolution",
        "adaptOrientation", "getOrientation"};
    // Functions of other families may sit between these; the order of these among themselves is fixed.
    std::map<std::string, size_t> position;
    const auto& functions = scriptFunctions();
    for (size_t i = 0; i < functions.size(); ++i) position[functions[i].name] = i;
    for (size_t i = 0; i < expected.size(); ++i) {
        ASSERT_TRUE(position.count(expected[i])) << expected[i] << " is not registered";
        if (i > 0) EXPECT_LT(position[expected[i - 1]], position[expected[i]]) << expected[i - 1] << " / " << expected[i];
    }
}

TEST_F(SystemFunctionsTest, PlayAudioFillsTheOneSlotAndANewSoundReplacesTheOldOne) {
    ASSERT_EQ(run("playAudio('/s/a.wav')"), "");
    EXPECT_EQ(audio->take(), (Journal{"create /s/a.wav", "loops 0 /s/a.wav", "play /s/a.wav"}));

    // The second player is made first; putting it in the slot releases (and so silences) the first.
    ASSERT_EQ(run("playAudio('/s/b.wav', 2)"), "");
    EXPECT_EQ(audio->take(),
              (Journal{"create /s/b.wav", "release /s/a.wav", "loops 2 /s/b.wav", "play /s/b.wav"}));

    // A file that cannot be played empties the slot and plays nothing.
    ASSERT_EQ(run("playAudio('/s/broken.wav', 1)"), "");
    EXPECT_EQ(audio->take(), (Journal{"create /s/broken.wav", "release /s/b.wav"}));
    ASSERT_EQ(run("pauseAudio() resumeAudio() stopAudio()"), "");
    EXPECT_TRUE(audio->take().empty());
}

TEST_F(SystemFunctionsTest, PauseResumeAndStopActOnlyWhenThePlayerIsInTheRightState) {
    ASSERT_EQ(run("playAudio('a.wav')"), "");
    audio->take();

    ASSERT_EQ(run("resumeAudio()"), "");  // playing already
    EXPECT_TRUE(audio->take().empty());
    ASSERT_EQ(run("pauseAudio() pauseAudio()"), "");  // the second finds it paused
    EXPECT_EQ(audio->take(), Journal{"pause a.wav"});
    ASSERT_EQ(run("resumeAudio()"), "");
    EXPECT_EQ(audio->take(), Journal{"play a.wav"});

    ASSERT_EQ(run("stopAudio()"), "");
    EXPECT_EQ(audio->take(), (Journal{"stop a.wav", "release a.wav"}));
    // The slot is empty now: nothing is left to resume, pause or stop.
    ASSERT_EQ(run("resumeAudio() pauseAudio() stopAudio()"), "");
    EXPECT_TRUE(audio->take().empty());
}

TEST_F(SystemFunctionsTest, ASoundThatEndedIsNotStoppedButReleasedAndCanBeResumedFromTheStart) {
    ASSERT_EQ(run("playAudio('a.wav')"), "");
    audio->soundsEnded = true;
    audio->take();
    ASSERT_EQ(run("pauseAudio()"), "");  // not playing: nothing to pause
    EXPECT_TRUE(audio->take().empty());
    ASSERT_EQ(run("resumeAudio()"), "");  // not playing: it is played again
    EXPECT_EQ(audio->take(), Journal{"play a.wav"});
    ASSERT_EQ(run("stopAudio()"), "");
    EXPECT_EQ(audio->take(), Journal{"release a.wav"});
}

TEST_F(SystemFunctionsTest, LoopsAreTakenAsA32BitSignedInteger) {
    ASSERT_EQ(run("playAudio('a', -1) playAudio('a', 4294967295) playAudio('a', 4294967301) playAudio('a', '3')"), "");
    Journal loops;
    for (const auto& entry : audio->take())
        if (entry.rfind("loops ", 0) == 0) loops.push_back(entry);
    EXPECT_EQ(loops, (Journal{"loops -1 a", "loops -1 a", "loops 5 a", "loops 3 a"}));
}

TEST_F(SystemFunctionsTest, AudioArgumentsAreChecked) {
    EXPECT_NE(run("playAudio()").find("bad argument #1 to 'playAudio' (string expected, got no value)"), std::string::npos);
    EXPECT_NE(run("playAudio({})").find("bad argument #1 to 'playAudio' (string expected, got table)"), std::string::npos);
    EXPECT_NE(run("playAudio('a.wav', 'twice')").find("bad argument #2 to 'playAudio' (number expected, got string)"),
              std::string::npos);
    // A failed check reaches no player and leaves the slot as it was.
    EXPECT_TRUE(audio->take().empty());
    ASSERT_EQ(run("playAudio(42)"), "");  // a number is turned into text
    EXPECT_EQ(audio->take().front(), "create 42");
}

TEST_F(SystemFunctionsTest, AppRunLaunchesInFrontAndAppKillSignalsOnlyARunningProcess) {
    apps->apps["com.example.running"] = {"com.example.running", 4242, "running"};
    apps->apps["com.example.idle"] = {"com.example.idle", 0, "not running"};

    ASSERT_EQ(run("appRun('com.example.idle') appRun('com.example.none')"), "");
    EXPECT_EQ(apps->calls, (Journal{"launch com.example.idle", "launch com.example.none"}));
    apps->calls.clear();

    ASSERT_EQ(run("appKill('com.example.running') appKill('com.example.idle') appKill('com.example.none')"), "");
    EXPECT_EQ(apps->calls, (Journal{"bundle com.example.running", "signal 4242 15", "bundle com.example.idle",
                                    "bundle com.example.none"}));
}

TEST_F(SystemFunctionsTest, AppStateGivesTheActivationStateTextOrNilForAnUnknownApp) {
    apps->apps["com.example.running"] = {"com.example.running", 7, "running"};
    EXPECT_EQ(results("appState('com.example.running')"), Journal{"running"});
    EXPECT_EQ(results("appState('com.example.none')"), Journal{"nil"});
    // Functions without a result leave nothing behind.
    EXPECT_TRUE(results("appRun('com.example.running')").empty());
    EXPECT_TRUE(results("appKill('com.example.none')").empty());
}

TEST_F(SystemFunctionsTest, SystemsBefore9LookAppsUpByDisplayIdentifier) {
    apps->apps["com.example.app"] = {"com.example.app", 99, "running"};
    const std::pair<const char*, const char*> cases[] = {
        {"8.4.1", "display"}, {"7.1.2", "display"}, {"9.0", "bundle"}, {"9.3.5", "bundle"}, {"10.3", "bundle"}};
    for (const auto& [version, lookup] : cases) {
        useSystemVersion(version);
        apps->calls.clear();
        EXPECT_EQ(results("appState('com.example.app')"), Journal{"running"}) << version;
        ASSERT_EQ(run("appKill('com.example.app')"), "");
        const std::string expected = std::string(lookup) + " com.example.app";
        EXPECT_EQ(apps->calls, (Journal{expected, expected, "signal 99 15"})) << version;
    }
}

TEST_F(SystemFunctionsTest, GetSNReadsTheSerialNumberUpToItsFirstZeroByte) {
    useSerialNumber("C39PQ0ABG5MR");
    EXPECT_EQ(results("getSN()"), Journal{"C39PQ0ABG5MR"});
    useSerialNumber(std::string("F2LQ\0\0\0\0", 8));
    EXPECT_EQ(results("getSN()"), Journal{"F2LQ"});
    useSerialNumber(std::string("\0X", 2));
    EXPECT_EQ(results("getSN()"), Journal{"nil"});
    useSerialNumber("");
    EXPECT_EQ(results("getSN()"), Journal{"nil"});
}

TEST_F(SystemFunctionsTest, GetVersionIsTheShortVersionOfTheProductAppOnly) {
    EXPECT_EQ(results("getVersion()"), Journal{"nil"});  // not installed
    bundles->values["me.tapwright.Tapwright.ios8/CFBundleVersion"] = "1207";
    bundles->values["me.tapwright.demo.notes/CFBundleShortVersionString"] = "1.0";
    EXPECT_EQ(results("getVersion()"), Journal{"nil"});
    bundles->values["me.tapwright.Tapwright.ios8/CFBundleShortVersionString"] = "2.1.3";
    EXPECT_EQ(results("getVersion()"), Journal{"2.1.3"});
}

TEST_F(SystemFunctionsTest, CopyTextAndClipTextGoThroughThePasteboard) {
    EXPECT_EQ(results("clipText()"), Journal{"nil"});  // no text on it
    ASSERT_EQ(run("copyText('h\\xC3\\xA9llo')"), "");
    EXPECT_EQ(pasteboard->text, "h\xC3\xA9llo");
    EXPECT_EQ(results("clipText()"), Journal{"h\xC3\xA9llo"});
    ASSERT_EQ(run("copyText(3.5)"), "");
    EXPECT_EQ(pasteboard->text, "3.5");
    ASSERT_EQ(run("copyText('')"), "");
    EXPECT_EQ(results("clipText()"), Journal{""});  // empty text is still text
    // The text ends at its first NUL byte.
    ASSERT_EQ(run("copyText('ab\\0cd')"), "");
    EXPECT_EQ(pasteboard->text, "ab");
    EXPECT_NE(run("copyText()").find("bad argument #1 to 'copyText' (string expected, got no value)"), std::string::npos);
    EXPECT_NE(run("copyText(nil)").find("bad argument #1 to 'copyText'"), std::string::npos);
    EXPECT_EQ(pasteboard->text, "ab");
}

// The fake-location table as {bundle id: [latitude, longitude]}; empty when there is no table.
std::map<std::string, std::vector<double>> readLocations() {
    std::map<std::string, std::vector<double>> table;
    const std::string bytes = test::readFile(Paths::resolve(kLocationsPath));
    if (bytes.empty()) return table;
    plist_t root = nullptr;
    plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
    if (!root) return table;
    plist_dict_iter it = nullptr;
    plist_dict_new_iter(root, &it);
    for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(root, it, &key, &value);
        if (!key) break;
        std::vector<double> pair;
        for (uint32_t i = 0; i < plist_array_get_size(value); ++i) {
            double d = 0;
            plist_get_real_val(plist_array_get_item(value, i), &d);
            pair.push_back(d);
        }
        table[key] = pair;
        std::free(key);
    }
    std::free(it);
    plist_free(root);
    return table;
}

TEST_F(SystemFunctionsTest, FakeLocationWritesTheTableAndClearFakeLocationRemovesTheEntry) {
    ASSERT_EQ(run("fakeLocation('com.example.maps', 48.8584, '2.2945')"), "");
    ASSERT_EQ(run("fakeLocation('com.example.run')"), "");  // latitude and longitude default to 0
    ASSERT_EQ(run("fakeLocation('com.example.walk', -33.5)"), "");
    using Table = std::map<std::string, std::vector<double>>;
    EXPECT_EQ(readLocations(), (Table{{"com.example.maps", {48.8584, 2.2945}},
                                      {"com.example.run", {0, 0}},
                                      {"com.example.walk", {-33.5, 0}}}));
    ASSERT_EQ(run("clearFakeLocation('com.example.run') clearFakeLocation('com.example.none')"), "");
    EXPECT_EQ(readLocations(), (Table{{"com.example.maps", {48.8584, 2.2945}}, {"com.example.walk", {-33.5, 0}}}));

    EXPECT_NE(run("fakeLocation()").find("bad argument #1 to 'fakeLocation' (string expected, got no value)"),
              std::string::npos);
    EXPECT_NE(run("fakeLocation('com.example.x', 'north')").find("bad argument #2 to 'fakeLocation' (number expected, got string)"),
              std::string::npos);
    EXPECT_NE(run("fakeLocation('com.example.x', 1, {})").find("bad argument #3 to 'fakeLocation' (number expected, got table)"),
              std::string::npos);
    EXPECT_NE(run("clearFakeLocation()").find("bad argument #1 to 'clearFakeLocation'"), std::string::npos);
    EXPECT_EQ(readLocations().count("com.example.x"), 0u);
    EXPECT_TRUE(logMessages().empty());
}

TEST_F(SystemFunctionsTest, ClearFakeLocationWithoutATableCreatesNothing) {
    ASSERT_EQ(run("clearFakeLocation('com.example.maps')"), "");
    EXPECT_FALSE(std::filesystem::exists(Paths::resolve(kLocationsPath)));
}

TEST_F(SystemFunctionsTest, RootDirLogAlertAndVibrate) {
    const auto dir = results("rootDir()");
    ASSERT_EQ(dir.size(), 1u);
    EXPECT_EQ(dir[0], Paths::scriptsDir() + "/");
    ASSERT_EQ(run("log('100% done %s %n') alert('Saved ' .. 3) vibrate()"), "");
    EXPECT_EQ(logMessages(), Journal{"100% done %s %n"});
    ASSERT_TRUE(runUntil([&] { return !ui->alerts().empty(); }));
    const auto alert = ui->alerts().front();
    EXPECT_EQ(alert.title, "");
    EXPECT_EQ(alert.message, "Saved 3");
    EXPECT_EQ(alert.buttons, Journal{"OK"});
    EXPECT_EQ(sounds->sounds(), std::vector<uint32_t>{4095});
    EXPECT_NE(run("log()").find("bad argument #1 to 'log' (string expected, got no value)"), std::string::npos);
    EXPECT_NE(run("alert({})").find("bad argument #1 to 'alert' (string expected, got table)"), std::string::npos);
}

TEST_F(SystemFunctionsTest, WithoutPlatformServicesTheFunctionsDoNothingAndGiveNil) {
    auto& platform = Platform::current();
    platform.audio.reset();
    platform.apps.reset();
    platform.pasteboard.reset();
    platform.bundles.reset();
    platform.sounds.reset();
    platform.device.reset();
    ASSERT_EQ(run("playAudio('/s/a.wav') pauseAudio() resumeAudio() stopAudio() appRun('x') appKill('x') "
                  "copyText('x') vibrate()"),
              "");
    for (const char* call : {"appState('x')", "getSN()", "getVersion()", "clipText()"})
        EXPECT_EQ(results(call), Journal{"nil"}) << call;
}

}  // namespace
}  // namespace tw
