#pragma once
// The Lua 5.2 headers. The engine links the C++ build of Lua, whose errors unwind as C++
// exceptions, so no extern "C" block: script functions may hold objects with destructors.
#include <lauxlib.h>
#include <lua.h>
#include <lualib.h>
