#pragma once
// Script functions for the script folder, the error log, message boxes, vibration and sound,
// applications, device facts, the pasteboard and location faking. Each checks its arguments and
// calls one platform service (Platform.h) or TWLocationClient; a missing service or a failure below
// gives no effect, or nil where there is a result.
#include <string>

#include "platform/Lua.h"

namespace tw {

// The product's application, whose short version getVersion() reports.
inline constexpr const char* kProductAppBundleId = "me.tapwright.Tapwright.ios8";

int rootDirProxy(lua_State* L);
int logProxy(lua_State* L);
int alertProxy(lua_State* L);
int vibrateProxy(lua_State* L);
int playAudioProxy(lua_State* L);
int pauseAudioProxy(lua_State* L);
int resumeAudioProxy(lua_State* L);
int stopAudioProxy(lua_State* L);
int appRunProxy(lua_State* L);
int appKillProxy(lua_State* L);
int appStateProxy(lua_State* L);
int getSNProxy(lua_State* L);
int getVersionProxy(lua_State* L);
int copyTextProxy(lua_State* L);
int clipTextProxy(lua_State* L);
int fakeLocationProxy(lua_State* L);
int clearFakeLocationProxy(lua_State* L);

// Beyond the system's own functions, for scripts written against newer releases of the API (the
// rest of those live in Extensions.lua):
// toast(text [, seconds = 2 [, position = "bottom"]]): a message that waits for nobody.
int toastProxy(lua_State* L);
// appActivate(bundleId): the app to the front, launched when it does not run.
int appActivateProxy(lua_State* L);
// frontMostAppId(): the app in front, "" on the home screen.
int frontMostAppIdProxy(lua_State* L);
// openURL(url): asks the system to open the URL.
int openURLProxy(lua_State* L);

// Empties the process-wide audio player slot, releasing (and so silencing) its player. For the end
// of a process and for tests; scripts use stopAudio().
void releaseAudioPlayer();

}  // namespace tw
