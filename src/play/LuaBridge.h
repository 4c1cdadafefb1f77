#pragma once
// Owner of one Lua 5.2 state per play: prepares it (script functions, Extensions.lua, the module
// path), runs a script in it, lets it be stopped and reports its errors.
#include <atomic>
#include <functional>
#include <string>

#include "platform/Lua.h"
#include "play/StopSupport.h"

namespace tw {

enum LuaRunType { kRunFile = 1, kRunText = 2 };

class LuaBridge {
public:
    LuaBridge() = default;
    ~LuaBridge();
    LuaBridge(const LuaBridge&) = delete;
    LuaBridge& operator=(const LuaBridge&) = delete;

    // One synchronous run on the calling thread: type 1 runs the file at `scriptOrPath`, type 2
    // runs `scriptOrPath` as Lua text; other types run nothing.
    void runLua(const std::string& scriptOrPath, int type);
    // Asks the running script to stop at its next call, return or instruction. Any thread.
    void stopLuaRunning();
    // Reports the error message on top of the stack (unless it is a stop) and pops it.
    void processError();

    lua_State* state() const { return L; }

    // What every new state gets right after the standard libraries and before Extensions.lua:
    // the script functions. Set once by whoever wires the process (the home-screen role, a
    // test); a state made before it is set has none.
    static void setFunctionRegistrar(std::function<void(lua_State*)> registrar);

private:
    void prepareState();

    lua_State* L = nullptr;
};

}  // namespace tw
