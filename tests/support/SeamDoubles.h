#pragma once
// Test doubles of the platform seams: each records what the engine asks of it and answers from
// fields a test sets. Tests install them with Platform::install() or into Platform::current().
// A double whose `failing` is set throws from every call, as a failing platform library would.
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/AppService.h"
#include "platform/AudioPlayer.h"
#include "platform/BundleInfo.h"
#include "platform/Clock.h"
#include "platform/DeviceInfo.h"
#include "platform/HidEventSystem.h"
#include "platform/Pasteboard.h"
#include "platform/Platform.h"
#include "ui/HeadlessUserInterface.h"

namespace tw::test {

struct FailureSwitch {
    bool failing = false;
    void failIfAsked() const {
        if (failing) throw std::runtime_error("platform failure");
    }
};

// Players that write what is done to them into one shared journal, as "<action> <file>".
class FakeAudioService : public AudioService, public FailureSwitch {
public:
    class Player : public AudioPlayer {
    public:
        Player(FakeAudioService& owner, std::string file) : owner_(owner), file_(std::move(file)) {}
        ~Player() override { note("release"); }
        void setNumberOfLoops(int32_t loops) override { note("loops " + std::to_string(loops)); }
        bool play() override { return playing_ = true, note("play"); }
        void pause() override { playing_ = false, note("pause"); }
        void stop() override { playing_ = false, note("stop"); }
        bool isPlaying() const override { return playing_ && !owner_.soundsEnded; }

    private:
        bool note(const std::string& action) { return owner_.journal.push_back(action + " " + file_), true; }
        FakeAudioService& owner_;
        std::string file_;
        bool playing_ = false;
    };

    std::unique_ptr<AudioPlayer> createPlayer(const std::string& path) override {
        failIfAsked();
        journal.push_back("create " + path);
        if (path.find("broken") != std::string::npos) return nullptr;
        return std::make_unique<Player>(*this, path);
    }

    std::vector<std::string> take() {
        auto out = std::move(journal);
        journal.clear();
        return out;
    }

    std::vector<std::string> journal;
    bool soundsEnded = false;  // every sound has reached its end
};

class FakeAppService : public AppService, public FailureSwitch {
public:
    bool launchApplication(const std::string& id, bool suspended) override {
        failIfAsked();
        calls.push_back("launch " + id + (suspended ? " suspended" : ""));
        return apps.count(id) > 0;
    }
    std::optional<ApplicationRecord> applicationWithDisplayIdentifier(const std::string& id) override {
        failIfAsked();
        calls.push_back("display " + id);
        return find(id);
    }
    std::optional<ApplicationRecord> applicationWithBundleIdentifier(const std::string& id) override {
        failIfAsked();
        calls.push_back("bundle " + id);
        return find(id);
    }
    void sendSignal(int pid, int signal) override {
        calls.push_back("signal " + std::to_string(pid) + " " + std::to_string(signal));
    }
    std::vector<AppRecord> installedApps() override { return installed; }
    std::optional<std::string> frontmostApplication() override { return std::nullopt; }
    bool activateApplication(const std::string&) override { return false; }
    void openURL(const std::string&) override {}

    std::map<std::string, ApplicationRecord> apps;
    std::vector<AppRecord> installed;
    std::vector<std::string> calls;

private:
    std::optional<ApplicationRecord> find(const std::string& id) const {
        auto it = apps.find(id);
        if (it == apps.end()) return std::nullopt;
        return it->second;
    }
};

class FakePasteboard : public Pasteboard, public FailureSwitch {
public:
    std::optional<std::string> string() const override {
        failIfAsked();
        return text;
    }
    void setString(const std::string& value) override {
        failIfAsked();
        text = value;
    }
    std::optional<std::string> text;
};

class FakeBundleInfo : public BundleInfo, public FailureSwitch {
public:
    std::optional<std::string> infoDictionaryString(const std::string& id, const std::string& key) const override {
        failIfAsked();
        auto it = values.find(id + "/" + key);
        if (it == values.end()) return std::nullopt;
        return it->second;
    }
    std::map<std::string, std::string> values;  // "<bundle id>/<key>" -> value
};

// Event-system clients whose events the test delivers by hand: deliver() calls the callback of
// the client registered now, if any. Counts the clients made and unregistered.
class FakeHidEventClients : public HidEventClientFactory {
public:
    class Client : public HidEventClient {
    public:
        explicit Client(FakeHidEventClients& owner) : owner_(owner) {}
        void registerEventCallback(EventCallback callback) override { owner_.callback = std::move(callback); }
        void unregisterEventCallback() override {
            owner_.callback = nullptr;
            ++owner_.unregistered;
        }

