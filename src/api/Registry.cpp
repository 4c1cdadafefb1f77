#include "api/Registry.h"

#include "api/DialogFunctions.h"
#include "api/ScreenFunctions.h"
#include "api/SystemFunctions.h"
#include "api/TouchFunctions.h"

namespace tw {

const std::vector<ScriptFunction>& scriptFunctions() {
    static const std::vector<ScriptFunction> functions = {
        {"keyDown", keyDownProxy},
        {"keyUp", keyUpProxy},
        {"touchDown", touchDownProxy},
        {"touchMove", touchMoveProxy},
        {"touchUp", touchUpProxy},
        {"rootDir", rootDirProxy},
        {"log", logProxy},
        {"usleep", usleepProxy},
        {"alert", alertProxy},
        {"vibrate", vibrateProxy},
        {"playAudio", playAudioProxy},
        {"pauseAudio", pauseAudioProxy},
        {"resumeAudio", resumeAudioProxy},
        {"stopAudio", stopAudioProxy},
        {"screenshot", screenshotProxy},
        {"getScreenSize", getScreenSizeProxy},
        {"getScreenScale", getScreenScaleProxy},
        {"getScreenBitDepth", getScreenBitDepthProxy},
        {"getColors", getColorsProxy},
        {"findColors", findColorsProxy},
        {"findImage", findImageProxy},
        {"appRun", appRunProxy},
        {"appKill", appKillProxy},
        {"appState", appStateProxy},
        {"getSN", getSNProxy},
        {"getVersion", getVersionProxy},
        {"copyText", copyTextProxy},
        {"clipText", clipTextProxy},
        {"inputText", inputTextProxy},
        {"fakeLocation", fakeLocationProxy},
        {"clearFakeLocation", clearFakeLocationProxy},
        {"adaptResolution", adaptResolutionProxy},
        {"adaptOrientation", adaptOrientationProxy},
        {"getOrientation", getOrientationProxy},
        {"dialog", dialogProxy},
        {"clearDialogValues", clearDialogValuesProxy},
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
