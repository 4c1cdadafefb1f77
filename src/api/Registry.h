#pragma once
// The script functions: plain Lua globals registered into every new state, in a fixed order,
// right after the standard libraries and before Extensions.lua runs.
//
// This is the one boundary between the engine's C++ and Lua: every function is registered behind
// callSafely(), so no C++ exception ever reaches the interpreter. A failure of the platform below
// a function (an exception from a library or a seam) ends the call with the function's documented
// failure result (nil for each result it has, or no effect); the script goes on. Lua's own errors
// (argument checks, luaL_error with the fixed messages) are not C++ exceptions and pass untouched.
#include <exception>
#include <vector>

#include "platform/Lua.h"
#include "play/LuaBridge.h"

namespace tw {

struct ScriptFunction {
    const char* name;
    lua_CFunction function;  // already behind callSafely()
};

// Runs `F`; when a C++ exception leaves it, drops what it pushed and returns `failureResults` nils.
// A stop requested before the call, or while it ran (a dialog's "Cancel", a stop during a long
// usleep), ends the script here, as a hook on calls and returns would, without waiting for the
// interrupt that hooks a busy script.
template <lua_CFunction F, int failureResults>
int callSafely(lua_State* L) {
    auto stopRequested = [] { return luaStopFlag.load(std::memory_order_relaxed) == 1; };
    if (stopRequested()) return luaL_error(L, "interrupted");
    const int top = lua_gettop(L);
    try {
        const int results = F(L);
        if (stopRequested()) return luaL_error(L, "interrupted");
        return results;
    } catch (const std::exception&) {
        lua_settop(L, top);
        for (int i = 0; i < failureResults; ++i) lua_pushnil(L);
        return failureResults;
    }
}

// The functions in registration order.
const std::vector<ScriptFunction>& scriptFunctions();

// Sets every script function as a global of `L`.
void registerFunctions(lua_State* L);

}  // namespace tw
