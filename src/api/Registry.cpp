#include "api/Registry.h"

#include "api/DialogFunctions.h"
#include "api/ScreenFunctions.h"
#include "api/SystemFunctions.h"
#include "api/TouchFunctions.h"

namespace tw {

// Each entry names the number of nil results a platform failure gives: the function's results.
const std::vector<ScriptFunction>& scriptFunctions() {
    static const std::vector<ScriptFunction> functions = {
        {"keyDown", callSafely<keyDownProxy, 0>},
        {"keyUp", callSafely<keyUpProxy, 0>},
        {"touchDown", callSafely<touchDownProxy, 0>},
        {"touchMove", callSafely<touchMoveProxy, 0>},
        {"touchUp", callSafely<touchUpProxy, 0>},
        {"rootDir", callSafely<rootDirProxy, 1>},
        {"log", callSafely<logProxy, 0>},
        {"usleep", callSafely<usleepProxy, 0>},
        {"alert", callSafely<alertProxy, 0>},
        {"vibrate", callSafely<vibrateProxy, 0>},
        {"playAudio", callSafely<playAudioProxy, 0>},
        {"pauseAudio", callSafely<pauseAudioProxy, 0>},
        {"resumeAudio", callSafely<resumeAudioProxy, 0>},
        {"stopAudio", callSafely<stopAudioProxy, 0>},
        {"screenshot", callSafely<screenshotProxy, 0>},
        {"getScreenSize", callSafely<getScreenSizeProxy, 2>},
        {"getScreenScale", callSafely<getScreenScaleProxy, 1>},
        {"getScreenBitDepth", callSafely<getScreenBitDepthProxy, 1>},
        {"getColors", callSafely<getColorsProxy, 0>},
        {"findColors", callSafely<findColorsProxy, 0>},
        {"findImage", callSafely<findImageProxy, 0>},
        {"appRun", callSafely<appRunProxy, 0>},
        {"appKill", callSafely<appKillProxy, 0>},
        {"appState", callSafely<appStateProxy, 1>},
        {"getSN", callSafely<getSNProxy, 1>},
        {"getVersion", callSafely<getVersionProxy, 1>},
        {"copyText", callSafely<copyTextProxy, 0>},
        {"clipText", callSafely<clipTextProxy, 1>},
        {"inputText", callSafely<inputTextProxy, 0>},
        {"fakeLocation", callSafely<fakeLocationProxy, 0>},
        {"clearFakeLocation", callSafely<clearFakeLocationProxy, 0>},
        {"adaptResolution", callSafely<adaptResolutionProxy, 0>},
        {"adaptOrientation", callSafely<adaptOrientationProxy, 0>},
        {"getOrientation", callSafely<getOrientationProxy, 1>},
        {"dialog", callSafely<dialogProxy, 1>},
        {"clearDialogValues", callSafely<clearDialogValuesProxy, 0>},
        // Beyond the 36: names that scripts written for newer releases call (documented with the
        // others; the rest of them are in Extensions.lua).
        {"toast", callSafely<toastProxy, 0>},
        {"appActivate", callSafely<appActivateProxy, 0>},
        {"frontMostAppId", callSafely<frontMostAppIdProxy, 1>},
        {"openURL", callSafely<openURLProxy, 0>},
    };
    return functions;
}

void registerFunctions(lua_State* L) {
    for (const auto& f : scriptFunctions()) {
        lua_pushcclosure(L, f.function, 0);
        lua_setglobal(L, f.name);
    }
}

}  // namespace tw
