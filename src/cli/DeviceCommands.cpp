// tapwright role, tapwright device and tapwright events: the virtual device's processes.
#include <csignal>
#include <cstdio>

#include "cli/Commands.h"
#include "roles/DeviceAccess.h"
#include "roles/DeviceRunner.h"
#include "roles/ProcessWiring.h"
#include "roles/RoleProcess.h"

namespace tw::cli {

namespace {

void addDeviceOptions(CLI::App* sub, CommonOptions& common, roles::DeviceRunOptions& options) {
    sub->add_option("--root", common.root, "Device root folder (default: $XDG_DATA_HOME/tapwright/devices/default)");
    sub->add_option("--profile", options.profile, "Device profile: a name in resources/devices or a JSON file")
        ->capture_default_str();
}

// The home screen's servers listen on loopback; `tapwright web|dav start` starts them.
void addServerPortOptions(CLI::App* sub, roles::DeviceRunOptions& options) {
    sub->add_option("--web-port", options.webPort, "Port of the web server (0: a free port)")->capture_default_str();
    sub->add_option("--dav-port", options.davPort, "Port of the WebDAV server (0: a free port)")->capture_default_str();
}

volatile sig_atomic_t stopRequested = 0;
void onStopSignal(int) { stopRequested = 1; }

}  // namespace

Command addRoleCommand(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<roles::DeviceRunOptions>();
    auto bundle = std::make_shared<std::string>();
    auto* sub = app.add_subcommand("role", "Run one process of the virtual device in the role of a bundle id");
    sub->footer(
        "com.apple.backboardd: the input-event role (HID system, hardware input, event trace, injector port).\n"
        "com.apple.springboard: the home-screen role. Any app id of the profile: that app with its text field.\n"
        "Runs until SIGINT or SIGTERM. Normally started by `tapwright device` or `tapwright play`.");
    sub->add_option("bundle", *bundle, "Bundle identifier of the role")->required();
    addDeviceOptions(sub, common, *options);
    sub->add_option("--trace", options->trace, "Append the event trace (JSON Lines) to FILE (input-event role)");
    addServerPortOptions(sub, *options);
    return {sub, [&common, options, bundle] {
                roles::RoleOptions role;
                role.root = deviceRoot(common);
                role.bundleId = *bundle;
                role.profile = roles::loadProfile(options->profile);
                if (!options->trace.empty()) role.traceFile = options->trace;
                role.webPort = options->webPort;
                role.davPort = options->davPort;
                return roles::runRole(role);
            }};
}

Command addDeviceCommand(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<roles::DeviceRunOptions>();
    auto* sub = app.add_subcommand("device", "Run the virtual device: the input-event, app and home-screen roles");
    sub->footer(
        "Starts one process per role, restarts a role that crashes (a role ended on purpose, such as an app\n"
        "killed by a script, stays down), and shuts all of them down, with the apps scripts launched, on\n"
        "Ctrl-C/SIGTERM.\n"
        "`tapwright play` on the same root uses the running device.");
    addDeviceOptions(sub, common, *options);
    sub->add_option("--trace", options->trace, "Write the event trace (JSON Lines) to FILE, emptied first");
    sub->add_option("--screen", options->screen, "Show this picture (BMP or PNG) on the display")->check(CLI::ExistingFile);
    addServerPortOptions(sub, *options);
    return {sub, [&common, options] {
                options->root = deviceRoot(common);
                return roles::runDevice(*options);
            }};
}

Command addEventsCommand(CLI::App& app, CommonOptions& common) {
    auto* sub = app.add_subcommand("events", "Print the events dispatched on a running device, one JSON line each");
    sub->add_option("--root", common.root, "Device root folder (default: $XDG_DATA_HOME/tapwright/devices/default)");
    return {sub, [&common] {
                const std::string root = deviceRoot(common);
                signal(SIGINT, onStopSignal);
                signal(SIGTERM, onStopSignal);
                roles::followEvents(root, [] { return stopRequested != 0; }, [](const std::string& line) {
                    std::fwrite(line.data(), 1, line.size(), stdout);
                    std::fputc('\n', stdout);
                    std::fflush(stdout);
                });
                return 0;
            }};
}

}  // namespace tw::cli
