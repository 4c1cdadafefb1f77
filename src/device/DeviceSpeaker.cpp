#include "device/DeviceSpeaker.h"

#include <sndfile.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "device/EventTrace.h"
#include "device/HidHubClient.h"

namespace tw::device {

namespace {

using nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

// A player that keeps the time instead of sounding. Its state is worked out from the clock when
// asked, so no thread runs behind it.
class DeviceAudioPlayer : public AudioPlayer {
public:
    DeviceAudioPlayer(std::string file, double durationSeconds, TracePublish publish, DeviceSpeaker::Clock clock)
        : file_(std::move(file)), duration_(durationSeconds), publish_(std::move(publish)), clock_(std::move(clock)) {}

    ~DeviceAudioPlayer() override {
        if (sounding() || state_ == State::paused) trace("stop");
    }

    void setNumberOfLoops(int32_t loops) override { loops_ = loops; }

    bool play() override {
        if (sounding()) return true;
        const bool resuming = state_ == State::paused;
        if (!resuming) played_ = {};
        startedAt_ = clock_();
        state_ = State::playing;
        if (resuming)
            trace("resume");
        else
            publish_(playerTraceLine("play", file_, loops_));
        return true;
    }

    void pause() override {
        if (!sounding()) return;
        played_ += clock_() - startedAt_;
        state_ = State::paused;
        trace("pause");
    }

    void stop() override {
        if (sounding() || state_ == State::paused) trace("stop");
        state_ = State::stopped;
        played_ = {};
    }

    bool isPlaying() const override { return sounding(); }

private:
    enum class State { stopped, playing, paused };

    // Playing and not yet at the end of the last loop.
    bool sounding() const {
        if (state_ != State::playing) return false;
        if (loops_ < 0) return true;
        const double played = std::chrono::duration<double>(played_ + (clock_() - startedAt_)).count();
        return played < duration_ * (static_cast<double>(loops_) + 1.0);
    }

    void trace(const char* action) { publish_(playerTraceLine(action, file_, std::nullopt)); }

    std::string file_;
    double duration_;
    TracePublish publish_;
    DeviceSpeaker::Clock clock_;
    int32_t loops_ = 0;
    State state_ = State::stopped;
    Clock::time_point startedAt_{};
    Clock::duration played_{};  // before the last start
};

}  // namespace

std::string systemSoundTraceLine(uint32_t soundId) {
    ordered_json line = newTraceLine("sound");
    line["systemSound"] = soundId;
    return dumpTraceLine(line);
}

std::string playerTraceLine(const std::string& action, const std::string& file, std::optional<int32_t> loops) {
    ordered_json line = newTraceLine("sound");
    line["player"] = action;
    line["file"] = file;
    if (loops) line["loops"] = *loops;
    return dumpTraceLine(line);
}

std::optional<SoundFileInfo> probeSoundFile(const std::string& path) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (!file) return std::nullopt;
    sf_close(file);
    if (info.samplerate <= 0 || info.channels <= 0 || info.frames < 0) return std::nullopt;
    return SoundFileInfo{info.frames, info.samplerate, info.channels};
}

DeviceSpeaker::DeviceSpeaker(TracePublish publish, std::shared_ptr<SoundService> next, Clock clock)
    : publish_(std::move(publish)), next_(std::move(next)), clock_(std::move(clock)) {
    if (!publish_) publish_ = [](const std::string&) {};
}

void DeviceSpeaker::playSystemSound(uint32_t soundId) {
    publish_(systemSoundTraceLine(soundId));
    if (next_) next_->playSystemSound(soundId);
}

std::unique_ptr<AudioPlayer> DeviceSpeaker::createPlayer(const std::string& path) {
    if (path.empty()) return nullptr;
    std::error_code ec;
    const std::filesystem::path absolute = std::filesystem::absolute(path, ec);
    if (ec) return nullptr;
    const auto info = probeSoundFile(absolute.string());
    if (!info) return nullptr;
    return std::make_unique<DeviceAudioPlayer>(absolute.lexically_normal().string(), info->durationSeconds(), publish_,
                                               clock_);
}

}  // namespace tw::device
