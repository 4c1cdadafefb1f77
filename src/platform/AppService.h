#pragma once
// The home screen's applications: launching one, looking one up in the application registry, and
// ending its process.
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tw {

// An application as the registry describes it.
struct ApplicationRecord {
    std::string bundleIdentifier;
    // The process of the running application; 0 when it does not run.
    int pid = 0;
    // The platform's name of the application's activation state; scripts compare against it.
    std::string activationState;
};

// One installed application as the system's installation list records it: its text, number and
// boolean values by key ("CFBundleIdentifier", "CFBundleDisplayName", "CFBundleVersion",
// "ApplicationType", ...).
using AppRecord = std::map<std::string, std::string>;

class AppService {
public:
    virtual ~AppService() = default;
    // Asks the system to launch the application, in front unless `suspended`. False when the
    // request was refused (an unknown application); callers may ignore it.
    virtual bool launchApplication(const std::string& bundleIdentifier, bool suspended) = 0;
    // Registry lookups: systems before 9.0 look applications up by display identifier, later ones
    // by bundle identifier. Null for an application the registry does not know.
    virtual std::optional<ApplicationRecord> applicationWithDisplayIdentifier(const std::string& identifier) = 0;
    virtual std::optional<ApplicationRecord> applicationWithBundleIdentifier(const std::string& identifier) = 0;
    // Sends the process signal `signal` to process `pid`.
    virtual void sendSignal(int pid, int signal) = 0;
    // The installed applications: user applications first, then system applications.
    virtual std::vector<AppRecord> installedApps() = 0;
    // The bundle identifier of the application in front; nullopt on the home screen.
    virtual std::optional<std::string> frontmostApplication() = 0;
    // Brings the application to the front, launching it when it does not run. False for an
    // application the registry does not know or one that cannot start.
    virtual bool activateApplication(const std::string& bundleIdentifier) = 0;
    // Asks the system to open a URL (in the application that handles it).
    virtual void openURL(const std::string& url) = 0;
};

// The process signal that asks a process to end.
inline constexpr int kTerminationSignal = 15;

}  // namespace tw
