#pragma once
// The virtual device's applications: the apps of its profile.
//
// A running app is an app-role process (`tapwright role <bundle id>`). Its pid file
// "<root>/run/apps/<bundle id>.pid" holds "<pid> <start time>\n", the start time being the one
// /proc/<pid>/stat gives, so that a pid the system has handed to another process since does not
// count. The role writes the file when it starts and removes it when it ends; a launch writes it as
// soon as the new process exists. Every process of the device reads the same files, so they all
// see the same states.
//
// Activation state names: "running" while an app-role process of the app is alive, else
// "not running". Identifiers that are not apps of the profile are unknown to the registry.
#include <chrono>
#include <functional>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/AppService.h"
#include "platform/linux/ProfileDeviceInfo.h"

namespace tw::device {

inline constexpr const char* kAppsRunPath = "/run/apps";
inline constexpr const char* kAppStateRunning = "running";
inline constexpr const char* kAppStateNotRunning = "not running";

// "<root>/run/apps".
std::string appsRunDir(const std::string& root);
// The pid file of an app; "" when the identifier cannot be a file name (empty, ".", "..", or holding
// a "/").
std::string appPidFile(const std::string& root, const std::string& bundleId);

// The start time of process `pid` in clock ticks after boot; null when no such process lives (a
// zombie does not count).
std::optional<uint64_t> processStartTime(int pid);

// The pid of the live app-role process of `bundleId` on `root`, 0 when there is none.
int runningAppPid(const std::string& root, const std::string& bundleId);

// Marks this process as the running app `bundleId` for as long as the marker lives: writes the pid
// file, and removes it at the end when it still names this process.
class RunningAppMarker {
public:
    RunningAppMarker(const std::string& root, const std::string& bundleId);
    ~RunningAppMarker();
    RunningAppMarker(const RunningAppMarker&) = delete;
    RunningAppMarker& operator=(const RunningAppMarker&) = delete;

private:
    std::string path_;
};

// Ends every app-role process a pid file on `root` names: SIGTERM, then SIGKILL to those still alive
// after `grace`. Removes the pid files that are left. Returns the bundle ids that were running.
std::vector<std::string> stopRunningApps(const std::string& root,
                                         std::chrono::milliseconds grace = std::chrono::milliseconds(3000));

// The profile as JSON text that linuxp::parseDeviceProfile reads back to the same profile.
std::string deviceProfileJson(const linuxp::DeviceProfile& profile);

class DeviceApps : public AppService {
public:
    // Launching runs `executable role <bundle id> --root <root> --profile <root>/run/apps/profile.json`
    // as a process of its own session (it outlives the launcher), its output appended to
    // "<root>/run/apps/<bundle id>.log". The profile file is written at each launch.
    // `publish` puts a line into the device's event trace ("openURL" lines).
    DeviceApps(std::string root, linuxp::DeviceProfile profile, std::string executable,
               std::function<void(const std::string&)> publish = {});

    // Starts the app unless it runs already (true then) and, unless `suspended`, brings it to the
    // front. False for an unknown app or when the process could not start.
    bool launchApplication(const std::string& bundleIdentifier, bool suspended) override;
    // Both lookups find the profile's apps by bundle identifier: the device's display identifiers
    // are its bundle identifiers.
    std::optional<ApplicationRecord> applicationWithDisplayIdentifier(const std::string& identifier) override;
    std::optional<ApplicationRecord> applicationWithBundleIdentifier(const std::string& identifier) override;
    // kill(2); a pid below 1 (which would name a process group) is ignored.
    void sendSignal(int pid, int signal) override;
    // The profile's apps, all of them user applications.
    std::vector<AppRecord> installedApps() override;
    // The front app is the last one launched in front or activated, while it runs; it is kept in
    // "<root>/run/apps/front" so that every process of the device sees the same one.
    std::optional<std::string> frontmostApplication() override;
    bool activateApplication(const std::string& bundleIdentifier) override;
    // The virtual device opens nothing: the URL goes into the event trace as
    // {"kind":"openURL","time":T,"url":U}.
    void openURL(const std::string& url) override;

private:
    bool isProfileApp(const std::string& bundleId) const;
    std::optional<ApplicationRecord> lookUp(const std::string& bundleId) const;

    // Starts the app's process; the caller holds the launch lock.
    bool spawnApp(const std::string& bundleIdentifier);
    void bringToFront(const std::string& bundleIdentifier);

    std::string root_;
    linuxp::DeviceProfile profile_;
    std::string executable_;
    std::function<void(const std::string&)> publish_;
};

}  // namespace tw::device
