#include "play/LuaBridge.h"

#include <mutex>

#include "core/Alert.h"
#include "core/Global.h"
#include "core/Helper.h"
#include "core/LogToFile.h"
#include "core/Paths.h"
#include "injection/EventSimulate.h"
#include "platform/Platform.h"
#include "play/ScriptManager.h"

namespace tw {

std::atomic<int> luaStopFlag{0};

namespace {

std::mutex registrarMutex;
std::function<void(lua_State*)> functionRegistrar;

// After the last run's touches, give the injector time to deliver them.
constexpr uint64_t kLastSyncWaitMicroseconds = 16000;
constexpr const char* kModulePathChunk = "package.path = package.path .. \";\" .. rootDir() .. \"?.lua\"";
}  // namespace

void lstop(lua_State* L, lua_Debug*) {
    if (luaStopFlag.load(std::memory_order_relaxed) == 1) {
        lua_sethook(L, nullptr, 0, 0);
        luaL_error(L, "interrupted");
    }
}

LuaBridge::~LuaBridge() {
    if (L) lua_close(L);
}

void LuaBridge::stopLuaRunning() { luaStopFlag.store(1, std::memory_order_relaxed); }

void LuaBridge::setFunctionRegistrar(std::function<void(lua_State*)> registrar) {
    std::lock_guard lock(registrarMutex);
    functionRegistrar = std::move(registrar);
}

void LuaBridge::prepareState() {
    L = luaL_newstate();
    luaL_openlibs(L);
    std::function<void(lua_State*)> registrar;
    {
        std::lock_guard lock(registrarMutex);
        registrar = functionRegistrar;
    }
    if (registrar) registrar(L);

    const std::string extensions = Paths::extensionsFile();
    if (luaL_loadfilex(L, extensions.c_str(), nullptr) != LUA_OK || lua_pcall(L, 0, LUA_MULTRET, 0) != LUA_OK)
        processError();
    if (luaL_loadstring(L, kModulePathChunk) != LUA_OK || lua_pcall(L, 0, LUA_MULTRET, 0) != LUA_OK)
        processError();
    lua_settop(L, 0);
}

void LuaBridge::runLua(const std::string& scriptOrPath, int type) {
    luaStopFlag.store(0, std::memory_order_relaxed);
    if (!L) prepareState();

    setScaleScreen(scriptOrPath, type);
    lua_sethook(L, lstop, LUA_MASKCALL | LUA_MASKRET | LUA_MASKCOUNT, 1);

    int status = LUA_ERRRUN;
    bool ran = true;
    if (type == kRunText)
        status = luaL_loadstring(L, scriptOrPath.c_str());
    else if (type == kRunFile)
        status = luaL_loadfilex(L, scriptOrPath.c_str(), nullptr);
    else
        ran = false;
    if (ran) {
        if (status == LUA_OK) status = lua_pcall(L, 0, LUA_MULTRET, 0);
        if (status != LUA_OK) processError();
        lua_settop(L, 0);
    }

    // lastSync: every touch of this run is delivered before the next run or the end of play.
    EventSimulate::syncEvent();
    sleepMicroseconds(kLastSyncWaitMicroseconds);
}

void LuaBridge::processError() {
    const char* raw = lua_tostring(L, -1);
    // Errors that are not text (error({})) have no message to show.
    std::string message = raw ? raw : "(error object is not a string)";
    if (!str_ends_with(message, "interrupted")) {
        Global::sharedInstance().setIsPlaying(false);
        if (Helper::ifLogErrors()) LogToFile("%s", message.c_str());
        if (Helper::ifShowErrorsByAlert()) showPlainAlert(message);
        ScriptManager::notifyError(message);
    }
    lua_pop(L, 1);
}

}  // namespace tw
