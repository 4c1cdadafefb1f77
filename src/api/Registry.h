#pragma once
// The script functions: plain Lua globals registered into every new state, in a fixed order,
// right after the standard libraries and before Extensions.lua runs.
#include <string>
#include <vector>

#include "platform/Lua.h"

namespace tw {

struct ScriptFunction {
    const char* name;
    lua_CFunction function;
};

// The functions in registration order.
const std::vector<ScriptFunction>& scriptFunctions();

// Sets every script function as a global of `L`.
void registerFunctions(lua_State* L);

}  // namespace tw
