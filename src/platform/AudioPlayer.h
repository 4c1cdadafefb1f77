#pragma once
// Playing a sound file. A player plays one file; releasing a player stops its sound.
#include <cstdint>
#include <memory>
#include <string>

namespace tw {

class AudioPlayer {
public:
    // Stops the sound if it still plays.
    virtual ~AudioPlayer() = default;
    // 0 plays the file once, n plays it n + 1 times, a negative number repeats it until stopped.
    virtual void setNumberOfLoops(int32_t loops) = 0;
    // Starts the sound, from the beginning, or from where it was paused. False when it cannot.
    virtual bool play() = 0;
    // Pauses the sound; play() goes on from there.
    virtual void pause() = 0;
    // Stops the sound; play() starts it from the beginning again.
    virtual void stop() = 0;
    // True while the sound plays: between play() and pause(), stop() or the end of its last loop.
    virtual bool isPlaying() const = 0;
};

class AudioService {
public:
    virtual ~AudioService() = default;
    // A player for the sound file at `path` (as given: a relative path is relative to the
    // process's working folder). Null when the file cannot be played.
    virtual std::unique_ptr<AudioPlayer> createPlayer(const std::string& path) = 0;
};

}  // namespace tw
