#include "api/SystemFunctions.h"

#include <algorithm>
#include <memory>
#include <mutex>

#include "core/Alert.h"
#include "core/LogToFile.h"
#include "core/Paths.h"
#include "core/TWLocationClient.h"
#include "platform/AppService.h"
#include "platform/AudioPlayer.h"
#include "platform/BundleInfo.h"
#include "platform/DeviceInfo.h"
#include "platform/Pasteboard.h"
#include "platform/Platform.h"
#include "platform/RunLoop.h"
#include "platform/UserInterface.h"

namespace tw {

namespace {

// The one player of the process. Only the running script uses it; the lock merely keeps two plays
// that overlap (a play started from the browser while another ends) from tearing it. Never
// destroyed, so no player outlives the services it reports to at exit.
struct AudioSlot {
    std::mutex mutex;
    std::unique_ptr<AudioPlayer> player;
};

AudioSlot& audioSlot() {
    static auto* slot = new AudioSlot;
    return *slot;
}

// The registry entry of an application: systems before 9.0 know applications by display
// identifier, later ones by bundle identifier.
std::optional<ApplicationRecord> lookUpApplication(AppService& apps, const std::string& identifier) {
    auto device = Platform::current().device;
    if (device && compareVersions(device->systemVersion(), "9.0") < 0)
        return apps.applicationWithDisplayIdentifier(identifier);
    return apps.applicationWithBundleIdentifier(identifier);
}

void pushOptionalString(lua_State* L, const std::optional<std::string>& text) {
    if (text)
        lua_pushstring(L, text->c_str());
    else
        lua_pushnil(L);
}

}  // namespace

void releaseAudioPlayer() {
    std::unique_ptr<AudioPlayer> released;
    std::lock_guard lock(audioSlot().mutex);
    released = std::move(audioSlot().player);
}

int rootDirProxy(lua_State* L) {
    const std::string dir = Paths::scriptsDir() + "/";
    lua_pushstring(L, dir.c_str());
    return 1;
}

int logProxy(lua_State* L) {
    const char* text = luaL_checklstring(L, 1, nullptr);
    // The script's text is written as it is: a '%' in it is not a format.
    LogMessageToFile(text);
    return 0;
}

int alertProxy(lua_State* L) {
    const char* text = luaL_checklstring(L, 1, nullptr);
    showPlainAlert(text);
    return 0;
}

int vibrateProxy(lua_State*) {
    if (auto sounds = Platform::current().sounds) sounds->playSystemSound(kSystemSoundVibrate);
    return 0;
}

int playAudioProxy(lua_State* L) {
    const char* path = luaL_checklstring(L, 1, nullptr);
    // The platform's loop count is a 32-bit signed integer.
    const auto loops = static_cast<int32_t>(luaL_optinteger(L, 2, 0));
    std::unique_ptr<AudioPlayer> player;
    if (auto audio = Platform::current().audio) player = audio->createPlayer(path);
    std::lock_guard lock(audioSlot().mutex);
    // The earlier player is released here, which stops its sound; a file that cannot be played
    // leaves the slot empty.
    audioSlot().player = std::move(player);
    if (auto& current = audioSlot().player) {
        current->setNumberOfLoops(loops);
        current->play();
    }
    return 0;
}

int pauseAudioProxy(lua_State*) {
    std::lock_guard lock(audioSlot().mutex);
    if (auto& player = audioSlot().player; player && player->isPlaying()) player->pause();
    return 0;
}

int resumeAudioProxy(lua_State*) {
    std::lock_guard lock(audioSlot().mutex);
    if (auto& player = audioSlot().player; player && !player->isPlaying()) player->play();
    return 0;
}

int stopAudioProxy(lua_State*) {
    std::unique_ptr<AudioPlayer> released;
    std::lock_guard lock(audioSlot().mutex);
    if (auto& player = audioSlot().player; player && player->isPlaying()) player->stop();
    released = std::move(audioSlot().player);
    return 0;
}

int appRunProxy(lua_State* L) {
    const char* identifier = luaL_checklstring(L, 1, nullptr);
    // Launched in front (not suspended); whether it started is not looked at.
    if (auto apps = Platform::current().apps) apps->launchApplication(identifier, false);
    return 0;
}

int appKillProxy(lua_State* L) {
    const char* identifier = luaL_checklstring(L, 1, nullptr);
    auto apps = Platform::current().apps;
    if (!apps) return 0;
    const auto app = lookUpApplication(*apps, identifier);
    // An unknown application, or one without a process, is left alone.
    if (app && app->pid >= 1) apps->sendSignal(app->pid, kTerminationSignal);
    return 0;
}

int appStateProxy(lua_State* L) {
    const char* identifier = luaL_checklstring(L, 1, nullptr);
    std::optional<std::string> state;
    if (auto apps = Platform::current().apps)
        if (const auto app = lookUpApplication(*apps, identifier)) state = app->activationState;
    pushOptionalString(L, state);
    return 1;
}

int getSNProxy(lua_State* L) {
    std::optional<std::string> serial;
    if (auto device = Platform::current().device) {
        // The device tree keeps it as zero-padded bytes: the text ends at the first zero.
        std::string value = device->serialNumber();
        value.resize(std::min(value.size(), value.find('\0')));
        if (!value.empty()) serial = std::move(value);
    }
    pushOptionalString(L, serial);
    return 1;
}

int getVersionProxy(lua_State* L) {
    std::optional<std::string> version;
    if (auto bundles = Platform::current().bundles)
        version = bundles->infoDictionaryString(kProductAppBundleId, "CFBundleShortVersionString");
    pushOptionalString(L, version);
    return 1;
}

int copyTextProxy(lua_State* L) {
    const char* text = luaL_checklstring(L, 1, nullptr);
    if (auto pasteboard = Platform::current().pasteboard) pasteboard->setString(text);
    return 0;
}

int clipTextProxy(lua_State* L) {
    std::optional<std::string> text;
    if (auto pasteboard = Platform::current().pasteboard) text = pasteboard->string();
    pushOptionalString(L, text);
    return 1;
}

int fakeLocationProxy(lua_State* L) {
    const char* identifier = luaL_checklstring(L, 1, nullptr);
    const double latitude = luaL_optnumber(L, 2, 0);
    const double longitude = luaL_optnumber(L, 3, 0);
    TWLocationClient::fakeLocationForApp(identifier, latitude, longitude);
    return 0;
}

int clearFakeLocationProxy(lua_State* L) {
    const char* identifier = luaL_checklstring(L, 1, nullptr);
    TWLocationClient::clearFakeLocationForApp(identifier);
    return 0;
}

int toastProxy(lua_State* L) {
    ToastRequest toast;
    size_t length = 0;
    const char* text = luaL_checklstring(L, 1, &length);
    toast.text.assign(text, length);
    toast.seconds = luaL_optnumber(L, 2, 2);
    if (!(toast.seconds > 0)) toast.seconds = 2;
    const char* position = luaL_optstring(L, 3, "bottom");
    toast.position = std::string(position) == "top" || std::string(position) == "center" ? position : "bottom";
    auto ui = Platform::current().ui;
    if (ui) RunLoop::main().post([ui, toast] { ui->showToast(toast); });
    return 0;
}

int appActivateProxy(lua_State* L) {
    const char* identifier = luaL_checklstring(L, 1, nullptr);
    if (auto apps = Platform::current().apps) apps->activateApplication(identifier);
    return 0;
}

int frontMostAppIdProxy(lua_State* L) {
    std::string front;
    if (auto apps = Platform::current().apps) front = apps->frontmostApplication().value_or("");
    lua_pushstring(L, front.c_str());
    return 1;
}

int openURLProxy(lua_State* L) {
    const char* url = luaL_checklstring(L, 1, nullptr);
    if (auto apps = Platform::current().apps) apps->openURL(url);
    return 0;
}

}  // namespace tw