    private:
        FakeHidEventClients& owner_;
    };
    std::shared_ptr<HidEventClient> createClient() override {
        ++made;
        return std::make_shared<Client>(*this);
    }
    void deliver(const hid::HidEvent& event) {
        if (callback) callback(event);
    }

    HidEventClient::EventCallback callback;
    int made = 0, unregistered = 0;
};

// Device facts a test sets field by field; the defaults are those of a 375 x 667 phone at scale 2
// on system 9.3.
class FakeDeviceInfo : public DeviceInfo, public FailureSwitch {
public:
    std::string mainBundleIdentifier() const override { return (failIfAsked(), bundleId); }
    std::string systemVersion() const override { return (failIfAsked(), version); }
    double coreFoundationVersionNumber() const override { return (failIfAsked(), cfVersion); }
    double screenWidthPoints() const override { return (failIfAsked(), width); }
    double screenHeightPoints() const override { return (failIfAsked(), height); }
    double screenScale() const override { return (failIfAsked(), scale); }
    int orientation() const override { return (failIfAsked(), orientationValue); }
    std::string serialNumber() const override { return (failIfAsked(), serial); }
    std::vector<std::string> preferredLanguages() const override { return (failIfAsked(), languages); }

    std::string bundleId = "com.apple.springboard";
    std::string version = "9.3";
    double cfVersion = 1242.13;
    double width = 375, height = 667, scale = 2;
    int orientationValue = 1;
    std::string serial = "TW0000000001";
    std::vector<std::string> languages{"en"};
};

// One double of each service the system functions use; install() puts them into `platform`.
struct FakeServices {
    std::shared_ptr<FakeAudioService> audio = std::make_shared<FakeAudioService>();
    std::shared_ptr<FakeAppService> apps = std::make_shared<FakeAppService>();
    std::shared_ptr<FakePasteboard> pasteboard = std::make_shared<FakePasteboard>();
    std::shared_ptr<FakeBundleInfo> bundles = std::make_shared<FakeBundleInfo>();
    std::shared_ptr<FakeDeviceInfo> device = std::make_shared<FakeDeviceInfo>();
    void install(Platform& platform, bool failing = false) {
        audio->failing = apps->failing = pasteboard->failing = bundles->failing = device->failing = failing;
        std::tie(platform.audio, platform.apps, platform.pasteboard, platform.bundles, platform.device) =
            std::tie(audio, apps, pasteboard, bundles, device);
    }
};

// Records every sleep; a hook may act on it (from the sleeping thread). Nothing really sleeps.
class FakeSleeper : public Sleeper {
public:
    void sleepMicroseconds(uint64_t microseconds) override {
        std::unique_lock lock(mutex_);
        sleeps_.push_back(microseconds);
        auto hook = hook_;
        lock.unlock();
        if (hook) hook(microseconds);
    }
    std::vector<uint64_t> sleeps() const {
        std::lock_guard lock(mutex_);
        return sleeps_;
    }
    void setHook(std::function<void(uint64_t)> hook) {
        std::lock_guard lock(mutex_);
        hook_ = std::move(hook);
    }

private:
    mutable std::mutex mutex_;
    std::vector<uint64_t> sleeps_;
    std::function<void(uint64_t)> hook_;
};

// The headless interface with a hook that runs (on the main run loop) as each dialog is shown,
// before the queued answer is given: a test acts there while the script waits for the user.
class ScriptedUserInterface : public HeadlessUserInterface {
public:
    DialogResponse showDialog(const DialogRequest& request) override {
        if (onDialog) onDialog(request);
        return HeadlessUserInterface::showDialog(request);
    }
    std::function<void(const DialogRequest&)> onDialog;
};

}  // namespace tw::test
