#include "roles/DeviceRunner.h"

#include <csignal>
#include <ctime>
#include <filesystem>
#include <optional>

#include "core/Diagnostics.h"
#include "platform/linux/LinuxPlatform.h"
#include "roles/DeviceAccess.h"
#include "roles/ProcessWiring.h"
#include "roles/RoleSelection.h"
#include "roles/Supervisor.h"

namespace fs = std::filesystem;

namespace tw::roles {

namespace {

volatile sig_atomic_t stopRequested = 0;
void onStopSignal(int) { stopRequested = 1; }

// Markers of keyboards from an earlier run that did not end cleanly.
void forgetKeyboards(const std::string& root) {
    std::error_code ec;
    fs::remove_all(runDirOf(root) + "/notify", ec);
}

}  // namespace

int runDevice(const DeviceRunOptions& options) {
    const auto profile = loadProfile(options.profile);
    std::optional<device::Picture> picture;
    if (!options.screen.empty()) picture = loadPictureFile(options.screen);
    if (deviceRunning(options.root)) fail("a device already runs on " + options.root);
    forgetKeyboards(options.root);
    removeLeftovers(options.root);
    recordDeviceProfile(options.root, profile);

    Supervisor supervisor(linuxp::selfExecutable(),
                          {"--root", options.root, "--profile", linuxp::profilePath(options.profile)});
    std::vector<std::string> inputArgs;
    if (!options.trace.empty()) {
        startTraceFile(options.trace);
        inputArgs = {"--trace", fs::absolute(options.trace).string()};
    }
    supervisor.addRole(kInputEventBundleId, inputArgs);
    const std::string app = deviceAppBundleId(profile);
    if (!app.empty()) supervisor.addRole(app);
    supervisor.addRole(kHomeScreenBundleId, {"--web-port", std::to_string(options.webPort), "--dav-port",
                                             std::to_string(options.davPort)});

    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);

    if (!supervisor.startAll()) fail("cannot start the roles of the device on " + options.root);
    const bool ready = waitForDevice(options.root, profile, app, std::chrono::seconds(10), true);
    if (ready && picture) showPicture(options.root, *picture);
    if (ready)
        diagnostic("device '%s' ready on %s (Ctrl-C to shut it down)", profile.name.c_str(), options.root.c_str());
    else
        diagnostic("the device on %s did not come up in 10 s", options.root.c_str());

    while (!stopRequested) {
        supervisor.reap(true);
        struct timespec pause {0, 50 * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
    diagnostic("shutting the device down");
    supervisor.stopAll();
    forgetKeyboards(options.root);
    return 0;
}

}  // namespace tw::roles
