#include "play/LuaBridge.h"

#include <cstring>
#include <mutex>
#include <string_view>

#include "core/Alert.h"
#include "core/AtomicFile.h"
#include "core/Global.h"
#include "core/Helper.h"
#include "core/LogToFile.h"
#include "core/Paths.h"
#include "injection/EventSimulate.h"
#include "platform/Platform.h"
#include "play/ScriptManager.h"

namespace tw {

namespace {

std::mutex registrarMutex;
std::function<void(lua_State*)> functionRegistrar;

// After the last run's touches, give the injector time to deliver them.
constexpr uint64_t kLastSyncWaitMicroseconds = 16000;
constexpr const char* kModulePathChunk = "package.path = package.path .. \";\" .. rootDir() .. \"?.lua\"";
}  // namespace

LuaBridge::~LuaBridge() {
    if (L) lua_close(L);
}

void LuaBridge::stopLuaRunning() { requestScriptStop(); }

void LuaBridge::setFunctionRegistrar(std::function<void(lua_State*)> registrar) {
    std::lock_guard lock(registrarMutex);
    functionRegistrar = std::move(registrar);
}

namespace {

// Loads a script file as luaL_loadfilex does (a UTF-8 byte-order mark and a first line starting
// with "#" are skipped, line numbers kept), but names the chunk by the path as the device sees it,
// so that messages read "/var/mobile/Library/Tapwright/Scripts/a.lua:3: ..." on every host and
// the script's own name is never pushed out of Lua's 60-character chunk name by host folders.
int loadScriptFile(lua_State* L, const std::string& hostPath) {
    const std::string name = Paths::devicePath(hostPath);
    int error = 0;
    const auto file = readWholeFile(hostPath, &error);
    if (!file) {
        lua_pushfstring(L, "cannot open %s: %s", name.c_str(), std::strerror(error));
        return LUA_ERRFILE;
    }
    std::string_view text(*file);
    if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
    std::string chunk;
    if (!text.empty() && text.front() == '#') {
        const size_t end = text.find('\n');
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        // The skipped line still counts, except before a precompiled chunk.
        if (text.empty() || text.front() != LUA_SIGNATURE[0]) chunk = "\n";
    }
    chunk.append(text);
    return luaL_loadbufferx(L, chunk.data(), chunk.size(), ("@" + name).c_str(), nullptr);
}

}  // namespace

void LuaBridge::prepareState() {
    L = luaL_newstate();
    luaL_openlibs(L);
    installStopSupport(L);
    std::function<void(lua_State*)> registrar;
    {
        std::lock_guard lock(registrarMutex);
        registrar = functionRegistrar;
    }
    if (registrar) registrar(L);

    const std::string extensions = Paths::extensionsFile();
    if (loadScriptFile(L, extensions) != LUA_OK || lua_pcall(L, 0, LUA_MULTRET, 0) != LUA_OK)
        processError();
    if (luaL_loadstring(L, kModulePathChunk) != LUA_OK || lua_pcall(L, 0, LUA_MULTRET, 0) != LUA_OK)
        processError();
    lua_settop(L, 0);
}

void LuaBridge::runLua(const std::string& scriptOrPath, int type) {
    luaStopFlag.store(0, std::memory_order_relaxed);
    if (!L) prepareState();

    setScaleScreen(scriptOrPath, type);

    int status = LUA_ERRRUN;
    bool ran = true;
    if (type == kRunText)
        status = luaL_loadstring(L, scriptOrPath.c_str());
    else if (type == kRunFile)
        status = loadScriptFile(L, scriptOrPath);
    else
        ran = false;
    if (ran) {
        if (status == LUA_OK) {
            ScriptStopScope stoppable(L);
            status = lua_pcall(L, 0, LUA_MULTRET, 0);
        }
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
