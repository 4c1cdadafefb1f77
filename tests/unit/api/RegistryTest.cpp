// The script function table: the 36 names in their fixed order, then the newer ones, the standard argument checks, and
// callSafely, the one boundary between C++ and Lua.
#include "EngineFixture.h"
#include "api/Registry.h"

namespace tw {
namespace {

using Texts = std::vector<std::string>;

using RegistryTest = test::ScriptFunctionFixture;

TEST_F(RegistryTest, RegistersTheThirtySixFunctionsInTheirFixedOrderThenTheNewerOnes) {
    const Texts expected = {
        "keyDown", "keyUp", "touchDown", "touchMove", "touchUp", "rootDir", "log", "usleep", "alert", "vibrate",
        "playAudio", "pauseAudio", "resumeAudio", "stopAudio", "screenshot", "getScreenSize", "getScreenScale",
        "getScreenBitDepth", "getColors", "findColors", "findImage", "appRun", "appKill", "appState", "getSN",
        "getVersion", "copyText", "clipText", "inputText", "fakeLocation", "clearFakeLocation", "adaptResolution",
        "adaptOrientation", "getOrientation", "dialog", "clearDialogValues", "toast", "appActivate",
        "frontMostAppId", "openURL"};
    Texts names;
    for (const auto& f : scriptFunctions()) names.push_back(f.name);
    EXPECT_EQ(names, expected);
    for (const auto& name : expected) EXPECT_EQ(results("type(" + name + ")"), Texts{"function"}) << name;
}

TEST_F(RegistryTest, BadArgumentsRaiseTheStandardMessagesAndTheFixedOnes) {
    const std::pair<const char*, const char*> cases[] = {
        {"touchDown(1, 'a', 20)", "bad argument #2 to 'touchDown' (number expected, got string)"},
        {"touchMove(1, 2)", "bad argument #3 to 'touchMove' (number expected, got no value)"},
        {"touchUp('x', 1, 2)", "bad argument #1 to 'touchUp' (number expected, got string)"},
        {"keyDown()", "bad argument #1 to 'keyDown' (number expected, got no value)"},
        {"keyUp({})", "bad argument #1 to 'keyUp' (number expected, got table)"},
        {"inputText({})", "bad argument #1 to 'inputText' (string expected, got table)"},
        {"usleep('soon')", "bad argument #1 to 'usleep' (number expected, got string)"},
        {"adaptOrientation(0)", "Invalid argument for orientation."},
        {"adaptOrientation(7)", "Invalid argument for orientation."},
        {"log()", "bad argument #1 to 'log' (string expected, got no value)"},
        {"alert({})", "bad argument #1 to 'alert' (string expected, got table)"},
        {"playAudio()", "bad argument #1 to 'playAudio' (string expected, got no value)"},
        {"playAudio('a.wav', 'twice')", "bad argument #2 to 'playAudio' (number expected, got string)"},
        {"appRun()", "bad argument #1 to 'appRun' (string expected, got no value)"},
        {"appKill(nil)", "bad argument #1 to 'appKill' (string expected, got nil)"},
        {"appState(true)", "bad argument #1 to 'appState' (string expected, got boolean)"},
        {"copyText()", "bad argument #1 to 'copyText' (string expected, got no value)"},
        {"fakeLocation()", "bad argument #1 to 'fakeLocation' (string expected, got no value)"},
        {"fakeLocation('x', 'north')", "bad argument #2 to 'fakeLocation' (number expected, got string)"},
        {"fakeLocation('x', 1, {})", "bad argument #3 to 'fakeLocation' (number expected, got table)"},
        {"clearFakeLocation()", "bad argument #1 to 'clearFakeLocation' (string expected, got no value)"},
        {"clearDialogValues()", "bad argument #1 to 'clearDialogValues' (string expected, got no value)"},
        {"dialog('form')", "bad argument #1 to 'dialog' (table expected, got string)"},
    };
    for (const auto& [call, message] : cases)
        EXPECT_EQ(run(call), std::string("[string \"") + call + "\"]:1: " + message) << call;
}

TEST_F(RegistryTest, APlatformExceptionGivesNilResultsOrNoEffectAndTheScriptGoesOn) {
    test::FakeServices().install(Platform::current(), /*failing=*/true);
    struct Case {
        const char* name;
        const char* call;
        Texts results;
    } cases[] = {
        {"appState: one nil", "appState('x')", {"nil"}},   {"getSN: one nil", "getSN()", {"nil"}},
        {"clipText: one nil", "clipText()", {"nil"}},      {"getVersion: one nil", "getVersion()", {"nil"}},
        {"getOrientation: one nil", "getOrientation()", {"nil"}},
        {"appRun: nothing", "appRun('x')", {}},            {"appKill: nothing", "appKill('x')", {}},
        {"copyText: nothing", "copyText('x')", {}},        {"playAudio: nothing", "playAudio('a.wav')", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(results(c.call), c.results);
        EXPECT_EQ(run(std::string("went_on = false ") + c.call + " went_on = true"), "");
        EXPECT_EQ(results("went_on"), Texts{"true"});
    }
    EXPECT_EQ(run("appState()"), "[string \"appState()\"]:1: bad argument #1 to 'appState' (string expected, got no value)");
}

}  // namespace
}  // namespace tw
