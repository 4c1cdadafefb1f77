#pragma once
// The virtual device's speaker. It makes no sound: system sounds and what its players do become
// "sound" lines of the device's event trace, published through the hub of the input-event role
// (dropped when no device runs on the root):
//   {"kind":"sound","systemSound":4095}
//   {"kind":"sound","player":"play","file":"/abs/path.wav","loops":0}
//   {"kind":"sound","player":"pause","file":"/abs/path.wav"}
//   {"kind":"sound","player":"resume","file":"/abs/path.wav"}
//   {"kind":"sound","player":"stop","file":"/abs/path.wav"}
// "play" starts a file from its beginning, "resume" goes on after a pause, "stop" ends a sound
// that was playing or paused (also when its player is released). A file is playable when
// libsndfile opens it and reads its header; a player plays for the file's duration times
// (loops + 1), or until it is stopped when loops is negative.
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/AudioPlayer.h"
#include "platform/UserInterface.h"

namespace tw::device {

class HidHubClient;

using TracePublish = std::function<void(const std::string& line)>;


std::string systemSoundTraceLine(uint32_t soundId);
// `loops` is written for "play" only.
std::string playerTraceLine(const std::string& action, const std::string& file, std::optional<int32_t> loops);

struct SoundFileInfo {
    int64_t frames = 0;
    int sampleRate = 0;
    int channels = 0;
    double durationSeconds() const { return sampleRate > 0 ? static_cast<double>(frames) / sampleRate : 0.0; }
};

// The header facts of a sound file; null when libsndfile cannot open it as sound.
std::optional<SoundFileInfo> probeSoundFile(const std::string& path);

class DeviceSpeaker : public SoundService, public AudioService {
public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;

    // `next` also hears the system sounds (a console that prints them, say). `clock` times the
    // players.
    explicit DeviceSpeaker(TracePublish publish, std::shared_ptr<SoundService> next = nullptr,
                           Clock clock = [] { return std::chrono::steady_clock::now(); });

    void playSystemSound(uint32_t soundId) override;
    // The player of the file at `path`, made absolute against the working folder; null when the file
    // is not playable.
    std::unique_ptr<AudioPlayer> createPlayer(const std::string& path) override;

private:
    TracePublish publish_;
    std::shared_ptr<SoundService> next_;
    Clock clock_;
};

}  // namespace tw::device
