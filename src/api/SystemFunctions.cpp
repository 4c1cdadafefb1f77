#include "api/SystemFunctions.h"

#include "core/LogToFile.h"
#include "core/Paths.h"
#include "platform/Platform.h"
#include "platform/RunLoop.h"

namespace tw {

void showScriptAlert(const std::string& message) {
    auto ui = Platform::current().ui;
    if (!ui) return;
    AlertRequest alert{"", message, {"OK"}};
    RunLoop::main().post([ui, alert = std::move(alert)] { ui->showAlert(alert); });
}

int rootDirProxy(lua_State* L) {
    const std::string dir = Paths::scriptsDir() + "/";
    lua_pushstring(L, dir.c_str());
    return 1;
}

int logProxy(lua_State* L) {
    const char* text = luaL_checklstring(L, 1, nullptr);
    // The script's text is written as it is: a '%' in it is not a format.
    LogMessageToFile(text);
    return 0;
}

int alertProxy(lua_State* L) {
    const char* text = luaL_checklstring(L, 1, nullptr);
    showScriptAlert(text);
    return 0;
}

int vibrateProxy(lua_State*) {
    if (auto sounds = Platform::current().sounds) sounds->playSystemSound(kSystemSoundVibrate);
    return 0;
}

}  // namespace tw
