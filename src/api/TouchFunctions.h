#pragma once
// Script functions that act as fingers and keys would, the wait that paces them, and the two
// functions that set how coordinates are read.
#include <cstdint>

#include "platform/Lua.h"

namespace tw {

int touchDownProxy(lua_State* L);
int touchMoveProxy(lua_State* L);
int touchUpProxy(lua_State* L);
int keyDownProxy(lua_State* L);
int keyUpProxy(lua_State* L);
int inputTextProxy(lua_State* L);
int usleepProxy(lua_State* L);
int adaptResolutionProxy(lua_State* L);
int adaptOrientationProxy(lua_State* L);
int getOrientationProxy(lua_State* L);

// The wait of usleep(microseconds) at `playSpeed`, in single precision:
// float(microseconds) * (2.0f - speed), truncated to an unsigned 32-bit count; a negative
// product waits nothing and one past the 32-bit range waits the longest count.
uint32_t scaledWaitMicroseconds(uint32_t microseconds, float playSpeed);

}  // namespace tw
