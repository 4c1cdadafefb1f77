#pragma once
// Script functions for the script folder, the error log, message boxes and vibration.
#include <string>

#include "platform/Lua.h"

namespace tw {

int rootDirProxy(lua_State* L);
int logProxy(lua_State* L);
int alertProxy(lua_State* L);
int vibrateProxy(lua_State* L);

// Shows `message` in an alert with no title and the one button "OK", on the main run loop,
// without waiting. The alert keeps its own copy of the text.
void showScriptAlert(const std::string& message);

}  // namespace tw
