#pragma once
// What several fuzz targets share: a scratch folder, files written from inputs, and the input-event
// role's injector on an unstarted virtual HID system with doubles of the device and notifications.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "core/Paths.h"
#include "device/VirtualHidSystem.h"
#include "injection/HidInjector.h"
#include "platform/DeviceInfo.h"
#include "platform/NotificationCenter.h"
#include "platform/linux/AsioRunLoop.h"

namespace tw::fuzz {

// A folder of this process's own, emptied on request and removed at exit.
class Scratch {
public:
    static const std::string& dir() {
        static Scratch scratch;
        return scratch.dir_;
    }
    // Removes everything in the folder.
    static void clear() {
        std::error_code ignored;
        for (const auto& entry : std::filesystem::directory_iterator(dir(), ignored))
            std::filesystem::remove_all(entry.path(), ignored);
    }

private:
    Scratch() {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/tw-fuzz-XXXXXX";
        std::vector<char> name(pattern.begin(), pattern.end());
        name.push_back('\0');
        if (!mkdtemp(name.data())) std::abort();
        dir_ = name.data();
    }
    ~Scratch() {
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }
    std::string dir_;
};

// Puts the device root in the scratch folder for a scope, so nothing a target does (the error log,
// fixed paths) reaches the real one.
class RootInScratch {
public:
    RootInScratch() : previous_(Paths::root()) { Paths::setRoot(Scratch::dir()); }
    ~RootInScratch() { Paths::setRoot(previous_); }
    RootInScratch(const RootInScratch&) = delete;
    RootInScratch& operator=(const RootInScratch&) = delete;

private:
    std::string previous_;
};

inline void writeFile(const std::string& path, const uint8_t* data, size_t size) {
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
    std::ofstream(path, std::ios::binary | std::ios::trunc).write(reinterpret_cast<const char*>(data),
                                                                   static_cast<std::streamsize>(size));
}

inline std::string_view textOf(const uint8_t* data, size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// A device with a 320 x 568 point screen at scale 2, system 9.3.
class FuzzDevice : public DeviceInfo {
public:
    std::string mainBundleIdentifier() const override { return "com.apple.backboardd"; }
    std::string systemVersion() const override { return "9.3"; }
    double coreFoundationVersionNumber() const override { return 1242.13; }
    double screenWidthPoints() const override { return 320; }
    double screenHeightPoints() const override { return 568; }
    double screenScale() const override { return 2; }
    int orientation() const override { return 1; }
    std::string serialNumber() const override { return "FUZZ"; }
    std::vector<std::string> preferredLanguages() const override { return {"en"}; }
};

// Keeps what is posted; observers are taken and never called.
class PostedNotifications : public DistributedNotificationCenter {
public:
    uint64_t addObserver(const std::string&, Observer, RunLoop&) override { return ++lastId; }
    void removeObserver(uint64_t) override {}
    void postNotification(const std::string& name, const NotificationUserInfo& userInfo) override {
        posted.push_back({name, userInfo});
    }
    std::vector<std::pair<std::string, NotificationUserInfo>> posted;
    uint64_t lastId = 0;
};

// The injector of the input-event role, as its port callback sees it, dispatching into the
// virtual HID system (unstarted: no sockets) whose trace lines are counted.
struct InjectorRig {
    InjectorRig()
        : loop(std::make_shared<linuxp::AsioRunLoop>()),
          system(*loop, Scratch::dir() + "/run", device::ScreenPixels{640, 1136}, std::nullopt),
          injector(system, device, &notifications) {
        system.setConnectionDispatchObserver(
            [this](uint32_t type, const hid::HidEvent& event) { injector.onConnectionDispatch(type, event); });
        system.addListener([this](const std::string& line, const hid::HidEvent*) {
            ++traceLines;
            lastTraceLine = line;
        });
    }

    RootInScratch root;
    std::shared_ptr<linuxp::AsioRunLoop> loop;
    FuzzDevice device;
    PostedNotifications notifications;
    device::VirtualHidSystem system;
    HidInjector injector;
    size_t traceLines = 0;
    std::string lastTraceLine;
};

}  // namespace tw::fuzz
