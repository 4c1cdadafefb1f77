#pragma once
// Script functions that read the screen: its size and scale, colours at points, colour-pattern
// and picture searches, and screenshots. Coordinates are framebuffer pixels, except
// getScreenSize, which reports points.
#include "platform/Lua.h"

namespace tw {

struct region_t;

int screenshotProxy(lua_State* L);
int getScreenSizeProxy(lua_State* L);
int getScreenScaleProxy(lua_State* L);
int getScreenBitDepthProxy(lua_State* L);
int getColorsProxy(lua_State* L);
int findColorsProxy(lua_State* L);
int findImageProxy(lua_State* L);

// Reads the table on top of the stack as {x, y, width, height} (a non-number entry reads as 0).
// 0 when the top is not a table or `out` is missing; 1 otherwise.
int lua_to_region_t(lua_State* L, region_t* out);

}  // namespace tw
