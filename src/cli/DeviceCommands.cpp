// tapwright role, tapwright device and tapwright events: the virtual device's processes.
#include <signal.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <iostream>

#include "cli/Commands.h"
#include "cli/DeviceAccess.h"
#include "core/Paths.h"
#include "device/HidHubClient.h"
#include "device/RoleProcess.h"
#include "device/Supervisor.h"
#include "platform/linux/LinuxPlatform.h"
#include "roles/RoleSelection.h"

namespace fs = std::filesystem;

namespace tw::cli {

namespace {

struct DeviceOptions {
    std::string profile = "default";
    std::string trace;
    std::string screen;
};

void addDeviceOptions(CLI::App* sub, CommonOptions& common, DeviceOptions& options) {
    sub->add_option("--root", common.root, "Device root folder (default: $XDG_DATA_HOME/tapwright/devices/default)");
    sub->add_option("--profile", options.profile, "Device profile: a name in resources/devices or a JSON file")
        ->capture_default_str();
}

volatile sig_atomic_t stopRequested = 0;
void onStopSignal(int) { stopRequested = 1; }

int runDevice(const CommonOptions& common, const DeviceOptions& options) {
    const std::string root = deviceRoot(common);
    const auto profile = linuxp::loadDeviceProfile(linuxp::profilePath(options.profile));
    std::optional<device::Picture> picture;
    if (!options.screen.empty()) picture = device::loadPicture(options.screen);
    if (deviceRunning(root)) {
        std::fprintf(stderr, "tapwright: a device already runs on %s\n", root.c_str());
        return 1;
    }
    // Markers of keyboards from an earlier run that did not end cleanly.
    std::error_code ec;
    fs::remove_all(device::runDir(root) + "/notify", ec);

    std::vector<std::string> commonArgs = {"--root", root, "--profile", linuxp::profilePath(options.profile)};
    device::Supervisor supervisor(device::selfExecutable(), commonArgs);
    std::vector<std::string> inputArgs;
    if (!options.trace.empty()) {
        startTraceFile(options.trace);
        inputArgs = {"--trace", fs::absolute(options.trace).string()};
    }
    supervisor.addRole(kInputEventBundleId, inputArgs);
    const std::string app = deviceAppBundleId(profile);
    if (!app.empty()) supervisor.addRole(app);
    supervisor.addRole(kHomeScreenBundleId);

    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);

    if (!supervisor.startAll()) return 1;
    const bool ready = waitForDevice(root, profile, app, std::chrono::seconds(10));
    if (ready && picture) showPicture(root, *picture);
    if (ready)
        std::fprintf(stderr, "tapwright: device '%s' ready on %s (Ctrl-C to shut it down)\n", profile.name.c_str(),
                     root.c_str());
    else
        std::fprintf(stderr, "tapwright: the device on %s did not come up in 10 s\n", root.c_str());

    while (!stopRequested) {
        supervisor.reap(true);
        struct timespec pause {0, 50 * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
    std::fprintf(stderr, "tapwright: shutting the device down\n");
    supervisor.stopAll();
    fs::remove_all(device::runDir(root) + "/notify", ec);
    return 0;
}

int runEvents(const CommonOptions& common) {
    const std::string root = deviceRoot(common);
    std::string error;
    auto client = device::HidHubClient::connect(device::runDir(root), &error);
    if (!client || !client->subscribe()) {
        std::fprintf(stderr, "tapwright: no device runs on %s%s%s\n", root.c_str(), error.empty() ? "" : ": ",
                     error.c_str());
        return 1;
    }
    signal(SIGINT, onStopSignal);
    signal(SIGTERM, onStopSignal);
    while (!stopRequested) {
        auto line = client->readLine(200);
        if (line) {
            std::fwrite(line->data(), 1, line->size(), stdout);
            std::fputc('\n', stdout);
            std::fflush(stdout);
        } else if (client->closed()) {
            std::fprintf(stderr, "tapwright: the device went away\n");
            return 1;
        }
    }
    return 0;
}

}  // namespace

Command addRoleCommand(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<DeviceOptions>();
    auto bundle = std::make_shared<std::string>();
    auto* sub = app.add_subcommand("role", "Run one process of the virtual device in the role of a bundle id");
    sub->footer(
        "com.apple.backboardd: the input-event role (HID system, hardware input, event trace, injector port).\n"
        "com.apple.springboard: the home-screen role. Any app id of the profile: that app with its text field.\n"
        "Runs until SIGINT or SIGTERM. Normally started by `tapwright device` or `tapwright play`.");
    sub->add_option("bundle", *bundle, "Bundle identifier of the role")->required();
    addDeviceOptions(sub, common, *options);
    sub->add_option("--trace", options->trace, "Append the event trace (JSON Lines) to FILE (input-event role)");
    return {sub, [&common, options, bundle] {
                device::RoleOptions role;
                role.root = deviceRoot(common);
                role.bundleId = *bundle;
                role.profile = linuxp::loadDeviceProfile(linuxp::profilePath(options->profile));
                if (!options->trace.empty()) role.traceFile = options->trace;
                return device::runRole(role);
            }};
}

Command addDeviceCommand(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<DeviceOptions>();
    auto* sub = app.add_subcommand("device", "Run the virtual device: the input-event, app and home-screen roles");
    sub->footer(
        "Starts one process per role, restarts a role that crashes (a role ended on purpose, such as an app\n"
        "killed by a script, stays down), and shuts all of them down, with the apps scripts launched, on\n"
        "Ctrl-C/SIGTERM.\n"
        "`tapwright play` on the same root uses the running device.");
    addDeviceOptions(sub, common, *options);
    sub->add_option("--trace", options->trace, "Write the event trace (JSON Lines) to FILE, emptied first");
    sub->add_option("--screen", options->screen, "Show this picture (BMP or PNG) on the display")->check(CLI::ExistingFile);
    return {sub, [&common, options] { return runDevice(common, *options); }};
}

Command addEventsCommand(CLI::App& app, CommonOptions& common) {
    auto* sub = app.add_subcommand("events", "Print the events dispatched on a running device, one JSON line each");
    sub->add_option("--root", common.root, "Device root folder (default: $XDG_DATA_HOME/tapwright/devices/default)");
    return {sub, [&common] { return runEvents(common); }};
}

}  // namespace tw::cli
