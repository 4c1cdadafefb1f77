#include "api/TouchFunctions.h"

#include <cmath>
#include <limits>

#include "core/Global.h"
#include "store/PlaySettings.h"
#include "injection/EventSimulate.h"
#include "injection/records/KeyRecord.h"
#include "platform/DeviceInfo.h"
#include "platform/Platform.h"
#include "play/ScriptManager.h"

namespace tw {

namespace {

int touchWith(lua_State* L, int (*send)(int, double, double)) {
    const int finger = static_cast<int>(luaL_checkinteger(L, 1));
    const double x = luaL_checknumber(L, 2);
    const double y = luaL_checknumber(L, 3);
    send(finger, x, y);
    return 0;
}

}  // namespace

int touchDownProxy(lua_State* L) { return touchWith(L, EventSimulate::touchDown); }
int touchMoveProxy(lua_State* L) { return touchWith(L, EventSimulate::touchMove); }
int touchUpProxy(lua_State* L) { return touchWith(L, EventSimulate::touchUp); }

int keyDownProxy(lua_State* L) {
    const int key = static_cast<int>(luaL_checkinteger(L, 1));
    EventSimulate::keyDown(key, kConsumerUsagePage);
    return 0;
}

int keyUpProxy(lua_State* L) {
    const int key = static_cast<int>(luaL_checkinteger(L, 1));
    EventSimulate::keyUp(key, kConsumerUsagePage);
    return 0;
}

int inputTextProxy(lua_State* L) {
    size_t length = 0;
    const char* text = luaL_checklstring(L, 1, &length);
    EventSimulate::input(text);
    return 0;
}

uint32_t scaledWaitMicroseconds(uint32_t microseconds, float playSpeed) {
    const float factor = 2.0f - playSpeed;
    const float product = static_cast<float>(microseconds) * factor;
    // The conversion saturates as the phone's processor does: no undefined float-to-int casts.
    if (!(product > 0.0f)) return 0;
    if (product >= 4294967296.0f) return std::numeric_limits<uint32_t>::max();
    return static_cast<uint32_t>(product);
}

int usleepProxy(lua_State* L) {
    const lua_Unsigned microseconds = luaL_checkunsigned(L, 1);
    EventSimulate::syncEvent();
    auto settings = Global::sharedInstance().currentPlaySettings();
    const float speed = settings ? settings->playSpeed : 0.0f;
    sleepMicroseconds(scaledWaitMicroseconds(static_cast<uint32_t>(microseconds), speed));
    return 0;
}

int adaptResolutionProxy(lua_State*) { return 0; }

int adaptOrientationProxy(lua_State* L) {
    const lua_Integer orientation = luaL_checkinteger(L, 1);
    if (orientation < 1 || orientation > 6) return luaL_error(L, "Invalid argument for orientation.");
    EventSimulate::setAdaptOrientation(static_cast<int>(orientation));
    return 0;
}

int getOrientationProxy(lua_State* L) {
    auto device = Platform::current().device;
    lua_pushinteger(L, device ? device->orientation() : 0);
    return 1;
}

}  // namespace tw
