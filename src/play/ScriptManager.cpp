#include "play/ScriptManager.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "core/Global.h"
#include "store/PlaySettings.h"
#include "core/Helper.h"
#include "library/FileManager.h"
#include "platform/Clock.h"
#include "platform/DeviceInfo.h"
#include "platform/Platform.h"
#include "platform/UserInterface.h"
#include "platform/RunLoop.h"
#include "play/LuaBridge.h"
#include "ui/Localization.h"

namespace tw {

namespace {

constexpr uint64_t kHalfSecond = 500000;

std::mutex handlersMutex;
std::function<void(const std::string&)> errorHandler;
std::function<void()> playEndedHandler;

std::mutex workersMutex;
std::condition_variable workersDone;
int activeWorkers = 0;

void vibrateIfWanted() {
    if (!Helper::ifVibrateWhenPlayingStartStop()) return;
    if (auto sounds = Platform::current().sounds) sounds->playSystemSound(kSystemSoundVibrate);
}

void endOfPlay() {
    auto& global = Global::sharedInstance();
    vibrateIfWanted();
    auto settings = global.currentPlaySettings();
    if (settings && settings->playNowOrLater == 0 && Helper::ifShowPlayingFinishedAlert() &&
        settings->showPlayingFinishedAlert) {
        if (auto ui = Platform::current().ui)
            ui->showAlert({Localization::localize("Tapwright"), Localization::localize("Playing Finished!"),
                           {Localization::localize("OK")}});
    }
    ScriptManager::preventAutoLock(false);
    global.setIsPlaying(false);
    global.setLuaBridge(nullptr);
    if (!global.isReadyToPlay()) global.setCurrentPlaySettings(nullptr);

    std::function<void()> ended;
    {
        std::lock_guard lock(handlersMutex);
        ended = playEndedHandler;
    }
    if (ended) ended();
}

void playLoop() {
    auto& global = Global::sharedInstance();
    sleepMicroseconds(kHalfSecond);

    auto settings = global.currentPlaySettings();
    const int64_t repeatTime = settings ? settings->repeatTime : 1;
    if (repeatTime != 0) {
        for (uint64_t n = 1;; ++n) {
            // The bound is read again after every run.
            auto current = global.currentPlaySettings();
            if (!current || n > static_cast<uint64_t>(current->repeatTime)) break;
            if (!global.isPlaying()) break;
            if (n >= 2) sleepMicroseconds(static_cast<uint64_t>(std::max<int64_t>(0, current->repeatInterval)) * 1000000);
            ScriptManager::doRunNow();
        }
    } else if (global.isPlaying()) {
        for (uint64_t n = 1;; ++n) {
            auto current = global.currentPlaySettings();
            if (!current) break;
            if (n >= 2) sleepMicroseconds(static_cast<uint64_t>(std::max<int64_t>(0, current->repeatInterval)) * 1000000);
            ScriptManager::doRunNow();
            if (!global.isPlaying()) break;
        }
    }

    sleepMicroseconds(kHalfSecond);
    RunLoop::main().post(endOfPlay);
}

}  // namespace

void sleepMicroseconds(uint64_t microseconds) {
    if (auto sleeper = Platform::current().sleeper) {
        sleeper->sleepMicroseconds(microseconds);
        return;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
}

void ScriptManager::runScript() {
    auto& global = Global::sharedInstance();
    vibrateIfWanted();
    global.setIsPlaying(true);
    global.setLuaBridge(std::make_shared<LuaBridge>());
    preventAutoLock(true);

    {
        std::lock_guard lock(workersMutex);
        ++activeWorkers;
    }
    std::thread([] {
        playLoop();
        std::lock_guard lock(workersMutex);
        --activeWorkers;
        workersDone.notify_all();
    }).detach();
}

void ScriptManager::stopPlaying() {
    auto& global = Global::sharedInstance();
    global.setIsPlaying(false);
    if (auto bridge = global.luaBridge()) bridge->stopLuaRunning();
}

void ScriptManager::doRunNow() {
    auto& global = Global::sharedInstance();
    auto settings = global.currentPlaySettings();
    auto bridge = global.luaBridge();
    if (!settings || !bridge) return;
    if (settings->playType == 0)
        bridge->runLua(FileManager::fullPathOfFile(settings->filePath), kRunFile);
    else if (settings->playType == 1)
        bridge->runLua(settings->scriptContent, kRunText);
}

void ScriptManager::preventAutoLock(bool prevent) {
    // Only systems before 7.0 (Core Foundation below 847.2) lock the screen during a play; the
    // virtual device never locks, so there is nothing to reset here.
    auto device = Platform::current().device;
    if (!device || device->coreFoundationVersionNumber() >= 847.2) return;
    (void)prevent;
}

void ScriptManager::setErrorHandler(std::function<void(const std::string&)> handler) {
    std::lock_guard lock(handlersMutex);
    errorHandler = std::move(handler);
}

void ScriptManager::setPlayEndedHandler(std::function<void()> handler) {
    std::lock_guard lock(handlersMutex);
    playEndedHandler = std::move(handler);
}

void ScriptManager::notifyError(const std::string& message) {
    std::function<void(const std::string&)> handler;
    {
        std::lock_guard lock(handlersMutex);
        handler = errorHandler;
    }
    if (handler) handler(message);
}

void ScriptManager::waitForWorkers() {
    std::unique_lock lock(workersMutex);
    workersDone.wait(lock, [] { return activeWorkers == 0; });
}

}  // namespace tw
