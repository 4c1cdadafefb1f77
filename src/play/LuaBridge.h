#pragma once
// Owner of one Lua 5.2 state per play: prepares it (script functions, Extensions.lua, the module
// path), runs a script in it, stops it through a debug hook and reports its errors.
#include <atomic>
#include <functional>
#include <string>

#include "platform/Lua.h"

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

// The process-wide stop flag: 1 asks the running script to stop; every run clears it.
extern std::atomic<int> luaStopFlag;

// A running script looks at the stop flag every this many VM instructions: a few microseconds of
// work, so a stop still ends a busy script at once, while the check costs next to nothing (a hook
// on every instruction, call and return would halve the speed of every script).
inline constexpr int kStopCheckInstructions = 1000;

// The debug hook installed for every run: raises "interrupted" once the stop flag is set.
void lstop(lua_State* L, lua_Debug* ar);

}  // namespace tw
