#include "api/Registry.h"

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
        {"inputText", inputTextProxy},
        {"adaptResolution", adaptResolutionProxy},
        {"adaptOrientation", adaptOrientationProxy},
        {"getOrientation", getOrientationProxy},
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
