#include "api/ScreenFunctions.h"

#include <cstdio>
#include <string>
#include <vector>

#include "core/Paths.h"
#include "graphic/Bmp.h"
#include "graphic/Graphic.h"
#include "graphic/Region.h"
#include "graphic/Surface.h"
#include "platform/DeviceInfo.h"
#include "platform/Platform.h"

namespace tw {

namespace {

// Scripts name files relative to the library root: root, "/", then the argument as it is.
std::string libraryFilePath(const char* relative) { return Paths::scriptsDir() + "/" + relative; }

// The optional region argument at `index`: nil or absent gives none; anything else must be a
// table of exactly four entries.
bool readRegionArgument(lua_State* L, int index, region_t* out) {
    if (lua_isnoneornil(L, index)) return false;
    luaL_checktype(L, index, LUA_TTABLE);
    if (lua_rawlen(L, index) != 4) luaL_error(L, "Invalid argument for region.");
    lua_pushvalue(L, index);
    lua_to_region_t(L, out);
    lua_pop(L, 1);
    return true;
}

void pushLocations(lua_State* L, const std::vector<location_t>& results) {
    lua_createtable(L, static_cast<int>(results.size()), 0);
    for (size_t k = 0; k < results.size(); ++k) {
        graphic_trace("-----x:%f, y:%f", results[k].x, results[k].y);
        lua_createtable(L, 2, 0);
        lua_pushnumber(L, results[k].x);
        lua_rawseti(L, -2, 1);
        lua_pushnumber(L, results[k].y);
        lua_rawseti(L, -2, 2);
        lua_rawseti(L, -2, static_cast<int>(k + 1));
    }
}

}  // namespace

int lua_to_region_t(lua_State* L, region_t* out) {
    if (!lua_istable(L, -1) || !out) return 0;
    coord_t values[4];
    for (int i = 0; i < 4; ++i) {
        lua_rawgeti(L, -1, i + 1);
        values[i] = lua_tonumberx(L, -1, nullptr);
        lua_pop(L, 1);
    }
    *out = region_t{values[0], values[1], values[2], values[3]};
    return 1;
}

int screenshotProxy(lua_State* L) {
    // Every argument is read by its place from the top: pad omitted ones with nil.
    lua_settop(L, 2);
    const char* path = luaL_checklstring(L, 1, nullptr);
    const std::string full = libraryFilePath(path);
    region_t region{};
    const bool hasRegion = readRegionArgument(L, 2, &region);
    graphic_trace("screenshot path: %s region: x:%f, y:%f, width:%f, height:%f", full.c_str(), region.x, region.y,
                  region.width, region.height);
    screenshot(full.c_str(), hasRegion ? &region : nullptr);
    return 0;
}

int getScreenSizeProxy(lua_State* L) {
    auto device = Platform::current().device;
    lua_pushinteger(L, device ? static_cast<lua_Integer>(device->screenWidthPoints()) : 0);
    lua_pushinteger(L, device ? static_cast<lua_Integer>(device->screenHeightPoints()) : 0);
    return 2;
}

int getScreenScaleProxy(lua_State* L) {
    auto device = Platform::current().device;
    lua_pushnumber(L, device ? device->screenScale() : 1.0);
    return 1;
}

int getScreenBitDepthProxy(lua_State* L) {
    lua_pushinteger(L, 32);
    return 1;
}

int getColorsProxy(lua_State* L) {
    luaL_checktype(L, 1, LUA_TTABLE);
    const int n = static_cast<int>(lua_rawlen(L, 1));
    if (n < 1) return 0;
    std::vector<location_t> locations(static_cast<size_t>(n));
    for (int i = 1; i <= n; ++i) {
        lua_rawgeti(L, 1, i);
        if (!lua_istable(L, -1)) return 0;
        lua_rawgeti(L, -1, 1);
        lua_rawgeti(L, -2, 2);
        locations[static_cast<size_t>(i - 1)] = {lua_tonumberx(L, -2, nullptr), lua_tonumberx(L, -1, nullptr)};
        lua_pop(L, 3);
    }
    std::vector<int32_t> colors(static_cast<size_t>(n));
    if (get_colors(locations.data(), n, colors.data()) != 1) {
        std::printf("get_colors failed!\n");
        std::fflush(stdout);
        return 0;
    }
    lua_createtable(L, n, 0);
    for (int i = 0; i < n; ++i) {
        lua_pushinteger(L, colors[static_cast<size_t>(i)]);
        lua_rawseti(L, -2, i + 1);
    }
    return 1;
}

int findColorsProxy(lua_State* L) {
    graphic_trace(">>>>>>>>> findColorsProxy");
    lua_settop(L, 3);
    luaL_checktype(L, 1, LUA_TTABLE);
    const int n = static_cast<int>(lua_rawlen(L, 1));
    if (n < 1) return 0;
    std::vector<color_point_t> pattern(static_cast<size_t>(n));
    for (int i = 1; i <= n; ++i) {
        lua_rawgeti(L, 1, i);
        if (!lua_istable(L, -1)) return 0;
        lua_rawgeti(L, -1, 1);
        lua_rawgeti(L, -2, 2);
        lua_rawgeti(L, -3, 3);
        pattern[static_cast<size_t>(i - 1)] = {static_cast<int32_t>(lua_tointegerx(L, -3, nullptr)),
                                               lua_tonumberx(L, -2, nullptr), lua_tonumberx(L, -1, nullptr)};
        lua_pop(L, 4);
    }
    const auto count = static_cast<int32_t>(luaL_optinteger(L, 2, 0));
    region_t region{};
    const bool hasRegion = readRegionArgument(L, 3, &region);
    graphic_trace("count:%d, region:x:%f, y:%f, w:%f, h:%f", count, region.x, region.y, region.width, region.height);

    std::vector<location_t> results;
    if (find_colors(results, pattern.data(), n, count, hasRegion ? &region : nullptr) == 1) pushLocations(L, results);
    // Without results the topmost value goes back: the region argument.
    return 1;
}

int findImageProxy(lua_State* L) {
    lua_settop(L, 5);
    const char* path = luaL_checklstring(L, 1, nullptr);
    const std::string full = libraryFilePath(path);
    const auto count = static_cast<int32_t>(luaL_optinteger(L, 2, 0));
    const auto fuzzy = static_cast<float>(luaL_optnumber(L, 3, 1));

    // The ignore list takes its length from the fourth argument and its values from the fifth,
    // stored from the list's second slot on; the first slot is never written and holds a value
    // that is no 24-bit colour, and the last value read has no slot.
    const int n = lua_istable(L, 4) ? static_cast<int>(lua_rawlen(L, 4)) : 0;
    std::vector<int32_t> ignore(static_cast<size_t>(n), -1);
    if (n > 0) luaL_checktype(L, 5, LUA_TTABLE);
    for (int i = 1; i <= n; ++i) {
        lua_rawgeti(L, 5, i);
        const auto value = static_cast<int32_t>(luaL_checkinteger(L, -1));
        lua_pop(L, 1);
        if (i < n) ignore[static_cast<size_t>(i)] = value;
    }

    region_t region{};
    const bool hasRegion = readRegionArgument(L, 5, &region);
    graphic_trace("imagePath:%s, count:%d, fuzzy:%f, x:%f, y:%f, width:%f, height:%f, ignoreColors:%d", full.c_str(),
                  count, static_cast<double>(fuzzy), region.x, region.y, region.width, region.height,
                  n > 0 ? ignore[0] : 0);

    std::vector<location_t> results;
    if (find_image(results, full.c_str(), count, fuzzy, n > 0 ? ignore.data() : nullptr, n,
                   hasRegion ? &region : nullptr) == 1)
        pushLocations(L, results);
    return 1;
}

}  // namespace tw
