#pragma once
// Starts the role processes of a device, restarts the ones that die, and stops them all.
#include <sys/types.h>

#include <chrono>
#include <deque>
#include <string>
#include <vector>

namespace tw::roles {

class Supervisor {
public:
    // Each role runs as `executable role BUNDLE_ID <commonArgs...>`. When the common arguments name
    // a device root (`--root ROOT`), stopAll() also ends the app roles launched on that root outside
    // the supervisor (their pid files are in ROOT/run/apps, see DeviceApps.h).
    Supervisor(std::string executable, std::vector<std::string> commonArgs);
    ~Supervisor();

    void addRole(const std::string& bundleId, std::vector<std::string> extraArgs = {});
    // Starts every role that is not running; returns false when one could not be started.
    bool startAll();
    // Collects roles that exited. With `restart`, starts again the ones that died abnormally: killed
    // by a signal other than SIGTERM or SIGINT, or exited with a non-zero status. A role that
    // exited with status 0 or was ended by SIGTERM/SIGINT was ended on purpose (an app killed by a
    // script, say) and stays down. A role that died five times within ten seconds is given up.
    // Both are reported on stderr. Returns the bundle ids that exited.
    std::vector<std::string> reap(bool restart);
    // SIGTERM to every role, then SIGKILL to those still running after `grace`; then the same to
    // the app roles launched on the device root outside the supervisor.
    void stopAll(std::chrono::milliseconds grace = std::chrono::milliseconds(3000));

    pid_t pidOf(const std::string& bundleId) const;
    bool allRunning() const;

private:
    struct Role {
        std::string bundleId;
        std::vector<std::string> extraArgs;
        pid_t pid = -1;
        bool givenUp = false;
        std::deque<std::chrono::steady_clock::time_point> deaths;
    };
    bool start(Role& role);

    std::string executable_;
    std::vector<std::string> commonArgs_;
    std::string root_;  // "" when the common arguments name none
    std::vector<Role> roles_;
};

}  // namespace tw::roles
