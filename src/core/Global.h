#pragma once
// The process-wide shared state of the home-screen process: the play and record flags and the
// long-lived objects. Flags are read without locks by the play's worker; the objects behind
// shared pointers are swapped under a small lock so a reader always holds a whole one.
#include <any>
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

namespace tw {

class HidEventClient;
class LuaBridge;
struct PlaySettings;

class Global {
public:
    static Global& sharedInstance();

    // Back to the state of a fresh process: no settings, flags false, no bridge, empty events.
    void init();

    std::shared_ptr<PlaySettings> currentPlaySettings() const;
    void setCurrentPlaySettings(std::shared_ptr<PlaySettings> settings);

    std::shared_ptr<LuaBridge> luaBridge() const;
    void setLuaBridge(std::shared_ptr<LuaBridge> bridge);

    bool isPlaying() const { return isPlaying_.load(std::memory_order_relaxed); }
    void setIsPlaying(bool v) { isPlaying_.store(v, std::memory_order_relaxed); }
    bool isRecording() const { return isRecording_.load(std::memory_order_relaxed); }
    void setIsRecording(bool v) { isRecording_.store(v, std::memory_order_relaxed); }
    bool isReadyToPlay() const { return isReadyToPlay_.load(std::memory_order_relaxed); }
    void setIsReadyToPlay(bool v) { isReadyToPlay_.store(v, std::memory_order_relaxed); }

    // The recorder's event-system client while a recording listens (main thread only).
    std::shared_ptr<HidEventClient>& ioHIDEventSystem() { return ioHIDEventSystem_; }

    // The event list shared with the play controller (main thread only).
    std::vector<std::any>& eventArray() { return eventArray_; }

private:
    Global() { init(); }

    mutable std::mutex mutex_;
    std::shared_ptr<PlaySettings> currentPlaySettings_;
    std::shared_ptr<LuaBridge> luaBridge_;
    std::atomic<bool> isPlaying_{false};
    std::atomic<bool> isRecording_{false};
    std::atomic<bool> isReadyToPlay_{false};
    std::vector<std::any> eventArray_;
    std::shared_ptr<HidEventClient> ioHIDEventSystem_;
};

}  // namespace tw
