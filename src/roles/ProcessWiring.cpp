#include "roles/ProcessWiring.h"

#include <filesystem>

#include "api/Registry.h"
#include "core/AtomicFile.h"
#include "core/Diagnostics.h"
#include "core/Paths.h"
#include "core/Settings.h"
#include "device/DeviceActivator.h"
#include "device/DeviceApps.h"
#include "device/DeviceBundles.h"
#include "device/DevicePasteboard.h"
#include "device/DeviceSpeaker.h"
#include "device/DeviceUserInterface.h"
#include "device/HidHubClient.h"
#include "device/HubEventClient.h"
#include "device/VirtualDisplay.h"
#include "platform/Platform.h"
#include "platform/linux/LinuxNetwork.h"
#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/PlistUserDefaults.h"
#include "platform/linux/UnixMessagePorts.h"
#include "play/LuaBridge.h"
#include "roles/RoleSelection.h"
#include "library/FileManager.h"
#include "schedule/TimerManager.h"

namespace fs = std::filesystem;

namespace tw::roles {

void installAppResources(const std::string& root) {
    const fs::path from = fs::path(linuxp::resourcesDir()) / "Tapwright.app";
    const fs::path to = fs::path(root + kAppPath);
    std::error_code ec;
    if (!fs::is_directory(from, ec)) fail("resources not found at " + from.string() + " (set TAPWRIGHT_RESOURCES)");
    for (auto it = fs::recursive_directory_iterator(from, ec); !ec && it != fs::recursive_directory_iterator();
         it.increment(ec)) {
        const fs::path target = to / fs::relative(it->path(), from, ec);
        if (it->is_directory(ec)) {
            fs::create_directories(target, ec);
            continue;
        }
        if (!it->is_regular_file(ec)) continue;
        std::error_code missing;
        if (fs::exists(target, missing) && fs::last_write_time(target, missing) >= it->last_write_time(ec)) continue;
        fs::create_directories(target.parent_path(), ec);
        const auto bytes = readWholeFile(it->path().string());
        std::string error;
        if (!bytes) fail("cannot read " + it->path().string());
        if (!writeFileAtomically(target.string(), *bytes, &error)) fail("cannot install the app folder: " + error);
    }
    if (ec) fail("cannot read " + from.string() + ": " + ec.message());
}

linuxp::DeviceProfile loadProfile(const std::string& nameOrPath) {
    try {
        return linuxp::loadDeviceProfile(linuxp::profilePath(nameOrPath));
    } catch (const std::runtime_error& e) {
        fail(e.what());
    }
}

std::shared_ptr<linuxp::AsioRunLoop> installProcess(const ProcessSetup& setup) {
    Paths::setRoot(setup.root);
    auto loop = std::make_shared<linuxp::AsioRunLoop>();
    RunLoop::setMain(loop);

    Platform platform;
    platform.ports = std::make_shared<linuxp::UnixMessagePortService>(Paths::resolve(std::string(kRunPath) + "/ports"));
    platform.standardDefaults =
        std::make_shared<linuxp::PlistUserDefaults>(Paths::preferencesFile(settings::kHomeScreenDomain));
    platform.device = std::make_shared<linuxp::ProfileDeviceInfo>(setup.profile, setup.bundleId);
    platform.display = std::make_shared<device::VirtualDisplay>(Paths::runDir());
    // What the engine shows goes to the role's own interface; toasts and sounds also go into the
    // device's event trace, as the device's screen and speaker.
    auto publisher = std::make_shared<device::HubTracePublisher>(Paths::runDir());
    if (setup.ui)
        platform.ui = std::make_shared<device::DeviceUserInterface>(
            setup.ui, [publisher](const std::string& line) { publisher->publish(line); });
    auto speaker = std::make_shared<device::DeviceSpeaker>(
        [publisher](const std::string& line) { publisher->publish(line); }, setup.sounds);
    platform.sounds = speaker;
    platform.audio = speaker;
    platform.apps = std::make_shared<device::DeviceApps>(
        Paths::root(), setup.profile, linuxp::selfExecutable(),
        [publisher](const std::string& line) { publisher->publish(line); });
    platform.pasteboard = std::make_shared<device::DevicePasteboard>(Paths::root());
    platform.bundles = std::make_shared<device::DeviceBundleInfo>(Paths::root());
    if (setup.bundleId == kHomeScreenBundleId) {
        // The home screen (a device's or a play's) installs the profile's app bundles and plays scripts.
        std::string bundleError;
        if (!device::writeAppBundles(Paths::root(), setup.profile, &bundleError)) diagnostic("%s", bundleError.c_str());
        LuaBridge::setFunctionRegistrar(registerFunctions);
        platform.hidClients = std::make_shared<device::HubEventClients>(loop, Paths::runDir());
        platform.activator = std::make_shared<device::DeviceActivator>(
            Paths::root(), [apps = platform.apps] { return apps->frontmostApplication().value_or(""); });
        FileManager::setTimersReader(TimerManager::archivedScriptPaths);
        platform.network = std::make_shared<linuxp::LinuxNetwork>();
    }
    Platform::install(std::move(platform));
    return loop;
}

}  // namespace tw::roles
