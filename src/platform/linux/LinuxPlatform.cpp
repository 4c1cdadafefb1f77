#include "platform/linux/LinuxPlatform.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "core/Paths.h"
#include "core/Settings.h"
#include "device/DeviceApps.h"
#include "device/DeviceBundles.h"
#include "device/DevicePasteboard.h"
#include "device/DeviceSpeaker.h"
#include "device/Supervisor.h"
#include "device/VirtualDisplay.h"
#include "platform/linux/PlistUserDefaults.h"
#include "platform/linux/UnixMessagePorts.h"
#include "roles/RoleSelection.h"

namespace fs = std::filesystem;

namespace tw::linuxp {

std::string defaultDeviceRoot() {
    std::string base;
    if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg)
        base = xdg;
    else if (const char* home = std::getenv("HOME"); home && *home)
        base = std::string(home) + "/.local/share";
    else
        base = "/tmp";
    return base + "/tapwright/devices/default";
}

std::string resourcesDir() {
    if (const char* env = std::getenv("TAPWRIGHT_RESOURCES"); env && *env) return env;
    return TW_SOURCE_RESOURCES;
}

std::string profilePath(const std::string& nameOrPath) {
    std::error_code ec;
    if (nameOrPath.find('/') != std::string::npos || fs::is_regular_file(nameOrPath, ec)) return nameOrPath;
    return resourcesDir() + "/devices/" + nameOrPath + ".json";
}

bool installAppResources(const std::string& root, std::string* error) {
    const fs::path from = fs::path(resourcesDir()) / "Tapwright.app";
    const fs::path to = fs::path(root + kAppPath);
    std::error_code ec;
    if (!fs::is_directory(from, ec)) {
        if (error) *error = "resources not found at " + from.string() + " (set TAPWRIGHT_RESOURCES)";
        return false;
    }
    for (auto it = fs::recursive_directory_iterator(from, ec); !ec && it != fs::recursive_directory_iterator();
         it.increment(ec)) {
        const fs::path target = to / fs::relative(it->path(), from, ec);
        if (it->is_directory(ec)) {
            fs::create_directories(target, ec);
            continue;
        }
        if (!it->is_regular_file(ec)) continue;
        std::error_code missing;
        const bool present = fs::exists(target, missing);
        if (present && fs::last_write_time(target, missing) >= it->last_write_time(ec)) continue;
        fs::create_directories(target.parent_path(), ec);
        // Copy beside the target, then rename over it, so a reader never sees half a file.
        const fs::path temp = target.string() + ".installing";
        fs::copy_file(it->path(), temp, fs::copy_options::overwrite_existing, ec);
        if (!ec) fs::rename(temp, target, ec);
        if (ec) {
            if (error) *error = "cannot install " + target.string() + ": " + ec.message();
            return false;
        }
    }
    if (ec) {
        if (error) *error = "cannot read " + from.string() + ": " + ec.message();
        return false;
    }
    return true;
}

std::shared_ptr<AsioRunLoop> installProcess(const ProcessSetup& setup) {
    Paths::setRoot(setup.root);
    auto loop = std::make_shared<AsioRunLoop>();
    RunLoop::setMain(loop);

    Platform platform;
    platform.ports = std::make_shared<UnixMessagePortService>(Paths::resolve(std::string(kRunPath) + "/ports"));
    platform.standardDefaults = std::make_shared<PlistUserDefaults>(Paths::preferencesFile(settings::kHomeScreenDomain));
    platform.device = std::make_shared<ProfileDeviceInfo>(setup.profile, setup.bundleId);
    platform.display = std::make_shared<device::VirtualDisplay>(Paths::runDir());
    platform.ui = setup.ui;
    // The device's speaker traces what it plays and passes system sounds on to the role's own.
    auto publisher = std::make_shared<device::HubTracePublisher>(Paths::runDir());
    auto speaker = std::make_shared<device::DeviceSpeaker>(
        [publisher](const std::string& line) { publisher->publish(line); }, setup.sounds);
    platform.sounds = speaker;
    platform.audio = speaker;
    platform.apps = std::make_shared<device::DeviceApps>(Paths::root(), setup.profile, device::selfExecutable());
    platform.pasteboard = std::make_shared<device::DevicePasteboard>(Paths::root());
    platform.bundles = std::make_shared<device::DeviceBundleInfo>(Paths::root());
    // The home screen (a device's or a play's) installs the profile's app bundles.
    std::string bundleError;
    if (setup.bundleId == kHomeScreenBundleId && !device::writeAppBundles(Paths::root(), setup.profile, &bundleError))
        std::fprintf(stderr, "tapwright: %s\n", bundleError.c_str());
    Platform::install(std::move(platform));
    return loop;
}

}  // namespace tw::linuxp
