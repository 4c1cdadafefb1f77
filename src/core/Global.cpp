#include "core/Global.h"


namespace tw {

Global& Global::sharedInstance() {
    static Global* instance = new Global();  // never destroyed: lives as long as the process
    return *instance;
}

void Global::init() {
    std::shared_ptr<LuaBridge> oldBridge;
    {
        std::lock_guard lock(mutex_);
        currentPlaySettings_.reset();
        oldBridge = std::move(luaBridge_);
    }
    isPlaying_ = false;
    isRecording_ = false;
    isReadyToPlay_ = false;
    eventArray_.clear();
    ioHIDEventSystem_.reset();
}

std::shared_ptr<PlaySettings> Global::currentPlaySettings() const {
    std::lock_guard lock(mutex_);
    return currentPlaySettings_;
}

void Global::setCurrentPlaySettings(std::shared_ptr<PlaySettings> settings) {
    std::lock_guard lock(mutex_);
    currentPlaySettings_ = std::move(settings);
}

std::shared_ptr<LuaBridge> Global::luaBridge() const {
    std::lock_guard lock(mutex_);
    return luaBridge_;
}

void Global::setLuaBridge(std::shared_ptr<LuaBridge> bridge) {
    std::shared_ptr<LuaBridge> old;
    {
        std::lock_guard lock(mutex_);
        old = std::move(luaBridge_);
        luaBridge_ = std::move(bridge);
    }
    // `old` is released here, outside the lock; its Lua state closes with the last holder.
}

}  // namespace tw
